"""The module's images, measures, geometry and detectors against the C++ library."""

import gc
import sys

import numpy as np
import pytest

import kwqimage
from conftest import SAMPLES, digest, reference, sample

CROP_BOX = (10, 10, 200, 150)


@pytest.fixture(scope="module")
def parity():
    paths = [sample(name) for name in SAMPLES]
    return [(path, kwqimage.load_image(path), row) for path, row in reference(paths).items()]


def test_measures_equal_the_cpp_library(parity):
    for path, image, cpp in parity:
        channels = 1 if image.ndim == 2 else image.shape[2]
        got = {
            "focus": kwqimage.calculate_focus(image),
            "focus_score": kwqimage.calculate_focus_score(image, 1, 1, 10),
            "focus_score_2_4_5": kwqimage.calculate_focus_score(image, 2, 4, 5),
            "brightness": kwqimage.calculate_brightness(image),
            "brightness_edge": kwqimage.calculate_brightness(image, channels, 10),
            "brightness_rect": kwqimage.calculate_brightness(image, CROP_BOX),
        }
        assert got == {key: cpp[key] for key in got}, path


def test_conversions_and_geometry_equal_the_cpp_library(parity):
    for path, image, cpp in parity:
        got = {
            "gray": digest(kwqimage.make_gray_scale(image)),
            "gray_halved": digest(kwqimage.make_gray_scale_and_scale(image, 2)),
            "scaled": digest(kwqimage.scale_image(image)),
            "padded": digest(kwqimage.pad_image(kwqimage.make_gray_scale_and_scale(image, 2))),
            "rotated_30": digest(kwqimage.rotated_by_angle(image, 30.0)),
            "rotated_degrees_30": digest(kwqimage.image_rotated_by_degrees(image, 30.0)),
            "crop": digest(kwqimage.crop_image_at_coordinates(image, CROP_BOX, 20.0)),
            "crop_view": digest(kwqimage.crop_image_at_coordinates(image, CROP_BOX, 0.0,
                                                                   (400, 300))),
            "fit_200x100": digest(kwqimage.image_by_scaling_proportionally_to_size(
                image, (200, 100))),
            "fill_200x100": digest(kwqimage.image_by_scaling_proportionally_to_minimum_size(
                image, (200, 100))),
        }
        assert got == {key: cpp[key] for key in got}, path


def test_detectors_equal_the_cpp_library(parity):
    faces = 0
    for path, image, cpp in parity:
        face = kwqimage.get_kwq_face_features_with_accuracy(image, 1)
        assert list(face.face_rect) == cpp["face_rect"], path
        assert face.features_found == cpp["face_features_found"], path
        faces += face.face_rect[2] > 0
        rects = kwqimage.detect_rectangles(image)
        quad = [v for corner in rects[0].corners for v in corner] if rects else None
        assert quad == cpp["rect"], path
        codes = kwqimage.read_codes(image)
        assert (codes[0].text if codes else None) == cpp["code"], path
    assert faces >= 1  # messi5.jpg has faces: the comparison is not only of empty results


def test_two_pi_raster_functions_agree_with_calculate_focus():
    image = kwqimage.load_image(sample("building.jpg"))
    raster = kwqimage.pad_image(kwqimage.make_gray_scale_and_scale(image, 2))
    assert raster.shape == (480, 640)
    scores = kwqimage.image_assess(raster)
    assert scores["focus_score"] == kwqimage.two_pi_focus_assess(raster)
    assert scores["focus_score"] == kwqimage.calculate_focus(image)
    flat = np.full((480, 640), 77, np.uint8)
    assert kwqimage.image_assess(flat) == {
        "center_surround_score": 0, "focus_score": 0, "row_alternation_score": 0}


def test_arrays_are_used_in_place_where_the_layout_allows():
    def address(a):
        return a.__array_interface__["data"][0]

    image = kwqimage.load_image(sample("messi5.jpg"))  # (342, 548, 4)
    packed = np.ascontiguousarray(image)
    crop = packed[20:300, 30:500]  # rows padded, inside the parent's memory
    assert kwqimage._kwqimage._image_address(packed) == address(packed)
    assert kwqimage._kwqimage._image_address(packed, packed_rows=True) == address(packed)
    assert kwqimage._kwqimage._image_address(crop) == address(crop)
    # Measures that address rows as packed get a packed copy of a padded view...
    assert kwqimage._kwqimage._image_address(crop, packed_rows=True) != address(crop)
    # ...and views whose pixels are not adjacent are always copied.
    assert kwqimage._kwqimage._image_address(packed[:, ::2]) != address(packed[:, ::2])
    assert kwqimage._kwqimage._image_address(packed[::-1]) != address(packed[::-1])
    # The last row of a view of the parent's last rows ends before its stride does.
    tail = packed[-5:, 100:200]
    assert kwqimage._kwqimage._image_address(tail) != address(tail)

    before = sys.getrefcount(packed)
    for _ in range(3):
        kwqimage.calculate_focus(packed)
        kwqimage.rotated_by_angle(crop, 5)
    gc.collect()
    assert sys.getrefcount(packed) == before  # every wrapping image let the array go


def test_results_own_their_memory_and_arguments_stay_unchanged():
    for name in ("box.png", "messi5.jpg"):
        image = kwqimage.load_image(sample(name))
        original = image.copy()
        same = kwqimage.convert(image, "gray" if image.ndim == 2 else "bgra")
        assert np.array_equal(same, image) and not np.shares_memory(same, image)
        same[...] = 0  # results are writable and never alias their argument
        for call in (kwqimage.get_kwq_face_features_with_accuracy, kwqimage.detect_rectangles,
                     kwqimage.read_codes, kwqimage.calculate_focus, kwqimage.make_gray_scale):
            call(image)
        kwqimage.detect_rectangles(image, high_accuracy=False)
        assert np.array_equal(image, original), name


def test_strided_views_give_the_results_of_their_packed_copies():
    image = kwqimage.load_image(sample("building.jpg"))
    views = {
        "crop": image[37:437, 51:751],            # padded rows: wrapped or packed per measure
        "every other column": image[:, ::2],      # pixels apart: copied
        "flipped": image[::-1],                   # negative row stride: copied
        "gray channel": image[:, :, 1],           # pixel stride 4 in a gray image: copied
    }
    for name, view in views.items():
        packed = np.ascontiguousarray(view)
        for measure in (kwqimage.calculate_focus, kwqimage.calculate_brightness,
                        kwqimage.calculate_focus_score):
            assert measure(view) == measure(packed), (name, measure.__name__)
        assert digest(kwqimage.rotated_by_angle(view, 10)) == \
            digest(kwqimage.rotated_by_angle(packed, 10)), name
        assert [r.bounds for r in kwqimage.detect_rectangles(view, max_count=3)] == \
            [r.bounds for r in kwqimage.detect_rectangles(packed, max_count=3)], name


def test_layouts_are_taken_from_the_channels_or_named():
    rgb = kwqimage.load_image(sample("pic1.png"), layout="rgb")
    assert rgb.shape == (300, 400, 3)
    bgra = kwqimage.convert(rgb, "bgra")
    assert np.array_equal(bgra[..., 2], rgb[..., 0]) and np.all(bgra[..., 3] == 255)
    rgba = kwqimage.convert(rgb, "rgba")
    # A named layout is the one read: RGBA bytes named as such convert to the same BGRA.
    assert np.array_equal(kwqimage.convert(rgba, "bgra", layout="rgba"), bgra)
    assert not np.array_equal(kwqimage.convert(rgba, "bgra"), bgra)  # read as BGRA they swap
    assert kwqimage.is_gray_scale(rgb[..., 0]) and not kwqimage.is_gray_scale(rgb)
    assert kwqimage.load_image(sample("box.png")).ndim == 2


def test_bad_arrays_raise_clear_errors():
    good = np.zeros((64, 64), np.uint8)
    cases = [
        (np.zeros((64, 64), np.float32), TypeError, "dtype uint8"),
        (np.zeros((64, 64), np.uint16), TypeError, "dtype uint8"),
        ([[0, 1], [2, 3]], TypeError, "NumPy uint8 array"),
        (np.zeros((0, 64), np.uint8), ValueError, "empty"),
        (np.zeros((64, 0, 3), np.uint8), ValueError, "empty"),
        (np.zeros(64, np.uint8), ValueError, "shape"),
        (np.zeros((4, 4, 4, 4), np.uint8), ValueError, "shape"),
        (np.zeros((64, 64, 2), np.uint8), ValueError, "channels"),
    ]
    for array, error, words in cases:
        for call in (kwqimage.calculate_focus, kwqimage.make_gray_scale,
                     kwqimage.get_kwq_face_features_with_accuracy, kwqimage.read_codes):
            with pytest.raises(error, match=words):
                call(array)
    with pytest.raises(ValueError, match="needs 4 channels"):
        kwqimage.calculate_focus(np.zeros((8, 8, 3), np.uint8), layout="bgra")
    with pytest.raises(ValueError, match="unknown layout"):
        kwqimage.calculate_focus(good, layout="yuv")
    with pytest.raises(ValueError, match="unknown code type"):
        kwqimage.read_codes(good, ["ean13"])
    # The assessment raster is addressed at a fixed stride: only the exact layout will do.
    raster = np.zeros((480, 1280), np.uint8)
    with pytest.raises(ValueError, match="C-contiguous"):
        kwqimage.two_pi_focus_assess(raster[:, ::2])
    with pytest.raises(ValueError, match=r"\(480, 640\)"):
        kwqimage.image_assess(np.zeros((480, 641), np.uint8))
    with pytest.raises(TypeError, match="uint8"):
        kwqimage.two_pi_focus_assess(np.zeros((480, 640), np.int8))


def test_bad_files_raise_and_failures_return_none(tmp_path):
    with pytest.raises(FileNotFoundError):
        kwqimage.load_image(str(tmp_path / "missing.jpg"))
    junk = tmp_path / "junk.jpg"
    junk.write_bytes(b"not a picture" * 100)
    with pytest.raises(ValueError, match="cannot decode"):
        kwqimage.load_image(str(junk))
    with pytest.raises(ValueError, match="cannot decode"):
        kwqimage.decode_image(b"\x89PNG\r\n\x1a\n broken")
    tiny = np.zeros((2, 2), np.uint8)
    # Library failures keep their contract: measures 0, image operations None.
    assert kwqimage.rotated_by_angle(tiny, float("nan")) is None
    assert kwqimage.crop_image_at_coordinates(tiny, (5, 5, 10, 10)) is None
    assert kwqimage.calculate_brightness(tiny, (0, 0, 600, 400)) == 0
    assert kwqimage.detect_rectangles(tiny) == [] and kwqimage.read_codes(tiny) == []


def test_png_round_trip_and_decode(tmp_path):
    image = kwqimage.load_image(sample("pic1.png"), layout=None)
    path = str(tmp_path / "copy.png")
    assert kwqimage.write_png(image, path)
    assert np.array_equal(kwqimage.load_image(path, layout=None), image)
    assert np.array_equal(kwqimage.decode_image(kwqimage.png_data(image), layout=None), image)
    assert not kwqimage.write_png(image, str(tmp_path / "no" / "folder.png"))


def test_every_public_name_has_a_type_stub():
    import ast
    import os

    stub = os.path.join(os.path.dirname(kwqimage.__file__), "_kwqimage.pyi")
    tree = ast.parse(open(stub).read())
    stubbed = {n.name for n in tree.body if isinstance(n, (ast.FunctionDef, ast.ClassDef))}
    stubbed |= {n.target.id for n in tree.body if isinstance(n, ast.AnnAssign)}
    public = {n for n in dir(kwqimage._kwqimage) if not n.startswith("_")}
    assert public - stubbed == set()
    for name in public - {"version_number", "CARD_ASPECT_RATIO", "recorder"}:
        assert getattr(kwqimage, name).__doc__, name

"""The capture engine from Python on the synthetic camera (a real GStreamer source)."""

import itertools
import os
import threading

import numpy as np
import pytest

import kwqimage


def inside(point, corners):
    xs = [c[0] for c in corners]
    ys = [c[1] for c in corners]
    return min(xs) <= point[0] <= max(xs) and min(ys) <= point[1] <= max(ys)


def card_truth(frame):
    """The first card the synthetic camera's truth has in view, else None."""
    return next((p for p in frame.truth["props"] if p["kind"] == "card"), None)


def face_truth(frame):
    """The face of the first portrait in view, else None."""
    return next((p["face"] for p in frame.truth["props"] if p["kind"] == "portrait" and p["face"]), None)


def test_card_mode_frames_carry_pixels_truth_and_the_stable_card():
    with kwqimage.Engine() as engine:  # synthetic camera, card mode
        frames = list(itertools.islice(engine, 45))
    assert not engine.running
    indices = [f.index for f in frames]
    assert indices == sorted(indices) and len(set(indices)) == len(indices)
    for f in frames:
        assert f.image.shape == (720, 1280, 3) and f.image.dtype == np.uint8
        assert f.truth["frame_index"] == f.index
        assert f.time == pytest.approx(f.index / 30, abs=1e-6)
        # The delegate hears of a card only with a card: the marker is never zero then.
        assert f.delegate_called == (f.face_rect != [0, 0, 0, 0])
        # Barcode text, where the engine reads one, is the card's.
        card = card_truth(f)
        assert f.barcode in (None, "", card["codes"][0]["text"] if card else None)
    stable = [f for f in frames if f.delegate_called]
    assert stable, "the card never held its shape"
    assert stable[0].index >= frames[0].index + 5  # six frames in a row are needed first
    for f in stable:
        centre_x, centre_y_up = f.card_center
        centre = (centre_x, f.image.shape[0] - centre_y_up)  # the engine's centre has y up
        assert inside(centre, card_truth(f)["corners"]), f
    # Frames show the card: its middle differs from the plain background of frame borders.
    f = stable[-1]
    xs = [int(c[0]) for c in card_truth(f)["corners"]]
    ys = [int(c[1]) for c in card_truth(f)["corners"]]
    card = f.image[max(ys[0], ys[1]):min(ys[2], ys[3]), max(xs[0], xs[3]):min(xs[1], xs[2])]
    assert card.size and kwqimage.detect_rectangles(f.image)


def overlap(a, b):
    x0, y0 = max(a[0], b[0]), max(a[1], b[1])
    x1, y1 = min(a[0] + a[2], b[0] + b[2]), min(a[1] + a[3], b[1] + b[3])
    inter = max(0.0, x1 - x0) * max(0.0, y1 - y0)
    return inter / (a[2] * a[3] + b[2] * b[3] - inter)


def portrait_box(frame):
    """Where the synthetic camera put the portrait's face in this frame, or None."""
    face = face_truth(frame)
    return face["box"] if face else None


def test_face_mode_calls_the_delegate_on_every_frame_and_follows_the_portrait():
    # Frames until 30 carry a face. On a loaded machine the first faces come many frames after
    # the start and recognition trails the frames it is reported with by many more, so each
    # face is judged against the portrait of every frame seen up to it (a count of frames or a
    # fixed lag would measure the machine).
    portraits, matched, faces, seen = [], 0, 0, 0
    with kwqimage.Engine(mode="face") as engine:
        for f in itertools.islice(engine, 1200):
            seen += 1
            assert f.delegate_called and f.image.shape == (720, 1280, 3), f.index
            if portrait_box(f):
                portraits.append(portrait_box(f))
            if f.face_rect != [0, 0, 0, 0]:
                faces += 1
                # In frame pixels where the portrait was (the overlap asked for is loose).
                matched += max((overlap(f.face_rect, box) for box in portraits), default=0) >= 0.3
                if faces == 30:
                    break
    assert faces == 30, (faces, seen)
    assert matched >= 0.8 * faces, (matched, faces)


def test_measures_run_beside_the_engine_without_blocking_it():
    results = []
    with kwqimage.Engine(preset="640x480") as engine:
        first = engine.read()
        stop = threading.Event()

        def score():
            while not stop.is_set():
                results.append(kwqimage.calculate_focus(first.image))

        worker = threading.Thread(target=score)
        worker.start()
        frames = [engine.read() for _ in range(15)]
        stop.set()
        worker.join()
    assert len(frames) == 15 and results
    assert set(results) == {kwqimage.calculate_focus(first.image)}


def test_start_stop_and_bad_arguments():
    engine = kwqimage.Engine(preset="640x480")
    with pytest.raises(RuntimeError, match="not running"):
        engine.read()
    assert list(engine) == []  # a stopped engine ends iteration at once
    engine.start()
    assert engine.read().image.shape == (480, 640, 3)
    engine.stop()
    engine.stop()  # stopping twice does nothing
    engine.start()  # and it starts again
    assert engine.read(timeout=10).index is not None
    engine.stop()
    with pytest.raises(ValueError, match="no camera or video file"):
        kwqimage.Engine(camera="kwq.nowhere")
    with pytest.raises(ValueError, match="unknown mode"):
        kwqimage.Engine(mode="passport")
    with pytest.raises(ValueError, match="unknown preset"):
        kwqimage.Engine(preset="8k")
    with pytest.raises(ValueError, match="queue_size"):
        kwqimage.Engine(queue_size=0)


def test_recording_saves_a_movie_to_the_photo_library(tmp_path):
    kwqimage.ImageDictionary.set_documents_directory(str(tmp_path / "documents"))
    kwqimage.recorder.set_photo_library_directory(str(tmp_path / "pictures"))
    try:
        with kwqimage.Engine(preset="640x480", record=True) as engine:
            assert kwqimage.recorder.is_recording()
            frames = list(itertools.islice(engine, 10))
        assert len(frames) == 10
        assert kwqimage.recorder.wait_for_pending_saves(120.0)
        assert not kwqimage.recorder.is_recording()
        movies = [n for n in os.listdir(tmp_path / "pictures") if n.endswith(".mov")]
        assert len(movies) == 1 and os.path.getsize(tmp_path / "pictures" / movies[0]) > 0
        frame = frames[-1].image
        kwqimage.recorder.save_image_to_camera_roll(frame, "last frame")
        assert kwqimage.recorder.wait_for_pending_saves(60.0)
        pngs = [n for n in os.listdir(tmp_path / "pictures") if n.endswith(".png")]
        assert len(pngs) == 1
        assert np.array_equal(
            kwqimage.load_image(str(tmp_path / "pictures" / pngs[0]), layout="rgb"), frame)
    finally:
        kwqimage.ImageDictionary.set_documents_directory("")
        kwqimage.recorder.set_photo_library_directory("")


def test_codes_names_are_checked():
    for codes in (("pdf417", "ean13"), ("PDF417",), ("",)):
        with pytest.raises(ValueError):
            kwqimage.Engine(codes=codes)
    with kwqimage.Engine(codes=()) as engine:  # no code types: frames still come
        assert next(engine).image.shape == (720, 1280, 3)

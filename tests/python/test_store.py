"""The PNG store from Python."""

import os

import numpy as np
import pytest

import kwqimage
from conftest import sample

Store = kwqimage.ImageDictionary


@pytest.fixture()
def folder(tmp_path):
    Store.set_documents_directory(str(tmp_path))
    yield tmp_path
    Store.set_documents_directory("")


def test_save_load_and_delete_by_name(folder):
    photo = kwqimage.load_image(sample("messi5.jpg"), layout="rgb")
    gray = kwqimage.load_image(sample("box.png"))
    assert Store.documents_directory() == str(folder)
    assert Store.save_image_as_png(photo, "card")
    assert Store.save_image_as_png(gray, "gray")
    assert sorted(os.listdir(folder)) == ["card.png", "gray.png"]
    assert np.array_equal(Store.load_image_with_file_name("card", layout="rgb"), photo)
    assert np.array_equal(Store.load_image_with_file_name("gray"), gray)
    assert Store.load_image_with_file_name("never saved") is None
    (folder / "notes.txt").write_text("keep")
    Store.delete_image_with_file_name("card", "*")  # "*" is literal with a name
    assert os.path.exists(folder / "card.png")
    Store.delete_image_with_file_name("*", "png")
    assert os.listdir(folder) == ["notes.txt"]


def test_bgra_is_stored_with_straight_alpha(folder):
    rgba = np.zeros((20, 30, 4), np.uint8)
    rgba[..., 0], rgba[..., 3] = 200, 128  # half-transparent red
    bgra = kwqimage.convert(rgba, "bgra", layout="rgba")
    assert Store.save_image_as_png(bgra, "half")
    back = Store.load_image_with_file_name("half", layout="rgba")
    assert np.abs(back.astype(int) - rgba).max() <= 1

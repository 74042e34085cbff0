"""The Dask batch runner: a 2-worker local cluster gives the sequential result, file by file."""

import csv
import io
import json
import os
import shutil
import subprocess
import sys

import pytest

from kwqimage import batch
from conftest import DATA, sample

PHOTOS = ["building.jpg", "messi5.jpg", "text_defocus.jpg", "box.png", "pic1.png",
          "opencv-logo.png", "LinuxLogo.jpg", "HappyFish.jpg", "baboon.jpg", "board.jpg"]


@pytest.fixture(scope="module")
def folder(tmp_path_factory):
    root = tmp_path_factory.mktemp("photos")
    for name in PHOTOS:
        shutil.copy(sample(name), root / name)
    (root / "nested").mkdir()
    shutil.copy(sample("fruits.jpg"), root / "nested" / "fruits.jpg")
    (root / "broken.jpg").write_bytes(b"\xff\xd8\xff\xe0 truncated jpeg")
    (root / "empty.png").write_bytes(b"")
    (root / "readme.txt").write_text("not an image")  # not picked up from a folder
    return root


def test_two_workers_give_the_sequential_rows(folder):
    paths = batch.find_images([str(folder), str(folder / "missing.jpg")])
    assert len(paths) == len(PHOTOS) + 4 and not any(p.endswith(".txt") for p in paths)
    sequential = [batch.score_file(p) for p in paths]
    distributed = batch.run(paths, workers=2, chunk_size=3, progress=False)
    assert distributed == sequential
    by_name = {os.path.basename(r["path"]): r for r in distributed}
    for bad in ("broken.jpg", "empty.png"):
        assert by_name[bad]["error"].startswith("ValueError: cannot decode"), by_name[bad]
    assert by_name["missing.jpg"]["error"].startswith("FileNotFoundError")
    good = [r for r in distributed if not r["error"]]
    assert len(good) == len(PHOTOS) + 1
    assert all(0 <= r["focus"] <= 100 and r["width"] > 0 for r in good)
    assert by_name["messi5.jpg"]["face_box"]  # a real face is found
    assert by_name["box.png"]["layout"] == "gray"


def test_command_line_writes_csv_and_json_lines(folder, tmp_path):
    env = dict(os.environ)
    out_csv = tmp_path / "scores.csv"
    files = [str(folder / "messi5.jpg"), str(folder / "broken.jpg")]
    run = subprocess.run([sys.executable, "-m", "kwqimage.batch", *files, "--workers", "1",
                          "--out", str(out_csv)], env=env, capture_output=True, text=True)
    assert run.returncode == 0, run.stderr
    assert "2/2" in run.stderr and "1 with errors" in run.stderr  # progress and summary
    rows = list(csv.DictReader(io.StringIO(out_csv.read_text())))
    assert list(rows[0])[0] == "path" and [r["path"] for r in rows] == files
    assert rows[0]["error"] == "" and rows[1]["error"]
    assert rows[0]["focus"] == str(batch.score_file(files[0])["focus"])

    out_jsonl = tmp_path / "scores.jsonl"
    run = subprocess.run([sys.executable, "-m", "kwqimage.batch", files[0], "--workers", "1",
                          "--quiet", "--out", str(out_jsonl)], env=env, capture_output=True,
                         text=True)
    assert run.returncode == 0 and run.stderr == ""
    assert [json.loads(line) for line in out_jsonl.read_text().splitlines()] == \
        [batch.score_file(files[0])]

    (tmp_path / "nothing").mkdir()
    run = subprocess.run([sys.executable, "-m", "kwqimage.batch", str(tmp_path / "nothing")],
                         env=env, capture_output=True, text=True)
    assert run.returncode == 2 and "no image files found" in run.stderr

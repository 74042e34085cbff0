import json
import os
import subprocess

import numpy as np
import pytest

DATA = os.environ.get("KWQ_SAMPLE_DATA", "/usr/share/doc/opencv-doc/examples/data")
# Gray and colour photographs, a face, a file with alpha, text, and a small picture.
SAMPLES = ["building.jpg", "messi5.jpg", "text_defocus.jpg", "box.png",
           "opencv-logo.png", "pic1.png", "LinuxLogo.jpg"]


def sample(name):
    path = os.path.join(DATA, name)
    if not os.path.exists(path):
        pytest.skip(f"{path} missing (Debian package opencv-doc)")
    return path


def reference(paths):
    """What the C++ library prints for the files, keyed by path."""
    exe = os.environ.get("KWQ_PY_REFERENCE")
    if not exe:
        pytest.skip("KWQ_PY_REFERENCE not set (run through ctest)")
    out = subprocess.run([exe, *paths], check=True, capture_output=True, text=True).stdout
    return {row["path"]: row for row in map(json.loads, out.splitlines())}


def digest(array):
    """The reference program's digest of an image array: its shape and the sum of every byte
    (rows without padding) times a weight that depends on the byte's position."""
    if array is None:
        return "null"
    a = np.ascontiguousarray(array)
    channels = 1 if a.ndim == 2 else a.shape[2]
    flat = a.reshape(-1).astype(np.uint64)
    weights = ((np.arange(1, flat.size + 1, dtype=np.uint64) * np.uint64(2654435761))
               & np.uint64(0xFFFFFFFF))
    with np.errstate(over="ignore"):
        h = int(np.sum(flat * weights, dtype=np.uint64))
    return f"{a.shape[0]}x{a.shape[1]}x{channels}:{h:016x}"

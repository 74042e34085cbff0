"""Python call overhead of kwqimage.calculate_focus on a 1080p BGRA frame against the C++
call, both in this process on the same memory, runs interleaved; medians of per-call times.

    PYTHONPATH=build/python /usr/bin/python3 bench/python_overhead.py [--calls N --rounds R]
"""

import argparse
import os
import statistics
import time

import numpy as np

import kwqimage
from kwqimage import _kwqimage

DATA = "/usr/share/doc/opencv-doc/examples/data"


def frame_1080p():
    photo = kwqimage.load_image(os.path.join(DATA, "building.jpg"))  # BGRA photograph
    frame = kwqimage.image_by_scaling_to_size(photo, (1920, 1080))
    return np.ascontiguousarray(frame)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--calls", type=int, default=20)
    parser.add_argument("--rounds", type=int, default=300)
    args = parser.parse_args()
    frame = frame_1080p()
    assert frame.shape == (1080, 1920, 4)
    cpp, py = [], []
    kwqimage.calculate_focus(frame)
    for _ in range(args.rounds):
        cpp.append(_kwqimage._cpp_calculate_focus_loop(frame, args.calls) / args.calls)
        start = time.perf_counter()
        for _ in range(args.calls):
            kwqimage.calculate_focus(frame)
        py.append((time.perf_counter() - start) / args.calls)
    c, p = statistics.median(cpp), statistics.median(py)
    print(f"1080p BGRA calculate_focus, {args.rounds} rounds x {args.calls} calls")
    print(f"  C++    median {c * 1e6:9.1f} us/call  (min {min(cpp) * 1e6:.1f})")
    print(f"  Python median {p * 1e6:9.1f} us/call  (min {min(py) * 1e6:.1f})")
    print(f"  overhead of medians {100 * (p - c) / c:+.2f} %  ({(p - c) * 1e6:+.1f} us/call)")
    print(f"  overhead of minima  {100 * (min(py) - min(cpp)) / min(cpp):+.2f} %")
    # The call itself, on a measure that does no work: what Python adds to any call.
    tiny = frame[:1, :1]
    start = time.perf_counter()
    for _ in range(20000):
        kwqimage.is_gray_scale(tiny)
    print(f"  bare call (array in, image wrapped, GIL released/taken): "
          f"{(time.perf_counter() - start) / 20000 * 1e6:.2f} us")


if __name__ == "__main__":
    main()

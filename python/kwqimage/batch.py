"""Score many stored images with Dask: ``python3 -m kwqimage.batch DIR|FILES... [options]``.

Each image gets its two-pi focus, focus quality score, brightness, largest face box, card
quadrilateral and code text; a file that cannot be read or scored becomes a row with its
error, never a failed job. Runs on a local cluster of ``--workers`` processes by default, or
on an existing Dask cluster with ``--scheduler tcp://host:8786`` (its workers need the
kwqimage package and must see the same paths).
"""

from __future__ import annotations

import argparse
import csv
import json
import os
import sys
import time
from typing import Any, Dict, Iterable, Iterator, List, Optional, Sequence

#: Columns of a result row, in order. Corners and boxes are "x y" pairs and
#: "x y width height" boxes in pixels, origin top left; empty when nothing was found.
COLUMNS = [
    "path",
    "width",
    "height",
    "layout",
    "focus",
    "focus_score",
    "brightness",
    "face_box",
    "card_quad",
    "code_text",
    "error",
]

#: Extensions looked for when a folder is given.
IMAGE_EXTENSIONS = {".jpg", ".jpeg", ".png", ".bmp", ".tif", ".tiff", ".webp", ".pgm", ".ppm"}


def _numbers(values: Iterable[float]) -> str:
    return " ".join(f"{v:g}" for v in values)


def score_file(path: str) -> Dict[str, Any]:
    """One result row for the image file at `path`; exceptions become the row's error."""
    import kwqimage

    row: Dict[str, Any] = {column: "" for column in COLUMNS}
    row["path"] = path
    try:
        image = kwqimage.load_image(path)  # gray stays gray, colour as BGRA like camera frames
        row["height"], row["width"] = image.shape[0], image.shape[1]
        row["layout"] = "gray" if image.ndim == 2 else "bgra"
        row["focus"] = kwqimage.calculate_focus(image)
        row["focus_score"] = kwqimage.calculate_focus_score(image, 1, 1, 10)
        row["brightness"] = kwqimage.calculate_brightness(image)
        face = kwqimage.get_kwq_face_features_with_accuracy(image, 1)
        if face.face_rect[2] > 0:
            row["face_box"] = _numbers(face.face_rect)
        cards = kwqimage.detect_rectangles(image)
        if cards:
            row["card_quad"] = _numbers(v for corner in cards[0].corners for v in corner)
        codes = kwqimage.read_codes(image)
        if codes:
            row["code_text"] = codes[0].text or ""
    except Exception as error:  # a broken file is a row, never a failed job
        row["error"] = f"{type(error).__name__}: {error}"
    return row


def score_files(paths: Sequence[str]) -> List[Dict[str, Any]]:
    """Rows for a chunk of files, in order (one Dask task scores a chunk)."""
    return [score_file(path) for path in paths]


def _score_chunk(paths: Sequence[str]) -> List[Dict[str, Any]]:
    # On a worker: one process per core, so each image operation keeps to one thread (the
    # library's default spreads a face search over every core).
    from . import _kwqimage

    if _kwqimage.imaging_threads() != 1:
        _kwqimage.set_imaging_threads(1)
    return score_files(paths)


def find_images(inputs: Sequence[str]) -> List[str]:
    """The files named, and the image files under the folders named, sorted within a folder."""
    paths: List[str] = []
    for item in inputs:
        if os.path.isdir(item):
            found = []
            for root, _dirs, files in os.walk(item):
                for name in files:
                    if os.path.splitext(name)[1].lower() in IMAGE_EXTENSIONS:
                        found.append(os.path.join(root, name))
            paths.extend(sorted(found))
        else:
            paths.append(item)  # missing or odd files get a row with their error
    return paths


def _chunks(items: Sequence[str], size: int) -> Iterator[Sequence[str]]:
    for start in range(0, len(items), size):
        yield items[start : start + size]


class _Progress:
    """A progress bar on stderr: redrawn in place on a terminal, every few seconds otherwise."""

    def __init__(self, total: int, stream=sys.stderr, enabled: bool = True):
        self.total, self.done, self.errors = total, 0, 0
        self.stream, self.enabled = stream, enabled
        self.live = enabled and stream.isatty()
        self.start = self.last = time.monotonic()

    def update(self, rows: Sequence[Dict[str, Any]]) -> None:
        self.done += len(rows)
        self.errors += sum(1 for row in rows if row["error"])
        now = time.monotonic()
        if self.live or now - self.last >= 5 or self.done == self.total:
            self._draw(now)
            self.last = now

    def _draw(self, now: float) -> None:
        if not self.enabled:
            return
        width = 30
        filled = width * self.done // max(self.total, 1)
        rate = self.done / max(now - self.start, 1e-9)
        line = (
            f"[{'#' * filled}{'.' * (width - filled)}] {self.done}/{self.total}"
            f"  {rate:.1f} images/s  errors {self.errors}"
        )
        self.stream.write(("\r" + line) if self.live else (line + "\n"))
        if self.live and self.done == self.total:
            self.stream.write("\n")
        self.stream.flush()


#: Environment of worker processes: one thread each inside OpenCV (the face, rectangle and
#: resampling steps would otherwise spread every image over all cores), so that N workers
#: score N images at once instead of fighting over the cores for one at a time. Give the
#: workers of an existing cluster the same (``OPENCV_FOR_THREADS_NUM=1``).
WORKER_ENV = {"OPENCV_FOR_THREADS_NUM": "1", "OMP_NUM_THREADS": "1"}


def local_cluster(workers: int = 0):
    """A local Dask cluster of `workers` single-threaded processes (0: one per core)."""
    from dask.distributed import LocalCluster

    n = workers or os.cpu_count() or 1
    # Processes, not threads: the measures release the GIL, but a process per worker keeps a
    # crash on one file from taking the others with it.
    return LocalCluster(n_workers=n, threads_per_worker=1, processes=True,
                        dashboard_address=None, env=dict(WORKER_ENV))


def run(
    paths: Sequence[str],
    workers: int = 0,
    scheduler: Optional[str] = None,
    chunk_size: int = 0,
    progress: bool = True,
    client: Any = None,
) -> List[Dict[str, Any]]:
    """Scores `paths` on Dask and returns the rows in the order of `paths`.

    workers: processes of the local cluster (0: one per core); ignored with `scheduler`.
    scheduler: address of an existing cluster's scheduler.
    chunk_size: files per task (0: about 16 tasks a worker, so that images of uneven cost
        still leave no worker idle at the end).
    client: a dask.distributed.Client to use (and leave open) instead of either.
    """
    from dask.distributed import Client, as_completed

    paths = list(paths)
    if not paths:
        return []
    cluster = None
    own_client = client is None
    if client is not None:
        pass
    elif scheduler:
        client = Client(scheduler)
    else:
        cluster = local_cluster(workers)
        client = Client(cluster)
    try:
        busy = sum(client.nthreads().values()) or 1
        size = chunk_size or max(1, min(64, len(paths) // (busy * 16) or 1))
        chunks = list(_chunks(paths, size))
        futures = client.map(_score_chunk, chunks, pure=False)
        position = {future.key: i for i, future in enumerate(futures)}
        results: List[Optional[List[Dict[str, Any]]]] = [None] * len(chunks)
        bar = _Progress(len(paths), enabled=progress)
        for future in as_completed(futures):
            i = position[future.key]
            try:
                rows = future.result()
            except Exception as error:  # a worker lost mid-task: its files get the error
                rows = [dict({c: "" for c in COLUMNS}, path=p, error=f"worker failed: {error}")
                        for p in chunks[i]]
            results[i] = rows
            bar.update(rows)
        return [row for rows in results if rows for row in rows]
    finally:
        if own_client:
            client.close()
        if cluster is not None:
            cluster.close()


def write_rows(rows: Sequence[Dict[str, Any]], out, fmt: str) -> None:
    """Writes rows as CSV (header first, `path` the first column) or JSON lines."""
    if fmt == "jsonl":
        for row in rows:
            out.write(json.dumps(row, ensure_ascii=False) + "\n")
    else:
        writer = csv.DictWriter(out, fieldnames=COLUMNS, lineterminator="\n")
        writer.writeheader()
        writer.writerows(rows)


def main(argv: Optional[Sequence[str]] = None) -> int:
    parser = argparse.ArgumentParser(
        prog="python3 -m kwqimage.batch",
        description="Score image files (focus, brightness, face, card, code) with Dask.",
    )
    parser.add_argument("inputs", nargs="+", metavar="DIR|FILE", help="folders and files")
    parser.add_argument("--workers", type=int, default=0,
                        help="local cluster processes (default: one per core)")
    parser.add_argument("--scheduler", metavar="ADDRESS",
                        help="use an existing Dask cluster, e.g. tcp://10.0.0.5:8786")
    parser.add_argument("--out", metavar="FILE", help="output file (default: standard output)")
    parser.add_argument("--format", choices=["csv", "jsonl"],
                        help="csv or jsonl (default: from --out's extension, else csv)")
    parser.add_argument("--chunk-size", type=int, default=0, help="files per task")
    parser.add_argument("--quiet", action="store_true", help="no progress bar")
    args = parser.parse_args(argv)
    if args.workers < 0 or args.chunk_size < 0:
        parser.error("--workers and --chunk-size must not be negative")

    paths = find_images(args.inputs)
    if not paths:
        print("kwqimage.batch: no image files found", file=sys.stderr)
        return 2
    fmt = args.format or ("jsonl" if args.out and args.out.endswith((".jsonl", ".json")) else "csv")
    rows = run(paths, workers=args.workers, scheduler=args.scheduler,
               chunk_size=args.chunk_size, progress=not args.quiet)
    if args.out:
        tmp = args.out + ".part"
        with open(tmp, "w", newline="", encoding="utf-8") as out:
            write_rows(rows, out, fmt)
        os.replace(tmp, args.out)
    else:
        write_rows(rows, sys.stdout, fmt)
    errors = sum(1 for row in rows if row["error"])
    if not args.quiet:
        print(f"kwqimage.batch: {len(rows)} images, {errors} with errors", file=sys.stderr)
    return 0


if __name__ == "__main__":
    sys.exit(main())

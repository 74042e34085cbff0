"""Throughput of the Dask batch runner with 1 and 2 local workers on the same 200 image
files (Debian's opencv-doc photographs, cycled), rounds interleaved. Cluster start-up is left
out: each cluster is started once, warmed up, then timed.

    PYTHONPATH=build/python /usr/bin/python3 bench/batch_throughput.py [--images 200 --rounds 3]
"""

import argparse
import os
import shutil
import statistics
import tempfile
import time

from dask.distributed import Client

from kwqimage import batch

DATA = "/usr/share/doc/opencv-doc/examples/data"


def make_files(folder, count):
    photos = sorted(p for p in batch.find_images([DATA]) if p.endswith(".jpg"))
    paths = []
    for i in range(count):
        source = photos[i % len(photos)]
        path = os.path.join(folder, f"{i:04d}_{os.path.basename(source)}")
        shutil.copy(source, path)
        paths.append(path)
    return paths


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--images", type=int, default=200)
    parser.add_argument("--rounds", type=int, default=3)
    args = parser.parse_args()
    with tempfile.TemporaryDirectory() as folder:
        paths = make_files(folder, args.images)
        clients = {}
        for n in (1, 2):
            cluster = batch.local_cluster(n)
            clients[n] = (cluster, Client(cluster))
            batch.run(paths[: 2 * n], client=clients[n][1], progress=False)  # warm up
        times = {1: [], 2: []}
        cores = {1: [], 2: []}  # worker CPU seconds per wall second: the cores a run obtained
        for _ in range(args.rounds):
            for n in (1, 2):
                client = clients[n][1]
                cpu = sum(client.run(time.process_time).values())
                start = time.perf_counter()
                rows = batch.run(paths, client=client, progress=False)
                times[n].append(time.perf_counter() - start)
                cores[n].append((sum(client.run(time.process_time).values()) - cpu) / times[n][-1])
                assert len(rows) == len(paths) and not any(r["error"] for r in rows)
        for cluster, client in clients.values():
            client.close()
            cluster.close()
    print(f"{len(paths)} images, {args.rounds} rounds, cores {os.cpu_count()}, "
          f"load {os.getloadavg()[0]:.1f}")
    for n in (1, 2):
        t = statistics.median(times[n])
        print(f"  {n} worker{'s' if n > 1 else ' '}: median {t:6.2f} s  {len(paths) / t:6.1f} "
              f"images/s  cores obtained {statistics.median(cores[n]):.2f}  "
              f"(runs {', '.join(f'{x:.2f}' for x in times[n])})")
    print(f"  speed-up 2 vs 1: {statistics.median(times[1]) / statistics.median(times[2]):.2f}x"
          f"  (best runs {min(times[1]) / min(times[2]):.2f}x)")


if __name__ == "__main__":
    main()

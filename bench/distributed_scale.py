#!/usr/bin/env python3
"""Scaling of distributed screening (hermite.distributed on Dask) on this machine.

With the FABP4 conformer library of bench/make_conformer_library.py (made when missing; cache
directory outside the repository, default /work/bench-data) prepared into a prepared library
(`hermite prepare`, cached next to it), and the crystal ligand as the query:
  * the reference: one `hermite overlay --threads 1` run, timed, its hits and score table kept;
  * a local Dask cluster of 1 and then 2 worker processes of one thread (loopback), each task
    screening its part with --threads 1: wall time of `hermite.distributed.overlay` (cluster
    start-up excluded), outputs checked byte for byte against the reference;
  * efficiency = speed-up of 2 workers over 1, divided by 2 (target >= 0.90);
  * the scheduler's cost per task: the same 1-worker screen with small parts
    (--small-part-size) against large ones, (T_small - T_large) / (tasks_small - tasks_large);
  * the bytes a task returns: one part screened in this process, per task and per molecule.
Timings are medians of --repeats runs. Prints one Markdown table; --json FILE writes the data.

Usage: /usr/bin/python3 bench/distributed_scale.py [--hermite build/cli/hermite]
           [--python-path build/python] [--conformers 200000] [--part-size 2000]
           [--small-part-size 20] [--repeats 3] [--json FILE] [--data-dir DIR]
"""

import argparse
import datetime
import json
import os
import platform
import statistics
import subprocess
import sys
import tempfile
import time

sys.dont_write_bytecode = True  # no __pycache__ in the repository
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import make_conformer_library as library  # noqa: E402

REPOSITORY = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
TARGET_EFFICIENCY = 0.90


def log(message):
    print(f"distributed_scale: {message}", file=sys.stderr, flush=True)


def prepared_library(hermite, sd_path):
    """The prepared library of `sd_path` (shape only), made once next to it."""
    path = os.path.splitext(sd_path)[0] + "-shape.h5"
    if not os.path.exists(path):
        log(f"preparing {path}")
        subprocess.run([hermite, "prepare", sd_path, "--no-charges", "--out", path, "--quiet"],
                       check=True)
    return path


def screen_arguments(query, database, hits, scores):
    return ["--query", query, "--db", database, "--threads", "1", "--best", "100", "--quiet",
            "--out", hits, "--scores", scores]


def time_reference(hermite, query, database, directory):
    hits, scores = (os.path.join(directory, name) for name in ("reference.sdf", "reference.tsv"))
    start = time.perf_counter()
    subprocess.run([hermite, "overlay", *screen_arguments(query, database, hits, scores)],
                   check=True, stdout=subprocess.DEVNULL)
    return time.perf_counter() - start, hits, scores


def same_bytes(a, b):
    with open(a, "rb") as first, open(b, "rb") as second:
        return first.read() == second.read()


def time_distributed(client, query, database, directory, part_size, reference):
    import hermite.distributed

    hits, scores = (os.path.join(directory, name) for name in ("spread.sdf", "spread.tsv"))
    start = time.perf_counter()
    with open(os.devnull, "w") as quiet:
        saved = os.dup(1)
        os.dup2(quiet.fileno(), 1)  # the ranked table
        try:
            status = hermite.distributed.overlay(
                screen_arguments(query, database, hits, scores), client, part_size=part_size)
        finally:
            os.dup2(saved, 1)
            os.close(saved)
    seconds = time.perf_counter() - start
    if status != 0:
        raise SystemExit(f"distributed run failed with status {status}")
    identical = same_bytes(hits, reference[0]) and same_bytes(scores, reference[1])
    return seconds, identical


class SizeRecordingClient:
    """A client that records the size of every part its tasks return."""

    def __init__(self, client):
        self.client = client
        self.sizes = []

    def submit(self, function, *args, **kwargs):
        sizes = self.sizes

        def recorded(*task_args):
            result = function(*task_args)
            sizes.append(len(result))
            return result

        return self.client.submit(recorded, *args, **kwargs)

    def cancel(self, futures):
        self.client.cancel(futures)


def part_bytes(query, database, part_size):
    """The median of the bytes one task returns for a part of `part_size` molecules (one run on
    a cluster of threads of this process, so that the tasks can record their sizes)."""
    import distributed
    import hermite.distributed

    with distributed.Client(processes=False, n_workers=1, threads_per_worker=1,
                            dashboard_address=None) as client:
        recording = SizeRecordingClient(client)
        with tempfile.TemporaryDirectory() as directory:
            arguments = screen_arguments(query, database, os.path.join(directory, "hits.sdf"),
                                         os.path.join(directory, "scores.tsv"))
            hermite.distributed.overlay(arguments, recording, part_size=part_size)
    return int(statistics.median(recording.sizes))


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--hermite", default=os.path.join(REPOSITORY, "build/cli/hermite"))
    parser.add_argument("--python-path", default=os.path.join(REPOSITORY, "build/python"))
    parser.add_argument("--conformers", type=int, default=200000)
    parser.add_argument("--part-size", type=int, default=2000)
    parser.add_argument("--small-part-size", type=int, default=20)
    parser.add_argument("--repeats", type=int, default=3)
    parser.add_argument("--json")
    parser.add_argument("--data-dir", default=library.DEFAULT_DATA_DIR)
    args = parser.parse_args()

    sys.path.insert(0, os.path.abspath(args.python_path))
    os.environ["PYTHONPATH"] = os.path.abspath(args.python_path)  # for the worker processes
    import distributed

    paths = library.ensure(args.data_dir, targets=(args.conformers,))
    query = paths["query"]
    database = prepared_library(args.hermite, paths["libraries"][args.conformers])

    results = {"reference": [], "workers": {1: [], 2: []}, "small_parts": []}
    identical = True
    with tempfile.TemporaryDirectory(prefix="hermite-distributed-") as directory:
        for _ in range(args.repeats):
            seconds, *reference = time_reference(args.hermite, query, database, directory)
            results["reference"].append(seconds)
            log(f"single run, 1 thread: {seconds:.1f} s")
        for workers in (1, 2):
            cluster = distributed.LocalCluster(n_workers=workers, threads_per_worker=1,
                                               processes=True, host="127.0.0.1",
                                               dashboard_address=None)
            client = distributed.Client(cluster)
            try:
                for _ in range(args.repeats):
                    seconds, same = time_distributed(client, query, database, directory,
                                                     args.part_size, reference)
                    identical = identical and same
                    results["workers"][workers].append(seconds)
                    log(f"{workers} worker(s), parts of {args.part_size}: {seconds:.1f} s, "
                        f"identical {same}")
                if workers == 1:
                    for _ in range(args.repeats):
                        seconds, same = time_distributed(client, query, database, directory,
                                                         args.small_part_size, reference)
                        identical = identical and same
                        results["small_parts"].append(seconds)
                        log(f"1 worker, parts of {args.small_part_size}: {seconds:.1f} s")
            finally:
                client.close()
                cluster.close()
        task_bytes = part_bytes(query, database, args.part_size)

    import h5py

    with h5py.File(database, "r") as stored:
        total_molecules = int(stored.attrs["num_molecules"])
    reference_s = statistics.median(results["reference"])
    one = statistics.median(results["workers"][1])
    two = statistics.median(results["workers"][2])
    small = statistics.median(results["small_parts"])
    tasks_large = -(-total_molecules // args.part_size)
    tasks_small = -(-total_molecules // args.small_part_size)
    overhead = (small - one) / (tasks_small - tasks_large) if tasks_small > tasks_large else 0.0
    efficiency = one / (2 * two)
    summary = {
        "date": datetime.date.today().isoformat(),
        "machine": platform.platform(),
        "cores": os.cpu_count(),
        "conformers": args.conformers,
        "molecules": total_molecules,
        "part_size": args.part_size,
        "reference_seconds": reference_s,
        "one_worker_seconds": one,
        "two_workers_seconds": two,
        "speed_up": one / two,
        "efficiency": efficiency,
        "efficiency_against_single_run": reference_s / (2 * two),
        "seconds_per_task_of_scheduling": overhead,
        "bytes_per_task": task_bytes,
        "bytes_per_molecule": task_bytes / args.part_size,
        "outputs_identical": identical,
        "runs": results,
    }
    verdict = "PASS" if efficiency >= TARGET_EFFICIENCY and identical else "MISS"
    print(f"| {args.conformers:,} conformers ({total_molecules:,} molecules), parts of "
          f"{args.part_size} | seconds | conformers/s |")
    print("|---|--:|--:|")
    for label, seconds in (("`hermite overlay`, 1 thread", reference_s),
                           ("1 worker process, 1 thread", one),
                           ("2 worker processes, 1 thread each", two)):
        print(f"| {label} | {seconds:.1f} | {args.conformers / seconds:,.0f} |")
    print()
    print(f"efficiency (speed-up / workers): {efficiency:.3f} (target >= {TARGET_EFFICIENCY}: "
          f"{verdict}); against the single run: {summary['efficiency_against_single_run']:.3f}")
    print(f"scheduling cost per task: {overhead * 1000:.1f} ms "
          f"(parts of {args.small_part_size}: {small:.1f} s for {tasks_small} tasks)")
    print(f"bytes returned per task of {args.part_size} molecules: {task_bytes:,} "
          f"({summary['bytes_per_molecule']:.0f} per molecule)")
    print(f"outputs identical to the single run: {identical}")
    if args.json:
        with open(args.json, "w") as out:
            json.dump(summary, out, indent=2)


if __name__ == "__main__":
    main()

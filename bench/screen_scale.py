#!/usr/bin/env python3
"""Screening throughput, scaling and memory of the hermite command-line tool on FABP4 libraries.

With the libraries of bench/make_conformer_library.py (made when missing; cache directory outside
the repository, default /work/bench-data), for every size of --sizes (conformers):
  * prepares the SD library into a prepared library once (`hermite prepare`, the largest thread
    count of --threads), timed;
  * screens the SD library and the prepared library against the crystal ligand with
    `hermite overlay --quiet` on each thread count of --threads: conformers per second end to end;
  * runs the same screen once more without --quiet and reads the engine's summary: the rate of
    the overlay computation alone ("overlay kernel: R overlays/s per thread");
and, for the first --smiles-count SMILES of the set, times 3-D conformer generation
(`hermite prepare SMILES --conformers C`) on each thread count.

Every command runs as a child process whose own peak resident memory comes from os.wait4.
Timings are medians of --repeats runs. Derived figures and targets:
  * prepared library, end-to-end rate / overlay-only rate (kernel rate per thread x threads)
    >= 0.90;
  * speed-up of the largest thread count over one thread, for screening and for SMILES conformer
    generation, >= 1.8 (for two threads);
  * peak resident memory of every run < 300 MB.
Prints one Markdown table with the targets and PASS/MISS; --json FILE writes the same data.

Usage: /usr/bin/python3 bench/screen_scale.py [--hermite build/cli/hermite] [--sizes 20000 200000]
           [--threads 1 2] [--repeats 1] [--smiles-count 300] [--json FILE] [--data-dir DIR]
"""

import argparse
import datetime
import json
import os
import platform
import re
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

sys.dont_write_bytecode = True  # no __pycache__ in the repository
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import make_conformer_library as library  # noqa: E402

REPOSITORY = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
KERNEL_PATTERN = re.compile(r"overlay kernel: ([0-9.]+) overlays/s per thread")
RATE_PATTERN = re.compile(r"([0-9][0-9,]*(?:\.[0-9]+)?) overlays/s")

TARGET_COVERAGE = 0.90   # prepared-library end-to-end rate / overlay-only rate, at least
TARGET_SPEEDUP = 1.8     # two threads over one, at least
TARGET_MEMORY_MB = 300   # peak resident memory of any run, below


def log(message):
    print(f"screen_scale: {message}", file=sys.stderr, flush=True)


class Run:
    """One finished child process: wall seconds, its own peak resident memory and its output."""

    def __init__(self, command, seconds, peak_mb, returncode, stdout, stderr):
        self.command = command
        self.seconds = seconds
        self.peak_mb = peak_mb
        self.returncode = returncode
        self.stdout = stdout
        self.stderr = stderr

    def as_dict(self):
        return {"command": self.command, "seconds": round(self.seconds, 3),
                "peak_mb": round(self.peak_mb, 1), "returncode": self.returncode}


class Bench:
    def __init__(self, arguments):
        self.arguments = arguments
        self.hermite = arguments.hermite
        self.scratch = tempfile.mkdtemp(prefix="screen_scale.")
        self.runs = []

    def run(self, command, accept=(0,)):
        """Runs command; returns a Run. Its standard output and error go to scratch files, so no
        pipe can block it; the rusage of os.wait4 is the child's own."""
        log("$ " + " ".join(command))
        if self.arguments.dry_run:
            return Run(command, 1.0, 0.0, 0, "", "")
        out_path = os.path.join(self.scratch, "stdout")
        err_path = os.path.join(self.scratch, "stderr")
        with open(out_path, "w") as out, open(err_path, "w") as err:
            start = time.perf_counter()
            process = subprocess.Popen(command, stdout=out, stderr=err, stdin=subprocess.DEVNULL)
            _, status, usage = os.wait4(process.pid, 0)
            seconds = time.perf_counter() - start
        process.returncode = os.waitstatus_to_exitcode(status)
        with open(out_path) as out, open(err_path) as err:
            stdout, stderr = out.read(), err.read()
        run = Run(command, seconds, usage.ru_maxrss / 1024.0, process.returncode, stdout, stderr)
        self.runs.append(run)
        if run.returncode not in accept:
            sys.stderr.write(stderr[-4000:])
            sys.exit(f"screen_scale: exit status {run.returncode} from: {' '.join(command)}")
        if run.returncode != 0:
            log(f"exit status {run.returncode} (records skipped): {stderr.strip()[-300:]}")
        log(f"  {seconds:.2f} s, peak {run.peak_mb:.0f} MB")
        return run

    def repeated(self, command, accept=(0,)):
        """Runs command --repeats times; returns (median seconds, largest peak MB, runs)."""
        runs = [self.run(command, accept) for _ in range(self.arguments.repeats)]
        return (statistics.median(r.seconds for r in runs), max(r.peak_mb for r in runs), runs)

    # -- measurements ------------------------------------------------------------------------

    def prepare(self, inputs, output, threads, *options):
        if os.path.exists(output):
            os.remove(output)
        command = [self.hermite, "prepare", *inputs, "--out", output, "--threads", str(threads),
                   *options, "--quiet"]
        seconds, peak, runs = self.repeated(command)
        if not self.arguments.dry_run and not os.path.exists(output):
            sys.exit(f"screen_scale: {' '.join(command)} wrote no {output}")
        return seconds, peak, runs

    def count_conformers(self, query, database):
        """Conformers per molecule of a database, summed from the 'conformers' column of an
        untimed screen's --scores table."""
        if self.arguments.dry_run:
            return None
        scores = os.path.join(self.scratch, "scores.tsv")
        self.run([self.hermite, "overlay", "--query", query, "--db", database, "--threads",
                  str(max(self.arguments.threads)), "--scores", scores, "--quiet"], accept=(0, 1))
        self.runs.pop()  # not a measurement
        with open(scores) as handle:
            header = handle.readline().rstrip("\n").split("\t")
            column = header.index("conformers")
            return sum(int(line.rstrip("\n").split("\t")[column] or 0) for line in handle
                       if line.strip())

    def screen(self, query, database, threads):
        """Times the quiet screen; then one run without --quiet for the engine's figures."""
        base = [self.hermite, "overlay", "--query", query, "--db", database,
                "--threads", str(threads), "--best", str(self.arguments.best)]
        # Exit status 1: some records were skipped; the rest was screened and is still timed.
        seconds, peak, runs = self.repeated(base + ["--quiet"], accept=(0, 1))
        verbose = self.run(base, accept=(0, 1))
        kernel = engine = None
        match = KERNEL_PATTERN.search(verbose.stderr)
        if match:
            kernel = float(match.group(1))
        for line in verbose.stderr.splitlines():
            found = RATE_PATTERN.search(KERNEL_PATTERN.sub("", line))
            if found:
                engine = float(found.group(1).replace(",", ""))
        if kernel is None and not self.arguments.dry_run:
            log("no 'overlay kernel: R overlays/s per thread' in the summary:\n"
                + verbose.stderr.strip()[-1000:])
        return {"seconds": seconds, "peak_mb": max(peak, verbose.peak_mb),
                "kernel_per_thread": kernel, "engine_overlays_per_second": engine,
                "verbose_seconds": verbose.seconds,
                "runs": [r.as_dict() for r in runs + [verbose]]}


# ---------------------------------------------------------------------------------------------
# table


def number(value, digits=0):
    if value is None:
        return "–"
    return f"{value:,.{digits}f}"


def verdict(passed):
    if passed is None:
        return "–"
    return "PASS" if passed else "MISS"


def memory_check(peak_mb):
    return {"target": f"< {TARGET_MEMORY_MB} MB", "passed": peak_mb < TARGET_MEMORY_MB}


def measurement_row(name, conformers, threads, seconds, rate, unit, peak_mb, kernel=None):
    return {"kind": "measurement", "name": name, "conformers": conformers, "threads": threads,
            "seconds": seconds, "rate": rate, "unit": unit, "kernel_per_thread": kernel,
            "peak_mb": peak_mb, **memory_check(peak_mb)}


def ratio_row(name, conformers, threads, value, minimum):
    passed = None if value is None else value >= minimum
    return {"kind": "ratio", "name": name, "conformers": conformers, "threads": threads,
            "value": value, "target": f">= {minimum:.2f}", "passed": passed}


def markdown(rows):
    lines = ["| measurement | conformers | threads | seconds | rate | overlay kernel "
             "(overlays/s per thread) | peak memory (MB) | target | result |",
             "|---|--:|--:|--:|--:|--:|--:|---|---|"]
    for row in rows:
        if row["kind"] == "measurement":
            rate = f"{number(row['rate'])} {row['unit']}"
            cells = [row["name"], number(row["conformers"]), str(row["threads"]),
                     number(row["seconds"], 2), rate, number(row["kernel_per_thread"]),
                     number(row["peak_mb"])]
        elif row["kind"] == "ratio":
            cells = [row["name"], number(row["conformers"]), str(row["threads"]), "",
                     number(row["value"], 3), "", ""]
        else:  # overall memory
            cells = [row["name"], "", "", "", "", "", number(row["peak_mb"])]
        cells += [row["target"], verdict(row["passed"])]
        lines.append("| " + " | ".join(cells) + " |")
    return "\n".join(lines)


# ---------------------------------------------------------------------------------------------


def resolve_hermite(path):
    if os.path.exists(path) or os.path.isabs(path):
        return os.path.abspath(path)
    in_repository = os.path.join(REPOSITORY, path)
    return in_repository if os.path.exists(in_repository) else os.path.abspath(path)


def check_hermite(hermite, dry_run):
    if dry_run:
        return
    if not os.access(hermite, os.X_OK):
        sys.exit(f"screen_scale: {hermite} not found; build the 'hermite' target first")
    for command in ("prepare", "overlay"):
        result = subprocess.run([hermite, "help", command], capture_output=True, text=True)
        if result.returncode != 0:
            sys.exit(f"screen_scale: '{hermite} help {command}' failed: {result.stderr.strip()}")


def smiles_subset(data_dir, smiles_path, count):
    """The first count lines of the SMILES file, as a file of the cache; returns (path, lines)."""
    path = os.path.join(data_dir, f"fabp4-smiles-{count}.smi")
    with open(smiles_path) as handle:
        lines = [line for line in handle if line.strip()][:count]
    if not os.path.exists(path):
        with open(path + ".tmp", "w") as out:
            out.writelines(lines)
        os.replace(path + ".tmp", path)
    return path, len(lines)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--hermite", default="build/cli/hermite",
                        help="the hermite tool (default %(default)s, from the working directory "
                             "or the repository root)")
    parser.add_argument("--data-dir", default=library.DEFAULT_DATA_DIR,
                        help="cache of libraries and prepared files (default %(default)s)")
    parser.add_argument("--sizes", type=int, nargs="+", default=[20000, 200000],
                        help="library sizes in conformers (default %(default)s)")
    parser.add_argument("--threads", type=int, nargs="+", default=[1, 2],
                        help="thread counts (default %(default)s)")
    parser.add_argument("--repeats", type=int, default=1,
                        help="runs per timing; medians are reported (default %(default)s)")
    parser.add_argument("--smiles-count", type=int, default=300,
                        help="SMILES for the conformer-generation timing, 0 to skip "
                             "(default %(default)s)")
    parser.add_argument("--smiles-conformers", type=int, default=library.DEFAULT_CONFORMERS,
                        help="conformers per SMILES (default %(default)s)")
    parser.add_argument("--best", type=int, default=100,
                        help="--best of the screens (default %(default)s)")
    parser.add_argument("--json", metavar="FILE", help="also write the results as JSON")
    parser.add_argument("--dry-run", action="store_true",
                        help="print the commands without running them")
    arguments = parser.parse_args()
    if (min(arguments.sizes) < 1 or min(arguments.threads) < 1 or arguments.repeats < 1
            or arguments.smiles_count < 0 or arguments.smiles_conformers < 1):
        parser.error("sizes, threads, repeats and conformers must be positive")
    arguments.threads = sorted(set(arguments.threads))
    arguments.hermite = resolve_hermite(arguments.hermite)
    check_hermite(arguments.hermite, arguments.dry_run)

    data_dir = os.path.abspath(arguments.data_dir)
    if os.path.commonpath([data_dir, REPOSITORY]) == REPOSITORY:
        sys.exit(f"screen_scale: the data directory {data_dir} is inside the repository")
    paths = library.ensure(data_dir, arguments.sizes)
    prepared_dir = os.path.join(data_dir, "prepared")
    os.makedirs(prepared_dir, exist_ok=True)

    bench = Bench(arguments)
    started = datetime.datetime.now(datetime.timezone.utc)
    load_before = os.getloadavg()
    top = arguments.threads[-1]
    rows, results = [], {"sizes": {}, "smiles": None}
    try:
        for size in arguments.sizes:
            sdf = paths["libraries"][size]
            conformers, molecules = library.sd_counts(data_dir, os.path.basename(sdf))
            log(f"library {sdf}: {molecules} molecules, {conformers} conformers")
            prepared = os.path.join(prepared_dir, f"fabp4-{size}.h5")
            seconds, peak, runs = bench.prepare([sdf], prepared, top)
            entry = {"sdf": sdf, "prepared": prepared, "conformers": conformers,
                     "molecules": molecules,
                     "prepare": {"threads": top, "seconds": seconds, "peak_mb": peak,
                                 "conformers_per_second": conformers / seconds,
                                 "prepared_bytes": (os.path.getsize(prepared)
                                                    if os.path.exists(prepared) else None),
                                 "runs": [r.as_dict() for r in runs]},
                     "screen": {}}
            rows.append(measurement_row(f"prepare SD → prepared library ({size:,})", conformers,
                                        top, seconds, conformers / seconds, "conformers/s",
                                        peak))
            for kind, database in (("sd", sdf), ("prepared", prepared)):
                label = "SD library" if kind == "sd" else "prepared library"
                entry["screen"][kind] = {}
                for threads in arguments.threads:
                    result = bench.screen(paths["query"], database, threads)
                    result["conformers_per_second"] = conformers / result["seconds"]
                    kernel = result["kernel_per_thread"]
                    result["overlay_only_per_second"] = None if kernel is None else kernel * threads
                    entry["screen"][kind][threads] = result
                    rows.append(measurement_row(
                        f"screen {label}, end to end", conformers, threads, result["seconds"],
                        result["conformers_per_second"], "conformers/s", result["peak_mb"],
                        kernel))
            for threads in arguments.threads:
                result = entry["screen"]["prepared"][threads]
                only = result["overlay_only_per_second"]
                ratio = None if not only else result["conformers_per_second"] / only
                result["end_to_end_over_overlay_only"] = ratio
                rows.append(ratio_row("prepared library: end-to-end / overlay-only rate",
                                      conformers, threads, ratio, TARGET_COVERAGE))
            if len(arguments.threads) > 1 and arguments.threads[0] == 1:
                for kind in ("sd", "prepared"):
                    screens = entry["screen"][kind]
                    speedup = screens[top]["conformers_per_second"] / screens[1][
                        "conformers_per_second"]
                    entry["screen"][kind]["speedup"] = speedup
                    label = "SD library" if kind == "sd" else "prepared library"
                    rows.append(ratio_row(f"speed-up {top}/1 threads, screen {label}",
                                          conformers, f"{top} / 1", speedup, TARGET_SPEEDUP))
            results["sizes"][size] = entry

        if arguments.smiles_count:
            smi, count = smiles_subset(data_dir, paths["smiles"], arguments.smiles_count)
            requested = count * arguments.smiles_conformers
            smiles = {"file": smi, "molecules": count,
                      "conformers_per_molecule": arguments.smiles_conformers,
                      "conformers": requested, "threads": {}}
            for threads in arguments.threads:
                output = os.path.join(prepared_dir, f"smiles-{count}-t{threads}.h5")
                seconds, peak, runs = bench.prepare(
                    [smi], output, threads, "--conformers", str(arguments.smiles_conformers),
                    "--seed", str(library.DEFAULT_SEED))
                made = bench.count_conformers(paths["query"], output) or requested
                smiles["threads"][threads] = {"seconds": seconds, "peak_mb": peak,
                                              "conformers": made,
                                              "conformers_per_second": made / seconds,
                                              "runs": [r.as_dict() for r in runs]}
                rows.append(measurement_row(
                    f"SMILES → {arguments.smiles_conformers} conformers each ({count} SMILES)",
                    made, threads, seconds, made / seconds, "conformers/s", peak))
            if len(arguments.threads) > 1 and arguments.threads[0] == 1:
                speedup = (smiles["threads"][top]["conformers_per_second"]
                           / smiles["threads"][1]["conformers_per_second"])
                smiles["speedup"] = speedup
                rows.append(ratio_row(f"speed-up {top}/1 threads, SMILES conformer generation",
                                      requested, f"{top} / 1", speedup, TARGET_SPEEDUP))
            results["smiles"] = smiles
    finally:
        shutil.rmtree(bench.scratch, ignore_errors=True)

    if bench.runs:
        largest = max(bench.runs, key=lambda r: r.peak_mb)
        rows.append({"kind": "memory", "name": "peak memory, largest of all runs",
                     "peak_mb": largest.peak_mb, "command": largest.command,
                     **memory_check(largest.peak_mb)})

    header = (f"hermite screening scale: FABP4 (DUD-E) ETKDGv3 libraries, query "
              f"{os.path.basename(paths['query'])} (crystal ligand); {os.cpu_count()} cores, "
              f"load average {load_before[0]:.2f} at start; medians of {arguments.repeats} "
              f"run(s); {started:%Y-%m-%d %H:%M} UTC")
    print(header)
    print()
    print(markdown(rows))
    print()
    print("Overlay-only rate = overlay kernel rate per thread x threads (the engine's own "
          "measurement); peak memory is each command's own maximum resident set size.")
    missed = [row["name"] for row in rows if row.get("passed") is False]
    print(f"{len(missed)} target(s) missed" if missed else "all targets met")

    if arguments.json:
        document = {"header": header, "hermite": arguments.hermite, "data_dir": data_dir,
                    "started_utc": started.isoformat(), "machine": {
                        "cores": os.cpu_count(), "platform": platform.platform(),
                        "load_average_at_start": load_before},
                    "settings": {"sizes": arguments.sizes, "threads": arguments.threads,
                                 "repeats": arguments.repeats,
                                 "smiles_count": arguments.smiles_count,
                                 "smiles_conformers": arguments.smiles_conformers,
                                 "best": arguments.best},
                    "targets": {"end_to_end_over_overlay_only_min": TARGET_COVERAGE,
                                "speedup_min": TARGET_SPEEDUP,
                                "peak_memory_mb_max": TARGET_MEMORY_MB},
                    "rows": rows, "results": results,
                    "all_targets_met": not missed}
        with open(arguments.json + ".tmp", "w") as handle:
            json.dump(document, handle, indent=1)
            handle.write("\n")
        os.replace(arguments.json + ".tmp", arguments.json)
        log(f"wrote {arguments.json}")


if __name__ == "__main__":
    main()

#!/usr/bin/env python3
"""How much `hermite overlay --skip-by-bound` saves on the FABP4 screen, and that it keeps the hits.

The FABP4 actives and decoys (DUD-E, ETKDG conformers made by bench/enrichment.py) are prepared
once into a library with colour features (cached in the data directory), so that the timed runs
measure overlays rather than RDKit: the decoys first, so that the actives, which hold most of
the best hits, come last and the threshold of the hits rises only slowly (the least favourable
order). The crystal ligand is the query. For each rank metric and
each number of hits kept (the top 0.1 %, 1 % and 5 % of the molecules), the screen runs on one
thread with and without --skip-by-bound, in turns (the fastest of the repeats counts). It prints
the overlays made, the molecules skipped, both times and their ratio, and checks that the two
hits files are identical.

Usage: /usr/bin/python3 bench/skip_by_bound.py [--cli build/cli/hermite] [--repeats 2]
           [--data-dir /work/bench-data]
"""

import argparse
import os
import re
import subprocess
import sys
import tempfile
import time

REPOSITORY = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
QUERY = "/work/shared/data/dude-fabp4/crystal_ligand.mol2"
INPUTS = ["fabp4-decoys-etkdg10-seed42.sdf", "fabp4-actives-etkdg10-seed42.sdf"]
LIBRARY = "fabp4-decoys-actives-colour.h5"
SHARES = [0.001, 0.01, 0.05]


def prepare_library(cli, data_dir):
    library = os.path.join(data_dir, LIBRARY)
    if not os.path.exists(library):
        inputs = [os.path.join(data_dir, name) for name in INPUTS]
        subprocess.run([cli, "prepare", *inputs, "--out", library, "--quiet"], check=True)
    return library


def screen(cli, library, metric, best, skip, out):
    """Seconds of one run on one thread, the overlays made and the molecules skipped."""
    command = [cli, "overlay", "--query", QUERY, "--db", library, "--rank-by", metric,
               "--best", str(best), "--threads", "1", "--out", out]
    if skip:
        command.append("--skip-by-bound")
    start = time.perf_counter()
    result = subprocess.run(command, capture_output=True, text=True, check=True)
    seconds = time.perf_counter() - start
    molecules = int(re.search(r"(\d+) molecules read", result.stderr).group(1))
    overlays = int(re.search(r"(\d+) overlays in", result.stderr).group(1))
    skipped = re.search(r"(\d+) molecules? skipped by the score bound", result.stderr)
    return seconds, molecules, overlays, int(skipped.group(1)) if skipped else 0


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--cli", default=os.path.join(REPOSITORY, "build/cli/hermite"))
    parser.add_argument("--data-dir", default="/work/bench-data")
    parser.add_argument("--repeats", type=int, default=2)
    args = parser.parse_args()
    library = prepare_library(args.cli, args.data_dir)
    with tempfile.TemporaryDirectory() as scratch:
        _, molecules, _, _ = screen(args.cli, library, "shape", 1, False,
                                    os.path.join(scratch, "count.sdf"))
        print(f"FABP4 crystal ligand against {molecules} molecules (prepared library), "
              "one thread\n")
        print("| rank by | hits kept | overlays | with --skip-by-bound | molecules skipped | "
              "time | with --skip-by-bound | speed-up | same hits |")
        print("|---|--:|--:|--:|--:|--:|--:|--:|---|")
        for metric in ["shape", "combo"]:
            for share in SHARES:
                best = max(1, round(share * molecules))
                runs = {False: [], True: []}
                outs = {skip: os.path.join(scratch, f"hits-{skip}.sdf") for skip in runs}
                for _ in range(args.repeats):
                    for skip in runs:
                        runs[skip].append(screen(args.cli, library, metric, best, skip,
                                                 outs[skip]))
                full, skipping = min(runs[False]), min(runs[True])
                with open(outs[False]) as a, open(outs[True]) as b:
                    same = a.read() == b.read()
                print(f"| {metric} | {best} ({100 * share:g} %) | {full[2]} | {skipping[2]} | "
                      f"{skipping[3]} | {full[0]:.2f} s | {skipping[0]:.2f} s | "
                      f"{full[0] / skipping[0]:.2f} | {'yes' if same else 'NO'} |")
                sys.stdout.flush()


if __name__ == "__main__":
    main()

#!/usr/bin/env python3
"""Overlay speed and quality on CDK2 all-against-all, against RDKit's Open3DAlign.

Runs, on one thread and on the same 47 x 47 pairs of Debian's rdkit-data CDK2 ligands:
  * hermite's overlay driver with default settings (bench binary overlay_pairs);
  * RDKit's Open3DAlign with Crippen contributions (the fit's conformer is aligned onto the
    query's); its poses are then scored by hermite's exact scorer;
and prints one table: overlays per second, their ratio, and the mean exact shape Tanimoto of
each tool's poses (heavy-atom shape Gaussians, exact analytic overlaps).

With --curves it also measures hermite's quality against speed for expansion orders 4 to 8,
0 or 4 extra starts and 0 to 2 refined candidates, and prints a Markdown table.

Usage: /usr/bin/python3 bench/compare_overlay.py --build BUILD_DIR [--sdf FILE] [--curves]
"""

import argparse
import json
import os
import subprocess
import sys
import tempfile
import time

DEFAULT_SDF = "/usr/share/RDKit/Contrib/Fastcluster/testdata/cdk2.sdf"


def run_pairs(binary, sdf, *options):
    """Runs overlay_pairs and returns its JSON line as a dict."""
    output = subprocess.run([binary, sdf, *options], check=True, capture_output=True, text=True)
    return json.loads(output.stdout.strip().splitlines()[-1])


def open3dalign(sdf, poses_path):
    """Aligns every ligand onto every ligand (query-major) with Crippen Open3DAlign, writes the
    aligned fits to poses_path and returns (pairs, seconds spent aligning)."""
    from rdkit import Chem
    from rdkit.Chem import rdMolAlign, rdMolDescriptors

    mols = [m for m in Chem.SDMolSupplier(sdf, removeHs=False) if m is not None]
    start = time.perf_counter()
    contributions = [rdMolDescriptors._CalcCrippenContribs(m) for m in mols]
    aligned = []
    for i, query in enumerate(mols):
        for j, fit in enumerate(mols):
            moved = Chem.Mol(fit)
            rdMolAlign.GetCrippenO3A(moved, query, contributions[j], contributions[i]).Align()
            aligned.append(moved)
    seconds = time.perf_counter() - start
    writer = Chem.SDWriter(poses_path)
    for moved in aligned:
        writer.write(moved)
    writer.close()
    return len(aligned), seconds


def comparison(binary, sdf):
    ours = run_pairs(binary, sdf, "--repeat", "3")
    with tempfile.TemporaryDirectory() as directory:
        poses = os.path.join(directory, "o3a_poses.sdf")
        pairs, seconds = open3dalign(sdf, poses)
        theirs = run_pairs(binary, sdf, "--score", poses)
    rate = pairs / seconds
    print(f"CDK2 all-against-all, {pairs} pairs, one thread")
    print(f"{'tool':<28}{'overlays/s':>12}{'mean exact shape Tanimoto':>28}")
    print(f"{'hermite (default settings)':<28}{ours['overlays_per_second']:>12.0f}"
          f"{ours['mean_shape_tanimoto']:>28.4f}")
    print(f"{'Open3DAlign (Crippen)':<28}{rate:>12.0f}{theirs['mean_shape_tanimoto']:>28.4f}")
    print(f"{'ratio hermite / Open3DAlign':<28}{ours['overlays_per_second'] / rate:>12.1f}"
          f"{ours['mean_shape_tanimoto'] / theirs['mean_shape_tanimoto']:>28.3f}")


def curves(binary, sdf):
    print("| order | extra starts | refined | overlays/s | mean exact shape Tanimoto |")
    print("|---|---|---|---|---|")
    for order in (4, 5, 6, 8):
        for starts in (0, 4):
            for refine in (0, 1, 2):
                result = run_pairs(binary, sdf, "--order", str(order), "--starts", str(starts),
                                   "--refine", str(refine))
                print(f"| {order} | {starts} | {refine} | {result['overlays_per_second']:.0f} | "
                      f"{result['mean_shape_tanimoto']:.4f} |", flush=True)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", default="build", help="hermite build directory")
    parser.add_argument("--sdf", default=DEFAULT_SDF, help="ligands (SD file)")
    parser.add_argument("--curves", action="store_true", help="also print quality-speed curves")
    arguments = parser.parse_args()
    binary = os.path.join(arguments.build, "bench", "overlay_pairs")
    if not os.path.exists(binary):
        sys.exit(f"compare_overlay: {binary} not found; build the 'overlay_pairs' target first")
    comparison(binary, arguments.sdf)
    if arguments.curves:
        print()
        curves(binary, arguments.sdf)


if __name__ == "__main__":
    main()

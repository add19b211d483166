#!/usr/bin/env python3
"""Could a top-N screen skip fits by a bound on their score? Measured on FABP4.

A fit may be skipped without changing the hits only when an upper bound on its score that holds
for every pose lies below the score of the current N-th hit. This script computes three such
bounds for every conformer of a sample of the FABP4 set (DUD-E, ETKDG conformers made by
bench/enrichment.py) against the crystal ligand, beside the score the default overlay finds, and
prints the share of fits each bound would skip at the score thresholds of a top-N screen.

Bounds on the shape overlap O_qf of two sums of atom Gaussians (heavy atoms, 2.7 exp(-a r^2)):
- Cauchy-Schwarz: O_qf <= sqrt(O_qq O_ff);
- radial power spectrum: by Parseval, O_qf = (2 pi)^-3 integral of F_q conj(F_f) over k, and on
  each sphere |k| = s Cauchy-Schwarz gives O_qf <= (2 pi)^-3 integral over s of
  sqrt(P_q(s) P_f(s)), P(s) the power of the Fourier transform on that sphere, which neither a
  rotation nor a translation changes;
- atom packing: O_qf = C sum over query atoms of sum over fit atoms of exp(-(a/2) d^2) <= C n_q
  K_f, K_f the largest value of sum over fit atoms of exp(-(a/2) |p - r_j|^2) over all points p
  (found by mean-shift from every atom), and the same with the roles swapped.
A bound B on the overlap bounds the Tanimoto by B / (O_qq + O_ff - B). With --colour the same
bounds per colour feature type (features of 2.7 exp(-0.3 r^2)) bound the colour Tanimoto, and
the combo (shape + colour Tanimoto) is bounded by the sum.

Usage: /usr/bin/python3 bench/pruning_bounds.py [--python-path build/python] [--sample 10]
           [--colour] [--data-dir /work/bench-data]
"""

import argparse
import os
import sys

import numpy as np

sys.dont_write_bytecode = True
REPOSITORY = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
QUERY = "/work/shared/data/dude-fabp4/crystal_ligand.mol2"
DECOYS = "fabp4-decoys-etkdg10-seed42.sdf"
ACTIVES = "fabp4-actives-etkdg10-seed42.sdf"
SHAPE = (2.7, 0.811151803)
COLOUR = (2.7, 0.3)
SPECTRUM_GRID = np.linspace(0.0, 8.0, 641)  # |k| in 1/angstrom; P(s) is negligible beyond


def pair_sum(a, b, exponent):
    """sum over pairs of exp(-(exponent / 2) |a_i - b_j|^2)."""
    d2 = ((a[:, None, :] - b[None, :, :]) ** 2).sum(axis=2)
    return float(np.exp(-exponent / 2 * d2).sum())


def prefactor(kind):
    w, exponent = kind
    return w * w * (np.pi / (2 * exponent)) ** 1.5


def spectrum(x, kind):
    """P(s) on SPECTRUM_GRID for Gaussians of one kind at centres x, (2 pi)^-3 included."""
    w, exponent = kind
    d = np.sqrt(((x[:, None] - x[None]) ** 2).sum(-1))[np.triu_indices(len(x), 1)]
    sd = np.outer(SPECTRUM_GRID, d)
    sinc = np.where(sd > 0, np.sin(sd) / np.where(sd > 0, sd, 1.0), 1.0)
    mass = w * (np.pi / exponent) ** 1.5
    s = SPECTRUM_GRID
    return (4 * np.pi * s * s * mass * mass * np.exp(-s * s / (2 * exponent))
            * (len(x) + 2 * sinc.sum(axis=1)) / (2 * np.pi) ** 3)


def packing(x, exponent):
    """The largest sum over centres x of exp(-(exponent / 2) |p - x_j|^2) over points p."""
    p = x.copy()
    for _ in range(100):
        w = np.exp(-exponent / 2 * ((p[:, None] - x[None]) ** 2).sum(-1))
        p = (w @ x) / w.sum(axis=1, keepdims=True)
    return float(np.exp(-exponent / 2 * ((p[:, None] - x[None]) ** 2).sum(-1)).sum(axis=1).max())


def overlap_bounds(xq, xf, kind):
    """The self-overlaps and the three bounds on the overlap of Gaussians of one kind."""
    if len(xq) == 0 or len(xf) == 0:
        zero = {"cauchy-schwarz": 0.0, "spectrum": 0.0, "packing": 0.0}
        self_q = prefactor(kind) * pair_sum(xq, xq, kind[1]) if len(xq) else 0.0
        self_f = prefactor(kind) * pair_sum(xf, xf, kind[1]) if len(xf) else 0.0
        return self_q, self_f, zero
    c = prefactor(kind)
    qq, ff = c * pair_sum(xq, xq, kind[1]), c * pair_sum(xf, xf, kind[1])
    cs = np.sqrt(qq * ff)
    spec = float(np.trapz(np.sqrt(spectrum(xq, kind) * spectrum(xf, kind)), SPECTRUM_GRID))
    pack = c * min(len(xq) * packing(xf, kind[1]), len(xf) * packing(xq, kind[1]))
    return qq, ff, {"cauchy-schwarz": cs, "spectrum": min(spec, cs), "packing": min(pack, cs)}


def tanimoto_bound(qq, ff, bound):
    return bound / (qq + ff - bound) if qq + ff > 0 else 0.0


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--python-path", default=os.path.join(REPOSITORY, "build/python"))
    parser.add_argument("--data-dir", default="/work/bench-data")
    parser.add_argument("--sample", type=int, default=10,
                        help="every SAMPLE-th conformer of the decoys, every actives conformer")
    parser.add_argument("--colour", action="store_true", help="bound the combo score instead")
    args = parser.parse_args()
    sys.path.insert(0, os.path.abspath(args.python_path))
    import hermite

    features = bool(args.colour)
    query = hermite.read_molecules(QUERY, features=features)[0]
    decoys = hermite.read_molecules(os.path.join(args.data_dir, DECOYS), features=features)
    actives = hermite.read_molecules(os.path.join(args.data_dir, ACTIVES), features=features)
    fits = decoys[::args.sample] + actives
    results = hermite.screen(query, fits, colour=features,
                             rank_by="combo" if features else "shape")
    names = ["cauchy-schwarz", "spectrum", "packing"]
    scores, bounds = [], {name: [] for name in names}
    for fit, result in zip(fits, results):
        qq, ff, shape = overlap_bounds(query.coords, fit.coords, SHAPE)
        score = result.scores.shape_tanimoto
        fit_bounds = {name: tanimoto_bound(qq, ff, shape[name]) for name in names}
        if features:
            score += result.scores.colour_tanimoto
            cqq = cff = 0.0
            colour = {name: 0.0 for name in names}
            types = set(query.features[:, 0]) | set(fit.features[:, 0])
            for t in types:
                xq = query.features[query.features[:, 0] == t, 1:]
                xf = fit.features[fit.features[:, 0] == t, 1:]
                tq, tf, per_type = overlap_bounds(xq, xf, COLOUR)
                cqq, cff = cqq + tq, cff + tf
                for name in names:
                    colour[name] += per_type[name]
            for name in names:
                fit_bounds[name] += tanimoto_bound(cqq, cff, colour[name])
        scores.append(score)
        for name in names:
            bounds[name].append(fit_bounds[name])
    scores = np.array(scores)
    metric = "combo" if features else "shape Tanimoto"
    print(f"{len(fits)} FABP4 conformers against the crystal ligand, ranked by {metric}\n")
    print("| bound | below the score found (must be 0) | bound - score: least | median |")
    print("|---|--:|--:|--:|")
    for name in names:
        b = np.array(bounds[name])
        print(f"| {name} | {int((b < scores - 1e-9).sum())} | {(b - scores).min():.3f} | "
              f"{np.median(b - scores):.3f} |")
    print("\n| top share of the screen kept | score threshold | fits skipped by: "
          + " | ".join(names) + " |")
    print("|--:|--:|" + "--:|" * len(names))
    for share in [0.001, 0.01, 0.05, 0.2]:
        threshold = float(np.quantile(scores, 1 - share))
        skipped = [f"{100 * np.mean(np.array(bounds[n]) < threshold):.1f} %" for n in names]
        print(f"| {100 * share:g} % | {threshold:.3f} | " + " | ".join(skipped) + " |")


if __name__ == "__main__":
    main()

#!/usr/bin/env python3
"""Quality and speed of the overlay search against the best poses known, on pairs of ligands.

Pairs: every ordered pair of the 47 CDK2 ligands of Debian's rdkit-data (2,162 overlays, both
directions of each pair), 200 random ordered pairs of FABP4 actives
(../shared/data/dude-fabp4, one ETKDGv3 conformer each, seeded), and 440 ordered pairs of large
molecules (51 to 74 heavy atoms: three natural products and seventeen peptides, four ETKDGv3
conformers each, seeded; each molecule's first conformer against its three others and against
the second conformer of each other molecule). Every fit is first moved by a random rigid
motion (seeded). Heavy atoms, the library's carbon Gaussians.

Scores come from an independent exact scorer (numpy): the analytic overlap of the atom Gaussians
at the final pose, shape Tanimoto O_qf / (O_qq + O_ff - O_qf).

The best-known pose of each pair: the best exact Tanimoto of an exhaustive search (order 8, 200
spread rotations, 50 local searches, 4 poses refined) and of every configuration measured here;
cached in DATA_DIR/search-reference.json and improved whenever a run finds better.

For each configuration (order, scanned rotations, local searches, refined poses; the presets'
rows run by their effort, which searches pairs of large molecules its own way, the other rows
search every pair alike): the mean exact Tanimoto on CDK2, on FABP4 and on the large
molecules, its gap to the best-known mean (target <= 0.003 on CDK2 and FABP4), the share of
CDK2 pairs with |T(q, f) - T(f, q)| <= 0.01 (target >= 99 %), overlays per second on one thread
(the CDK2 all-against-all through hermite.screen, one call per query, threads=1; target >= 5,000;
each query's set-up, chiefly its scans, is shared by only 46 fits here),
the same for a screen of one query against 1,880 fits (the CDK2 set forty times: a screen shares
the query's set-up), and the time per overlay at 60 heavy atoms over the time at 15, and at 70
over 16 (conformers of a peptide-like chain and of small amides, each overlaid onto ten of its
own conformers; target <= 1.5), and the same for the fits of a long screen alone (the 20
conformers ten times over, the first twenty fits' time, which carries the query's set-up, taken
away). The timed runs go round all configurations --repeats times, and the fastest run
of each counts. Prints one Markdown table; --json FILE writes the data.

Usage: /usr/bin/python3 bench/search_quality.py [--python-path build/python] [--configs NAME...]
           [--repeats 5] [--json FILE] [--data-dir /work/bench-data]
"""

import argparse
import gzip
import json
import os
import sys
import time

import numpy as np

sys.dont_write_bytecode = True
REPOSITORY = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
CDK2 = "/usr/share/RDKit/Contrib/Fastcluster/testdata/cdk2.sdf"
FABP4_ACTIVES = "/work/shared/data/dude-fabp4/actives_final.mol2.gz"
PREFACTOR = 2.7
EXPONENT = 0.811151803

# name: (order, scan_rotations, search_starts, refine_candidates[, relative_tolerance]); the
# presets of --effort are marked.
CONFIGS = {
    "scan 30, 3 searches, 2 refined (the former default)": (4, 30, 3, 2),
    "scan 100, 2 searches, 1 refined (fast)": (4, 100, 2, 1),
    "scan 200, 4 searches, 2 refined": (4, 200, 4, 2),
    "scan 200, 5 searches, 2 refined (default)": (4, 200, 5, 2),
    "scan 200, 5 searches, 2 refined, tolerance 1e-3": (4, 200, 5, 2, 1e-3),
    "scan 200, 6 searches, 3 refined": (4, 200, 6, 3),
    "scan 300, 10 searches, 3 refined (thorough)": (4, 300, 10, 3),
    "order 6, scan 300, 10 searches, 4 refined": (6, 300, 10, 4),
}
# The presets of --effort, which search pairs of large molecules their own way (fewer scanned
# rotations, a pose more refined).
PRESETS = {(4, 100, 2, 1): "fast", (4, 200, 5, 2): "default", (4, 300, 10, 3): "thorough"}
EXHAUSTIVE = (8, 200, 50, 4)
# Ordered pairs of FABP4 actives: enough that one pair more or less found does not move the mean
# by more than a few 1e-4.
FABP4_PAIRS = 200
# The entries of the reference cache: pairs are numbered by molecule, so a set drawn otherwise
# is cached under another name.
CACHE_NAMES = {"cdk2": "cdk2", "fabp4": "fabp4-47-actives", "large": "large-20-molecules"}

# The large molecules: pairs of them are searched with their own lambda and refined on the
# query's overlap field (50 heavy atoms and more).
LARGE_SMILES = {
    "paclitaxel": "CC1=C2[C@@]([C@]([C@H]([C@@H]3[C@]4([C@H](OC4)C[C@@H]([C@]3(C(=O)[C@@H]2"
                  "OC(=O)C)C)O)OC(=O)C)OC(=O)c5ccccc5)(C[C@@H]1OC(=O)[C@H](O)[C@@H]"
                  "(NC(=O)c6ccccc6)c7ccccc7)O)(C)C",
    "erythromycin": "CC[C@@H]1[C@@]([C@@H]([C@H](C(=O)[C@@H](C[C@@]([C@@H]([C@H]([C@@H]([C@H]"
                    "(C(=O)O1)C)O[C@H]2C[C@@]([C@H]([C@@H](O2)C)O)(C)OC)C)O[C@H]3[C@@H]"
                    "([C@H](C[C@H](O3)C)N(C)C)O)(C)O)C)C)O)(C)O",
    "digoxin": "C[C@@H]1[C@H]([C@@H](C[C@@H](O1)O[C@@H]2[C@H](O[C@H](C[C@@H]2O)O[C@@H]3"
               "[C@H](O[C@H](C[C@@H]3O)O[C@H]4CC[C@]5([C@@H](C4)CC[C@@H]6[C@@H]5C[C@H]"
               "([C@]7([C@@]6(CC[C@@H]7C8=CC(=O)OC8)O)C)O)C)C)C)O)O",
}
LARGE_PEPTIDES = ["TLPTETVR", "ALKEFQD", "WFGTFQ", "SREPQSPP", "SWWKSS", "YLFDRVV", "QSRSYALY",
                  "WVTLAY", "EYKTLSKK", "GYGTLEQ", "DPQLQW", "KGTSWF", "PFREKL", "RDYPKAWT",
                  "EYGQAFLD", "VLYSPAVS", "KSTGAWDR"]
# The residues of the peptides, each as written at its place in a chain from the N terminus.
RESIDUES = {
    "A": "N[C@@H](C)C(=O)", "D": "N[C@@H](CC(=O)O)C(=O)", "E": "N[C@@H](CCC(=O)O)C(=O)",
    "F": "N[C@@H](Cc1ccccc1)C(=O)", "G": "NCC(=O)", "K": "N[C@@H](CCCCN)C(=O)",
    "L": "N[C@@H](CC(C)C)C(=O)", "P": "N1[C@@H](CCC1)C(=O)", "Q": "N[C@@H](CCC(N)=O)C(=O)",
    "R": "N[C@@H](CCCNC(N)=N)C(=O)", "S": "N[C@@H](CO)C(=O)", "T": "N[C@@H]([C@H](O)C)C(=O)",
    "V": "N[C@@H](C(C)C)C(=O)", "W": "N[C@@H](Cc1c[nH]c2ccccc12)C(=O)",
    "Y": "N[C@@H](Cc1ccc(O)cc1)C(=O)",
}
LARGE_CONFORMERS = 4

# Cost against molecule size: conformers of small amides (15 and 16 heavy atoms) and of a
# decapeptide-like chain (70 heavy atoms; 60 with its tryptophan a glycine), each overlaid onto
# ten of its own conformers. SIZE_PAIRS are the (large, small) pairs whose times are compared:
# the sizes of the target, and the 70-atom chain against the more flexible 16-atom amide.
SIZE_SMILES = {
    "amide15": "CCC(=O)Nc1ccc2ccccc2c1",
    "amide16": "O=C(NCCO)c1ccc2ccccc2c1",
    "chain60": "CC(C)C[C@H](NC(=O)[C@H](Cc1ccccc1)NC(=O)[C@H](CO)NC(=O)[C@H](C)NC(=O)"
               "[C@H](Cc1ccc(O)cc1)NC(=O)CN)C(=O)N[C@@H](CCC(N)=O)C(=O)NCC(=O)O",
    "chain70": "CC(C)C[C@H](NC(=O)[C@H](Cc1ccccc1)NC(=O)[C@H](CO)NC(=O)[C@H](C)NC(=O)"
               "[C@H](Cc1ccc(O)cc1)NC(=O)CN)C(=O)N[C@@H](CCC(N)=O)C(=O)N[C@@H]"
               "(Cc1c[nH]c2ccccc12)C(=O)O",
}
SIZE_PAIRS = [("chain60", "amide15"), ("chain70", "amide16")]


# The size molecules are also screened against their conformers this many times over, to time a
# fit apart from its query's set-up (chiefly the scans and, at 70 atoms, the overlap field).
LONG_SCREEN_COPIES = 10


def log(message):
    print(f"search_quality: {message}", file=sys.stderr, flush=True)


def exact_overlap(a, b):
    """The overlap of two sets of identical atom Gaussians at centres a (n, 3) and b (m, 3)."""
    d2 = ((a[:, None, :] - b[None, :, :]) ** 2).sum(axis=2)
    return float((PREFACTOR ** 2 * (np.pi / (2 * EXPONENT)) ** 1.5
                  * np.exp(-EXPONENT / 2 * d2)).sum())


def tanimoto(a, b):
    ab = exact_overlap(a, b)
    return ab / (exact_overlap(a, a) + exact_overlap(b, b) - ab)


def random_motion(rng, molecule, hermite):
    q = rng.normal(size=4)
    w, x, y, z = q / np.linalg.norm(q)
    R = np.array([[1 - 2 * (y * y + z * z), 2 * (x * y - w * z), 2 * (x * z + w * y)],
                  [2 * (x * y + w * z), 1 - 2 * (x * x + z * z), 2 * (y * z - w * x)],
                  [2 * (x * z - w * y), 2 * (y * z + w * x), 1 - 2 * (x * x + y * y)]])
    coords = molecule.coords @ R.T + rng.uniform(-5, 5, size=3)
    return hermite.Molecule(molecule.atomic_numbers, coords, molecule.charges, molecule.title)


def fabp4_actives(hermite, count, seed):
    """`count` FABP4 actives (one per title), one ETKDGv3 conformer each, as hermite molecules."""
    from rdkit import Chem
    from rdkit.Chem import AllChem
    import hermite.rdkit

    text = gzip.open(FABP4_ACTIVES, "rt").read()
    blocks = ["@<TRIPOS>MOLECULE" + b for b in text.split("@<TRIPOS>MOLECULE")[1:]]
    molecules, seen = [], set()
    for block in blocks:
        mol = Chem.MolFromMol2Block(block, removeHs=False)
        if mol is None or mol.GetProp("_Name") in seen:
            continue
        seen.add(mol.GetProp("_Name"))
        mol = Chem.AddHs(Chem.RemoveHs(mol))
        if AllChem.EmbedMolecule(mol, randomSeed=seed) != 0:
            continue
        molecules.append(hermite.rdkit.from_rdkit(mol, charges=None))
    rng = np.random.default_rng(seed)
    chosen = rng.choice(len(molecules), size=min(count, len(molecules)), replace=False)
    return [molecules[i] for i in sorted(chosen)]


def large_molecules(hermite):
    """LARGE_CONFORMERS conformers of each large molecule, as lists of hermite molecules."""
    from rdkit import Chem
    from rdkit.Chem import AllChem
    import hermite.rdkit

    smiles = list(LARGE_SMILES.values()) + [
        "".join(RESIDUES[r] for r in sequence) + "O" for sequence in LARGE_PEPTIDES]
    conformers = []
    for text in smiles:
        mol = Chem.AddHs(Chem.MolFromSmiles(text))
        ids = AllChem.EmbedMultipleConfs(mol, LARGE_CONFORMERS, randomSeed=7)
        if len(ids) != LARGE_CONFORMERS:
            raise RuntimeError(f"ETKDG gave {len(ids)} conformers of {text}")
        conformers.append([hermite.rdkit.from_rdkit(mol, conf_id=i, charges=None) for i in ids])
    return conformers


def pair_sets(hermite, seed):
    rng = np.random.default_rng(seed)
    cdk2 = hermite.read_molecules(CDK2)
    moved = [random_motion(rng, m, hermite) for m in cdk2]
    sets = {"cdk2": [(q, f) for q in range(len(cdk2)) for f in range(len(cdk2)) if q != f]}
    actives = fabp4_actives(hermite, 47, seed)
    fabp4_moved = [random_motion(rng, m, hermite) for m in actives]
    pairs = set()
    while len(pairs) < FABP4_PAIRS:
        q, f = rng.choice(len(actives), size=2, replace=False)
        pairs.add((int(q), int(f)))
    sets["fabp4"] = sorted(pairs)
    # Conformer c of large molecule m is molecule LARGE_CONFORMERS * m + c.
    large = [c for conformers in large_molecules(hermite) for c in conformers]
    large_moved = [random_motion(rng, m, hermite) for m in large]
    count = len(large) // LARGE_CONFORMERS
    sets["large"] = []
    for m in range(count):
        for n in range(count):
            fits = range(1, LARGE_CONFORMERS) if n == m else [1]
            sets["large"] += [(LARGE_CONFORMERS * m, LARGE_CONFORMERS * n + c) for c in fits]
    return {"cdk2": (cdk2, moved), "fabp4": (actives, fabp4_moved),
            "large": (large, large_moved)}, sets


def run_config(hermite, config, molecules, pairs):
    """Exact Tanimoto of every pair, and the seconds of the overlays (one thread, one call of
    hermite.screen per query)."""
    settings = search_settings(config)
    originals, moved = molecules
    by_query = {}
    for q, f in pairs:
        by_query.setdefault(q, []).append(f)
    scores, seconds = {}, 0.0
    for q, fits in by_query.items():
        start = time.perf_counter()
        results = hermite.screen(originals[q], [moved[f] for f in fits], threads=1, **settings)
        seconds += time.perf_counter() - start
        for f, result in zip(fits, results):
            scores[(q, f)] = tanimoto(originals[q].coords, result.aligned_coords)
    return scores, seconds


def search_settings(config):
    """The keywords of a configuration: a preset's by its effort, so that pairs of large
    molecules take the preset's own search for them; any other's for every pair, as the
    command-line options set them."""
    if config in PRESETS:
        return dict(effort=PRESETS[config])
    order, scan, starts, refine = config[:4]
    settings = dict(order=order, scan_rotations=scan, search_starts=starts,
                    refine_candidates=max(refine, 1), large_scan_rotations=scan,
                    large_search_starts=starts, large_refine_candidates=max(refine, 1))
    if len(config) > 4:
        settings["relative_tolerance"] = config[4]
    return settings


def size_conformers(hermite):
    """Twenty conformers of each molecule of SIZE_SMILES, and its heavy atom count."""
    from rdkit import Chem
    from rdkit.Chem import AllChem
    import hermite.rdkit

    sizes = {}
    for name, smiles in SIZE_SMILES.items():
        mol = Chem.AddHs(Chem.MolFromSmiles(smiles))
        ids = AllChem.EmbedMultipleConfs(mol, 20, randomSeed=1)
        sizes[name] = ([hermite.rdkit.from_rdkit(mol, conf_id=i, charges=None) for i in ids],
                       Chem.RemoveHs(mol).GetNumAtoms())
    return sizes


def timed_rates(hermite, config, molecules, pairs, sizes):
    """One timed run of each rate (overlays per second, one thread): the CDK2 all-against-all,
    one query against the CDK2 set forty times, each size molecule's first ten conformers
    against all of its conformers, and (NAME_fit) against them ten times over, the first twenty
    fits' time taken away."""
    settings = search_settings(config)
    rates = {"cdk2": len(pairs) / run_config(hermite, config, molecules, pairs)[1]}
    fits = molecules[1] * 40
    start = time.perf_counter()
    hermite.screen(molecules[0][0], fits, threads=1, **settings)
    rates["screen"] = len(fits) / (time.perf_counter() - start)
    for name, (conformers, _) in sizes.items():
        seconds = {}
        for copies in (1, LONG_SCREEN_COPIES):
            fits = conformers * copies
            start = time.perf_counter()
            for query in conformers[:10]:
                hermite.screen(query, fits, threads=1, **settings)
            seconds[copies] = time.perf_counter() - start
        rates[name] = 10 * len(conformers) / seconds[1]
        # The fits beyond the first twenty, whose queries are already set up.
        extra = 10 * len(conformers) * (LONG_SCREEN_COPIES - 1)
        rates[name + "_fit"] = extra / max(seconds[LONG_SCREEN_COPIES] - seconds[1], 1e-9)
    return rates


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--python-path", default=os.path.join(REPOSITORY, "build/python"))
    parser.add_argument("--configs", nargs="*", default=list(CONFIGS))
    parser.add_argument("--json")
    parser.add_argument("--data-dir", default="/work/bench-data")
    parser.add_argument("--seed", type=int, default=7)
    parser.add_argument("--repeats", type=int, default=5,
                        help="timed runs per configuration (the fastest counts)")
    args = parser.parse_args()
    sys.path.insert(0, os.path.abspath(args.python_path))
    import hermite

    molecules, sets = pair_sets(hermite, args.seed)
    cache_path = os.path.join(args.data_dir, "search-reference.json")
    cache = json.load(open(cache_path)) if os.path.exists(cache_path) else {}
    cached = {name: cache.get(CACHE_NAMES[name], {}) for name in sets}
    best = {name: {f"{q},{f}": cached[name].get(f"{q},{f}", 0.0) for q, f in pairs}
            for name, pairs in sets.items()}

    def improve(name, scores):
        for (q, f), value in scores.items():
            key = f"{q},{f}"
            best[name][key] = max(best[name][key], value)

    for name, pairs in sets.items():
        missing = [pair for pair in pairs if f"{pair[0]},{pair[1]}" not in cached[name]]
        if missing:
            log(f"exhaustive search on {name} ({len(missing)} pairs)")
            scores, seconds = run_config(hermite, EXHAUSTIVE, molecules[name], missing)
            improve(name, scores)
            log(f"  {seconds:.0f} s")

    rows = []
    for label in args.configs:
        config = CONFIGS[label]
        row = {"config": label, "settings": config}
        for name, pairs in sets.items():
            row[name], _ = run_config(hermite, config, molecules[name], pairs)
            improve(name, row[name])
        rows.append(row)
        log(f"{label}: cdk2 {np.mean(list(row['cdk2'].values())):.4f}")
    # The timings go round the configurations, so that a slow spell of the machine (other work,
    # a busy host) falls on all of them alike; the fastest run of each counts, as such spells
    # only ever slow a run down.
    sizes = size_conformers(hermite)
    for repeat in range(args.repeats):
        for row in rows:
            rates = timed_rates(hermite, row["settings"], molecules["cdk2"], sets["cdk2"], sizes)
            best_rates = row.setdefault("rates", {})
            for key, rate in rates.items():
                best_rates[key] = max(best_rates.get(key, 0.0), rate)
        log(f"timed run {repeat + 1} of {args.repeats}")
    os.makedirs(args.data_dir, exist_ok=True)
    with open(cache_path, "w") as out:
        json.dump({**cache, **{CACHE_NAMES[name]: best[name] for name in sets}}, out)

    reference = {name: float(np.mean(list(best[name].values()))) for name in sets}
    print(f"best-known mean exact shape Tanimoto: CDK2 {reference['cdk2']:.4f} "
          f"({len(sets['cdk2'])} ordered pairs), FABP4 {reference['fabp4']:.4f} "
          f"({len(sets['fabp4'])} pairs), large molecules {reference['large']:.4f} "
          f"({len(sets['large'])} pairs)\n")
    size_columns = "".join(
        f" time at {sizes[large][1]} / at {sizes[small][1]} heavy atoms | the same per fit of a "
        f"long screen |" for large, small in SIZE_PAIRS)
    print("| search | CDK2 mean | gap | FABP4 mean | gap | large mean | gap | "
          "symmetric within 0.01 | "
          f"overlays/s, all against all | overlays/s, screen |{size_columns}")
    print("|---|--:|--:|--:|--:|--:|--:|--:|--:|--:|" + "--:|--:|" * len(SIZE_PAIRS))
    summary = []
    for row in rows:
        cdk2 = row["cdk2"]
        symmetric = np.mean([abs(cdk2[(q, f)] - cdk2[(f, q)]) <= 0.01 for q, f in sets["cdk2"]])
        mean = {name: float(np.mean(list(row[name].values()))) for name in sets}
        print(f"| {row['config']} | {mean['cdk2']:.4f} | {reference['cdk2'] - mean['cdk2']:.4f} | "
              f"{mean['fabp4']:.4f} | {reference['fabp4'] - mean['fabp4']:.4f} | "
              f"{mean['large']:.4f} | {reference['large'] - mean['large']:.4f} | "
              f"{100 * symmetric:.1f} % | {row['rates']['cdk2']:,.0f} | "
              f"{row['rates']['screen']:,.0f} |" +
              "".join(f" {row['rates'][small] / row['rates'][large]:.2f} | "
                      f"{row['rates'][small + '_fit'] / row['rates'][large + '_fit']:.2f} |"
                      for large, small in SIZE_PAIRS))
        summary.append({"config": row["config"], "settings": row["settings"], "mean": mean,
                        "gap": {n: reference[n] - mean[n] for n in sets},
                        "symmetric": float(symmetric), "rates": row["rates"]})
    if args.json:
        with open(args.json, "w") as out:
            json.dump({"reference": reference, "rows": summary}, out, indent=2)


if __name__ == "__main__":
    main()

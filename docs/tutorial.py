"""Screening the FABP4 actives and decoys from a notebook, step by step.

Each step below is one notebook cell; run as a script it prints what a notebook would show and
writes the pictures and the SD file into --out. docs/tutorial.md shows the output.

    python3 docs/tutorial.py --out tutorial-output [--decoys 400] [--conformers 5]
"""

import argparse
import os
import time

from rdkit import Chem
from rdkit.Chem import AllChem

import hermite
import hermite.rdkit
import hermite.report

DATA = "/work/shared/data/dude-fabp4"

parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
parser.add_argument("--data", default=DATA, help="the FABP4 directory (DUD-E)")
parser.add_argument("--out", default="tutorial-output", help="where pictures and SD go")
parser.add_argument("--decoys", type=int, default=0, help="decoys screened (0: all of them)")
parser.add_argument("--conformers", type=int, default=10, help="ETKDG conformers per molecule")
args = parser.parse_args()
os.makedirs(args.out, exist_ok=True)

# %% 1. The query: the crystal ligand in its bound pose.
query = next(iter(hermite.read_mols(os.path.join(args.data, "crystal_ligand.mol2"))))
print(f"query: {Chem.MolToSmiles(Chem.RemoveHs(query))}, {query.GetNumHeavyAtoms()} heavy atoms")


# %% 2. Actives and decoys: one record per title (several protonation states share a title).
def first_per_title(path, limit=0):
    seen = {}
    for mol in hermite.read_mols(path):
        seen.setdefault(mol.GetProp("_Name"), mol)
        if limit and len(seen) == limit:
            break
    return list(seen.values())


actives = first_per_title(os.path.join(args.data, "actives_final.mol2.gz"))
decoys = first_per_title(os.path.join(args.data, "decoys_final.mol2.gz"), args.decoys)
print(f"{len(actives)} actives, {len(decoys)} decoys")


# %% 3. Conformers: ETKDGv3, a fixed seed, every molecule with the same number of tries.
def with_conformers(mol, count, seed=42):
    mol = Chem.AddHs(mol, addCoords=True)
    parameters = AllChem.ETKDGv3()
    parameters.randomSeed = seed
    AllChem.EmbedMultipleConfs(mol, numConfs=count, params=parameters)
    return mol


start = time.perf_counter()
molecules = [with_conformers(mol, args.conformers) for mol in actives + decoys]
conformers = sum(mol.GetNumConformers() for mol in molecules)
print(f"{conformers} conformers in {time.perf_counter() - start:.0f} s")

# %% 4. The screen: every conformer against the query, best conformer per molecule, a DataFrame.
start = time.perf_counter()
hits = hermite.rdkit.screen(query, molecules, progress=False)
seconds = time.perf_counter() - start
print(f"screened in {seconds:.1f} s ({conformers / seconds:,.0f} conformers per second)")
hits["active"] = hits["title"].isin({mol.GetProp("_Name") for mol in actives})
columns = ["rank", "title", "shape_tanimoto", "tversky_query", "conformer", "active"]
print(hits[columns].head(10).to_string(index=False))

# %% 5. How well shape alone ranks the actives: ROC curve and early enrichment.
figure, auc = hermite.report.roc_curve(hits["shape_tanimoto"], hits["active"], label="shape")
figure.savefig(os.path.join(args.out, "roc.png"), dpi=100)
ef1 = hermite.report.enrichment_factor(hits["shape_tanimoto"], hits["active"], 0.01)
bedroc = hermite.report.bedroc(hits["shape_tanimoto"], hits["active"], alpha=20.0)
print(f"ROC AUC {auc:.3f}, EF 1 % {ef1:.1f}, BEDROC(20) {bedroc:.3f}")

# %% 6. The score distribution with the top 50 marked, and a grid of the top hits.
figure = hermite.report.score_distribution(hits, top_n=50)
figure.savefig(os.path.join(args.out, "scores.png"), dpi=100)
hermite.report.top_hits_grid(hits, n=12).save(os.path.join(args.out, "top_hits.png"))

# %% 7. The 50 best, posed onto the query, as SD (RDKit's PandasTools.WriteSDF works as well).
written = hermite.write_sd(os.path.join(args.out, "top50.sdf"), hits.head(50))
print(f"{written} posed hits written to top50.sdf")

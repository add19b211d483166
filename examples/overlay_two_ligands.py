"""Overlay two CDK2 ligands by shape and print their scores.

A notebook-style walk through the hermite Python module: every ``# %%`` cell can be run on its
own in an editor that understands cells, or the whole file as a script:

    PYTHONPATH=build/python /usr/bin/python3 examples/overlay_two_ligands.py

The ligands come from Debian's rdkit-data package (47 CDK2 inhibitors with hydrogens and 3-D
coordinates).
"""

# %% Load two ligands with RDKit (hydrogens kept, so that the written pose has them too).
from pathlib import Path

import numpy as np
from rdkit import Chem

import hermite
import hermite.rdkit

CDK2 = Path("/usr/share/RDKit/Contrib/Fastcluster/testdata/cdk2.sdf")
supplier = Chem.SDMolSupplier(str(CDK2), removeHs=False)
query_mol, fit_mol = supplier[0], supplier[1]
print(f"query: {query_mol.GetProp('_Name')} ({query_mol.GetNumHeavyAtoms()} heavy atoms)")
print(f"fit:   {fit_mol.GetProp('_Name')} ({fit_mol.GetNumHeavyAtoms()} heavy atoms)")

# %% The shape densities and their Hermite expansions: one carbon-sized Gaussian per heavy atom.
query = hermite.rdkit.from_rdkit(query_mol)  # heavy atoms, Gasteiger charges
density = query.shape_gaussians()
expansion = hermite.Expansion(density, hermite.Options(order=8))
exact = hermite.exact_overlap(density, density)
print(f"\n{expansion}")
print(f"self-overlap of the order-8 expansion {expansion.self_overlap:.3f} A^3, "
      f"exact {exact:.3f} A^3 ({100 * expansion.self_overlap / exact:.2f} %)")

# %% Overlay the fit onto the query: shape plus electrostatics from Gasteiger charges. The fit
# molecule is copied, its conformer moved (hydrogens included) and the scores stored as
# properties of the copy.
posed = hermite.rdkit.overlay_mols(query_mol, fit_mol, electrostatics=True, starts=8)
scores = posed.result.scores
print("\nscores")
for name, value in scores.as_dict().items():
    print(f"  {name:20s} {value:10.4f}")

# %% The rigid motion of the fit, and the properties written into the posed molecule.
np.set_printoptions(precision=4, suppress=True)
print(f"\ntransform (p -> R p + t) of the fit:\n{posed.result.transform}")
print("\nproperties of the posed molecule:")
for name in posed.mol.GetPropNames():
    if name.startswith("hermite_"):
        print(f"  {name} = {posed.mol.GetProp(name)}")

# %% The aligned pose as an SD record, ready to be written to a file or shown in a viewer.
record = Chem.MolToMolBlock(posed.mol)
print(f"\nposed molecule: {posed.mol.GetNumAtoms()} atoms, {len(record.splitlines())} "
      "mol block lines")

"""hermite.rdkit: RDKit molecules in, poses and scores written back."""

from __future__ import annotations

from typing import List

import numpy as np
import pytest
from rdkit import Chem
from rdkit.Chem import AllChem

import hermite
import hermite.rdkit as hr
from conftest import random_rotation


def moved_mol(mol: Chem.Mol, seed: int) -> Chem.Mol:
    """A copy of `mol` with every atom moved by a random rigid motion."""
    rng = np.random.default_rng(seed)
    rotation, shift = random_rotation(rng), rng.uniform(-5, 5, size=3)
    copy = Chem.Mol(mol)
    conformer = copy.GetConformer()
    positions = conformer.GetPositions() @ rotation.T + shift
    for i, p in enumerate(positions):
        conformer.SetAtomPosition(i, p.tolist())
    return copy


def heavy_positions(mol: Chem.Mol, conf_id: int = -1) -> np.ndarray:
    heavy = [a.GetIdx() for a in mol.GetAtoms() if a.GetAtomicNum() > 1]
    return mol.GetConformer(conf_id).GetPositions()[heavy]


def test_from_rdkit_matches_the_reader(cdk2_rdkit: List[Chem.Mol],
                                       cdk2: List[hermite.Molecule]) -> None:
    for mol, read in zip(cdk2_rdkit[:5], cdk2[:5]):
        molecule = hr.from_rdkit(mol)
        assert molecule.title == read.title == mol.GetProp("_Name")
        np.testing.assert_allclose(molecule.coords, read.coords)
        np.testing.assert_array_equal(molecule.atomic_numbers, read.atomic_numbers)
        np.testing.assert_allclose(molecule.charges, read.charges, atol=1e-12)


def test_united_atom_charges_keep_the_total(cdk2_rdkit: List[Chem.Mol]) -> None:
    mol = cdk2_rdkit[0]
    everything = hr.from_rdkit(mol, hydrogens=True)
    heavy = hr.from_rdkit(mol)
    assert everything.num_atoms == mol.GetNumAtoms() > heavy.num_atoms
    assert heavy.charges.sum() == pytest.approx(everything.charges.sum(), abs=1e-10)
    # Without explicit hydrogens the implicit ones are folded in the same way.
    no_h = Chem.RemoveHs(mol)
    np.testing.assert_allclose(hr.from_rdkit(no_h).charges, heavy.charges, atol=1e-10)
    mmff = hr.from_rdkit(mol, charges="mmff")
    assert mmff.charges.sum() == pytest.approx(Chem.GetFormalCharge(mol), abs=1e-6)
    assert np.all(hr.from_rdkit(mol, charges=None).charges == 0)


def test_input_charges(cdk2_rdkit: List[Chem.Mol]) -> None:
    mol = Chem.Mol(cdk2_rdkit[1])
    for i, atom in enumerate(mol.GetAtoms()):
        atom.SetDoubleProp("PartialCharge", 0.01 * i)
    molecule = hr.from_rdkit(mol, charges="input", hydrogens=True)
    np.testing.assert_allclose(molecule.charges, 0.01 * np.arange(mol.GetNumAtoms()))
    with pytest.raises(ValueError, match="PartialCharge"):
        hr.from_rdkit(cdk2_rdkit[2], charges="input")


def test_overlay_mols_writes_pose_and_scores_into_a_copy(cdk2_rdkit: List[Chem.Mol]) -> None:
    query = cdk2_rdkit[3]
    fit = moved_mol(query, 11)
    fit.SetProp("_Name", "moved ligand")
    fit.SetProp("note", "kept")
    before = fit.GetConformer().GetPositions().copy()
    posed = hr.overlay_mols(query, fit)
    assert isinstance(posed, hr.MolOverlay)
    mol, result = posed.mol, posed.result
    assert mol is not fit
    np.testing.assert_array_equal(fit.GetConformer().GetPositions(), before)  # untouched
    # Every atom, hydrogens included, is back on the query.
    after = mol.GetConformer().GetPositions()
    assert np.sqrt(np.mean(np.sum((after - query.GetConformer().GetPositions()) ** 2, 1))) < 0.1
    assert result.scores.shape_tanimoto >= 0.99
    assert mol.GetProp("_Name") == "moved ligand" and mol.GetProp("note") == "kept"
    for name in ("id", "Cluster"):
        assert mol.GetProp(name) == query.GetProp(name)
    assert mol.GetDoubleProp("hermite_shape_tanimoto") == result.scores.shape_tanimoto
    assert mol.GetDoubleProp("hermite_tversky_query") == result.scores.tversky_query
    assert mol.GetProp("hermite_query") == query.GetProp("_Name")
    assert not mol.HasProp("hermite_es_tanimoto")
    # The properties survive a round trip through a mol block with data items.
    block = Chem.MolToMolBlock(mol)
    again = Chem.MolFromMolBlock(block, removeHs=False)
    assert again.GetProp("_Name") == "moved ligand"
    np.testing.assert_allclose(again.GetConformer().GetPositions(), after, atol=1e-4)


def test_overlay_mols_in_place_and_other_conformers(cdk2_rdkit: List[Chem.Mol]) -> None:
    query = cdk2_rdkit[4]
    fit = Chem.Mol(cdk2_rdkit[4])
    moved = moved_mol(fit, 5).GetConformer().GetPositions()
    second = Chem.Conformer(fit.GetNumAtoms())
    for i, p in enumerate(moved):
        second.SetAtomPosition(i, p.tolist())
    second.Set3D(True)
    second.SetId(7)
    fit.AddConformer(second, assignId=False)
    first_before = fit.GetConformer(0).GetPositions().copy()
    posed = hr.overlay_mols(query, fit, fit_conf=7, inplace=True, electrostatics=True)
    assert posed.mol is fit
    np.testing.assert_array_equal(fit.GetConformer(0).GetPositions(), first_before)
    np.testing.assert_allclose(heavy_positions(fit, 7), heavy_positions(query), atol=0.1)
    assert fit.GetDoubleProp("hermite_es_tanimoto") == pytest.approx(1.0, abs=1e-3)
    assert fit.HasProp("hermite_es_combo") and not fit.HasProp("hermite_combo")
    with pytest.raises(ValueError, match="no conformer with id 3"):
        hr.overlay_mols(query, fit, fit_conf=3)


def test_screen_equals_overlay_mols(cdk2_rdkit: List[Chem.Mol]) -> None:
    query, mols = cdk2_rdkit[0], cdk2_rdkit[1:7]
    table = hr.screen(query, mols, threads=2, progress=False)
    assert sorted(table["position"]) == list(range(6))
    assert list(table["rank"]) == list(range(1, 7))
    assert list(table["shape_tanimoto"]) == sorted(table["shape_tanimoto"], reverse=True)
    for row in table.itertuples():
        mol = mols[row.position]
        single = hr.overlay_mols(query, mol)
        assert row.title == mol.GetProp("_Name")
        assert row.shape_tanimoto == single.result.scores.shape_tanimoto
        assert row.tversky_fit == single.result.scores.tversky_fit
        np.testing.assert_allclose(row.mol.GetConformer().GetPositions(),
                                   single.mol.GetConformer().GetPositions(), atol=1e-9)
        assert row.mol.GetDoubleProp("hermite_shape_tanimoto") == row.shape_tanimoto
        assert row.mol.GetIntProp("hermite_rank") == row.rank
        assert (row.conformer, row.query_conformer, row.conformers) == (0, 0, 1)
        assert not mol.HasProp("hermite_shape_tanimoto")  # the input is untouched
    # None entries (unreadable records) are skipped with a warning, not an error.
    with pytest.warns(hermite.HermiteWarning, match="skipped 1 of 2"):
        assert len(hr.screen(query, [mols[0], None], progress=False)) == 1


def test_screen_electrostatics_and_charges(cdk2_rdkit: List[Chem.Mol]) -> None:
    query, mols = cdk2_rdkit[0], cdk2_rdkit[1:4]
    table = hr.screen(query, mols, electrostatics=True, charges="mmff", progress=False)
    assert list(table["es_combo"]) == sorted(table["es_combo"], reverse=True)
    assert table[["colour_tanimoto", "combo"]].isna().all().all()
    for row in table.itertuples():
        single = hr.overlay_mols(query, mols[row.position], charges="mmff", electrostatics=True)
        assert row.es_tanimoto == pytest.approx(single.result.scores.es_tanimoto, abs=1e-9)
        assert row.es_combo == pytest.approx(row.shape_tanimoto + row.es_tanimoto, abs=1e-9)
        assert row.mol.GetDoubleProp("hermite_es_combo") == row.es_combo
    # Shape-only screens take no charges: a charge model that would fail does not matter.
    assert hr.screen(query, mols, charges="input", progress=False)["error"].isna().all()
    # With electrostatics a molecule without input charges is a row with an error, a query
    # without them an exception.
    charged = Chem.Mol(query)
    for atom in charged.GetAtoms():
        atom.SetDoubleProp("PartialCharge", 0.0)
    failed = hr.screen(charged, mols[:1], charges="input", electrostatics=True, progress=False)
    assert "PartialCharge" in failed["error"][0] and np.isnan(failed["shape_tanimoto"][0])
    with pytest.raises(ValueError, match="PartialCharge"):
        hr.screen(query, mols, charges="input", electrostatics=True, progress=False)


def test_rdkit_input_errors(cdk2_rdkit: List[Chem.Mol]) -> None:
    flat = Chem.MolFromSmiles("c1ccccc1O")
    with pytest.raises(ValueError, match="no conformer"):
        hr.from_rdkit(flat)
    AllChem.Compute2DCoords(flat)
    with pytest.raises(ValueError, match="2-D"):
        hr.from_rdkit(flat)
    with pytest.raises(TypeError, match="RDKit molecule"):
        hr.from_rdkit("c1ccccc1")  # type: ignore[arg-type]
    with pytest.raises(ValueError, match="charges must be"):
        hr.from_rdkit(cdk2_rdkit[0], charges="eem")  # type: ignore[arg-type]
    hydrogen = Chem.AddHs(Chem.MolFromSmiles("[H][H]"))
    AllChem.EmbedMolecule(hydrogen, randomSeed=1)
    with pytest.raises(ValueError, match="no atoms to take"):
        hr.from_rdkit(hydrogen)
    assert hr.from_rdkit(hydrogen, hydrogens=True).num_atoms == 2


def test_lazy_attribute() -> None:
    assert hermite.rdkit is hr

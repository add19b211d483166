"""RDKit in a notebook: molecule files read into RDKit molecules and written back
(hermite.read_mols, hermite.write_sd, hermite.read_molecules) and screens into pandas tables
(hermite.rdkit.screen)."""

from __future__ import annotations

import gzip
import os
import pathlib
import subprocess
import sys
import warnings
from typing import List, Tuple

import numpy as np
import pytest
from rdkit import Chem
from rdkit.Chem import AllChem, PandasTools

import hermite
import hermite.rdkit as hr
from conftest import random_rotation

# Two small molecules, written with three conformers each.
MOLECULES = (("CC(=O)Nc1ccc(O)cc1", "paracetamol", "A"), ("OC(=O)c1ccccc1OC(C)=O", "aspirin", "B"))
CONFORMERS = 3


def embedded(smiles: str, title: str, seed: int, count: int = CONFORMERS) -> Chem.Mol:
    mol = Chem.AddHs(Chem.MolFromSmiles(smiles))
    assert len(AllChem.EmbedMultipleConfs(mol, count, randomSeed=seed)) == count
    mol.SetProp("_Name", title)
    return mol


def moved(mol: Chem.Mol, conf_id: int, seed: int) -> Chem.Conformer:
    """A copy of conformer `conf_id` of `mol` moved by a random rigid motion."""
    rng = np.random.default_rng(seed)
    rotation, shift = random_rotation(rng), rng.uniform(-8, 8, size=3)
    conformer = Chem.Conformer(mol.GetConformer(conf_id))
    for i, p in enumerate(mol.GetConformer(conf_id).GetPositions() @ rotation.T + shift):
        conformer.SetAtomPosition(i, p.tolist())
    return conformer


def rms(a: np.ndarray, b: np.ndarray) -> float:
    return float(np.sqrt(np.mean(np.sum((a - b) ** 2, axis=1))))


@pytest.fixture(scope="module")
def sources() -> List[Chem.Mol]:
    return [embedded(smiles, title, seed) for (smiles, title, _), seed in zip(MOLECULES, (7, 8))]


@pytest.fixture()
def conformer_file(tmp_path: pathlib.Path, sources: List[Chem.Mol]) -> pathlib.Path:
    """Two molecules of three conformers each, one SD record per conformer, with a data item
    of the molecule (series) and one of each conformer (energy), written by RDKit."""
    path = tmp_path / "conformers.sdf"
    writer = Chem.SDWriter(str(path))
    for mol, (_, _, series) in zip(sources, MOLECULES):
        copy = Chem.Mol(mol)
        copy.SetProp("series", series)
        for conformer in copy.GetConformers():
            copy.SetProp("energy", f"{-10.5 - conformer.GetId()}")
            writer.write(copy, confId=conformer.GetId())
    writer.close()
    return path


def conformer_records(mol: Chem.Mol) -> List[int]:
    return [c.GetIntProp(hermite.molfiles.RECORD_PROPERTY) for c in mol.GetConformers()]


# ---------------------------------------------------------------------------------------------
# Reading


def test_read_cdk2(cdk2_path: str, cdk2_rdkit: List[Chem.Mol]) -> None:
    mols = list(hermite.read_mols(cdk2_path))
    assert len(mols) == 47
    assert [m.GetNumConformers() for m in mols] == [1] * 47
    assert [conformer_records(m) for m in mols] == [[i] for i in range(47)]
    for mol, expected in zip(mols, cdk2_rdkit):
        assert mol.GetProp("_Name") == expected.GetProp("_Name")
        assert mol.GetNumAtoms() == expected.GetNumAtoms()  # hydrogens kept
        assert mol.GetProp("Cluster") == expected.GetProp("Cluster")
        assert mol.GetConformer().GetProp("id") == expected.GetProp("id")
        np.testing.assert_array_equal(mol.GetConformer().GetPositions(),
                                      expected.GetConformer().GetPositions())
    heavy = next(hermite.read_mols(pathlib.Path(cdk2_path), remove_hs=True))
    assert heavy.GetNumAtoms() == cdk2_rdkit[0].GetNumHeavyAtoms() == 17


def test_conformers_of_one_title(conformer_file: pathlib.Path, sources: List[Chem.Mol]) -> None:
    with hermite.read_mols(conformer_file) as reader:
        mols = list(reader)
    assert [m.GetProp("_Name") for m in mols] == ["paracetamol", "aspirin"]
    assert [m.GetNumConformers() for m in mols] == [CONFORMERS, CONFORMERS]
    assert [conformer_records(m) for m in mols] == [[0, 1, 2], [3, 4, 5]]
    for mol, source, (_, _, series) in zip(mols, sources, MOLECULES):
        # The molecule carries the first record's data items, each conformer its own.
        assert mol.GetProp("series") == series and mol.GetProp("energy") == "-10.5"
        assert [c.GetProp("energy") for c in mol.GetConformers()] == ["-10.5", "-11.5", "-12.5"]
        for conformer, expected in zip(mol.GetConformers(), source.GetConformers()):
            np.testing.assert_allclose(conformer.GetPositions(), expected.GetPositions(),
                                       atol=1e-4)
    # One hermite.Molecule per conformer, titled by the record.
    molecules = hermite.read_molecules(conformer_file)
    assert [m.title for m in molecules] == ["paracetamol"] * 3 + ["aspirin"] * 3
    assert molecules[4].num_atoms == mols[1].GetNumHeavyAtoms()
    heavy = [a.GetIdx() for a in mols[1].GetAtoms() if a.GetAtomicNum() > 1]
    np.testing.assert_allclose(molecules[4].coords,
                               mols[1].GetConformer(1).GetPositions()[heavy])


def test_a_new_constitution_under_one_title_is_another_molecule(
        tmp_path: pathlib.Path, sources: List[Chem.Mol]) -> None:
    path = tmp_path / "renamed.sdf"
    renamed = Chem.Mol(sources[1])
    renamed.SetProp("_Name", "paracetamol")
    protonated = embedded("CC(=O)Nc1ccc([OH2+])cc1", "paracetamol", 3, count=1)
    with Chem.SDWriter(str(path)) as writer:
        writer.write(sources[0], confId=0)
        writer.write(protonated)
        writer.write(renamed, confId=0)
        writer.write(renamed, confId=1)
    with pytest.warns(hermite.HermiteWarning, match=r"renamed.sdf, record 2 \(paracetamol\): "
                                                    "shares the title of record 1 but has "
                                                    "another constitution") as caught:
        mols = list(hermite.read_mols(path))
    assert len([w for w in caught if w.category is hermite.HermiteWarning]) == 1
    # The protonated form has another hydrogen: a molecule of its own, without a warning.
    assert [conformer_records(m) for m in mols] == [[0], [1], [2, 3]]


def test_bad_records_are_skipped_with_a_warning(cdk2_path: str, tmp_path: pathlib.Path) -> None:
    records = pathlib.Path(cdk2_path).read_bytes().split(b"$$$$\n")
    # Record 1 gets a carbon of valence 6 (its first bond, single, becomes triple), record 3 a
    # counts line that is not numbers.
    lines = records[3].split(b"\n")
    lines[3] = b"abc" + lines[3][3:]
    records[3] = b"\n".join(lines)
    records[1] = records[1].replace(b"\n  1  2  1", b"\n  1  2  3", 1)
    path = tmp_path / "bad.sdf"
    path.write_bytes(b"$$$$\n".join(records))
    with warnings.catch_warnings(record=True) as caught:
        warnings.simplefilter("always")
        mols = list(hermite.read_mols(path))
    messages = [str(w.message) for w in caught if w.category is hermite.HermiteWarning]
    assert len(messages) == 2
    assert messages[0].startswith(f"{path}, record 1 (ZINC03814459): RDKit could not sanitise")
    assert "valence" in messages[0]
    assert messages[1].startswith(f"{path}, record 3 (ZINC00023543): RDKit could not parse")
    assert all(w.filename == __file__ for w in caught)  # reported at the caller
    assert len(mols) == 45
    assert [conformer_records(m)[0] for m in mols[:3]] == [0, 2, 4]
    # RDKit's supplier gives None for them; the screen skips those with one warning.
    supplier = Chem.SDMolSupplier(str(path), removeHs=False)
    with pytest.warns(hermite.HermiteWarning, match=r"skipped 2 of 47 .*positions 1, 3\)"):
        table = hr.screen(mols[0], supplier, progress=False)
    assert len(table) == 45 and 1 not in set(table["position"])


def test_files_that_cannot_be_read(tmp_path: pathlib.Path) -> None:
    with pytest.raises(FileNotFoundError, match="cannot open file"):
        hermite.read_mols(tmp_path / "missing.sdf")
    (tmp_path / "folder.sdf").mkdir()
    with pytest.raises(IsADirectoryError, match="cannot open file"):
        hermite.read_mols(str(tmp_path / "folder.sdf"))
    (tmp_path / "ligands.xyz").write_text("1\n\nC 0 0 0\n")
    with pytest.raises(ValueError, match="unknown file extension"):
        hermite.read_mols(tmp_path / "ligands.xyz")
    with pytest.raises(ValueError, match="smiles_conformers must lie in 1..10000, got 0"):
        hermite.read_mols(tmp_path / "missing.smi", smiles_conformers=0)
    # Another name: format= says what it is; gzip data is recognised by its content.
    data = pathlib.Path("/usr/share/RDKit/Contrib/Fastcluster/testdata/cdk2.sdf").read_bytes()
    (tmp_path / "ligands.txt").write_bytes(gzip.compress(data))
    assert len(list(hermite.read_mols(tmp_path / "ligands.txt", format="sdf"))) == 47
    # A drawing is skipped unless 3-D coordinates are not required.
    flat = Chem.MolFromSmiles("c1ccccc1O")
    AllChem.Compute2DCoords(flat)
    (tmp_path / "flat.mol").write_text(Chem.MolToMolBlock(flat))
    with pytest.warns(hermite.HermiteWarning, match=r"flat.mol, record 0: molecule has no 3-D "
                                                    "coordinates; skipped"):
        assert list(hermite.read_mols(tmp_path / "flat.mol")) == []
    assert len(list(hermite.read_mols(tmp_path / "flat.mol", require_3d=False))) == 1
    # A truncated gzip file: the records before the damage, and a warning.
    whole = gzip.compress(data)
    (tmp_path / "cut.sdf.gz").write_bytes(whole[:len(whole) // 2])
    with pytest.warns(hermite.HermiteWarning, match="cut.sdf.gz: read error"):
        assert 10 < len(list(hermite.read_mols(tmp_path / "cut.sdf.gz"))) < 47


def test_smiles_are_embedded(tmp_path: pathlib.Path) -> None:
    path = tmp_path / "ligands.smi"
    path.write_text("SMILES Name\n# a comment\nCCO ethanol\nC1CC1C(\n\nc1ccccc1O\n")
    with pytest.warns(hermite.HermiteWarning, match=r"ligands.smi, record 1, line 4 \(C1CC1C\(\):"
                                                    " RDKit could not parse the SMILES"):
        mols = list(hermite.read_mols(path, smiles_conformers=4, seed=5))
    assert [m.GetProp("_Name") for m in mols] == ["ethanol", "c1ccccc1O"]
    assert [m.GetNumConformers() for m in mols] == [4, 4]
    assert [m.GetNumAtoms() for m in mols] == [9, 13]  # embedded with hydrogens
    assert conformer_records(mols[1]) == [2] * 4
    with pytest.warns(hermite.HermiteWarning):
        again = list(hermite.read_mols(path, smiles_conformers=4, seed=5))
        other = list(hermite.read_mols(path, smiles_conformers=4, seed=6))
    np.testing.assert_array_equal(again[1].GetConformer(3).GetPositions(),
                                  mols[1].GetConformer(3).GetPositions())
    assert rms(other[1].GetConformer(0).GetPositions(), mols[1].GetConformer(0).GetPositions()) > 0
    with pytest.warns(hermite.HermiteWarning):
        molecules = hermite.read_molecules(path, smiles_conformers=2, hydrogens=True)
    assert [(m.title, m.num_atoms) for m in molecules] == [("ethanol", 9)] * 2 + [
        ("c1ccccc1O", 13)] * 2
    with pytest.raises(ValueError, match="SMILES have no partial charges"):
        hermite.read_molecules(path, charges="input")


def mol2_record(mol: Chem.Mol, charges: List[float]) -> str:
    """A MOL2 record of a molecule of sp3 carbons, oxygens and hydrogens."""
    types = {1: "H", 6: "C.3", 8: "O.3"}
    lines = ["@<TRIPOS>MOLECULE", mol.GetProp("_Name"),
             f"{mol.GetNumAtoms()} {mol.GetNumBonds()} 0 0 0", "SMALL", "USER_CHARGES", "",
             "@<TRIPOS>ATOM"]
    for atom, (x, y, z), charge in zip(mol.GetAtoms(), mol.GetConformer().GetPositions(),
                                       charges):
        lines.append(f"{atom.GetIdx() + 1} {atom.GetSymbol()}{atom.GetIdx() + 1} {x:.4f} {y:.4f} "
                     f"{z:.4f} {types[atom.GetAtomicNum()]} 1 MOL {charge:.4f}")
    lines.append("@<TRIPOS>BOND")
    for bond in mol.GetBonds():
        lines.append(f"{bond.GetIdx() + 1} {bond.GetBeginAtomIdx() + 1} "
                     f"{bond.GetEndAtomIdx() + 1} 1")
    return "\n".join(lines) + "\n"


def test_mol2_records_and_their_charges(tmp_path: pathlib.Path) -> None:
    methanol = embedded("CO", "methanol", 1, count=1)
    charges = [0.1 * (i % 3) - 0.1 for i in range(methanol.GetNumAtoms())]
    good = mol2_record(methanol, charges)
    bad = good.replace("methanol", "broken").replace("\n1 1 2 1\n", "\n1 0 2 1\n")
    path = tmp_path / "ligands.mol2"
    path.write_text(good + bad + good.replace("methanol", "again"))
    with pytest.warns(hermite.HermiteWarning, match=r"record 1 \(broken\): bond 1 refers to "
                                                    "atom 0"):
        molecules = hermite.read_molecules(path, charges="input", hydrogens=True)
    assert [m.title for m in molecules] == ["methanol", "again"]
    np.testing.assert_allclose(molecules[0].charges, charges, atol=1e-4)
    np.testing.assert_allclose(molecules[1].coords, methanol.GetConformer().GetPositions(),
                               atol=1e-4)


def test_input_charges_of_each_sd_record(tmp_path: pathlib.Path, sources: List[Chem.Mol]) -> None:
    mol = Chem.Mol(sources[0])
    path = tmp_path / "charged.sdf"
    with Chem.SDWriter(str(path)) as writer:
        for conformer in mol.GetConformers():
            values = [0.01 * (conformer.GetId() + 1)] * mol.GetNumAtoms()
            mol.SetProp("PartialCharges", " ".join(f"{v:.2f}" for v in values))
            writer.write(mol, confId=conformer.GetId())
    molecules = hermite.read_molecules(path, charges="input", hydrogens=True)
    assert len(molecules) == CONFORMERS
    for index, molecule in enumerate(molecules):
        np.testing.assert_allclose(molecule.charges, 0.01 * (index + 1))


def test_import_hermite_does_not_load_rdkit() -> None:
    code = "import sys, hermite; print('rdkit' in sys.modules, hermite.read_mols.__module__)"
    output = subprocess.run([sys.executable, "-c", code], capture_output=True, text=True,
                            check=True, env=os.environ.copy(), cwd="/").stdout.split()
    assert output == ["False", "hermite.molfiles"]


# ---------------------------------------------------------------------------------------------
# Writing


def test_write_sd_round_trip(conformer_file: pathlib.Path, tmp_path: pathlib.Path) -> None:
    mols = list(hermite.read_mols(conformer_file))
    mols[0].SetDoubleProp("score", 0.25)
    for name in ("out.sdf", "out.sdf.gz"):
        path = tmp_path / name
        assert hermite.write_sd(path, mols) == 2 * CONFORMERS
        assert path.read_bytes().startswith(b"\x1f\x8b") == name.endswith(".gz")
        again = list(hermite.read_mols(path))
        assert [m.GetProp("_Name") for m in again] == ["paracetamol", "aspirin"]
        assert [conformer_records(m) for m in again] == [[0, 1, 2], [3, 4, 5]]
        for mol, read in zip(mols, again):
            assert read.GetPropsAsDict() == {**mol.GetPropsAsDict(), **(
                {"score": 0.25} if mol is mols[0] else {})}
            for conformer, back in zip(mol.GetConformers(), read.GetConformers()):
                np.testing.assert_allclose(back.GetPositions(), conformer.GetPositions(),
                                           atol=1e-4)
                assert back.GetProp("energy") == conformer.GetProp("energy")
        assert not read.GetConformer().HasProp("hermite_score")
    # A single molecule, and nothing left behind.
    assert hermite.write_sd(tmp_path / "one.sdf", mols[1]) == CONFORMERS
    assert sorted(p.name for p in tmp_path.iterdir()) == [
        "conformers.sdf", "one.sdf", "out.sdf", "out.sdf.gz"]


def test_write_sd_is_atomic(conformer_file: pathlib.Path, tmp_path: pathlib.Path) -> None:
    mols = list(hermite.read_mols(conformer_file))
    path = tmp_path / "out.sdf"
    path.write_text("old\n")
    with pytest.raises(TypeError, match=r"mols\[1\] must be an RDKit molecule, got str"):
        hermite.write_sd(path, [mols[0], "CCO"])
    assert path.read_text() == "old\n"
    assert sorted(p.name for p in tmp_path.iterdir()) == ["conformers.sdf", "out.sdf"]
    with pytest.raises(FileNotFoundError, match="cannot write file"):
        hermite.write_sd(tmp_path / "missing" / "out.sdf", mols)


# ---------------------------------------------------------------------------------------------
# Screening into a table


@pytest.fixture(scope="module")
def ligands(cdk2_path: str) -> List[Chem.Mol]:
    return list(hermite.read_mols(cdk2_path))


def test_the_query_itself_in_another_pose(ligands: List[Chem.Mol]) -> None:
    query = ligands[5]
    fit = Chem.Mol(query)
    fit.RemoveAllConformers()
    fit.AddConformer(moved(query, -1, 17), assignId=True)
    fit.SetProp("_Name", "moved")
    assert rms(fit.GetConformer().GetPositions(), query.GetConformer().GetPositions()) > 3
    table = hr.screen(query, [ligands[1], fit, ligands[2]], progress=False)
    best = table.iloc[0]
    assert (best["rank"], best["position"], best["title"]) == (1, 1, "moved")
    assert best["shape_tanimoto"] > 0.99
    assert rms(best["mol"].GetConformer().GetPositions(),
               query.GetConformer().GetPositions()) < 0.1
    assert best["mol"].GetDoubleProp("hermite_shape_tanimoto") == best["shape_tanimoto"]
    assert best["mol"].GetProp("hermite_query") == query.GetProp("_Name")
    # Without electrostatics and colour their columns are NaN and not written to the
    # molecules.
    assert table[["es_tanimoto", "es_carbo", "es_combo", "colour_tanimoto",
                  "combo"]].isna().all().all()
    assert not any(best["mol"].HasProp(f"hermite_{name}") for name in ("es_combo", "combo"))
    # Scored where they are, the molecules stay there.
    scored = hr.screen(query, [fit], score_only=True, progress=False)
    assert scored["shape_tanimoto"][0] < 0.5
    np.testing.assert_allclose(scored["mol"][0].GetConformer().GetPositions(),
                               fit.GetConformer().GetPositions(), atol=1e-9)
    assert list(table.columns) == [
        "rank", "position", "title", "shape_tanimoto", "hermite_tanimoto", "tversky_query",
        "tversky_fit", "es_tanimoto", "es_carbo", "es_combo", "colour_tanimoto", "combo",
        "conformer", "query_conformer", "conformers", "error", "mol"]


def test_best_of_conformers(ligands: List[Chem.Mol]) -> None:
    """Query conformers A and B; fit conformers C and, moved, B: the best pair is the identical
    one, query conformer 1 with fit conformer 1."""
    smiles = Chem.MolToSmiles(Chem.RemoveHs(ligands[7]))
    source = embedded(smiles, "source", 11, count=3)  # A, B, C
    query = Chem.Mol(source)
    query.RemoveAllConformers()
    for conf_id in (0, 1):
        query.AddConformer(Chem.Conformer(source.GetConformer(conf_id)), assignId=True)
    query.SetProp("_Name", "query")
    fit = Chem.Mol(source)
    fit.RemoveAllConformers()
    for conformer in (source.GetConformer(2), moved(source, 1, 3)):
        fit.AddConformer(Chem.Conformer(conformer), assignId=True)
    fit.GetConformer(1).SetProp("origin", "moved copy")
    fit.SetProp("origin", "molecule")
    # The identical pair stands out: the others score clearly lower.
    pairs = {(f, q): hermite.overlay(hr.from_rdkit(query, q), hr.from_rdkit(fit, f))
             .scores.shape_tanimoto for f in (0, 1) for q in (0, 1)}
    assert max(v for k, v in pairs.items() if k != (1, 1)) < pairs[(1, 1)] - 0.02

    table = hr.screen(query, [ligands[1], fit], progress=False)
    row = table.iloc[0]
    assert row["position"] == 1 and row["conformers"] == 2
    assert (row["conformer"], row["query_conformer"]) == (1, 1)
    assert row["shape_tanimoto"] == pytest.approx(pairs[(1, 1)], abs=1e-6)
    posed = row["mol"]
    assert posed.GetNumConformers() == 1
    assert rms(posed.GetConformer().GetPositions(), query.GetConformer(1).GetPositions()) < 0.1
    assert posed.GetProp("origin") == "moved copy"  # the conformer's own data items
    assert fit.GetProp("origin") == "molecule"  # the input is untouched


def test_table_with_failures_written_by_pandas_tools(ligands: List[Chem.Mol],
                                                     tmp_path: pathlib.Path) -> None:
    flat = Chem.MolFromSmiles("c1ccccc1O")
    flat.SetProp("_Name", "no conformer")
    calls: List[Tuple[int, int]] = []
    table = hr.screen(ligands[0], [ligands[3], flat, ligands[0], ligands[4]],
                      electrostatics=True, progress=lambda m, o: calls.append((m, o)))
    assert calls[-1] == (3, 3)
    assert list(table["position"]) == [2, 0, 3, 1]  # by es_combo; the failure last
    assert list(table["es_combo"][:3]) == sorted(table["es_combo"][:3], reverse=True)
    failed = table.iloc[3]
    assert failed["error"] == "mol has no conformer: 3-D coordinates are needed"
    assert np.isnan(failed["shape_tanimoto"]) and failed["conformers"] == 0
    assert failed["conformer"] is pd_na() and failed["mol"].GetNumAtoms() == 7
    assert table["es_tanimoto"][:3].notna().all()

    # Notebooks draw the molecules.
    assert table._repr_html_().count('data-content="rdkit/molecule"') == 4
    # hermite.write_sd leaves out the rows that failed, with a warning. It goes first: recent
    # RDKit versions' PandasTools.WriteSDF clears the properties of the molecules it writes.
    with pytest.warns(hermite.HermiteWarning, match="skipped 1 entries"):
        assert hermite.write_sd(tmp_path / "hits2.sdf", table, columns=["rank", "es_carbo"]) == 3
    again = list(hermite.read_mols(tmp_path / "hits2.sdf"))
    assert [m.GetProp("rank") for m in again] == ["1", "2", "3"]
    assert [m.GetProp("hermite_rank") for m in again] == ["1", "2", "3"]
    assert float(again[0].GetProp("hermite_es_combo")) == table["es_combo"][0]
    path = tmp_path / "hits.sdf"
    good = table[table["error"].isna()]
    PandasTools.WriteSDF(good, str(path), molColName="mol",
                         properties=["rank", "shape_tanimoto", "es_combo"])
    read = list(Chem.SDMolSupplier(str(path), removeHs=False))
    assert [m.GetProp("_Name") for m in read] == list(good["title"])
    for mol, row in zip(read, good.itertuples()):
        assert int(mol.GetProp("rank")) == row.rank
        assert float(mol.GetProp("shape_tanimoto")) == pytest.approx(row.shape_tanimoto, abs=1e-5)
        assert float(mol.GetProp("es_combo")) == pytest.approx(row.es_combo, abs=1e-5)
        np.testing.assert_allclose(mol.GetConformer().GetPositions(),
                                   row.mol.GetConformer().GetPositions(), atol=1e-4)
    assert float(again[0].GetProp("es_carbo")) == pytest.approx(table["es_carbo"][0], abs=1e-12)


def pd_na() -> object:
    import pandas as pd

    return pd.NA


def test_progress_bar_and_bad_arguments(ligands: List[Chem.Mol]) -> None:
    table = hr.screen(ligands[0], iter(ligands[:3]), progress=True, threads=1)
    assert len(table) == 3
    with pytest.raises(TypeError, match="molecules must be an iterable of RDKit molecules"):
        hr.screen(ligands[0], ligands[1])
    with pytest.raises(TypeError, match=r"molecules\[1\] must be an RDKit molecule"):
        hr.screen(ligands[0], [ligands[1], "CCO"])
    with pytest.raises(TypeError, match="progress must be"):
        hr.screen(ligands[0], ligands[:1], progress="yes")
    with pytest.raises(ValueError, match="query has no conformer"):
        hr.screen(Chem.MolFromSmiles("CCO"), ligands[:1], progress=False)
    with pytest.raises(ValueError, match="threads must lie in"):
        hr.screen(ligands[0], ligands[:1], threads=5000, progress=False)
    empty = hr.screen(ligands[0], [], progress=False)
    assert len(empty) == 0 and "mol" in empty.columns

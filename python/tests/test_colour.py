"""Colour (pharmacophore) features: perceived by hermite.rdkit as the command-line tool perceives
them, carried by hermite.Molecule, matched by overlay, score and screen, and reported."""

from __future__ import annotations

import os
import pickle
import re
import subprocess
from pathlib import Path
from typing import Dict, List, Sequence

import numpy as np
import pandas as pd
import pytest
from rdkit import Chem
from rdkit.Chem import AllChem

import hermite
import hermite.rdkit as hr
from conftest import random_rotation, time_limit
from hermite import report

HERMITE = os.environ.get("HERMITE_CLI", "")
SOURCE = Path(__file__).resolve().parents[2]

ASPIRIN = "CC(=O)Oc1ccccc1C(=O)O"
IBUPROFEN = "CC(C)Cc1ccc(cc1)C(C)C(=O)O"
FAMILIES = ("Donor", "Acceptor", "Cation", "Anion", "Aromatic", "Hydrophobe")

# Definitions of one's own: families in another order than the default ones, a pattern split
# over two lines, and weights that put the acid feature off the centroid.
USER_FDEF = """\
# Three families: Ring, Carbonyl, Acid.
AtomType CarbonylO [O;X1;$(O=[#6])]

DefineFeature Ring \\
    a1aaaaa1
  Family Ring
  Weights 1,1,1,1,1,1
EndFeature

DefineFeature Carbonyl [{CarbonylO}]
  Family Carbonyl
EndFeature

DefineFeature Acid C(=O)[OH]
  Family Acid
  Weights 2,1,1
EndFeature
"""


def embedded(smiles: str, title: str, seed: int) -> Chem.Mol:
    """A 3-D conformer of `smiles`, with hydrogens."""
    mol = Chem.AddHs(Chem.MolFromSmiles(smiles))
    assert AllChem.EmbedMolecule(mol, randomSeed=seed) == 0
    mol.SetProp("_Name", title)
    return mol


def moved(mol: Chem.Mol, seed: int) -> Chem.Mol:
    """A copy of `mol` with every atom moved by a random rigid motion."""
    rng = np.random.default_rng(seed)
    rotation, shift = random_rotation(rng), rng.uniform(-6, 6, size=3)
    copy = Chem.Mol(mol)
    conformer = copy.GetConformer()
    for i, p in enumerate(conformer.GetPositions() @ rotation.T + shift):
        conformer.SetAtomPosition(i, p.tolist())
    return copy


def counts(features: np.ndarray, families: int = 6) -> List[int]:
    return np.bincount(features[:, 0].astype(int), minlength=families).tolist()


def written(path: Path, mols: Sequence[Chem.Mol]) -> List[Chem.Mol]:
    """`mols` written to the SD file `path` and read back: the coordinates both sides read."""
    writer = Chem.SDWriter(str(path))
    for mol in mols:
        writer.write(mol)
    writer.close()
    return list(Chem.SDMolSupplier(str(path), removeHs=False))


def tool_scores(directory: Path, query: Path, database: Path, *options: str) -> pd.DataFrame:
    """The score table of ``hermite overlay --score-only`` (every molecule in its input pose),
    in input order."""
    if not HERMITE or not Path(HERMITE).is_file():
        pytest.fail(f"HERMITE_CLI does not name the built hermite binary: {HERMITE!r}")
    scores = directory / "scores.tsv"
    done = subprocess.run(
        [HERMITE, "overlay", "--query", str(query), "--db", str(database), "--score-only",
         "--scores", str(scores), "--out", str(directory / "hits.sdf"), "--quiet", *options],
        capture_output=True, text=True, timeout=time_limit(300))
    assert done.returncode == 0, done.stderr
    return pd.read_csv(scores, sep="\t")


def python_scores(query: Chem.Mol, mols: Sequence[Chem.Mol], **keywords) -> pd.DataFrame:
    table = hr.screen(query, mols, score_only=True, progress=False, **keywords)
    return table.sort_values("position").reset_index(drop=True)


# --- definitions ----------------------------------------------------------------------------


def test_default_definitions_are_the_tools() -> None:
    definitions = hr.feature_definitions()
    assert definitions.families == FAMILIES
    assert [definitions.type_of(family) for family in FAMILIES] == list(range(6))
    assert hr.feature_definitions() is definitions  # parsed once
    assert repr(definitions) == ("FeatureDefinitions(source='default feature definitions', "
                                 f"families={FAMILIES!r})")
    # The package's copy is the repository's file that the tool compiles in.
    packaged = Path(hermite.__file__).with_name("colour_features.fdef")
    assert packaged.read_text() == (SOURCE / "data" / "colour_features.fdef").read_text()
    assert definitions.text == packaged.read_text()
    with pytest.raises(KeyError, match="'Halogen' is not a feature family"):
        definitions.type_of("Halogen")
    again = pickle.loads(pickle.dumps(definitions))
    assert again.families == FAMILIES and again.text == definitions.text


def test_user_definitions(tmp_path: Path) -> None:
    path = tmp_path / "mine.fdef"
    path.write_text(USER_FDEF)
    mine = hr.feature_definitions(path)
    assert mine.families == ("Ring", "Carbonyl", "Acid") and mine.source == str(path)
    aspirin = embedded(ASPIRIN, "aspirin", 7)
    features = hr.perceive_features(aspirin, definitions=mine)
    assert counts(features, 3) == [1, 2, 1]
    # The acid sits at (2 C + O + O) / 4 with the weights 2, 1, 1 of its definition.
    acid = aspirin.GetSubstructMatch(Chem.MolFromSmarts("C(=O)[OH]"))
    xyz = aspirin.GetConformer().GetPositions()
    np.testing.assert_allclose(features[features[:, 0] == 2, 1:][0],
                               (2 * xyz[acid[0]] + xyz[acid[1]] + xyz[acid[2]]) / 4, atol=1e-12)
    # The same molecule with the default definitions has other features and types.
    assert counts(hr.perceive_features(aspirin)) == [0, 4, 0, 1, 1, 0]


@pytest.mark.parametrize("text, message", [
    ("DefineFeature X [C\n  Family F\nEndFeature\n", "line 1: invalid SMARTS"),
    ("Define X [C]\n", "line 1: bad or missing keyword"),
    ("AtomType A [C]\n]\n", 'line 2: no keyword: "]"'),
    ("DefineFeature X CC\n  Family F\n  Weights 1\nEndFeature\n", "weight"),
    ("DefineFeature X CC\n  Family F\n  Weights 1,-1\nEndFeature\n",
     "the weights of feature X sum to zero"),
    ("# nothing but a comment\nAtomType A [C]\n", "no feature is defined"),
])
def test_unusable_definitions(tmp_path: Path, text: str, message: str) -> None:
    path = tmp_path / "bad.fdef"
    path.write_text(text)
    with pytest.raises(ValueError, match=f"^{re.escape(str(path))}: .*{message}"):
        hr.feature_definitions(path)
    with pytest.raises(ValueError, match=f"^inline: .*{message}"):
        hr.FeatureDefinitions(text, "inline")


def test_a_last_line_without_a_line_break_counts() -> None:
    text = "DefineFeature X [#8]\n  Family Oxygen\nEndFeature"
    definitions = hr.FeatureDefinitions(text)
    assert definitions.families == ("Oxygen",)
    assert counts(hr.perceive_features(embedded(ASPIRIN, "aspirin", 7), -1, definitions),
                  1) == [4]


# --- perception -----------------------------------------------------------------------------


@pytest.mark.parametrize("smiles, expected", [
    (ASPIRIN, [0, 4, 0, 1, 1, 0]),
    (IBUPROFEN, [0, 2, 0, 1, 1, 2]),
])
def test_features_of_aspirin_and_ibuprofen(smiles: str, expected: List[int]) -> None:
    mol = embedded(smiles, "drug", 11)
    features = hr.perceive_features(mol)
    assert features.shape == (sum(expected), 4) and counts(features) == expected
    # The positions are those RDKit's own features compute (to rounding: hermite divides by
    # the weights' sum, as the tool does).
    factory = hr.feature_definitions().factory
    for row, feature in zip(features, factory.GetFeaturesForMol(mol)):
        assert FAMILIES[int(row[0])] == feature.GetFamily()
        np.testing.assert_allclose(row[1:], list(feature.GetPos()), atol=1e-12)
    xyz = mol.GetConformer().GetPositions()
    # The anion between the acid's oxygens, the ring feature at the ring's centre.
    oxygens = mol.GetSubstructMatch(Chem.MolFromSmarts("C(=O)[OH]"))[1:]
    np.testing.assert_allclose(features[features[:, 0] == 3, 1:][0], xyz[list(oxygens)].mean(0),
                               atol=1e-12)
    ring = mol.GetSubstructMatch(Chem.MolFromSmarts("c1ccccc1"))
    np.testing.assert_allclose(features[features[:, 0] == 4, 1:][0], xyz[list(ring)].mean(0),
                               atol=1e-12)
    # Explicit hydrogens or not, the same features.
    np.testing.assert_array_equal(hr.perceive_features(Chem.RemoveHs(mol)), features)
    # from_rdkit carries them; they move with the molecule.
    assert hr.from_rdkit(mol).features.shape == (0, 4)
    np.testing.assert_array_equal(hr.from_rdkit(mol, features=True).features, features)
    rng = np.random.default_rng(5)
    rotation = random_rotation(rng)
    turned = Chem.Mol(mol)
    for i, p in enumerate(xyz @ rotation.T):
        turned.GetConformer().SetAtomPosition(i, p.tolist())
    np.testing.assert_allclose(hr.perceive_features(turned)[:, 1:], features[:, 1:] @ rotation.T,
                               atol=1e-9)


def test_features_of_unsanitised_molecules() -> None:
    heavy = Chem.RemoveHs(embedded(IBUPROFEN, "ibuprofen", 3))
    raw = Chem.MolFromSmiles(IBUPROFEN, sanitize=False)  # the same atoms in the same order
    raw.AddConformer(Chem.Conformer(heavy.GetConformer()), assignId=True)
    assert raw.NeedsUpdatePropertyCache()
    # Rings and implicit hydrogens are worked out on a copy, as the tool does; the molecule
    # stays as it is.
    np.testing.assert_array_equal(hr.perceive_features(raw), hr.perceive_features(heavy))
    assert raw.NeedsUpdatePropertyCache()


def test_features_of_aspirin_and_ibuprofen_equal_the_tools(tmp_path: Path) -> None:
    aspirin = embedded(ASPIRIN, "aspirin", 7)
    # Ibuprofen overlaid onto aspirin, so that their features meet in the poses scored.
    ibuprofen = hr.overlay_mols(aspirin, embedded(IBUPROFEN, "ibuprofen", 7), colour=True).mol
    mols = written(tmp_path / "drugs.sdf", [aspirin, ibuprofen])
    colour = {}
    for index, name in enumerate(("aspirin", "ibuprofen")):
        query = tmp_path / f"{name}.sdf"
        written(query, [mols[index]])
        tool = tool_scores(tmp_path, query, tmp_path / "drugs.sdf", "--colour")
        ours = python_scores(mols[index], mols, colour=True)
        np.testing.assert_array_equal(np.round(ours["colour_tanimoto"], 4),
                                      tool["colour_tanimoto"])
        colour[name] = ours["colour_tanimoto"][1 - index]
    assert 0.1 < colour["aspirin"] < 0.9  # a real comparison
    assert colour["ibuprofen"] == pytest.approx(colour["aspirin"], abs=1e-6)
    # The features as hermite.score takes them give the same.
    query, fit = (hr.from_rdkit(mol, features=True) for mol in mols)
    scores = hermite.score(query, fit, colour=True).scores
    assert scores.colour_tanimoto == pytest.approx(colour["aspirin"], abs=1e-12)


def test_cdk2_colour_scores_equal_the_tools(cdk2_rdkit: List[Chem.Mol], tmp_path: Path) -> None:
    mols = written(tmp_path / "ten.sdf", cdk2_rdkit[:10])
    written(tmp_path / "query.sdf", mols[:1])
    tool = tool_scores(tmp_path, tmp_path / "query.sdf", tmp_path / "ten.sdf", "--colour")
    ours = python_scores(mols[0], mols, colour=True)
    assert list(ours["title"]) == list(tool["title"])
    np.testing.assert_array_equal(np.round(ours["colour_tanimoto"], 4), tool["colour_tanimoto"])
    np.testing.assert_array_equal(np.round(ours["combo"], 4), tool["combo"])
    np.testing.assert_array_equal(np.round(ours["shape_tanimoto"], 4), tool["shape_tanimoto"])
    assert ours["colour_tanimoto"][0] == pytest.approx(1.0, abs=1e-12)
    assert (ours["colour_tanimoto"][1:] < 0.9).all() and (ours["colour_tanimoto"] > 0).all()
    # The tool's table read by hermite.report: colour scores, no electrostatic ones.
    table = report.read_scores(tmp_path / "scores.tsv", "combo")
    assert table["es_combo"].isna().all() and table["colour_tanimoto"].notna().all()
    assert table.loc[table["rank"] == 1, "title"].item() == mols[0].GetProp("_Name")


def test_user_definitions_equal_the_tools(cdk2_rdkit: List[Chem.Mol], tmp_path: Path) -> None:
    path = tmp_path / "mine.fdef"
    path.write_text(USER_FDEF)
    mols = written(tmp_path / "six.sdf", cdk2_rdkit[:6])
    written(tmp_path / "query.sdf", mols[:1])
    tool = tool_scores(tmp_path, tmp_path / "query.sdf", tmp_path / "six.sdf", "--colour",
                       "--features", str(path))
    ours = python_scores(mols[0], mols, colour=True, features=path)
    np.testing.assert_array_equal(np.round(ours["colour_tanimoto"], 4), tool["colour_tanimoto"])
    default = python_scores(mols[0], mols, colour=True)
    assert not np.allclose(ours["colour_tanimoto"][1:], default["colour_tanimoto"][1:])


# --- overlays -------------------------------------------------------------------------------


def test_read_molecules_perceives_features(cdk2_path: str, cdk2_rdkit: List[Chem.Mol],
                                           tmp_path: Path) -> None:
    """read_molecules(features=...) gives each conformer the features perceive_features finds;
    without it there are none."""
    molecules = hermite.read_molecules(cdk2_path, features=True)
    assert len(molecules) == 47
    for molecule, mol in zip(molecules, cdk2_rdkit):
        np.testing.assert_array_equal(molecule.features, hr.perceive_features(mol))
    assert sum(len(m.features) for m in molecules) > 47 * 4
    assert all(len(m.features) == 0 for m in hermite.read_molecules(cdk2_path))
    (tmp_path / "rings.fdef").write_text(
        "DefineFeature Ring6 a1aaaaa1\n  Family Ring\n  Weights 1,1,1,1,1,1\nEndFeature\n")
    rings = hermite.read_molecules(cdk2_path, features=tmp_path / "rings.fdef")
    assert {int(t) for m in rings for t in m.features[:, 0]} == {0}
    with pytest.raises(TypeError, match="features must be True, False, None"):
        hermite.read_molecules(cdk2_path, features=3)  # type: ignore[arg-type]


def test_molecule_overlaid_onto_itself(cdk2_rdkit: List[Chem.Mol]) -> None:
    query = cdk2_rdkit[4]
    fit = moved(query, 23)
    posed = hr.overlay_mols(query, fit, colour=True)
    scores = posed.result.scores
    assert posed.result.colour and not posed.result.electrostatics
    assert scores.colour_tanimoto > 0.99 and scores.combo > 1.98
    assert scores.combo == pytest.approx(scores.shape_tanimoto + scores.colour_tanimoto,
                                         abs=1e-12)
    assert scores.colour_overlap > 0
    assert posed.mol.GetDoubleProp("hermite_combo") == scores.combo
    assert posed.mol.GetDoubleProp("hermite_colour_tanimoto") == scores.colour_tanimoto
    assert not posed.mol.HasProp("hermite_es_combo")
    # The features moved by the result's transform land on the query's.
    query_features = hr.perceive_features(query)
    fit_features = hr.perceive_features(fit)
    np.testing.assert_allclose(posed.result.apply(fit_features[:, 1:]), query_features[:, 1:],
                               atol=0.05)
    # The same from hermite.Molecule objects.
    direct = hermite.overlay(hr.from_rdkit(query, features=True),
                             hr.from_rdkit(fit, features=True), colour=True, colour_weight=2.0)
    assert direct.scores.colour_tanimoto > 0.99 and direct.scores.combo > 1.98


def test_colour_needs_features_on_both_sides(cdk2_rdkit: List[Chem.Mol]) -> None:
    query = hr.from_rdkit(cdk2_rdkit[0], features=True)
    bare = hr.from_rdkit(cdk2_rdkit[0])
    assert hermite.score(query, query, colour=True).scores.colour_tanimoto == 1.0
    assert hermite.score(query, bare, colour=True).scores.colour_tanimoto == 0.0
    # Without colour the features are ignored: combo is the shape Tanimoto.
    plain = hermite.score(query, query).scores
    assert plain.colour_tanimoto == 0.0 and plain.combo == plain.shape_tanimoto


def test_screen_colour_columns(cdk2_rdkit: List[Chem.Mol]) -> None:
    query, mols = cdk2_rdkit[0], cdk2_rdkit[1:6]
    plain = hr.screen(query, mols, progress=False)
    assert plain[["colour_tanimoto", "combo", "es_combo"]].isna().all().all()
    assert plain["shape_tanimoto"].is_monotonic_decreasing
    coloured = hr.screen(query, mols, colour=True, progress=False)
    assert coloured["combo"].is_monotonic_decreasing  # ranked by combo
    assert coloured[["es_tanimoto", "es_carbo", "es_combo"]].isna().all().all()
    for row in coloured.itertuples():
        assert row.combo == pytest.approx(row.shape_tanimoto + row.colour_tanimoto, abs=1e-12)
        assert row.mol.GetDoubleProp("hermite_combo") == row.combo
        single = hr.overlay_mols(query, mols[row.position], colour=True)
        assert row.combo == single.result.scores.combo
    # rank_by overrides the ranking and picks the best pair by that metric.
    by_shape = hr.screen(query, mols, colour=True, rank_by="shape", progress=False)
    assert by_shape["shape_tanimoto"].is_monotonic_decreasing
    assert by_shape["colour_tanimoto"].notna().all()
    # combo implies colour, es-combo electrostatics.
    implied = hr.screen(query, mols, rank_by="combo", progress=False)
    assert implied["colour_tanimoto"].notna().all()
    both = hr.screen(query, mols, rank_by="es-combo", colour=True, progress=False)
    assert both["es_combo"].is_monotonic_decreasing and both["combo"].notna().all()
    with pytest.raises(ValueError, match="rank_by must be 'shape', 'combo'"):
        hr.screen(query, mols, rank_by="volume", progress=False)
    with pytest.raises(ValueError, match="pass colour=True"):
        hr.screen(query, mols, features=hr.feature_definitions(), progress=False)


def test_screen_keeps_the_best_pair_by_the_rank_metric(cdk2_rdkit: List[Chem.Mol]) -> None:
    query = hr.from_rdkit(cdk2_rdkit[0], features=True)
    conformers = [hr.from_rdkit(mol, features=True) for mol in cdk2_rdkit[1:5]]
    for metric, name in (("combo", "combo"), ("shape", "shape_tanimoto")):
        (result,) = hermite.screen(query, [conformers], colour=True, score_only=True,
                                   rank_by=metric)
        values = [getattr(hermite.score(query, c, colour=True).scores, name) for c in conformers]
        assert result.conformer == int(np.argmax(values))
        assert getattr(result.scores, name) == max(values)
    with pytest.raises(ValueError, match="needs colour=True"):
        hermite.screen(query, [conformers], rank_by="combo")
    with pytest.raises(ValueError, match="needs electrostatics=True"):
        hermite.screen(query, [conformers], rank_by="es_combo")


# --- the extension's objects ----------------------------------------------------------------


def test_molecule_features_are_checked() -> None:
    atoms, xyz = [6, 8], [[0.0, 0.0, 0.0], [1.2, 0.0, 0.0]]
    good = hermite.Molecule(atoms, xyz, features=[[1, 1.2, 0, 0], [4, 0.6, 0, 0]])
    np.testing.assert_array_equal(good.features, [[1, 1.2, 0, 0], [4, 0.6, 0, 0]])
    assert good.features.dtype == np.float64
    assert repr(good) == "Molecule(title='', num_atoms=2, num_features=2)"
    assert hermite.Molecule(atoms, xyz).features.shape == (0, 4)
    assert hermite.Molecule(atoms, xyz, features=[]).features.shape == (0, 4)
    bad: Dict[str, object] = {
        "must have shape \\(n, 4\\)": [[1, 0, 0]],
        "a type must be an integer in 0..4294967295, got 1.5 in row 0": [[1.5, 0, 0, 0]],
        "a type must be an integer .*got -1.0 in row 1": [[0, 0, 0, 0], [-1, 0, 0, 0]],
        "a type must be an integer .*got nan": [[np.nan, 0, 0, 0]],
        "coordinates must be finite, got \\(0.0, inf, 0.0\\) in row 0": [[2, 0, np.inf, 0]],
        "too large for the single-precision": [[2, 0, 1e300, 0]],
    }
    for message, features in bad.items():
        with pytest.raises(ValueError, match="^features"):
            hermite.Molecule(atoms, xyz, features=features)
        with pytest.raises(ValueError, match=message):
            hermite.Molecule(atoms, xyz, features=features)
    with pytest.raises(TypeError, match="features must be an array of numbers"):
        hermite.Molecule(atoms, xyz, features="donor")
    with pytest.raises(TypeError):  # features are keyword-only
        hermite.Molecule(atoms, xyz, None, "", [[0, 0, 0, 0]])  # type: ignore[misc]
    features = good.features
    features[0, 0] = 5  # a copy
    assert good.features[0, 0] == 1


def test_features_survive_pickling(cdk2_rdkit: List[Chem.Mol]) -> None:
    molecule = hr.from_rdkit(cdk2_rdkit[2], features=True)
    again = pickle.loads(pickle.dumps(molecule))
    assert len(molecule.features) > 5
    np.testing.assert_array_equal(again.features, molecule.features)
    np.testing.assert_array_equal(again.coords, molecule.coords)
    np.testing.assert_array_equal(molecule.copy().features, molecule.features)
    result = hermite.overlay(molecule, again, colour=True)
    restored = pickle.loads(pickle.dumps(result))
    assert restored.colour and restored.scores.as_dict() == result.scores.as_dict()
    assert repr(restored) == repr(result) and "colour_tanimoto=1.0000, combo=2.0000" in repr(result)
    scores = result.scores
    assert {"es_combo", "colour_tanimoto", "colour_overlap"} <= set(scores.as_dict())
    assert pickle.loads(pickle.dumps(scores)).colour_overlap == scores.colour_overlap
    assert "es_combo=" in repr(scores) and "colour_tanimoto=1.0000" in repr(scores)


def test_colour_settings() -> None:
    default = hermite.OverlaySettings()
    assert default.colour is False and default.colour_weight == 3.0
    assert default.colour_order == 2 and default.electrostatic_weight == 0.0
    settings = hermite.OverlaySettings(colour=True, colour_weight=2.5, colour_order=3)
    assert repr(settings).endswith(", colour=True, colour_weight=2.5, colour_order=3)")
    again = pickle.loads(pickle.dumps(settings))
    assert again.colour and again.colour_weight == 2.5 and again.colour_order == 3
    for weight in (-0.5, 100.5, float("nan")):
        with pytest.raises(ValueError, match="colour_weight must lie in 0..100"):
            hermite.OverlaySettings(colour_weight=weight)
    with pytest.raises(ValueError, match="order must lie in 0..100"):
        hermite.OverlaySettings(colour_order=101)
    for name in ("colour_weight", "colour_order", "electrostatic_weight"):
        assert name in hermite.overlay.__doc__


def test_electrostatic_weight_settings() -> None:
    settings = hermite.OverlaySettings(electrostatics=True, electrostatic_weight=2500)
    assert "electrostatic_weight=2500.0" in repr(settings)
    assert pickle.loads(pickle.dumps(settings)).electrostatic_weight == 2500.0
    for weight in (-1.0, 100001.0, float("inf")):
        with pytest.raises(ValueError, match="electrostatic_weight must lie in 0..100000"):
            hermite.OverlaySettings(electrostatics=True, electrostatic_weight=weight)
    # A weight without electrostatics would be ignored: refused instead.
    with pytest.raises(ValueError, match="electrostatic_weight > 0 needs electrostatics=True"):
        hermite.OverlaySettings(electrostatic_weight=10)
    loose = hermite.OverlaySettings()
    loose.electrostatic_weight = 10.0
    molecule = hermite.Molecule([6, 6, 8], [[0, 0, 0], [1.5, 0, 0], [2.2, 1.1, 0]],
                                charges=[0.1, 0.2, -0.3])
    with pytest.raises(ValueError, match="needs electrostatics=True"):
        hermite.overlay(molecule, molecule, settings=loose)


def test_electrostatic_weight_turns_the_charges_onto_each_other() -> None:
    """A symmetric rod with opposite charges at its ends, the fit's charges reversed: by shape
    alone either way round fits, and the search keeps the start (charges of opposite sign on
    each other); with a weight on the electrostatic overlap it turns the rod round."""
    positions = [[1.4 * (i - 3), 0.0, 0.0] for i in range(7)]
    charges = [0.4, 0, 0, 0, 0, 0, -0.4]
    query = hermite.Molecule([6] * 7, positions, charges=charges)
    fit = hermite.Molecule([6] * 7, [[x + 0.3, y - 0.2, z + 0.1] for x, y, z in positions],
                           charges=charges[::-1])
    scored = hermite.overlay(query, fit, electrostatics=True)
    moved = hermite.overlay(query, fit, electrostatics=True, electrostatic_weight=2000)
    assert scored.scores.es_tanimoto < -0.25
    assert moved.scores.es_tanimoto > 0.95
    assert moved.scores.shape_tanimoto > 0.95

"""hermite.report: enrichment measures against hand-computed values, pictures rendered headless,
the report directory and its PyMOL script, and the command line."""

from __future__ import annotations

import io
import math
import os
import re
import struct
import subprocess
import sys
from pathlib import Path
from typing import Dict, List, Optional, Sequence, Tuple

import numpy as np
import pytest

pd = pytest.importorskip("pandas")
pytest.importorskip("matplotlib")
Image = pytest.importorskip("PIL.Image")
Chem = pytest.importorskip("rdkit.Chem")

from hermite import report  # noqa: E402

# The report's PNGs are saved at 150 dpi: the histogram is 6.4 x 4 inches, the ROC 5 x 5.
DISTRIBUTION_PIXELS = (960, 600)
ROC_PIXELS = (750, 750)
CELL = (300, 260)


def png_stats(data: bytes | Path) -> Tuple[Tuple[int, int], int, int]:
    """(pixel size, pixels that are not white, distinct colours) of a PNG."""
    raw = data.read_bytes() if isinstance(data, Path) else data
    assert raw[:8] == b"\x89PNG\r\n\x1a\n"
    image = Image.open(io.BytesIO(raw)).convert("RGB")
    pixels = np.asarray(image).reshape(-1, 3)
    inked = int(np.count_nonzero((pixels < 250).any(axis=1)))
    colours = len(np.unique(pixels, axis=0))
    return image.size, inked, colours


def assert_drawn(data: bytes | Path, size: Tuple[int, int]) -> None:
    pixel_size, inked, colours = png_stats(data)
    assert pixel_size == size
    assert inked > 2000, f"only {inked} pixels drawn"
    assert colours > 20


# --- enrichment measures ---------------------------------------------------------------------


def test_roc_auc_counts_ties_as_half() -> None:
    assert report.roc_auc([4, 3, 2, 1], [1, 1, 0, 0]) == 1.0
    assert report.roc_auc([1, 2, 3, 4], [1, 1, 0, 0]) == 0.0
    assert report.roc_auc([5, 5, 5, 5], [1, 0, 1, 0]) == 0.5
    # Pairs (active, inactive): 0.9>0.8, 0.9>0.3, 0.8=0.8 (one half), 0.8>0.3: 3.5 of 4.
    assert report.roc_auc([0.9, 0.8, 0.8, 0.3], [1, 0, 1, 0]) == 0.875
    # A molecule without a score ranks below every scored one.
    assert report.roc_auc([math.nan, 0.1], [1, 0]) == 0.0
    assert report.roc_auc(pd.Series([0.2, None, 0.1]), [True, False, False]) == 1.0


def test_roc_auc_refuses_one_class_and_mismatched_lengths() -> None:
    with pytest.raises(ValueError, match="needs actives and inactives"):
        report.roc_auc([0.1, 0.2], [1, 1])
    with pytest.raises(ValueError, match="3 scores but 2 labels"):
        report.roc_auc([0.1, 0.2, 0.3], [1, 0])


def test_enrichment_factor_against_hand_counts() -> None:
    scores = np.arange(10, 0, -1.0)           # ranks 1..10
    labels = np.zeros(10, bool)
    labels[[0, 3]] = True                     # actives at ranks 1 and 4: 20 % of the list
    assert report.enrichment_factor(scores, labels, 0.1) == pytest.approx(5.0)   # 1/1 over 0.2
    assert report.enrichment_factor(scores, labels, 0.2) == pytest.approx(2.5)   # 1/2 over 0.2
    assert report.enrichment_factor(scores, labels, 0.4) == pytest.approx(2.5)   # 2/4 over 0.2
    assert report.enrichment_factor(scores, labels, 1.0) == pytest.approx(1.0)
    # Top 2 of [3, 2, 2, 1]: the active at 3 and half of the tied pair (one active of two).
    assert report.enrichment_factor([3, 2, 2, 1], [1, 1, 0, 0], 0.5) == pytest.approx(1.5)
    assert report.enrichment_factor([7, 7, 7, 7], [1, 0, 0, 0], 0.25) == pytest.approx(1.0)
    # 1 % of 300 is 3 molecules (not 4, as ceil(0.01 * 300) in binary would say).
    scores = np.arange(300, 0, -1.0)
    labels = np.zeros(300, bool)
    labels[[0, 1, 2, 297, 298, 299]] = True
    assert report.enrichment_factor(scores, labels, 0.01) == pytest.approx(50.0)
    with pytest.raises(ValueError, match="fraction"):
        report.enrichment_factor(scores, labels, 0.0)


def test_bedroc_against_hand_computed_value() -> None:
    # N = 4, actives at ranks 1 and 3, alpha = 1:
    # RIE = (e^-1/4 + e^-3/4) / ((2/4)(1 - e^-1) / (e^1/4 - 1)) = 1.1243530
    # BEDROC = RIE (1/2) sinh(1/2) / (cosh(1/2) - cosh(0)) + 1 / (1 - e^(1/2)) = 0.7538659
    value = report.bedroc([4, 3, 2, 1], [1, 0, 1, 0], alpha=1.0)
    assert value == pytest.approx(0.7538659, abs=1e-7)
    ranked = np.arange(10, 0, -1.0)
    first_two = np.array([1, 1, 0, 0, 0, 0, 0, 0, 0, 0], bool)
    assert report.bedroc(ranked, first_two) == pytest.approx(1.0, abs=1e-12)
    assert report.bedroc(ranked, first_two[::-1]) == pytest.approx(0.0, abs=1e-12)


def test_bedroc_matches_rdkit_and_averages_ties() -> None:
    scoring = pytest.importorskip("rdkit.ML.Scoring.Scoring")
    rng = np.random.default_rng(7)
    scores = rng.random(50)
    labels = np.zeros(50, bool)
    labels[rng.choice(50, 6, replace=False)] = True
    order = np.argsort(-scores)
    expected = scoring.CalcBEDROC([[s, a] for s, a in zip(scores[order], labels[order])], 1, 20.0)
    assert report.bedroc(scores, labels, 20.0) == pytest.approx(expected, rel=1e-12)
    # A tie is the mean over its orders: [2, 1, 1] with the active in the tie.
    tied = report.bedroc([2, 1, 1], [0, 1, 0], 5.0)
    orders = [report.bedroc([3, 2, 1], [0, 1, 0], 5.0), report.bedroc([3, 2, 1], [0, 0, 1], 5.0)]
    assert tied == pytest.approx(np.mean(orders), rel=1e-12)
    assert orders[0] > tied > orders[1]


# --- pictures --------------------------------------------------------------------------------


def screen_table(mols: Sequence, seed: int = 3) -> pd.DataFrame:
    """A screen table of the module's convention for `mols`: random scores, two errors."""
    rng = np.random.default_rng(seed)
    count = len(mols)
    shape = np.round(np.clip(rng.normal(0.6, 0.12, count), 0.05, 0.99), 4)
    errors: List[Optional[str]] = [None] * count
    for failed in (i for i in (5, 11) if i < count):
        shape[failed] = np.nan
        errors[failed] = "cannot kekulize"
    es_tanimoto = np.round(rng.normal(0.25, 0.1, count), 4)
    colour_tanimoto = np.round(np.clip(rng.normal(0.4, 0.15, count), 0.0, 1.0), 4)
    table = pd.DataFrame({
        "title": [m.GetProp("_Name") for m in mols],
        "shape_tanimoto": shape,
        "hermite_tanimoto": np.round(shape * 0.97, 4),
        "tversky_query": np.round(shape * 1.1, 4),
        "tversky_fit": np.round(shape * 0.9, 4),
        "es_tanimoto": es_tanimoto,
        "es_carbo": np.round(es_tanimoto + 0.05, 4),
        "es_combo": shape + es_tanimoto,
        "colour_tanimoto": colour_tanimoto,
        "combo": shape + colour_tanimoto,
        "conformer": 1,
        "query_conformer": 1,
        "error": errors,
        "mol": list(mols),
    })
    table.insert(0, "rank", table["shape_tanimoto"].rank(ascending=False, method="first"))
    return table


def test_score_distribution_marks_cutoff_and_best_n(cdk2_rdkit: list, tmp_path: Path) -> None:
    table = screen_table(cdk2_rdkit)
    figure = report.score_distribution(table, cutoff=0.7, top_n=10)
    ax = figure.axes[0]
    finite = table["shape_tanimoto"].dropna()
    texts = [t.get_text() for t in ax.get_legend().get_texts()]
    tenth = np.sort(finite)[::-1][9]
    assert texts == ["45 molecules", f"cutoff 0.7: {int((finite >= 0.7).sum())} at or above",
                     f"best 10: {tenth:.3f} and above"]
    assert [line.get_xdata()[0] for line in ax.get_lines()] == [0.7, tenth]
    assert ax.get_xlabel() == "shape Tanimoto" and ax.get_ylabel() == "molecules"
    assert "(2 without a score)" in ax.get_title()
    assert sum(p.get_height() for p in ax.patches) == 45
    path = tmp_path / "distribution.png"
    figure.savefig(path, dpi=150)
    assert_drawn(path, DISTRIBUTION_PIXELS)


def test_score_distribution_of_plain_numbers_and_of_nothing() -> None:
    figure = report.score_distribution([0.2, 0.5, float("nan"), 0.9], metric="combo")
    assert figure.axes[0].get_xlabel().startswith("combo")
    assert sum(p.get_height() for p in figure.axes[0].patches) == 3
    empty = report.score_distribution([math.nan, math.nan])
    assert [t.get_text() for t in empty.axes[0].texts] == ["no scores"]
    with pytest.raises(ValueError, match="unknown metric"):
        report.score_distribution([0.5], metric="volume")
    with pytest.raises(ValueError, match="no es_carbo column"):
        report.score_distribution(pd.DataFrame({"shape_tanimoto": [0.5]}), metric="es_carbo")


def test_roc_curve_area_is_the_auc_and_the_diagonal_is_drawn_once(tmp_path: Path) -> None:
    scores = [0.9, 0.8, 0.8, 0.3, 0.7, 0.1]
    labels = [1, 0, 1, 0, 0, 1]
    figure, auc = report.roc_curve(scores, labels, label="shape")
    assert auc == pytest.approx(report.roc_auc(scores, labels))
    ax = figure.axes[0]
    curve = ax.get_lines()[-1]
    fpr, tpr = curve.get_xdata(), curve.get_ydata()
    area = float(np.sum((fpr[1:] - fpr[:-1]) * (tpr[1:] + tpr[:-1]) / 2))
    assert area == pytest.approx(auc)
    report.roc_curve([s * 0.5 for s in scores[::-1]], labels, ax=ax, label="other")
    texts = [t.get_text() for t in ax.get_legend().get_texts()]
    assert texts[:2] == ["random (AUC 0.5)", f"shape (AUC {auc:.3f})"]
    assert len(texts) == 3 and texts[2].startswith("other (AUC ")
    path = tmp_path / "roc.png"
    figure.savefig(path, dpi=150)
    assert_drawn(path, ROC_PIXELS)


def coordinates(mol) -> np.ndarray:
    return np.asarray(mol.GetConformer().GetPositions())


def test_hit_grid_draws_copies_and_leaves_the_molecules_alone(cdk2_rdkit: list) -> None:
    mols = cdk2_rdkit[:6]
    before = [(m.GetNumAtoms(), m.GetNumConformers(), coordinates(m).copy()) for m in mols]
    image = report.hit_grid(mols, legends=[f"{i}. x\nshape 0.5" for i in range(1, 7)])
    assert image.size == (4 * CELL[0], 2 * CELL[1])
    for mol, (atoms, conformers, xyz) in zip(mols, before):
        assert mol.GetNumAtoms() == atoms and mol.GetNumConformers() == conformers
        assert mol.GetConformer().Is3D()
        np.testing.assert_array_equal(coordinates(mol), xyz)
    data = report.hit_grid(mols[:3] + [None], columns=2, size=(240, 200), png=True)
    assert isinstance(data, bytes)
    assert_drawn(data, (480, 400))
    # The empty cell (bottom right) holds no depiction.
    pixels = np.asarray(Image.open(io.BytesIO(data)).convert("RGB"))
    assert (pixels[200:360, 240:] >= 250).all()
    with pytest.raises(ValueError, match="2 molecules but 1 legends"):
        report.hit_grid(mols[:2], legends=["a"])
    with pytest.raises(ValueError, match="at least one molecule"):
        report.hit_grid([])


def test_top_hits_grid_orders_by_the_metric(cdk2_rdkit: list, monkeypatch) -> None:
    table = screen_table(cdk2_rdkit)
    image = report.top_hits_grid(table, n=5)
    assert image.size == (4 * CELL[0], 2 * CELL[1])
    assert_drawn(_png_bytes(image), image.size)
    seen: Dict[str, list] = {}
    monkeypatch.setattr(report, "hit_grid",
                        lambda mols, legends, **kwargs: seen.update(mols=mols, legends=legends))
    report.top_hits_grid(table, n=3, metric="combo")
    best = table.sort_values("combo", ascending=False, kind="stable").head(3)
    assert [m.GetProp("_Name") for m in seen["mols"]] == list(best["title"])
    first = best.iloc[0]
    assert seen["legends"][0] == (f"1. {first['title']}\ncombo {first['combo']:.3f} · "
                                  f"shape {first['shape_tanimoto']:.3f}")


def _png_bytes(image) -> bytes:
    buffer = io.BytesIO()
    image.save(buffer, format="PNG")
    return buffer.getvalue()


# --- the report directory --------------------------------------------------------------------


def write_ccp4(path: Path, values: np.ndarray, spacing: float = 0.5) -> None:
    """A CCP4 map (mode 2, P1, little-endian) of `values` (x fastest on disk)."""
    n = values.shape
    header = bytearray(1024)
    struct.pack_into("<10i", header, 0, n[0], n[1], n[2], 2, 0, 0, 0, n[0], n[1], n[2])
    struct.pack_into("<6f", header, 40, *(np.array(n) * spacing), 90.0, 90.0, 90.0)
    struct.pack_into("<3i", header, 64, 1, 2, 3)
    struct.pack_into("<3f", header, 76, values.min(), values.max(), values.mean())
    struct.pack_into("<2i", header, 88, 1, 0)
    header[208:212] = b"MAP "
    header[212:214] = b"\x44\x41"
    path.write_bytes(bytes(header) + values.astype("<f4").tobytes(order="F"))


def gaussian_map(peak: float, signed: bool = False) -> np.ndarray:
    axis = np.linspace(-3, 3, 12)
    x, y, z = np.meshgrid(axis, axis, axis, indexing="ij")
    blob = peak * np.exp(-((x - 1) ** 2 + y ** 2 + z ** 2))
    if signed:
        blob -= peak * np.exp(-((x + 1) ** 2 + y ** 2 + z ** 2))
    return blob


def pymol_loads(script: str) -> Dict[str, str]:
    """Object name -> path of each `load PATH, NAME` line."""
    return {name: path for path, name in re.findall(r"^load (\S+), (\S+)$", script, re.M)}


def test_write_report_from_a_table_with_molecules(cdk2_rdkit: list, tmp_path: Path) -> None:
    mols = list(cdk2_rdkit)
    table = screen_table(mols)
    best = table["shape_tanimoto"].idxmax()
    table.loc[best, "title"] = "Best <&> one"
    actives = set(table["title"].iloc[:8])
    query = mols[0]
    query_xyz = coordinates(query).copy()
    index = report.write_report(tmp_path / "out", table, query=query, cutoff=0.7, top_n=6,
                                actives=actives, title="CDK2 <screen>")
    folder = tmp_path / "out"
    assert index == folder / "index.html"
    page = index.read_text(encoding="utf-8")
    images = re.findall(r'<img src="([^"]+)"', page)
    assert images == ["score_distribution.png", "roc.png", "top_hits.png"]
    for name in images:
        assert (folder / name).is_file()
    assert_drawn(folder / "score_distribution.png", DISTRIBUTION_PIXELS)
    assert_drawn(folder / "roc.png", ROC_PIXELS)
    assert_drawn(folder / "top_hits.png", (4 * CELL[0], 2 * CELL[1]))   # 6 hits, 4 a row
    assert "<h1>CDK2 &lt;screen&gt;</h1>" in page
    assert "Best &lt;&amp;&gt; one" in page and "<&>" not in page
    assert "<script" not in page and "http" not in page
    # The ranked table: 6 rows, the best first, the actives marked.
    rows = re.findall(r"<tr><td>(\d+)</td><td><span class=\"title\">([^<]*)</span>", page)
    assert [int(r[0]) for r in rows] == [1, 2, 3, 4, 5, 6]
    assert rows[0][1] == "Best &lt;&amp;&gt; one"
    auc = report.roc_auc(table["shape_tanimoto"], table["title"].isin(actives))
    assert f"<th>ROC AUC</th><td>{auc:.3f}</td>" in page
    assert "<th>errors</th><td>2</td>" in page and "cannot kekulize" in page

    script = (folder / "hermite.pml").read_text()
    loads = pymol_loads(script)
    ranked = table.sort_values("shape_tanimoto", ascending=False, kind="stable").head(6)
    expected = ["query"] + [f"hit{place:03d}_{re.sub('[^A-Za-z0-9]+', '_', t).strip('_')}"
                            for place, t in enumerate(ranked["title"], start=1)]
    assert list(loads) == expected
    assert expected[1] == "hit001_Best_one"
    for path in loads.values():
        assert (folder / path).is_file() and not os.path.isabs(path)
    assert sorted(p.name for p in (folder / "hits").iterdir()) == \
        sorted(f"{name}.sdf" for name in expected[1:])
    hit = Chem.MolFromMolFile(str(folder / loads["hit001_Best_one"]), removeHs=False)
    np.testing.assert_allclose(coordinates(hit), coordinates(table.loc[best, "mol"]), atol=1e-4)
    np.testing.assert_array_equal(coordinates(query), query_xyz)


def test_write_report_without_actives_or_molecules(cdk2_rdkit: list, tmp_path: Path) -> None:
    table = screen_table(cdk2_rdkit).drop(columns=["mol"])
    report.write_report(tmp_path, table, metric="combo", actives=[])
    page = (tmp_path / "index.html").read_text()
    assert re.findall(r'<img src="([^"]+)"', page) == ["score_distribution.png"]
    assert not (tmp_path / "roc.png").exists() and not (tmp_path / "top_hits.png").exists()
    assert "No ROC: 0 of the 47 molecules are actives" in page
    # The table leads with the metric ranked.
    assert "<tr><th>rank</th><th>title</th><th>combo</th><th>shape</th>" in page
    assert pymol_loads((tmp_path / "hermite.pml").read_text()) == {}


def test_pymol_script_contours_each_map(cdk2_rdkit: list, tmp_path: Path) -> None:
    maps = tmp_path / "maps"
    maps.mkdir()
    write_ccp4(maps / "query-1.ccp4", gaussian_map(4.0))
    write_ccp4(maps / "hit-001.ccp4", gaussian_map(3.0))
    write_ccp4(maps / "hit-002.ccp4", gaussian_map(0.08, signed=True))
    table = screen_table(cdk2_rdkit[:4])
    report.write_report(tmp_path, table, hits=cdk2_rdkit[:2], maps=maps)
    script = (tmp_path / "hermite.pml").read_text()
    loads = pymol_loads(script)
    assert loads["map_query1"] == "maps/query-1.ccp4"
    assert loads["map_hit001"] == "maps/hit-001.ccp4"
    meshes = dict(re.findall(r"^isomesh (\S+), \S+, (\S+)$", script, re.M))
    peak_query = gaussian_map(4.0).max()
    assert float(meshes["mesh_query1"]) == pytest.approx(0.1 * peak_query, rel=1e-3)
    assert float(meshes["mesh_hit001"]) == pytest.approx(0.1 * gaussian_map(3.0).max(), rel=1e-3)
    signed = 0.5 * np.abs(gaussian_map(0.08, signed=True)).max()
    assert float(meshes["mesh_hit002_pos"]) == pytest.approx(signed, rel=1e-3)
    assert float(meshes["mesh_hit002_neg"]) == pytest.approx(-signed, rel=1e-3)
    # Only the query's and the first hit's meshes start visible.
    assert re.findall(r"^disable (mesh_\S+)$", script, re.M) == ["mesh_hit002_pos",
                                                                 "mesh_hit002_neg"]
    for path in loads.values():
        assert (tmp_path / path).is_file()
    (maps / "broken.ccp4").write_bytes(b"MAP " * 10)
    with pytest.raises(ValueError, match="broken.ccp4: not a CCP4/MRC map"):
        report.write_report(tmp_path, table, maps=maps)


# --- the command line ------------------------------------------------------------------------

SCORE_COLUMNS = ["shape_tanimoto", "hermite_tanimoto", "tversky_query", "tversky_fit"]


def write_cli_directory(folder: Path, mols: Sequence, best: int = 8) -> pd.DataFrame:
    """The files of `hermite overlay --report`: scores.tsv, hits.sdf, query.sdf, maps/."""
    table = screen_table(mols)
    table.loc[table["shape_tanimoto"].idxmax(), "title"] = "Odd <&> title"
    lines = ["\t".join(["title", "file", "record", "conformer", "conformers", "query",
                        "query_conformer"] + SCORE_COLUMNS + ["status"])]
    for record, row in enumerate(table.itertuples(), start=1):
        failed = not pd.isna(row.error)  # None, NaN or NA as the dtype has it
        scores = ["" if failed else f"{getattr(row, c):.4f}" for c in SCORE_COLUMNS]
        lines.append("\t".join([row.title, "db.sdf", str(record), "" if failed else "1", "1",
                                "1", "" if failed else "1"] + scores
                               + [f"error: {row.error}" if failed else "ok"]))
    (folder / "scores.tsv").write_text("\n".join(lines) + "\n")
    ranked = table.sort_values("shape_tanimoto", ascending=False, kind="stable").head(best)
    writer = Chem.SDWriter(str(folder / "hits.sdf"))
    for rank, row in enumerate(ranked.itertuples(), start=1):
        mol = Chem.Mol(row.mol)
        mol.SetProp("_Name", row.title)
        mol.SetIntProp("hermite_rank", rank)
        for column in SCORE_COLUMNS:
            mol.SetDoubleProp(f"hermite_{column}", getattr(row, column))
        writer.write(mol)
    writer.close()
    writer = Chem.SDWriter(str(folder / "query.sdf"))
    writer.write(mols[0])
    writer.close()
    (folder / "maps").mkdir()
    write_ccp4(folder / "maps" / "query-1.ccp4", gaussian_map(4.0))
    write_ccp4(folder / "maps" / "hit-001.ccp4", gaussian_map(3.5))
    return table


def run_cli(*args: str) -> subprocess.CompletedProcess:
    return subprocess.run([sys.executable, "-m", "hermite.report", *map(str, args)],
                          capture_output=True, text=True, timeout=120)


def test_command_line_writes_the_report(cdk2_rdkit: list, tmp_path: Path) -> None:
    table = write_cli_directory(tmp_path, cdk2_rdkit)
    actives = tmp_path / "actives.txt"
    actives.write_text("# known binders\n" + "\n".join(table["title"].iloc[:10]) + "\n")
    run = run_cli(tmp_path, "--best", 8, "--cutoff", 0.7, "--actives", actives,
                  "--title", "CDK2 screen")
    assert run.returncode == 0, run.stderr
    assert run.stdout.strip() == str(tmp_path / "index.html") and run.stderr == ""
    page = (tmp_path / "index.html").read_text()
    assert re.findall(r'<img src="([^"]+)"', page) == ["score_distribution.png", "roc.png",
                                                       "top_hits.png"]
    assert "<th>molecules</th><td>47</td>" in page and "<th>errors</th><td>2</td>" in page
    assert "Odd &lt;&amp;&gt; title" in page and "<&>" not in page
    assert '<a href="scores.tsv">' in page
    assert_drawn(tmp_path / "top_hits.png", (4 * CELL[0], 2 * CELL[1]))
    script = (tmp_path / "hermite.pml").read_text()
    loads = pymol_loads(script)
    assert loads["query"] == "query.sdf" and loads["map_hit001"] == "maps/hit-001.ccp4"
    hits = [name for name in loads if name.startswith("hit")]
    assert len(hits) == 8 and hits[0].startswith("hit001_") and hits[-1].startswith("hit008_")
    for path in loads.values():
        assert (tmp_path / path).is_file()
    # The hits file's records are copied as they are.
    records = (tmp_path / "hits.sdf").read_text().split("$$$$\n")
    assert (tmp_path / loads[hits[0]]).read_text() == records[0] + "$$$$\n"


def test_command_line_reads_actives_from_an_sd_file(cdk2_rdkit: list, tmp_path: Path) -> None:
    table = write_cli_directory(tmp_path, cdk2_rdkit)
    writer = Chem.SDWriter(str(tmp_path / "actives.sdf"))
    for mol in cdk2_rdkit[20:30]:
        writer.write(mol)
    writer.close()
    assert report.main([str(tmp_path), "--actives", str(tmp_path / "actives.sdf")]) == 0
    labels = table["title"].isin([m.GetProp("_Name") for m in cdk2_rdkit[20:30]])
    auc = report.roc_auc(table["shape_tanimoto"].round(4), labels)
    assert f"<th>ROC AUC</th><td>{auc:.3f}</td>" in (tmp_path / "index.html").read_text()


def test_command_line_error_statuses(cdk2_rdkit: list, tmp_path: Path, capsys) -> None:
    write_cli_directory(tmp_path, cdk2_rdkit[:12], best=3)
    run = run_cli(tmp_path, "--best", "0")
    assert run.returncode == 2
    assert run.stderr == "hermite.report: argument --best: must be a positive integer, got '0'\n"
    run = run_cli(tmp_path / "nowhere")
    assert run.returncode == 3
    assert run.stderr == f"hermite.report: {tmp_path / 'nowhere'}: no such directory\n"

    def status(*args: str) -> Tuple[int, str]:
        code = None
        try:
            code = report.main([str(a) for a in args])
        except SystemExit as exit_:
            code = exit_.code
        err = capsys.readouterr().err
        assert err.count("\n") == 1, err
        return code, err.strip()

    assert status(tmp_path, "--metric", "volume")[0] == 2
    code, message = status(tmp_path, "--metric", "combo")
    assert code == 2 and "has no combo scores" in message
    assert status(tmp_path, "--cutoff", "nan")[0] == 2
    code, message = status(tmp_path, "--actives", tmp_path / "missing.txt")
    assert code == 3 and message.endswith("missing.txt: the actives file does not exist")
    (tmp_path / "empty.smi").write_text("SMILES Name\n")
    assert status(tmp_path, "--actives", tmp_path / "empty.smi") == (
        3, f"hermite.report: {tmp_path / 'empty.smi'}: lists no active")
    (tmp_path / "maps" / "hit-002.ccp4").write_bytes(b"short")
    code, message = status(tmp_path)
    assert code == 3 and "hit-002.ccp4: not a CCP4/MRC map" in message
    (tmp_path / "scores.tsv").write_text("name\tscore\nx\t0.5\n")
    code, message = status(tmp_path)
    assert code == 3 and "not a hermite score table (no title, status column)" in message
    (tmp_path / "scores.tsv").unlink()
    code, message = status(tmp_path)
    assert code == 3 and message.endswith("scores.tsv: the score table does not exist")


def test_command_line_names_a_missing_package(cdk2_rdkit: list, tmp_path: Path) -> None:
    write_cli_directory(tmp_path, cdk2_rdkit[:6], best=2)
    code = ("import sys; sys.modules['matplotlib'] = None; "
            "from hermite.report import main; sys.exit(main(sys.argv[1:]))")
    run = subprocess.run([sys.executable, "-c", code, str(tmp_path)], capture_output=True,
                         text=True, timeout=120)
    assert run.returncode == 3
    assert run.stderr == "hermite.report: the report needs matplotlib: pip install matplotlib\n"

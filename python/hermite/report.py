"""Pictures and a static report of screening results, for notebooks and the command line.

Pictures:

- :func:`score_distribution`: a histogram of one score over the screened molecules, with the
  cutoff and the score of the N-th best marked;
- :func:`roc_curve`, with :func:`roc_auc`, :func:`enrichment_factor` and :func:`bedroc`: how
  well a screen separates known actives from the rest;
- :func:`hit_grid` and :func:`top_hits_grid`: 2-D depictions of hits with their scores.

:func:`write_report` puts them together in a directory: PNG pictures, a small static
``index.html`` and ``hermite.pml``, a PyMOL script that loads the query, the posed hits and their
density maps. ``python3 -m hermite.report DIR`` does the same from the files that
``hermite overlay ... --report DIR`` writes (``scores.tsv``, ``hits.sdf``, ``query.sdf`` and
``maps/*.ccp4``).

Conventions: every score is better when higher; a molecule without a score (NaN, e.g. one that
could not be read) ranks below every scored molecule. A table of screen results is a pandas
DataFrame with the columns ``rank`` (1-based), ``title``, the score columns of :data:`METRICS`
(NaN when not computed), ``conformer``, ``query_conformer``, ``error`` (None when fine) and
optionally ``mol`` (posed RDKit molecules).

matplotlib, pandas, RDKit's drawing code and Pillow are imported when first needed; a missing
one raises :class:`MissingDependency`, an ImportError naming what to install. Figures are built
without pyplot, so that nothing needs a display or a GUI backend.
"""

from __future__ import annotations

import argparse
import gzip
import html
import importlib
import io
import math
import os
import re
import struct
import sys
from dataclasses import dataclass, field
from pathlib import Path
from types import ModuleType
from typing import (TYPE_CHECKING, Any, TextIO, Dict, Iterable, List, Mapping, Optional,
                    Sequence, Tuple, Union)

import numpy as np

if TYPE_CHECKING:  # pragma: no cover - imported for the annotations only
    import pandas as pd
    from matplotlib.axes import Axes
    from matplotlib.figure import Figure
    from PIL.Image import Image
    from rdkit import Chem

__all__ = [
    "METRICS",
    "MissingDependency",
    "bedroc",
    "enrichment_factor",
    "hit_grid",
    "main",
    "read_scores",
    "roc_auc",
    "roc_curve",
    "score_distribution",
    "top_hits_grid",
    "write_report",
]

PathLike = Union[str, "os.PathLike[str]"]

METRICS = ("shape_tanimoto", "hermite_tanimoto", "tversky_query", "tversky_fit",
           "es_tanimoto", "es_carbo", "es_combo", "colour_tanimoto", "combo")
"""The score columns of a screen table, in the order the command-line tool writes them."""

# Axis and table labels of the metrics.
_METRIC_LABELS = {
    "shape_tanimoto": "shape Tanimoto",
    "hermite_tanimoto": "Hermite Tanimoto",
    "tversky_query": "Tversky (query)",
    "tversky_fit": "Tversky (fit)",
    "es_tanimoto": "electrostatic Tanimoto",
    "es_carbo": "electrostatic Carbó",
    "es_combo": "electrostatic combo (shape + electrostatic Tanimoto)",
    "colour_tanimoto": "colour Tanimoto",
    "combo": "combo (shape + colour Tanimoto)",
}
# Short names for legends under depictions and table headers.
_METRIC_SHORT = {
    "shape_tanimoto": "shape",
    "hermite_tanimoto": "Hermite",
    "tversky_query": "Tversky q",
    "tversky_fit": "Tversky f",
    "es_tanimoto": "ES",
    "es_carbo": "Carbó",
    "es_combo": "ES combo",
    "colour_tanimoto": "colour",
    "combo": "combo",
}
# The command-line tool's --rank-by names, accepted as metric names too.
_METRIC_ALIASES = {"shape": "shape_tanimoto", "hermite": "hermite_tanimoto"}

# Picture sizes: inches at 100 dpi for notebooks; the report's PNGs are saved at _PNG_DPI.
_DISTRIBUTION_SIZE = (6.4, 4.0)
_ROC_SIZE = (5.0, 5.0)
_PNG_DPI = 150
# At most this many histogram bins: more only add noise for the few thousand molecules of a
# typical screen.
_MAX_BINS = 60
# Hits listed in the report's table and drawn in its grid when top_n is not given.
_DEFAULT_SHOWN_HITS = 20
# Pixel sizes of the depiction legends (DejaVu Sans) and their line spacing, and the blank
# margin above each depiction that keeps neighbouring rows apart.
_LEGEND_FONT_PIXELS = 15
_LEGEND_LINE_PIXELS = 19
_CELL_MARGIN = 10
# Longest sanitised title kept in a PyMOL object name.
_OBJECT_TITLE_LENGTH = 40
# Rows of the report's list of molecules that failed.
_SHOWN_ERRORS = 10
# Fractions of the database for the report's enrichment factors, and BEDROC's default alpha
# (the early-recognition weight: 80 % of the score comes from the first 8 % of the list).
_EF_FRACTIONS = (0.01, 0.05)
_BEDROC_ALPHA = 20.0
# Contour level of a shape density map, as a fraction of its maximum: about the van der Waals
# surface (isolated atoms peak at 2.7 and fall to about 0.3 at their radius; overlapping atoms
# of a molecule reach 4 to 5).
_SHAPE_CONTOUR_FRACTION = 0.1
# A map whose minimum is below -_SIGNED_MAP_RATIO times its maximum is a signed (electrostatic)
# density, contoured at +/- _SIGNED_CONTOUR_FRACTION of its largest magnitude (lobes around the
# charged groups, inside the map's box; lower levels merge them into a ball). The truncated
# Hermite expansion of a shape density dips to about -0.15 of its maximum.
_SIGNED_MAP_RATIO = 0.5
_SIGNED_CONTOUR_FRACTION = 0.5


class MissingDependency(ImportError):
    """An optional package that a function of hermite.report needs is not installed."""

    def __init__(self, package: str, purpose: str) -> None:
        super().__init__(f"{purpose} needs {package}: pip install {package}")
        self.package = package


#: Scores of molecules (higher is better; NaN ranks last): a sequence, an array or a pandas
#: Series; and their labels (True for an active) in the same order.
ScoreValues = Union[Sequence[float], np.ndarray, "pd.Series"]
LabelValues = Union[Sequence[bool], np.ndarray, "pd.Series"]


def _require(module: str, package: str, purpose: str) -> ModuleType:
    """Imports `module`, or raises MissingDependency naming the pip package."""
    try:
        return importlib.import_module(module)
    except ImportError as error:
        raise MissingDependency(package, purpose) from error


# --- metrics and rankings -------------------------------------------------------------------


def _metric_name(metric: str) -> str:
    """The column name of `metric` (also accepting --rank-by spellings such as tversky-query)."""
    name = _METRIC_ALIASES.get(metric, metric.replace("-", "_"))
    if name not in METRICS:
        raise ValueError(f"unknown metric {metric!r}; expected one of {', '.join(METRICS)}")
    return name


def _as_scores(values: Any) -> np.ndarray:
    """A 1-D float array of scores; None, NaN and pandas' NA become NaN."""
    if hasattr(values, "to_numpy"):
        values = values.to_numpy(dtype=float, na_value=np.nan)
    try:
        return np.asarray(values, dtype=float).ravel()
    except (TypeError, ValueError):
        return np.asarray([_float_or_nan(v) for v in np.asarray(values, dtype=object).ravel()])


def _float_or_nan(value: Any) -> float:
    try:
        return float(value)
    except (TypeError, ValueError):
        return math.nan


def _metric_values(scores: Any, metric: str) -> np.ndarray:
    """The values of `metric` from a DataFrame, or `scores` itself as floats."""
    if hasattr(scores, "columns"):
        if metric not in scores.columns:
            raise ValueError(f"the table has no {metric} column (columns: "
                             f"{', '.join(map(str, scores.columns))})")
        return _as_scores(scores[metric])
    return _as_scores(scores)


def _classified(scores: Any, labels: Any) -> Tuple[np.ndarray, np.ndarray]:
    """Scores with NaN as -inf (ranked last) and boolean labels; both classes must occur."""
    values = _as_scores(scores)
    actives = np.asarray(labels, dtype=bool).ravel()
    if values.shape != actives.shape:
        raise ValueError(f"{values.size} scores but {actives.size} labels")
    if not actives.any() or actives.all():
        raise ValueError(f"needs actives and inactives; got {int(actives.sum())} actives among "
                         f"{actives.size} molecules")
    return np.where(np.isnan(values), -np.inf, values), actives


def _tie_groups(values: np.ndarray, actives: np.ndarray) -> Tuple[np.ndarray, np.ndarray]:
    """Molecules and actives per distinct score, best score first."""
    _, inverse, counts = np.unique(-values, return_inverse=True, return_counts=True)
    found = np.bincount(inverse, weights=actives.astype(float), minlength=counts.size)
    return counts, found


def roc_auc(scores: ScoreValues, labels: LabelValues) -> float:
    """The area under the ROC curve: the probability that a random active scores above a random
    inactive, ties counting one half (the Mann-Whitney U statistic over actives x inactives).

    Args:
        scores: one score per molecule, higher is better; NaN ranks below every score.
        labels: True for the actives.

    Raises:
        ValueError: lengths differ, or there are no actives or no inactives.
    """
    values, actives = _classified(scores, labels)
    _, inverse, counts = np.unique(values, return_inverse=True, return_counts=True)
    mean_ranks = np.cumsum(counts) - (counts - 1) / 2.0  # 1-based, ascending, ties averaged
    ranks = mean_ranks[inverse]
    n_actives = int(actives.sum())
    n_inactives = actives.size - n_actives
    u = ranks[actives].sum() - n_actives * (n_actives + 1) / 2.0
    return float(u / (n_actives * n_inactives))


def _roc_points(scores: ScoreValues, labels: LabelValues) -> Tuple[np.ndarray, np.ndarray]:
    """False and true positive rates at each distinct score, from (0, 0) to (1, 1); tied
    molecules make one diagonal step, so the area under the polyline is :func:`roc_auc`."""
    values, actives = _classified(scores, labels)
    counts, found = _tie_groups(values, actives)
    tpr = np.concatenate([[0.0], np.cumsum(found) / found.sum()])
    decoys = counts - found
    fpr = np.concatenate([[0.0], np.cumsum(decoys) / decoys.sum()])
    return fpr, tpr


def enrichment_factor(scores: ScoreValues, labels: LabelValues,
                      fraction: float) -> float:
    """The enrichment factor at `fraction` of the ranked list: the fraction of actives among the
    top n = ceil(fraction N) molecules (at least one) over the fraction of actives among all N.

    Molecules tied with the n-th one count in proportion (the expected value over the orders of
    the ties), so that a list of equal scores has EF 1.

    Args:
        scores, labels: as for :func:`roc_auc`.
        fraction: the top fraction, in (0, 1], e.g. 0.01 for EF 1 %.
    """
    if not 0.0 < fraction <= 1.0:
        raise ValueError(f"fraction must be in (0, 1], got {fraction}")
    values, actives = _classified(scores, labels)
    total = actives.size
    # The tolerance keeps 0.01 x 300 (3.0000000000000004 in binary) at 3 molecules.
    top = max(1, math.ceil(fraction * total - 1e-9))
    counts, found = _tie_groups(values, actives)
    taken, hits = 0, 0.0
    for count, group_actives in zip(counts, found):
        share = min(count, top - taken)
        hits += group_actives * share / count
        taken += share
        if taken == top:
            break
    return float((hits / top) / (actives.sum() / total))


def bedroc(scores: ScoreValues, labels: LabelValues, alpha: float = 20.0) -> float:
    """The Boltzmann-enhanced discrimination of ROC (Truchon and Bayly, J. Chem. Inf. Model. 47,
    488 (2007)), in [0, 1]: actives near the top of the list weigh exp(-alpha r / N).

    RIE = sum_i exp(-alpha r_i / N) / ((n/N) (1 - exp(-alpha)) / (exp(alpha/N) - 1)) over the
    1-based ranks r_i of the n actives, and BEDROC = RIE Ra sinh(alpha/2) / (cosh(alpha/2) -
    cosh(alpha/2 - alpha Ra)) + 1 / (1 - exp(alpha (1 - Ra))) with Ra = n/N. Tied molecules
    share the mean weight of the ranks they occupy.

    Args:
        scores, labels: as for :func:`roc_auc`.
        alpha: the early-recognition parameter (20: 80 % of the score from the top 8 %).
    """
    if not alpha > 0.0:
        raise ValueError(f"alpha must be positive, got {alpha}")
    values, actives = _classified(scores, labels)
    total = actives.size
    n_actives = float(actives.sum())
    counts, found = _tie_groups(values, actives)
    weights = np.concatenate([[0.0], np.cumsum(np.exp(-alpha * np.arange(1, total + 1) / total))])
    ends = np.cumsum(counts)
    group_weight = (weights[ends] - weights[ends - counts]) / counts
    observed = float(np.dot(found, group_weight))
    expected = (n_actives / total) * (1.0 - math.exp(-alpha)) / math.expm1(alpha / total)
    rie = observed / expected  # 1 on average over random orders
    ratio = n_actives / total
    half = alpha / 2
    scale = ratio * math.sinh(half) / (math.cosh(half) - math.cosh(half - alpha * ratio))
    return float(rie * scale + 1.0 / (1.0 - math.exp(alpha * (1.0 - ratio))))


# --- figures --------------------------------------------------------------------------------


def _new_axes(ax: Optional["Axes"], size: Tuple[float, float]) -> Tuple["Figure", "Axes"]:
    """`ax` and its figure, or a new figure (no pyplot, no backend) with one axes."""
    if ax is not None:
        return ax.figure, ax
    figure_module = _require("matplotlib.figure", "matplotlib", "hermite.report's figures")
    if "IPython" in sys.modules:
        # Importing pyplot in a notebook registers the inline display of Figure objects, so
        # that a returned figure shows as the cell's value; it is never shown twice, as
        # figures made without pyplot are not pyplot's to show.
        importlib.import_module("matplotlib.pyplot")
    figure = figure_module.Figure(figsize=size, dpi=100, layout="constrained")
    return figure, figure.add_subplot()


def _histogram_bins(values: np.ndarray) -> np.ndarray:
    """Bin edges by numpy's 'auto' rule, at most _MAX_BINS bins."""
    edges = np.histogram_bin_edges(values, bins="auto")
    if edges.size - 1 > _MAX_BINS:
        edges = np.histogram_bin_edges(values, bins=_MAX_BINS)
    return edges


def _top_threshold(values: np.ndarray, top_n: int) -> float:
    """The score of the top_n-th best of the finite `values` (the worst when there are fewer)."""
    ordered = np.sort(values)[::-1]
    return float(ordered[min(top_n, ordered.size) - 1])


def score_distribution(scores: Any, *, metric: str = "shape_tanimoto",
                       cutoff: Optional[float] = None, top_n: Optional[int] = None,
                       ax: Optional["Axes"] = None) -> "Figure":
    """A histogram of a score over the screened molecules.

    Molecules without a score (NaN) are left out and counted in the title. A dashed line marks
    `cutoff` (with the number of molecules at or above it), a dotted one the score of the
    top_n-th best molecule.

    Args:
        scores: a screen table (DataFrame) or a sequence of scores.
        metric: the column of a table (one of :data:`METRICS`); names the axis for a sequence.
        cutoff: a score threshold to mark.
        top_n: mark the score of the top_n-th best molecule.
        ax: draw into these matplotlib axes rather than a new figure.

    Returns:
        the matplotlib Figure.
    """
    metric = _metric_name(metric)
    values = _metric_values(scores, metric)
    finite = values[np.isfinite(values)]
    figure, ax = _new_axes(ax, _DISTRIBUTION_SIZE)
    label = _METRIC_LABELS[metric]
    if finite.size:
        ax.hist(finite, bins=_histogram_bins(finite), color="#4c72b0", edgecolor="white",
                linewidth=0.5, label=f"{finite.size} molecules")
    else:
        ax.text(0.5, 0.5, "no scores", transform=ax.transAxes, ha="center", va="center")
    if cutoff is not None:
        above = int(np.count_nonzero(finite >= cutoff))
        ax.axvline(cutoff, color="#c44e52", linestyle="--", linewidth=1.5,
                   label=f"cutoff {cutoff:g}: {above} at or above")
    if top_n is not None and finite.size:
        threshold = _top_threshold(finite, top_n)
        ax.axvline(threshold, color="#55a868", linestyle=":", linewidth=2,
                   label=f"best {top_n}: {threshold:.3f} and above")
    missing = values.size - finite.size
    title = f"{label} of {finite.size} molecules"
    ax.set_title(title + (f" ({missing} without a score)" if missing else ""))
    ax.set_xlabel(label)
    ax.set_ylabel("molecules")
    if finite.size:
        ax.legend(loc="best", framealpha=0.9)
    return figure


def roc_curve(scores: ScoreValues, labels: LabelValues, *, ax: Optional["Axes"] = None,
              label: Optional[str] = None) -> Tuple["Figure", float]:
    """The ROC curve of a ranking against known actives, with the diagonal of a random ranking.

    Call it again with the same `ax` to compare rankings: the diagonal is drawn once.

    Args:
        scores, labels: as for :func:`roc_auc`.
        ax: draw into these matplotlib axes rather than a new figure.
        label: the curve's name in the legend, followed by its AUC.

    Returns:
        (figure, auc).
    """
    fpr, tpr = _roc_points(scores, labels)
    auc = roc_auc(scores, labels)
    figure, ax = _new_axes(ax, _ROC_SIZE)
    if not any(line.get_gid() == "random" for line in ax.get_lines()):
        ax.plot([0, 1], [0, 1], color="0.6", linestyle="--", linewidth=1,
                label="random (AUC 0.5)", gid="random")
    name = f"{label} (AUC {auc:.3f})" if label else f"AUC {auc:.3f}"
    ax.plot(fpr, tpr, linewidth=2, label=name)
    # A little room beyond [0, 1] keeps curves along the edges (a perfect ranking) visible.
    ax.set_xlim(-0.01, 1.01)
    ax.set_ylim(-0.01, 1.01)
    ax.set_aspect("equal")
    ax.set_xlabel("false positive rate (inactives found)")
    ax.set_ylabel("true positive rate (actives found)")
    ax.set_title("ROC")
    ax.legend(loc="lower right", framealpha=0.9)
    return figure, auc


def _save_png(figure: "Figure", path: Path) -> None:
    figure.savefig(path, dpi=_PNG_DPI, facecolor="white")


# --- depictions -----------------------------------------------------------------------------


def _mol_title(mol: Optional["Chem.Mol"]) -> str:
    return mol.GetProp("_Name") if mol is not None and mol.HasProp("_Name") else ""


def _depiction(mol: Optional["Chem.Mol"]) -> "Chem.Mol":
    """A copy of `mol` without its hydrogens, with 2-D coordinates (an empty molecule for
    None). The input keeps its conformers."""
    chem = _require("rdkit.Chem", "rdkit", "hit_grid")
    depictor = _require("rdkit.Chem.rdDepictor", "rdkit", "hit_grid")
    if mol is None:
        return chem.Mol()
    try:
        copy = chem.RemoveHs(mol)
    except Exception:  # noqa: BLE001 - RDKit raises several types for unsanitisable input
        copy = chem.Mol(mol)
    depictor.Compute2DCoords(copy)
    return copy


def _depiction_png(mol: Optional["Chem.Mol"], width: int, height: int) -> bytes:
    draw2d = _require("rdkit.Chem.Draw.rdMolDraw2D", "rdkit", "hit_grid")
    drawer = draw2d.MolDraw2DCairo(width, height)
    drawer.drawOptions().padding = 0.06
    drawer.DrawMolecule(_depiction(mol))
    drawer.FinishDrawing()
    return drawer.GetDrawingText()


def _legend_font(pixels: int) -> Any:
    """DejaVu Sans at `pixels`: matplotlib's copy, else a system one, else Pillow's own."""
    image_font = _require("PIL.ImageFont", "pillow", "hit_grid")
    candidates = ["DejaVuSans.ttf"]
    try:
        import matplotlib

        candidates.insert(0, os.path.join(matplotlib.get_data_path(), "fonts", "ttf",
                                          "DejaVuSans.ttf"))
    except ImportError:
        pass
    for candidate in candidates:
        try:
            return image_font.truetype(candidate, pixels)
        except OSError:
            continue
    return image_font.load_default()


def _fitted(draw: Any, text: str, font: Any, width: float) -> str:
    """`text`, cut with an ellipsis to fit `width` pixels."""
    if draw.textlength(text, font=font) <= width:
        return text
    while text and draw.textlength(text + "…", font=font) > width:
        text = text[:-1]
    return text + "…"


def hit_grid(mols: Sequence[Optional["Chem.Mol"]], *, legends: Optional[Sequence[str]] = None,
             columns: int = 4, size: Tuple[int, int] = (300, 260),
             png: bool = False) -> Union["Image", bytes]:
    """2-D depictions of molecules in a grid, each with a legend below it.

    Hydrogens are left out and 2-D coordinates computed on copies: the molecules (posed hits,
    say) are not changed. A None molecule leaves its cell empty but for the legend.

    Args:
        mols: RDKit molecules.
        legends: one per molecule, lines separated by newlines (default: the titles). Lines too
            long for the cell end in an ellipsis.
        columns: cells per row (fewer when there are fewer molecules).
        size: (width, height) of a cell in pixels, legend included.
        png: return the PNG file's bytes rather than a PIL image.
    """
    mols = list(mols)
    if not mols:
        raise ValueError("hit_grid needs at least one molecule")
    texts = [_mol_title(m) for m in mols] if legends is None else [str(t) for t in legends]
    if len(texts) != len(mols):
        raise ValueError(f"{len(mols)} molecules but {len(texts)} legends")
    if columns < 1:
        raise ValueError(f"columns must be at least 1, got {columns}")
    image_module = _require("PIL.Image", "pillow", "hit_grid")
    draw_module = _require("PIL.ImageDraw", "pillow", "hit_grid")
    width, height = size
    columns = min(columns, len(mols))
    rows = math.ceil(len(mols) / columns)
    lines = [text.split("\n") for text in texts]
    legend_height = max(len(item) for item in lines) * _LEGEND_LINE_PIXELS + 8
    picture_height = height - legend_height - _CELL_MARGIN
    if picture_height < 50 or width < 60:
        raise ValueError(f"cell size {size} leaves no room for the depictions")
    canvas = image_module.new("RGB", (columns * width, rows * height), "white")
    draw = draw_module.Draw(canvas)
    font = _legend_font(_LEGEND_FONT_PIXELS)
    for index, (mol, legend) in enumerate(zip(mols, lines)):
        left, top = (index % columns) * width, (index // columns) * height
        picture = image_module.open(io.BytesIO(_depiction_png(mol, width, picture_height)))
        canvas.paste(picture.convert("RGB"), (left, top + _CELL_MARGIN))
        for number, line in enumerate(legend):
            text = _fitted(draw, line, font, width - 8)
            y = top + height - legend_height + number * _LEGEND_LINE_PIXELS
            x = left + (width - draw.textlength(text, font=font)) / 2
            draw.text((x, y), text, fill=(30, 30, 30) if number == 0 else (90, 90, 90), font=font)
    if not png:
        return canvas
    buffer = io.BytesIO()
    canvas.save(buffer, format="PNG")
    return buffer.getvalue()


def _score_line(scores: Mapping[str, float], metric: str) -> str:
    """'shape 0.812 · combo 1.234': the metric, then the shape Tanimoto after a combo score,
    else the first known of combo, the electrostatic combo and the shape Tanimoto."""
    def known(name: str) -> bool:
        value = scores.get(name)
        return value is not None and bool(np.isfinite(value))

    others = (("shape_tanimoto",) if metric in ("combo", "es_combo")
              else ("combo", "es_combo", "shape_tanimoto"))
    second = next((name for name in others if name != metric and known(name)), None)
    shown = [name for name in (metric, second) if name is not None and known(name)]
    return " · ".join(f"{_METRIC_SHORT[name]} {scores[name]:.3f}" for name in shown)


def _ranked(table: "pd.DataFrame", metric: str) -> "pd.DataFrame":
    """The rows with a `metric` score, best first; ties keep the table's order."""
    values = _metric_values(table, metric)
    order = np.argsort(-np.where(np.isnan(values), -np.inf, values), kind="stable")
    ranked = table.iloc[order]
    return ranked[np.isfinite(values[order])]


def top_hits_grid(df: "pd.DataFrame", n: int = 12, metric: str = "shape_tanimoto", *,
                  columns: int = 4, size: Tuple[int, int] = (300, 260),
                  png: bool = False) -> Union["Image", bytes]:
    """:func:`hit_grid` of the `n` best rows of a screen table by `metric` that have a
    molecule (column ``mol``), with legends "1. title" and "shape 0.812 · combo 1.234" (the
    number is the place by `metric`)."""
    metric = _metric_name(metric)
    if "mol" not in df.columns:
        raise ValueError("the table has no mol column (posed molecules)")
    ranked = _ranked(df, metric)
    ranked = ranked[[mol is not None for mol in ranked["mol"]]].head(n)
    if ranked.empty:
        raise ValueError(f"no row has both a molecule and a {metric} score")
    legends = [f"{place}. {row.get('title', '')}\n{_score_line(_row_scores(row), metric)}"
               for place, (_, row) in enumerate(ranked.iterrows(), start=1)]
    return hit_grid(list(ranked["mol"]), legends=legends, columns=columns, size=size, png=png)


def _row_scores(row: Any) -> Dict[str, float]:
    scores = {}
    for name in METRICS:
        value: Any = row.get(name) if hasattr(row, "get") else None
        try:
            scores[name] = float(value)
        except (TypeError, ValueError):
            continue
    return scores


# --- reading the command-line tool's files --------------------------------------------------


def _open_text(path: PathLike) -> TextIO:
    """A text file, gunzipped when its name ends in .gz."""
    if str(path).endswith(".gz"):
        return gzip.open(path, "rt", encoding="utf-8", errors="replace")
    return open(path, encoding="utf-8", errors="replace")


def read_scores(path: PathLike, metric: str = "shape_tanimoto") -> "pd.DataFrame":
    """Reads the score table of ``hermite overlay --scores`` into a screen table.

    The columns become those of the module's convention: the score columns as floats (NaN where
    empty; the electrostatic and colour ones NaN throughout when the screen did not compute
    them),
    ``error`` from ``status`` (None for "ok", else the reason), and ``rank`` by `metric` (1-based,
    ties in file order; NaN for molecules without a score). Rows stay in file order.

    Raises:
        ValueError: the file has no title or status column.
    """
    pd = _require("pandas", "pandas", "read_scores")
    metric = _metric_name(metric)
    # Every column is read as text first so that titles such as "NA" or "1e5" stay as written.
    table = pd.read_csv(path, sep="\t", dtype=str, keep_default_na=False, na_filter=False,
                        quoting=3)
    missing = [name for name in ("title", "status") if name not in table.columns]
    if missing:
        raise ValueError(f"{path}: not a hermite score table (no {', '.join(missing)} column)")
    for name in METRICS:
        table[name] = (pd.to_numeric(table[name], errors="coerce") if name in table.columns
                       else np.nan)
    for name in ("record", "conformer", "conformers", "query", "query_conformer"):
        if name in table.columns:
            table[name] = pd.to_numeric(table[name], errors="coerce").astype("Int64")
    status = table.pop("status").str.strip()
    table["error"] = [None if s == "ok" else re.sub(r"^error:\s*", "", s) for s in status]
    ranks = np.full(len(table), np.nan)
    ranked = _ranked(table.reset_index(drop=True), metric)
    ranks[ranked.index.to_numpy()] = np.arange(1, len(ranked) + 1)
    table.insert(0, "rank", pd.array(ranks, dtype="Int64"))
    return table


def _sd_records(path: PathLike) -> List[str]:
    """The records of an SD file as text, each ending with its $$$$ line."""
    records, lines = [], []
    with _open_text(path) as stream:
        for line in stream:
            lines.append(line if line.endswith("\n") else line + "\n")
            if line.rstrip("\r\n") == "$$$$":
                records.append("".join(lines))
                lines = []
    if any(line.strip() for line in lines):
        records.append("".join(lines) + "$$$$\n")
    return records


def _sd_data(record: str) -> Dict[str, str]:
    """The data items of an SD record (> <name> lines and the value lines under them)."""
    items: Dict[str, str] = {}
    name: Optional[str] = None
    values: List[str] = []
    body = record.split("M  END", 1)[1] if "M  END" in record else ""
    for line in body.splitlines():
        header = re.match(r"^>.*?<([^>]*)>", line)
        if header:
            name, values = header.group(1), []
        elif name is not None and line.strip() == "":
            items[name] = "\n".join(values)
            name = None
        elif name is not None:
            values.append(line)
    if name is not None:
        items[name] = "\n".join(values)
    return items


def _sd_titles(path: PathLike) -> List[str]:
    return [record.split("\n", 1)[0].strip() for record in _sd_records(path)]


def _read_titles(path: PathLike) -> List[str]:
    """Titles from a file: an SD file's record titles, a SMILES file's names (what follows the
    SMILES on each line), or one title per line (# starts a comment line)."""
    name = str(path).lower().removesuffix(".gz")
    if name.endswith((".sdf", ".sd", ".mol")):
        return [title for title in _sd_titles(path) if title]
    smiles = name.endswith((".smi", ".smiles", ".ism", ".can"))
    titles = []
    with _open_text(path) as stream:
        for line in stream:
            text = line.strip()
            if not text or text.startswith("#"):
                continue
            if smiles:
                fields = text.split(None, 1)
                if fields[0].lower() == "smiles" or len(fields) < 2:
                    continue
                text = fields[1].strip()
            titles.append(text)
    return titles


# --- the report -----------------------------------------------------------------------------


@dataclass
class _Hit:
    """A posed hit of the report: its number, title, SD record and molecule for drawing."""

    rank: int
    title: str
    record: str
    mol: Optional["Chem.Mol"]
    scores: Dict[str, float] = field(default_factory=dict)


def _record_of(mol: "Chem.Mol") -> str:
    chem = _require("rdkit.Chem", "rdkit", "write_report")
    buffer = io.StringIO()
    writer = chem.SDWriter(buffer)
    writer.SetForceV3000(False)
    writer.write(mol)
    writer.close()
    return buffer.getvalue()


def _float(text: Optional[str]) -> Optional[float]:
    try:
        return float(text) if text is not None else None
    except ValueError:
        return None


def _hit_from_record(record: str, position: int, mol: Optional["Chem.Mol"]) -> _Hit:
    """A hit from an SD record: number from hermite_rank (else `position`), scores from the
    hermite_<metric> data items."""
    data = _sd_data(record)
    rank = _float(data.get("hermite_rank"))
    scores = {name: value for name in METRICS
              if (value := _float(data.get(f"hermite_{name}"))) is not None}
    return _Hit(int(rank) if rank is not None else position, record.split("\n", 1)[0].strip(),
                record, mol, scores)


def _parsed(record: str) -> Optional["Chem.Mol"]:
    """The molecule of an SD record for drawing, or None when RDKit cannot read it."""
    chem = _require("rdkit.Chem", "rdkit", "the hit depictions")
    return chem.MolFromMolBlock(record, sanitize=True, removeHs=False)


def _hits_from_file(path: PathLike, drawn: int) -> List[_Hit]:
    """The hits of an SD file in file order, the first `drawn` of them parsed for drawing. A
    record RDKit cannot read is still loaded into PyMOL but not drawn (RDKit's complaints
    about it are not printed)."""
    records = _sd_records(path)
    rdbase = _require("rdkit.rdBase", "rdkit", "the hit depictions")
    with rdbase.BlockLogs():
        return [_hit_from_record(record, position,
                                 _parsed(record) if position <= drawn else None)
                for position, record in enumerate(records, start=1)]


def _hits_from_mols(mols: Iterable[Optional["Chem.Mol"]]) -> List[_Hit]:
    hits = []
    for position, mol in enumerate(mols, start=1):
        if mol is None:
            continue
        hits.append(_hit_from_record(_record_of(mol), position, mol))
    return hits


def _hits_from_table(table: "pd.DataFrame", metric: str, limit: int) -> List[_Hit]:
    """The `limit` best rows by `metric` that have a molecule, numbered by their place."""
    ranked = _ranked(table, metric)
    ranked = ranked[[mol is not None for mol in ranked["mol"]]].head(limit)
    hits = []
    for place, (_, row) in enumerate(ranked.iterrows(), start=1):
        mol = row["mol"]
        title = str(row["title"]) if "title" in row else _mol_title(mol)
        hits.append(_Hit(place, title, _record_of(mol), mol, _row_scores(row)))
    return hits


def _collect_hits(hits: Any, table: "pd.DataFrame", metric: str, limit: int) -> List[_Hit]:
    """The posed hits: all of a file or a sequence, or the `limit` best of the table."""
    if hits is None:
        return _hits_from_table(table, metric, limit) if "mol" in table.columns else []
    if isinstance(hits, (str, os.PathLike)):
        return _hits_from_file(hits, limit)
    return _hits_from_mols(hits)


def _object_name(title: str) -> str:
    """A PyMOL-safe form of a title: letters, digits and single underscores."""
    name = re.sub(r"[^A-Za-z0-9]+", "_", title).strip("_")[:_OBJECT_TITLE_LENGTH].strip("_")
    return name or "untitled"


def _hit_objects(hits: Sequence[_Hit]) -> List[str]:
    """hit001_<title> for each hit, made unique with a suffix where ranks and titles repeat."""
    names: List[str] = []
    for hit in hits:
        base = f"hit{hit.rank:03d}_{_object_name(hit.title)}"
        name, copy = base, 2
        while name in names:
            name, copy = f"{base}_{copy}", copy + 1
        names.append(name)
    return names


def _map_header(path: Path) -> Tuple[Tuple[int, int, int], int, int, float, float, str]:
    """(nx, ny, nz), mode, extended header bytes, minimum, maximum, endianness of a CCP4/MRC
    map."""
    with open(path, "rb") as stream:
        header = stream.read(1024)
    if len(header) < 1024:
        raise ValueError(f"{path}: not a CCP4/MRC map (shorter than its 1024-byte header)")
    endian = ">" if header[212:214] == b"\x11\x11" else "<"
    nx, ny, nz, mode = struct.unpack(endian + "4i", header[:16])
    dmin, dmax = struct.unpack(endian + "2f", header[76:84])
    extended = struct.unpack(endian + "i", header[92:96])[0]
    if header[208:211] != b"MAP" or min(nx, ny, nz) < 1:
        raise ValueError(f"{path}: not a CCP4/MRC map (no MAP stamp or no grid)")
    return (nx, ny, nz), mode, extended, dmin, dmax, endian


def _map_range(path: Path) -> Tuple[float, float]:
    """The minimum and maximum of a map: from its header, or from its values (32-bit float maps)
    when the header leaves them unset."""
    shape, mode, extended, dmin, dmax, endian = _map_header(path)
    if np.isfinite(dmin) and np.isfinite(dmax) and dmax > dmin:
        return dmin, dmax
    if mode != 2:
        raise ValueError(f"{path}: the header gives no density range and the values are not "
                         f"32-bit floats (mode {mode})")
    count = shape[0] * shape[1] * shape[2]
    values = np.fromfile(path, dtype=endian + "f4", count=count, offset=1024 + max(extended, 0))
    if values.size != count:
        raise ValueError(f"{path}: truncated map ({values.size} of {count} values)")
    return float(values.min()), float(values.max())


def _contour_levels(path: Path) -> List[float]:
    """Isomesh levels for a map: one near the molecular surface of a shape density, or +/- half
    the largest magnitude of a signed (electrostatic) density."""
    dmin, dmax = _map_range(path)
    if dmin < -_SIGNED_MAP_RATIO * dmax:
        level = _SIGNED_CONTOUR_FRACTION * max(abs(dmin), abs(dmax))
        return [level, -level]
    return [_SHAPE_CONTOUR_FRACTION * dmax]


def _map_files(maps: Any) -> List[Path]:
    if maps is None:
        return []
    if isinstance(maps, (str, os.PathLike)):
        folder = Path(maps)
        if not folder.is_dir():
            raise ValueError(f"{folder}: the maps directory does not exist")
        files = [p for p in folder.iterdir()
                 if p.suffix.lower() in (".ccp4", ".map", ".mrc") and p.is_file()]
        # The query's maps first, then the hits' by rank (their names are zero-padded).
        return sorted(files, key=lambda p: (not p.name.startswith("query"), p.name))
    return [Path(p) for p in maps]


def _pymol_path(path: Path, directory: Path) -> str:
    """`path` relative to the report directory, with forward slashes, quoted when needed."""
    relative = Path(os.path.relpath(path.resolve(), directory.resolve())).as_posix()
    return f'"{relative}"' if re.search(r'[\s,;"]', relative) else relative


# Sets PyMOL's working directory to the script's own, so that the relative paths below load
# wherever PyMOL was started (PyMOL keeps the path of the script it runs in __script__).
_PYMOL_PREAMBLE = """\
python
import os
from pymol import cmd as _cmd
_script = getattr(_cmd._pymol, "__script__", "")
if _script and os.path.isfile(_script):
    os.chdir(os.path.dirname(os.path.abspath(_script)))
python end
"""


def _pymol_map_lines(maps: Sequence[Path], directory: Path) -> List[str]:
    lines = []
    for path in maps:
        stem = _object_name(path.stem.replace("-", ""))
        shown = stem.startswith("query") or stem == "hit001"
        colour = "grey60" if stem.startswith("query") else "palegreen"
        lines.append(f"load {_pymol_path(path, directory)}, map_{stem}")
        lines.append(f"disable map_{stem}")
        levels = _contour_levels(path)
        for level in levels:
            suffix = "" if len(levels) == 1 else ("_pos" if level > 0 else "_neg")
            mesh = f"mesh_{stem}{suffix}"
            signed_colour = "blue" if level > 0 else "red"
            lines.append(f"isomesh {mesh}, map_{stem}, {level:.4g}")
            lines.append(f"color {colour if len(levels) == 1 else signed_colour}, {mesh}")
            if not shown:
                lines.append(f"disable {mesh}")
    return lines


def _pymol_script(directory: Path, query: Optional[Path], hits: Sequence[_Hit],
                  hit_files: Sequence[Path], objects: Sequence[str],
                  maps: Sequence[Path]) -> str:
    lines = ["# hermite: the query, the posed hits and their density maps.",
             "# Open with `pymol hermite.pml`; paths are relative to this file's directory.",
             _PYMOL_PREAMBLE.rstrip("\n")]
    if query is not None:
        lines += [f"load {_pymol_path(query, directory)}, query",
                  "color grey70, query and elem C"]
    for index, (hit, path, name) in enumerate(zip(hits, hit_files, objects)):
        lines.append(f"load {_pymol_path(path, directory)}, {name}")
        lines.append(f"color palegreen, {name} and elem C")
        if index > 0:
            lines.append(f"disable {name}")
    lines += _pymol_map_lines(maps, directory)
    lines += ["show sticks", "hide everything, hydro", "set stick_radius, 0.18",
              f"orient {'query' if query is not None else (objects[0] if objects else 'all')}",
              ""]
    return "\n".join(lines)


def _write_hit_files(directory: Path, hits: Sequence[_Hit], objects: Sequence[str]) -> List[Path]:
    """Each hit's record as hits/<object>.sdf; files of an earlier report there are removed."""
    folder = directory / "hits"
    folder.mkdir(exist_ok=True)
    for old in folder.glob("hit[0-9][0-9][0-9]*.sdf"):
        old.unlink()
    paths = []
    for hit, name in zip(hits, objects):
        path = folder / f"{name}.sdf"
        path.write_text(hit.record, encoding="utf-8")
        paths.append(path)
    return paths


def _query_path(directory: Path, query: Any) -> Optional[Path]:
    """The query file: `query` itself when it is a path, else its molecules written to
    query.sdf in the report directory."""
    if query is None:
        return None
    if isinstance(query, (str, os.PathLike)):
        path = Path(query)
        if not path.is_file():
            raise ValueError(f"{path}: the query file does not exist")
        return path
    mols = [query] if hasattr(query, "GetNumAtoms") else list(query)
    path = directory / "query.sdf"
    path.write_text("".join(_record_of(mol) for mol in mols if mol is not None),
                    encoding="utf-8")
    return path


def _active_labels(table: "pd.DataFrame", actives: Any) -> Optional[np.ndarray]:
    """True for the actives: a boolean column's name, or a collection of titles."""
    if actives is None:
        return None
    if isinstance(actives, str):
        if actives not in table.columns:
            raise ValueError(f"the table has no column {actives!r} marking the actives")
        return np.asarray(table[actives].fillna(False), dtype=bool)
    titles = set(map(str, actives))
    return np.asarray([str(t) in titles for t in table["title"]], dtype=bool)


def _error_rows(table: "pd.DataFrame") -> "pd.DataFrame":
    if "error" not in table.columns:
        return table.iloc[:0]
    # Missing reasons are None, NaN or pandas' NA, depending on the column's dtype.
    pd = _require("pandas", "pandas", "reading a screen table")
    failed = [not pd.isna(e) and str(e) != "" for e in table["error"]]
    return table[failed]


@dataclass
class _Summary:
    """What the report's page says about the run."""

    rows: List[Tuple[str, str]] = field(default_factory=list)
    enrichment: List[Tuple[str, str]] = field(default_factory=list)
    notes: List[str] = field(default_factory=list)


def _run_summary(table: "pd.DataFrame", metric: str, cutoff: Optional[float],
                 top_n: Optional[int]) -> _Summary:
    values = _metric_values(table, metric)
    finite = values[np.isfinite(values)]
    summary = _Summary()
    summary.rows.append(("molecules", str(len(table))))
    if "query" in table.columns and table["query"].nunique(dropna=True) > 1:
        summary.rows.append(("query molecules", f"{table['query'].nunique()} "
                             "(one row per database molecule and query molecule)"))
    summary.rows.append(("errors", str(len(_error_rows(table)))))
    summary.rows.append(("metric", _METRIC_LABELS[metric]))
    if finite.size:
        summary.rows.append(("best, median", f"{finite.max():.3f}, {np.median(finite):.3f}"))
    if cutoff is not None:
        above = int(np.count_nonzero(finite >= cutoff))
        summary.rows.append(("cutoff", f"{cutoff:g} ({above} at or above)"))
    if top_n is not None and finite.size:
        summary.rows.append((f"score of the best {top_n}",
                             f"{_top_threshold(finite, top_n):.3f} and above"))
    return summary


def _add_enrichment(summary: _Summary, table: "pd.DataFrame", metric: str,
                    labels: np.ndarray) -> bool:
    """Adds the enrichment figures; False (with a note) when ROC needs what is missing."""
    found = int(labels.sum())
    if found == 0 or found == labels.size:
        summary.notes.append(f"No ROC: {found} of the {labels.size} molecules are actives; "
                             "it needs actives and inactives.")
        return False
    values = _metric_values(table, metric)
    summary.enrichment.append(("actives", f"{found} of {labels.size}"))
    summary.enrichment.append(("ROC AUC", f"{roc_auc(values, labels):.3f}"))
    for fraction in _EF_FRACTIONS:
        summary.enrichment.append((f"EF {fraction:.0%}",
                                   f"{enrichment_factor(values, labels, fraction):.2f}"))
    summary.enrichment.append((f"BEDROC (α = {_BEDROC_ALPHA:g})",
                               f"{bedroc(values, labels, _BEDROC_ALPHA):.3f}"))
    return True


def _shown_metrics(table: "pd.DataFrame", metric: str) -> List[str]:
    """The metric first, then the other score columns that have any value."""
    others = [name for name in METRICS if name != metric and name in table.columns
              and np.isfinite(_metric_values(table, name)).any()]
    return [metric] + others


def _cell(value: Any, digits: int = 3) -> str:
    """A table cell's text, HTML-escaped: empty for None, NaN and pandas' NA."""
    pd = _require("pandas", "pandas", "write_report")
    if value is None or (pd.api.types.is_scalar(value) and pd.isna(value)):
        return ""
    if isinstance(value, (float, np.floating)):
        return f"{value:.{digits}f}"
    return html.escape(str(value))


def _hits_table_html(table: "pd.DataFrame", metric: str, rows: int,
                     labels: Optional[np.ndarray]) -> str:
    ranked = _ranked(table.assign(_active=labels) if labels is not None else table, metric)
    ranked = ranked.head(rows)
    metrics = _shown_metrics(table, metric)
    header = ["rank", "title"] + [_METRIC_SHORT[m] for m in metrics]
    extra = ["conformer"] if "conformer" in table.columns else []
    if "query" in table.columns and table["query"].nunique(dropna=True) > 1:
        extra.append("query")
    header += extra + (["active"] if labels is not None else [])
    lines = ["<table class=\"hits\">",
             "<tr>" + "".join(f"<th>{html.escape(h)}</th>" for h in header) + "</tr>"]
    for place, (_, row) in enumerate(ranked.iterrows(), start=1):
        cells = [str(place), f"<span class=\"title\">{_cell(row.get('title'))}</span>"]
        cells += [_cell(row.get(m)) for m in metrics] + [_cell(row.get(e)) for e in extra]
        if labels is not None:
            cells.append("yes" if row["_active"] else "")
        lines.append("<tr>" + "".join(f"<td>{c}</td>" for c in cells) + "</tr>")
    lines.append("</table>")
    return "\n".join(lines)


def _errors_html(table: "pd.DataFrame") -> str:
    failed = _error_rows(table)
    if failed.empty:
        return ""
    items = [f"<li>{_cell(row.get('title'))}: {_cell(row.get('error'))}</li>"
             for _, row in failed.head(_SHOWN_ERRORS).iterrows()]
    more = len(failed) - _SHOWN_ERRORS
    if more > 0:
        items.append(f"<li>and {more} more</li>")
    return "<h2>Errors</h2>\n<ul>\n" + "\n".join(items) + "\n</ul>"


def _pairs_html(pairs: Sequence[Tuple[str, str]]) -> str:
    rows = "".join(f"<tr><th>{html.escape(k)}</th><td>{html.escape(v)}</td></tr>"
                   for k, v in pairs)
    return f"<table class=\"summary\">{rows}</table>"


_STYLE = """\
body { font-family: "DejaVu Sans", Arial, sans-serif; margin: 2em auto; max-width: 72em;
       padding: 0 1em; color: #222; }
table { border-collapse: collapse; margin: 0.5em 0 1.5em; }
th, td { padding: 0.25em 0.7em; border-bottom: 1px solid #ddd; text-align: right; }
table.summary th { text-align: left; font-weight: normal; color: #555; }
table.summary td { text-align: left; }
table.hits td:nth-child(2), table.hits th:nth-child(2) { text-align: left; }
table.hits th:nth-child(3) { text-decoration: underline; }
img { max-width: 100%; height: auto; }
code { background: #f3f3f3; padding: 0 0.2em; }
"""


def _image_html(name: str, images: Mapping[str, Tuple[str, int]]) -> str:
    alt, width = images[name]
    return f"<p><img src=\"{name}\" width=\"{width}\" alt=\"{html.escape(alt)}\"></p>"


def _index_html(title: str, summary: _Summary, images: Mapping[str, Tuple[str, int]],
                table_html: str,
                errors_html: str, files: Sequence[Tuple[str, str]]) -> str:
    parts = ["<!DOCTYPE html>", "<html lang=\"en\">", "<head>", "<meta charset=\"utf-8\">",
             f"<title>{html.escape(title)}</title>", f"<style>\n{_STYLE}</style>", "</head>",
             "<body>", f"<h1>{html.escape(title)}</h1>", "<h2>Run</h2>",
             _pairs_html(summary.rows)]
    parts += [f"<p>{html.escape(note)}</p>" for note in summary.notes]
    if "score_distribution.png" in images:
        parts.append(_image_html("score_distribution.png", images))
    if summary.enrichment:
        parts += ["<h2>Enrichment</h2>", _pairs_html(summary.enrichment)]
    if "roc.png" in images:
        parts.append(_image_html("roc.png", images))
    parts += ["<h2>Top hits</h2>", table_html]
    if "top_hits.png" in images:
        parts += ["<h2>Posed hits</h2>",
                  _image_html("top_hits.png", images)]
    if errors_html:
        parts.append(errors_html)
    if files:
        items = "".join(f"<li><a href=\"{html.escape(href)}\">{html.escape(href)}</a>: "
                        f"{html.escape(what)}</li>" for href, what in files)
        parts += ["<h2>Files</h2>", f"<ul>{items}</ul>"]
    parts += ["</body>", "</html>", ""]
    return "\n".join(parts)


def _png_width(data: bytes) -> int:
    """The pixel width of a PNG (from its IHDR chunk)."""
    return struct.unpack(">I", data[16:20])[0]


def _hits_grid_png(hits: Sequence[_Hit], metric: str, limit: int) -> Optional[bytes]:
    drawn = [hit for hit in hits if hit.mol is not None][:limit]
    if not drawn:
        return None
    legends = [f"{hit.rank}. {hit.title}\n{_score_line(hit.scores, metric)}" for hit in drawn]
    grid = hit_grid([hit.mol for hit in drawn], legends=legends, png=True)
    assert isinstance(grid, bytes)
    return grid


def _scores_table(table: Any, metric: str) -> "pd.DataFrame":
    if isinstance(table, (str, os.PathLike)):
        return read_scores(table, metric)
    if "title" not in table.columns:
        raise ValueError("the table has no title column")
    _metric_values(table, metric)  # checks the column
    return table.reset_index(drop=True)


def write_report(directory: PathLike, table: Any, *, hits: Any = None, query: Any = None,
                 metric: str = "shape_tanimoto", cutoff: Optional[float] = None,
                 top_n: Optional[int] = None, actives: Any = None, maps: Any = None,
                 title: Optional[str] = None) -> Path:
    """Writes a report of a screen into `directory` (created when missing).

    Files: ``score_distribution.png``; ``roc.png`` when `actives` are given (and both actives
    and inactives occur); ``top_hits.png`` when posed hits are available; ``hits/<object>.sdf``
    for each posed hit; ``hermite.pml``, a PyMOL script loading the query as object ``query``,
    each hit as ``hit001_<title>`` (the number is the hit's rank) and each map as
    ``map_<name>`` with an isomesh ``mesh_<name>``; and ``index.html``, a static page (no
    scripts, no external resources) with the run's summary, the ranked table of the best
    molecules by `metric` and the pictures.

    Args:
        directory: the report directory.
        table: the screen table (DataFrame), or the path of a ``scores.tsv``.
        hits: posed hits in rank order: an SD file (such as ``hits.sdf``, ranks from its
            hermite_rank items) or RDKit molecules. By default, the best rows of `table` by
            `metric` that have a ``mol``.
        query: the query: an SD file, or RDKit molecules (written to ``query.sdf``).
        metric: the score ranked and plotted (one of :data:`METRICS`).
        cutoff: a score threshold to mark and count.
        top_n: rows of the hits table and hits drawn (default 20; the PyMOL script loads
            every hit of `hits`); the histogram marks the score of the top_n-th molecule when
            given.
        actives: the known actives: a collection of titles, or the name of a boolean column.
        maps: density maps: a directory (``*.ccp4``, ``*.map``, ``*.mrc``) or map files;
            ``query-1.ccp4`` becomes the object ``map_query1``.
        title: the page's heading (default "hermite screen report").

    Returns:
        the path of ``index.html``.
    """
    metric = _metric_name(metric)
    if top_n is not None and top_n < 1:
        raise ValueError(f"top_n must be at least 1, got {top_n}")
    directory = Path(directory)
    directory.mkdir(parents=True, exist_ok=True)
    table = _scores_table(table, metric)
    shown = top_n if top_n is not None else _DEFAULT_SHOWN_HITS
    labels = _active_labels(table, actives)
    posed = _collect_hits(hits, table, metric, shown)
    summary = _run_summary(table, metric, cutoff, top_n)
    # Picture, its description and its width on the page: the figures at 100 dpi (sharp on
    # high-resolution screens), the depictions at their own size.
    images: Dict[str, Tuple[str, int]] = {}

    figure = score_distribution(table, metric=metric, cutoff=cutoff, top_n=top_n)
    _save_png(figure, directory / "score_distribution.png")
    images["score_distribution.png"] = (f"histogram of {_METRIC_LABELS[metric]}",
                                        round(100 * _DISTRIBUTION_SIZE[0]))
    if labels is not None and _add_enrichment(summary, table, metric, labels):
        figure, _ = roc_curve(_metric_values(table, metric), labels,
                              label=_METRIC_LABELS[metric])
        _save_png(figure, directory / "roc.png")
        images["roc.png"] = ("ROC curve", round(100 * _ROC_SIZE[0]))
    grid = _hits_grid_png(posed, metric, shown)
    if grid is not None:
        (directory / "top_hits.png").write_bytes(grid)
        images["top_hits.png"] = ("2-D depictions of the best posed hits",
                                  _png_width(grid))

    objects = _hit_objects(posed)
    hit_files = _write_hit_files(directory, posed, objects)
    query_path = _query_path(directory, query)
    script = _pymol_script(directory, query_path, posed, hit_files, objects, _map_files(maps))
    (directory / "hermite.pml").write_text(script, encoding="utf-8")

    files = [("hermite.pml", "PyMOL script: pymol hermite.pml")]
    for name in ("scores.tsv", "hits.sdf", "query.sdf"):
        if (directory / name).is_file():
            files.append((name, {"scores.tsv": "score table", "hits.sdf": "posed hits",
                                 "query.sdf": "query"}[name]))
    page = _index_html(title or "hermite screen report", summary, images,
                       _hits_table_html(table, metric, shown, labels), _errors_html(table),
                       files)
    index = directory / "index.html"
    index.write_text(page, encoding="utf-8")
    return index


# --- command line ---------------------------------------------------------------------------


class _InputError(Exception):
    """An input of the command line that is missing or cannot be read (exit status 3)."""


class _UsageError(Exception):
    """A command-line argument that does not fit the inputs (exit status 2)."""


class _ArgumentParser(argparse.ArgumentParser):
    def error(self, message: str) -> None:  # type: ignore[override]
        """One line, status 2 (argparse's default adds the usage)."""
        self.exit(2, f"{self.prog}: {message}\n")


def _positive_int(text: str) -> int:
    try:
        value = int(text)
    except ValueError:
        raise argparse.ArgumentTypeError(f"must be a positive integer, got {text!r}") from None
    if value < 1:
        raise argparse.ArgumentTypeError(f"must be a positive integer, got {text!r}")
    return value


def _finite_float(text: str) -> float:
    try:
        value = float(text)
    except ValueError:
        raise argparse.ArgumentTypeError(f"must be a number, got {text!r}") from None
    if not math.isfinite(value):
        raise argparse.ArgumentTypeError(f"must be a finite number, got {text!r}")
    return value


def _metric_argument(text: str) -> str:
    try:
        return _metric_name(text)
    except ValueError as error:
        raise argparse.ArgumentTypeError(str(error)) from None


def _parser() -> _ArgumentParser:
    parser = _ArgumentParser(
        prog="hermite.report",
        description="Writes a report (index.html, pictures, a PyMOL script) into DIR from the "
                    "files of `hermite overlay ... --report DIR`: scores.tsv, and when present "
                    "hits.sdf, query.sdf and maps/*.ccp4. Exit status: 0 on success, 2 for a "
                    "mistake in the arguments, 3 for a missing or unreadable input or a "
                    "missing optional package.")
    parser.add_argument("directory", metavar="DIR", help="the directory of the screen's files")
    parser.add_argument("--metric", type=_metric_argument, default="shape_tanimoto",
                        help="the score to rank and plot: " + ", ".join(METRICS)
                             + " (default shape_tanimoto)")
    parser.add_argument("--cutoff", type=_finite_float, help="a score threshold to mark")
    parser.add_argument("--best", type=_positive_int, metavar="N",
                        help="hits listed and drawn, and the N-th best score marked")
    parser.add_argument("--actives", metavar="FILE",
                        help="known actives: titles one per line, or an SD or SMILES file "
                             "whose titles are the actives")
    parser.add_argument("--title", help="the page's heading")
    return parser


def _checked_input(path: Path, what: str) -> Path:
    if not path.is_file():
        raise _InputError(f"{path}: {what} does not exist")
    if not os.access(path, os.R_OK):
        raise _InputError(f"{path}: {what} cannot be read")
    return path


def _actives_from(path: Path) -> List[str]:
    _checked_input(path, "the actives file")
    try:
        titles = _read_titles(path)
    except (OSError, EOFError) as error:
        raise _InputError(f"{path}: cannot read the actives ({error})") from None
    if not titles:
        raise _InputError(f"{path}: lists no active")
    return titles


def _read_table(path: Path, metric: str) -> "pd.DataFrame":
    try:
        table = read_scores(_checked_input(path, "the score table"), metric)
    except (OSError, ValueError, UnicodeDecodeError) as error:
        raise _InputError(str(error) if str(path) in str(error) else f"{path}: {error}") from None
    if table.empty:
        raise _InputError(f"{path}: the score table has no rows")
    values = _metric_values(table, metric)
    if not np.isfinite(values).any() and len(_error_rows(table)) < len(table):
        raise _UsageError(f"--metric {metric}: {path} has no {metric} scores "
                          f"({_needed_run(metric)})")
    return table


def _needed_run(metric: str) -> str:
    """How a screen computes `metric`, for messages about a table without it."""
    if metric in ("colour_tanimoto", "combo"):
        return "colour scores need a screen run with --colour"
    return "electrostatic scores need a screen run with --electrostatics"


def _report(args: argparse.Namespace) -> Path:
    directory = Path(args.directory)
    if not directory.is_dir():
        raise _InputError(f"{directory}: no such directory")
    table = _read_table(directory / "scores.tsv", args.metric)
    actives = _actives_from(Path(args.actives)) if args.actives else None
    if actives is not None and not set(actives) & set(table["title"]):
        print(f"hermite.report: none of the {len(actives)} actives of {args.actives} is among "
              f"the molecules of {directory / 'scores.tsv'}; no ROC", file=sys.stderr)
    hits = directory / "hits.sdf"
    query = directory / "query.sdf"
    maps = directory / "maps"
    try:
        return write_report(directory, table,
                            hits=_checked_input(hits, "hits") if hits.exists() else [],
                            query=_checked_input(query, "the query") if query.exists() else None,
                            metric=args.metric, cutoff=args.cutoff, top_n=args.best,
                            actives=actives, maps=maps if maps.is_dir() else None,
                            title=args.title)
    except (OSError, ValueError, UnicodeDecodeError) as error:
        raise _InputError(str(error)) from None


def main(argv: Optional[Sequence[str]] = None) -> int:
    """``python3 -m hermite.report DIR [--metric M] [--cutoff C] [--best N] [--actives FILE]
    [--title T]``: writes the report into DIR and prints the path of its index.html."""
    args = _parser().parse_args(argv)
    try:
        index = _report(args)
    except _UsageError as error:
        print(f"hermite.report: {error}", file=sys.stderr)
        return 2
    except MissingDependency as error:
        print(f"hermite.report: the report needs {error.package}: pip install {error.package}",
              file=sys.stderr)
        return 3
    except _InputError as error:
        print(f"hermite.report: {error}", file=sys.stderr)
        return 3
    print(index)
    return 0


if __name__ == "__main__":
    sys.exit(main())

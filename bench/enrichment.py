#!/usr/bin/env python3
"""Virtual-screening enrichment on FABP4 (DUD-E): hermite overlay against open shape tools.

Query: the co-crystallised ligand (crystal_ligand.mol2, bound pose). Database: the 47 actives and
2,749 decoys of the set, one record per title (the first), each as ETKDGv3 conformers generated
here with Debian's RDKit (hydrogens added, fixed seed) and cached in --data-dir as one SD file per
set, keyed by conformer count and seed; the conformers of a molecule are consecutive records with
its title. A molecule of which no conformer can be embedded stays in the ranking, last.

Rows, each scoring a molecule by its best conformer against the query:
  * hermite rows (HERMITE_ROWS): ``hermite overlay`` on both files, ranked by one column of its
    score table; wall time and conformers overlaid per second are measured;
  * peers (PEER_ROWS), run by bench/enrichment_peers.py under --peer-python (a virtual
    environment with PyPI's rdkit and cdpkit): RDKit's rdShapeAlign (shape, and shape + colour),
    CDPKit's shape screening (shape, and shape + colour) and RDKit's Open3DAlign with Crippen
    contributions. Each peer is first timed on a small sample and its full run estimated;
    --peers-subset N runs them on all actives and a fixed random subset of N decoys. A row that
    cannot run (a package missing, a tool failing) is listed as "not available: reason".

Figures of merit (from hermite.report): ROC AUC, EF 1 %, EF 5 % and BEDROC (alpha 20). Ties are
broken against the actives: within equal scores the decoys rank first, and molecules without a
score rank last (again decoys first). hermite.report itself counts ties by their expected value
over random orders (one half in the AUC, in proportion in EF and BEDROC); those figures go into
the JSON as "metrics_ties_averaged".

Unless --no-libraries, the two conformer files are then prepared as libraries (``hermite
prepare``, timed) and every hermite row is screened again from them, on one thread and on all
cores: the rate of a screen that reads no chemistry (colour features and charges are stored in
the libraries), checked to give the scores of the SD files.

Outputs: a Markdown table (printed; --markdown FILE) followed by the library timings,
everything as JSON (--json FILE) and the ROC curves of all rows on one figure (--roc FILE, PNG).

Usage (Debian's Python, which has RDKit 2022.09, numpy and matplotlib):

    nice /usr/bin/python3 bench/enrichment.py [--data-dir /work/bench-data] [--conformers 10]
        [--seed 42] [--hermite build/cli/hermite] [--python-path build/python]
        [--peer-python /work/bench-data/venv-peers/bin/python] [--peers-subset N]
        [--no-peers] [--no-libraries] [--markdown FILE] [--json FILE] [--roc FILE]

The peers' environment (python3 on PATH, not Debian's interpreter):

    python3 -m venv /work/bench-data/venv-peers
    /work/bench-data/venv-peers/bin/pip install rdkit numpy cdpkit
"""

from __future__ import annotations

import argparse
import gzip
import importlib
import json
import math
import multiprocessing
import os
import platform
import random
import subprocess
import sys
import tempfile
import time
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any, Dict, Iterator, List, Mapping, Optional, Sequence, Tuple

import numpy as np

REPOSITORY = Path(__file__).resolve().parent.parent
DEFAULT_SOURCE_DIR = Path("/work/shared/data/dude-fabp4")
DEFAULT_DATA_DIR = Path("/work/bench-data")
DEFAULT_HERMITE = REPOSITORY / "build" / "cli" / "hermite"
DEFAULT_PYTHON_PATH = REPOSITORY / "build" / "python"
DEFAULT_PEER_PYTHON = DEFAULT_DATA_DIR / "venv-peers" / "bin" / "python"
PEER_SCRIPT = Path(__file__).resolve().parent / "enrichment_peers.py"
QUERY_FILE = "crystal_ligand.mol2"
SET_FILES = {"actives": "actives_final.mol2.gz", "decoys": "decoys_final.mol2.gz"}
DEFAULT_CONFORMERS = 10
DEFAULT_SEED = 42
PROCESSES = 2
# A few caged polycycles among the decoys never satisfy their chiral constraints, and ETKDG's
# default attempts (10 per atom, for each conformer) then take tens of minutes: a molecule of
# which one conformer cannot be embedded in this many attempts is left without conformers.
PROBE_ATTEMPTS = 200
# Molecules of each set timed per peer before its full run is estimated.
SAMPLE_MOLECULES = 4
# Seed of the decoy subset of --peers-subset.
SUBSET_SEED = 7
EF_FRACTIONS = (0.01, 0.05)
BEDROC_ALPHA = 20.0


def log(message: str) -> None:
    print(f"enrichment: {message}", file=sys.stderr, flush=True)


# --- rows -----------------------------------------------------------------------------------


@dataclass(frozen=True)
class HermiteRow:
    """A ranking by ``hermite overlay``: extra options and the score-table column ranked by
    (higher is better)."""

    name: str
    options: Tuple[str, ...]
    score: str
    description: str


# The hermite rows, one line each. Every row runs
#   hermite overlay --query QUERY --db actives.sdf decoys.sdf --scores FILE --quiet --threads 0
# plus its options; the rows ranked by a combined score also choose each molecule's best
# conformer by it (--rank-by).
HERMITE_ROWS: Tuple[HermiteRow, ...] = (
    HermiteRow("hermite, shape", (), "shape_tanimoto", "shape Tanimoto"),
    HermiteRow("hermite, shape + electrostatics", ("--electrostatics", "--rank-by", "es-combo"),
               "es_combo", "shape + electrostatic Tanimoto (-1/3 to 2)"),
    HermiteRow("hermite, shape + colour", ("--rank-by", "combo"), "combo",
               "shape + colour Tanimoto (0 to 2)"),
)


@dataclass(frozen=True)
class PeerRow:
    """A ranking by an open tool, run by enrichment_peers.py as ``--method method``."""

    name: str
    method: str
    description: str


PEER_ROWS: Tuple[PeerRow, ...] = (
    PeerRow("RDKit rdShapeAlign, shape", "rdkit-shape", "shape Tanimoto"),
    PeerRow("RDKit rdShapeAlign, shape + colour", "rdkit-colour",
            "shape + colour Tanimoto (0 to 2)"),
    PeerRow("CDPKit, shape", "cdpkit-shape", "shape Tanimoto"),
    PeerRow("CDPKit, shape + colour", "cdpkit-colour", "TanimotoCombo (0 to 2)"),
    PeerRow("RDKit Open3DAlign, Crippen", "o3a-crippen", "O3A score"),
)


@dataclass
class RowResult:
    """Scores of one row (title -> best score; NaN for a molecule without one) and how they were
    obtained."""

    name: str
    description: str
    scores: Dict[str, float] = field(default_factory=dict)
    seconds: Optional[float] = None
    conformers: Optional[int] = None
    molecules: str = "all"
    settings: str = ""
    error: Optional[str] = None
    metrics: Dict[str, float] = field(default_factory=dict)
    metrics_ties_averaged: Dict[str, float] = field(default_factory=dict)
    counts: Tuple[int, int] = (0, 0)
    # A peer's versions, per-molecule scores of the best conformer and failures.
    details: Dict[str, Any] = field(default_factory=dict)

    @property
    def conformers_per_second(self) -> Optional[float]:
        if not self.seconds or not self.conformers:
            return None
        return self.conformers / self.seconds


# --- the data set ---------------------------------------------------------------------------


def mol2_records(path: Path) -> Iterator[Tuple[str, str]]:
    """(title, MOL2 text) of the first record of each title of a gzip-compressed MOL2 file."""
    seen = set()
    lines: List[str] = []

    def first_of_title() -> Iterator[Tuple[str, str]]:
        if len(lines) >= 2 and lines[0].startswith("@<TRIPOS>MOLECULE"):
            title = lines[1].strip()
            if title not in seen:
                seen.add(title)
                yield title, "".join(lines)

    with gzip.open(path, "rt") as handle:
        for line in handle:
            if line.startswith("@<TRIPOS>MOLECULE") and lines:
                yield from first_of_title()
                lines = []
            lines.append(line)
    yield from first_of_title()


def set_titles(source_dir: Path) -> Dict[str, List[str]]:
    """The unique titles of each set, in file order."""
    return {name: [title for title, _ in mol2_records(source_dir / file)]
            for name, file in SET_FILES.items()}


def conformer_file(data_dir: Path, set_name: str, conformers: int, seed: int) -> Path:
    """The cached conformers of one set."""
    return data_dir / f"fabp4-{set_name}-etkdg{conformers}-seed{seed}.sdf"


def _embed(job: Tuple[str, str, int, int]) -> Tuple[str, str, int, str]:
    """Embeds one molecule: (title, SD text of its conformers, conformers, problem or "")."""
    title, block, conformers, seed = job
    from rdkit import Chem, RDLogger
    from rdkit.Chem import rdDistGeom

    RDLogger.DisableLog("rdApp.*")
    mol = Chem.MolFromMol2Block(block, sanitize=True, removeHs=False)
    if mol is None:
        return title, "", 0, "MOL2 record not read"
    Chem.AssignStereochemistryFrom3D(mol)
    mol = Chem.AddHs(Chem.RemoveHs(mol))
    probe = rdDistGeom.ETKDGv3()
    probe.randomSeed = seed
    probe.maxIterations = PROBE_ATTEMPTS
    if rdDistGeom.EmbedMolecule(Chem.Mol(mol), probe) < 0:
        return title, "", 0, f"no conformer in {PROBE_ATTEMPTS} embedding attempts"
    params = rdDistGeom.ETKDGv3()
    params.randomSeed = seed
    params.numThreads = 1
    ids = list(rdDistGeom.EmbedMultipleConfs(mol, conformers, params))
    if not ids:
        return title, "", 0, "no conformer embedded"
    mol.SetProp("_Name", title)
    text = "".join(Chem.MolToMolBlock(mol, confId=cid) + "$$$$\n" for cid in ids)
    problem = "" if len(ids) == conformers else f"{len(ids)} of {conformers} conformers embedded"
    return title, text, len(ids), problem


def _generate(source: Path, path: Path, conformers: int, seed: int) -> Dict[str, Any]:
    """Writes the conformers of one set to `path` (through a temporary name); returns its facts."""
    jobs = [(title, block, conformers, seed) for title, block in mol2_records(source)]
    log(f"{source.name}: {len(jobs)} molecules, {conformers} ETKDGv3 conformers each (seed "
        f"{seed}) on {PROCESSES} processes into {path}")
    start = time.perf_counter()
    written = 0
    problems = {}
    with multiprocessing.Pool(PROCESSES) as pool, open(f"{path}.tmp", "w") as out:
        for done, (title, text, count, problem) in enumerate(
                pool.imap(_embed, jobs, chunksize=2), 1):
            out.write(text)
            written += count
            if problem:
                problems[title] = problem
                log(f"{title}: {problem}")
            if done % 250 == 0:
                log(f"{done}/{len(jobs)} molecules, {time.perf_counter() - start:.0f} s")
    os.replace(f"{path}.tmp", path)
    facts = {"molecules": len(jobs), "conformers": written, "seed": seed,
             "seconds": round(time.perf_counter() - start, 1), "processes": PROCESSES,
             "problems": problems}
    Path(f"{path}.json").write_text(json.dumps(facts, indent=1) + "\n")
    log(f"wrote {path}: {written} conformers in {facts['seconds']} s")
    return facts


def cached_conformers(source_dir: Path, data_dir: Path, conformers: int,
                      seed: int) -> Dict[str, Tuple[Path, Dict[str, Any]]]:
    """The conformer file of each set and its facts (molecules, conformers, problems),
    generated unless cached."""
    data_dir.mkdir(parents=True, exist_ok=True)
    files = {}
    for name, file in SET_FILES.items():
        path = conformer_file(data_dir, name, conformers, seed)
        facts_path = Path(f"{path}.json")
        if path.exists() and facts_path.exists():
            log(f"{path} exists, reused")
            facts = json.loads(facts_path.read_text())
        else:
            facts = _generate(source_dir / file, path, conformers, seed)
        files[name] = (path, facts)
    return files


def conformer_count(path: Path) -> int:
    """Records of an SD file."""
    with open(path, "rb") as handle:
        return sum(1 for line in handle if line.startswith(b"$$$$"))


# --- hermite rows ---------------------------------------------------------------------------


def read_score_table(path: Path, column: str) -> Tuple[Dict[str, float], int]:
    """Scores by title (NaN for a row whose status is an error) from the score table of
    ``hermite overlay --scores``, and the conformers overlaid (the sum of its conformers)."""
    lines = path.read_text().splitlines()
    header = lines[0].split("\t")
    if column not in header:
        raise ValueError(f"{path}: no column {column!r} (columns: {', '.join(header)})")
    index = {name: header.index(name) for name in ("title", "conformers", "status", column)}
    scores: Dict[str, float] = {}
    conformers = 0
    for line in lines[1:]:
        fields = line.split("\t")
        title = fields[index["title"]]
        ok = fields[index["status"]] == "ok"
        value = float(fields[index[column]]) if ok and fields[index[column]] else math.nan
        # The first record of a title counts; the sets hold each title once.
        scores.setdefault(title, value)
        if fields[index["conformers"]]:
            conformers += int(fields[index["conformers"]])
    return scores, conformers


def run_hermite(row: HermiteRow, hermite: Path, query: Path, db: Sequence[Path],
                table: Path, threads: int = 0) -> RowResult:
    """Runs one hermite row on `threads` worker threads (0: all cores), its score table written
    to `table`; times the whole command (starting, reading, preparation and overlays)."""
    command = [str(hermite), "overlay", "--query", str(query), "--db", *map(str, db),
               "--scores", str(table), "--quiet", "--threads", str(threads), *row.options]
    result = RowResult(row.name, row.description, settings=" ".join(
        ["hermite overlay", *command[2:]]).replace(str(table), "FILE"),
        details={"ranked_score": row.score})
    log(f"{row.name}: {' '.join(command)}")
    start = time.perf_counter()
    done = subprocess.run(command, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
    result.seconds = time.perf_counter() - start
    # Status 1: some records were skipped, the others scored.
    if done.returncode not in (0, 1) or not table.exists():
        result.error = f"hermite exited with status {done.returncode}: {done.stderr.strip()}"
        return result
    try:
        result.scores, result.conformers = read_score_table(table, row.score)
    except ValueError as error:
        result.error = str(error)
    log(f"{row.name}: {result.conformers} conformers in {result.seconds:.1f} s")
    return result


# --- prepared libraries ---------------------------------------------------------------------


@dataclass
class LibraryRun:
    """One hermite row screened from prepared libraries with a number of worker threads."""

    row: str
    threads: int
    seconds: float
    conformers: int
    same_scores: bool


def prepare_libraries(hermite: Path, db: Sequence[Path], work_dir: Path
                      ) -> Tuple[List[Path], float]:
    """Prepares each conformer file as a library (all cores); the libraries and the seconds."""
    libraries = []
    start = time.perf_counter()
    for path in db:
        library = work_dir / (path.name.split(".")[0] + ".h5")
        subprocess.run([str(hermite), "prepare", str(path), "--out", str(library), "--quiet",
                        "--threads", "0"], check=True, stdout=subprocess.DEVNULL)
        libraries.append(library)
    return libraries, time.perf_counter() - start


def library_runs(rows: Sequence[RowResult], hermite: Path, query: Path,
                 libraries: Sequence[Path], work_dir: Path) -> List[LibraryRun]:
    """Each hermite row again, from the prepared libraries, on one thread and on all cores:
    the rate of a screen that reads no chemistry, and a check that its scores are those of the
    molecule files."""
    runs = []
    for index, (spec, result) in enumerate(zip(HERMITE_ROWS, rows)):
        if result.error:
            continue
        for threads in (1, 0):
            table = work_dir / f"library-{index}-{threads}.tsv"
            done = run_hermite(spec, hermite, query, libraries, table, threads)
            if done.error or done.seconds is None:
                log(f"{spec.name} from libraries: {done.error}")
                continue
            runs.append(LibraryRun(spec.name, threads or PROCESSES, done.seconds,
                                   done.conformers or 0, done.scores == result.scores))
    return runs


def library_table(preparation_seconds: float, conformers: int,
                  runs: Sequence[LibraryRun]) -> str:
    lines = [f"Prepared once in {preparation_seconds:.1f} s ({conformers / preparation_seconds:,.0f}"
             f" conformers/s on {PROCESSES} cores), then screened:", "",
             "| method | threads | wall time (s) | conformers/s | per thread | scores as from "
             "the SD files |", "|---|--:|--:|--:|--:|---|"]
    for run in runs:
        rate = run.conformers / run.seconds
        lines.append(f"| {run.row} | {run.threads} | {run.seconds:.1f} | {rate:,.0f} "
                     f"| {rate / run.threads:,.0f} | {'yes' if run.same_scores else 'NO'} |")
    return "\n".join(lines) + "\n"


# --- peers ----------------------------------------------------------------------------------


def run_peer(method: str, peer_python: Path, query: Path, db: Sequence[Path],
             titles: Optional[Sequence[str]], processes: int,
             work_dir: Path) -> Dict[str, Any]:
    """Runs enrichment_peers.py; its JSON, or {"error": reason}."""
    out = work_dir / f"peer-{method}-{processes}-{len(titles) if titles else 'all'}.json"
    command = [str(peer_python), str(PEER_SCRIPT), "--method", method, "--query", str(query),
               "--db", *map(str, db), "--processes", str(processes), "--out", str(out)]
    if titles is not None:
        titles_file = out.with_suffix(".titles")
        titles_file.write_text("".join(f"{title}\n" for title in titles))
        command += ["--titles", str(titles_file)]
    done = subprocess.run(command, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
    if done.returncode != 0 or not out.exists():
        lines = done.stderr.strip().splitlines()
        return {"error": lines[-1] if lines else f"exited with status {done.returncode}"}
    return json.loads(out.read_text())


def peer_availability(peer_python: Path) -> Dict[str, str]:
    """Why each peer method cannot run ("" when it can): a missing interpreter or module."""
    checks = {"rdkit": "from rdkit.Chem import rdShapeAlign, rdMolAlign, rdShapeHelpers",
              "cdpkit": "from CDPL import Shape, Pharm"}
    reasons = {}
    for package, statement in checks.items():
        if not peer_python.exists():
            reasons[package] = f"no interpreter {peer_python}"
            continue
        done = subprocess.run([str(peer_python), "-c", statement], capture_output=True,
                              text=True)
        lines = done.stderr.strip().splitlines()
        reasons[package] = "" if done.returncode == 0 else (lines[-1] if lines else "fails")
    return {row.method: reasons["cdpkit" if row.method.startswith("cdpkit") else "rdkit"]
            for row in PEER_ROWS}


def sample_titles(titles: Mapping[str, List[str]], per_set: int, seed: int) -> List[str]:
    """A fixed random sample of `per_set` titles of each set."""
    chosen = []
    for name in SET_FILES:
        chosen += random.Random(seed).sample(titles[name], min(per_set, len(titles[name])))
    return chosen


def estimate_peer(method: str, args: argparse.Namespace, db: Sequence[Path],
                  sample: Sequence[str], total_conformers: int,
                  work_dir: Path) -> Dict[str, Any]:
    """Times one peer on the sample on one process (the time spent on the molecules, without
    starting the process); the full run estimated on PROCESSES processes."""
    timed = run_peer(method, args.peer_python, args.query, db, sample, 1, work_dir)
    if "error" in timed:
        return {"error": timed["error"]}
    per_conformer = float(timed["scoring_seconds"]) / max(1, int(timed["conformers"]))
    estimate = per_conformer * total_conformers / PROCESSES
    log(f"{method}: {1000 * per_conformer:.1f} ms per conformer pair on one process "
        f"({timed['conformers']} conformers of {timed['molecules']} molecules); all "
        f"{total_conformers} conformers on {PROCESSES} processes: about {estimate / 60:.1f} min")
    return {"seconds_per_conformer": per_conformer, "sample_conformers": timed["conformers"],
            "estimated_seconds": estimate}


def run_peer_row(row: PeerRow, args: argparse.Namespace, db: Sequence[Path],
                 titles: Optional[Sequence[str]], subset_label: str,
                 work_dir: Path) -> RowResult:
    result = RowResult(row.name, row.description, molecules=subset_label)
    log(f"{row.name}: running on {subset_label}")
    peer = run_peer(row.method, args.peer_python, args.query, db, titles, PROCESSES, work_dir)
    if "error" in peer:
        result.error = str(peer["error"])
        return result
    ranked = str(peer["ranked"])
    chosen = set(titles) if titles is not None else None
    result.scores = {title: float(values.get(ranked, math.nan)) if values else math.nan
                     for title, values in peer["scores"].items()
                     if chosen is None or title in chosen}
    result.seconds = float(peer["seconds"])
    result.conformers = int(peer["conformers"])
    result.settings = str(peer["settings"])
    result.details = {"ranked_score": ranked, "versions": peer["versions"],
                      "not_scored": peer["errors"], "best_conformer_scores": peer["scores"]}
    return result


# --- figures of merit -----------------------------------------------------------------------


def pessimistic_scores(scores: np.ndarray, actives: np.ndarray) -> np.ndarray:
    """Distinct scores that keep the order of `scores` and break ties against the actives:
    among equal scores the inactives come first, and molecules without a score (NaN) rank
    last, inactives first. The best molecule gets N, the worst 1."""
    filled = np.where(np.isnan(scores), -np.inf, scores)
    # lexsort sorts by the last key first: score descending, then inactives before actives.
    order = np.lexsort((actives.astype(int), -filled))
    distinct = np.empty(scores.size)
    distinct[order] = np.arange(scores.size, 0, -1, dtype=float)
    return distinct


def figures_of_merit(scores: np.ndarray, actives: np.ndarray, report) -> Dict[str, float]:
    """ROC AUC, EF 1 %, EF 5 % and BEDROC(20) by hermite.report."""
    figures = {"roc_auc": report.roc_auc(scores, actives)}
    for fraction in EF_FRACTIONS:
        figures[f"ef_{round(100 * fraction)}"] = report.enrichment_factor(scores, actives,
                                                                          fraction)
    figures["bedroc_20"] = report.bedroc(scores, actives, BEDROC_ALPHA)
    return figures


def evaluate(result: RowResult, titles: Sequence[str], active_titles: set, report) -> np.ndarray:
    """Fills the row's figures of merit over `titles`; returns the tie-broken scores."""
    scores = np.array([result.scores.get(title, math.nan) for title in titles], dtype=float)
    actives = np.array([title in active_titles for title in titles])
    distinct = pessimistic_scores(scores, actives)
    result.metrics = figures_of_merit(distinct, actives, report)
    result.metrics_ties_averaged = figures_of_merit(scores, actives, report)
    result.counts = (int(actives.sum()), int((~actives).sum()))
    return distinct


# --- outputs --------------------------------------------------------------------------------


def _number(value: Optional[float], digits: int) -> str:
    return "" if value is None or not math.isfinite(value) else f"{value:.{digits}f}"


def markdown_table(results: Sequence[RowResult]) -> str:
    """One line per row: the figures of merit (ties against the actives), the molecules ranked,
    the wall time and the conformers per second; a row that could not run says why."""
    lines = ["| method | ranked by | molecules (actives + decoys) | ROC AUC | EF 1 % | EF 5 % "
             "| BEDROC (20) | wall time (s) | conformers/s |",
             "|---|---|---|---|---|---|---|---|---|"]
    for result in results:
        if result.error:
            lines.append(f"| {result.name} | not available: {result.error} | | | | | | | |")
            continue
        actives, decoys = result.counts
        subset = "" if result.molecules == "all" else f" ({result.molecules})"
        m = result.metrics
        lines.append(
            f"| {result.name} | {result.description} | {actives} + {decoys}{subset} "
            f"| {m['roc_auc']:.3f} | {m['ef_1']:.1f} | {m['ef_5']:.1f} | {m['bedroc_20']:.3f} "
            f"| {_number(result.seconds, 1)} | {_number(result.conformers_per_second, 0)} |")
    return "\n".join(lines) + "\n"


def roc_figure(curves: Sequence[Tuple[str, np.ndarray, np.ndarray]], path: Path,
               report) -> None:
    """The ROC curves of all rows on one figure (PNG, matplotlib's Agg)."""
    import matplotlib

    matplotlib.use("Agg")
    from matplotlib.figure import Figure

    figure = Figure(figsize=(7.5, 7.5), dpi=100, layout="constrained")
    ax = figure.add_subplot()
    for name, scores, actives in curves:
        report.roc_curve(scores, actives, ax=ax, label=name)
    ax.set_title("FABP4 (DUD-E): ROC, query = crystal ligand, ties against the actives")
    ax.legend(loc="lower right", fontsize=8, framealpha=0.9)
    figure.savefig(path, dpi=150, facecolor="white")


def _versions(args: argparse.Namespace) -> Dict[str, str]:
    found = {"python": platform.python_version()}
    try:
        from rdkit import rdBase
        found["rdkit (conformers)"] = rdBase.rdkitVersion
    except ImportError:
        pass
    done = subprocess.run([str(args.hermite), "--version"], capture_output=True, text=True)
    found["hermite"] = done.stdout.strip()
    done = subprocess.run(["git", "-C", str(REPOSITORY), "rev-parse", "--short", "HEAD"],
                          capture_output=True, text=True)
    changed = subprocess.run(["git", "-C", str(REPOSITORY), "status", "--porcelain",
                              "--untracked-files=no"], capture_output=True, text=True)
    found["hermite commit"] = done.stdout.strip() + (
        " (with uncommitted changes)" if changed.stdout.strip() else "")
    built = time.gmtime(args.hermite.stat().st_mtime) if args.hermite.exists() else None
    found["hermite built"] = time.strftime("%Y-%m-%d %H:%M UTC", built) if built else ""
    return found


def json_document(args: argparse.Namespace, results: Sequence[RowResult],
                  conformer_sets: Mapping[str, Tuple[Path, Dict[str, Any]]],
                  estimates: Mapping[str, object], subset: Optional[Sequence[str]]
                  ) -> Dict[str, Any]:
    rows = []
    for result in results:
        rows.append({
            "name": result.name, "ranked_by": result.description, "settings": result.settings,
            "error": result.error, "molecules": result.molecules,
            "actives": result.counts[0], "decoys": result.counts[1],
            "metrics": result.metrics, "metrics_ties_averaged": result.metrics_ties_averaged,
            "seconds": result.seconds, "conformers": result.conformers,
            "conformers_per_second": result.conformers_per_second,
            "scores": {title: (None if math.isnan(value) else value)
                       for title, value in result.scores.items()},
            **result.details,
        })
    return {
        "command": " ".join([sys.executable, *sys.argv]),
        "query": str(args.query),
        "conformers": {name: {"file": str(path), **facts}
                       for name, (path, facts) in conformer_sets.items()},
        "conformers_per_molecule": args.conformers, "seed": args.seed,
        "processes": PROCESSES, "cpu_count": os.cpu_count(), "versions": _versions(args),
        "ties": "broken against the actives (metrics); metrics_ties_averaged: hermite.report's "
                "expected value over random orders of tied molecules",
        "peer_estimates": estimates,
        "peer_decoy_subset": list(subset) if subset is not None else None,
        "rows": rows,
    }


# --- the run --------------------------------------------------------------------------------


def parse_arguments(argv: Optional[Sequence[str]]) -> argparse.Namespace:
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--source-dir", type=Path, default=DEFAULT_SOURCE_DIR,
                        help="the FABP4 set (crystal_ligand.mol2, actives_final.mol2.gz, "
                             "decoys_final.mol2.gz)")
    parser.add_argument("--data-dir", type=Path, default=DEFAULT_DATA_DIR,
                        help="cache of the conformer files (outside the repository)")
    parser.add_argument("--conformers", type=int, default=DEFAULT_CONFORMERS,
                        help="ETKDGv3 conformers per molecule")
    parser.add_argument("--seed", type=int, default=DEFAULT_SEED, help="ETKDG random seed")
    parser.add_argument("--hermite", type=Path, default=DEFAULT_HERMITE,
                        help="the command-line tool")
    parser.add_argument("--python-path", type=Path, default=DEFAULT_PYTHON_PATH,
                        help="directory holding the hermite Python package (for hermite.report)")
    parser.add_argument("--peer-python", type=Path, default=DEFAULT_PEER_PYTHON,
                        help="interpreter with PyPI's rdkit and cdpkit for the peers")
    parser.add_argument("--peers-subset", type=int, metavar="N",
                        help="run the peers on all actives and a fixed random subset of N decoys")
    parser.add_argument("--no-peers", action="store_true", help="the hermite rows only")
    parser.add_argument("--no-libraries", action="store_true",
                        help="do not time the hermite rows from prepared libraries")
    parser.add_argument("--markdown", type=Path, help="write the table to this file")
    parser.add_argument("--json", type=Path, help="write everything to this JSON file")
    parser.add_argument("--roc", type=Path, help="write the ROC curves to this PNG")
    args = parser.parse_args(argv)
    args.query = args.source_dir / QUERY_FILE
    if args.conformers < 1:
        parser.error("--conformers must be at least 1")
    if args.peers_subset is not None and args.peers_subset < 1:
        parser.error("--peers-subset must be at least 1")
    return args


def run_peers(args: argparse.Namespace, titles: Mapping[str, List[str]], db: Sequence[Path],
              total_conformers: int, work_dir: Path
              ) -> Tuple[List[RowResult], Dict[str, Any], Optional[List[str]]]:
    """The peer rows, each after its timing on a sample; the estimates and the decoy subset."""
    subset = None
    label = "all"
    if args.peers_subset is not None and args.peers_subset < len(titles["decoys"]):
        subset = random.Random(SUBSET_SEED).sample(titles["decoys"], args.peers_subset)
        label = f"{args.peers_subset} random decoys, seed {SUBSET_SEED}"
    chosen = None if subset is None else titles["actives"] + subset
    sample = sample_titles(titles, SAMPLE_MOLECULES, SUBSET_SEED)
    unavailable = peer_availability(args.peer_python)
    results: List[RowResult] = []
    estimates: Dict[str, Any] = {}
    for row in PEER_ROWS:
        if unavailable[row.method]:
            results.append(RowResult(row.name, row.description,
                                     error=unavailable[row.method]))
            continue
        estimates[row.method] = estimate_peer(row.method, args, db, sample, total_conformers,
                                              work_dir)
        if "error" in estimates[row.method]:
            results.append(RowResult(row.name, row.description,
                                     error=str(estimates[row.method]["error"])))
            continue
        results.append(run_peer_row(row, args, db, chosen, label, work_dir))
    return results, estimates, subset


def main(argv: Optional[Sequence[str]] = None) -> int:
    args = parse_arguments(argv)
    sys.path.insert(0, str(args.python_path))
    report = importlib.import_module("hermite.report")

    titles = set_titles(args.source_dir)
    active_titles = set(titles["actives"])
    all_titles = titles["actives"] + titles["decoys"]
    conformer_sets = cached_conformers(args.source_dir, args.data_dir, args.conformers,
                                       args.seed)
    db = [conformer_sets[name][0] for name in SET_FILES]
    total_conformers = sum(int(facts["conformers"]) for _, facts in conformer_sets.values())
    log(f"{len(titles['actives'])} actives and {len(titles['decoys'])} decoys, "
        f"{total_conformers} conformers")

    results: List[RowResult] = []
    estimates: Dict[str, Any] = {}
    subset = None
    libraries_text = ""
    library_document: Dict[str, Any] = {}
    with tempfile.TemporaryDirectory(prefix="enrichment-") as work:
        work_dir = Path(work)
        for index, row in enumerate(HERMITE_ROWS):
            results.append(run_hermite(row, args.hermite, args.query, db,
                                       work_dir / f"scores-{index}.tsv"))
        if not args.no_libraries:
            libraries, preparation = prepare_libraries(args.hermite, db, work_dir)
            runs = library_runs(results, args.hermite, args.query, libraries, work_dir)
            libraries_text = library_table(preparation, total_conformers, runs)
            library_document = {"preparation_seconds": preparation,
                                "runs": [vars(run) for run in runs]}
        if not args.no_peers:
            peers, estimates, subset = run_peers(args, titles, db, total_conformers, work_dir)
            results += peers

    curves = []
    for result in results:
        if result.error:
            continue
        ranked = all_titles if result.molecules == "all" else \
            titles["actives"] + list(subset or [])
        distinct = evaluate(result, ranked, active_titles, report)
        curves.append((result.name, distinct,
                       np.array([title in active_titles for title in ranked])))
    table = markdown_table(results) + ("\n" + libraries_text if libraries_text else "")
    print(table, end="")
    if args.markdown:
        args.markdown.write_text(table)
    if args.json:
        document = json_document(args, results, conformer_sets, estimates, subset)
        document["prepared_libraries"] = library_document
        args.json.write_text(json.dumps(document, indent=1) + "\n")
    if args.roc and curves:
        roc_figure(curves, args.roc, report)
    return 0


if __name__ == "__main__":
    sys.exit(main())

#!/usr/bin/env python3
"""Scores database molecules against a query with an open shape tool, for bench/enrichment.py.

Runs in a virtual environment with PyPI's rdkit (2024.09 or later, for rdShapeAlign), numpy and
cdpkit; enrichment.py starts it as a subprocess. Every conformer of every database molecule is
aligned onto the query (one conformer) and each molecule keeps the scores of its best conformer
by the method's ranked score (marked *). Methods:

  rdkit-shape   rdShapeAlign.AlignMol without colour (opt_param 1): "shape"* (Tanimoto)
  rdkit-colour  rdShapeAlign.AlignMol with colour features, optimised on shape and colour with
                equal weight (opt_param 0.5): "shape", "colour" and "combo"* (their sum, 0 to 2)
  cdpkit-shape  CDPL.Shape.ScreeningProcessor with no colour features, scored by the shape
                Tanimoto: "shape"*, "colour" (0) and "combo"
  cdpkit-colour CDPL.Shape.ScreeningProcessor with its default colour features (pharmacophore
                with implicit charges) and its default TanimotoComboScore: "shape", "colour"
                and "combo"*
  o3a-crippen   rdMolAlign.GetCrippenO3A then Align (hydrogens included, as the Crippen
                contributions are per atom): "o3a"* (the O3A score, which grows with the number
                of matched atoms) and "shape_tanimoto" (1 - rdShapeHelpers.ShapeTanimotoDist at
                the O3A pose, heavy atoms, 0.5 A grid)

Database files are SD files whose consecutive records with the same title are the conformers of
one molecule. --titles FILE (one title a line) restricts the run to those molecules.

Writes JSON: method, ranked (the name of the ranked score), settings, versions, molecules,
conformers, seconds (wall time of the run: starting the processes, reading and scoring),
scoring_seconds (time spent on the molecules, summed over the processes), processes, scores
{title: {score: value}} (of the best conformer) and errors {title: message}.

Usage: python enrichment_peers.py --method M --query FILE --db FILE... --out FILE
           [--titles FILE] [--processes 2]
"""

from __future__ import annotations

import argparse
import json
import math
import multiprocessing
import sys
import time
from typing import Callable, Dict, Iterator, List, Optional, Sequence, Set, Tuple

METHODS = ("rdkit-shape", "rdkit-colour", "cdpkit-shape", "cdpkit-colour", "o3a-crippen")
SETTINGS = {
    "rdkit-shape": "rdShapeAlign.AlignMol(query shape, conformer, useColors=False, "
                   "opt_param=1.0, max_preiters=10, max_postiters=30); rank by shape Tanimoto",
    "rdkit-colour": "rdShapeAlign.AlignMol(query shape, conformer, useColors=True, "
                    "opt_param=0.5, max_preiters=10, max_postiters=30); rank by shape + colour "
                    "Tanimoto",
    "cdpkit-shape": "CDPL.Shape.ScreeningProcessor, default settings but colour features NONE "
                    "and scoring ShapeTanimotoScore (shape-centroid starts, all-carbon, "
                    "best match per query); rank by shape Tanimoto",
    "cdpkit-colour": "CDPL.Shape.ScreeningProcessor, default settings (implicit-charge "
                     "pharmacophore colour, TanimotoComboScore, shape-centroid starts, "
                     "all-carbon, best match per query); rank by TanimotoCombo",
    "o3a-crippen": "rdMolAlign.GetCrippenO3A(conformer, query, Crippen contributions, "
                   "maxIters=50, options=0) then Align(); hydrogens included; rank by the O3A "
                   "score",
}

# One database molecule: its title and the MOL blocks of its conformers.
Molecule = Tuple[str, List[str]]
# Scores of one conformer, by name; None when the conformer could not be scored.
ConformerScores = Optional[Dict[str, float]]


def log(message: str) -> None:
    print(f"enrichment_peers: {message}", file=sys.stderr, flush=True)


def sd_molecules(paths: Sequence[str], titles: Optional[Set[str]]) -> Iterator[Molecule]:
    """Molecules of SD files, grouping consecutive records with the same title; those in
    `titles` only, when given."""
    for path in paths:
        current: Optional[str] = None
        blocks: List[str] = []
        record: List[str] = []
        with open(path) as handle:
            for line in handle:
                if line.startswith("$$$$"):
                    title = record[0].strip() if record else ""
                    if title != current:
                        if current is not None and blocks:
                            yield current, blocks
                        current, blocks = title, []
                    if titles is None or title in titles:
                        blocks.append("".join(record))
                    record = []
                else:
                    record.append(line)
        if current is not None and blocks:
            yield current, blocks


# --- the tools ------------------------------------------------------------------------------
#
# Each method has a setup, run once per worker process with the query's path, that returns the
# function scoring one molecule's conformers.

Scorer = Callable[[List[str]], List[ConformerScores]]


def _rdkit_molecule(blocks: List[str]):
    """One RDKit molecule (hydrogens kept) with a conformer per MOL block."""
    from rdkit import Chem

    mol = Chem.MolFromMolBlock(blocks[0], removeHs=False)
    if mol is None:
        raise ValueError("first conformer not read")
    for block in blocks[1:]:
        other = Chem.MolFromMolBlock(block, removeHs=False)
        if other is not None and other.GetNumAtoms() == mol.GetNumAtoms():
            mol.AddConformer(other.GetConformer(), assignId=True)
    return mol


def _rdkit_query(path: str):
    from rdkit import Chem

    query = Chem.MolFromMol2File(path, removeHs=False)
    if query is None:
        raise ValueError(f"{path}: query not read")
    return query


def _rdkit_shape_setup(path: str, colour: bool) -> Scorer:
    from rdkit.Chem import rdShapeAlign

    options = rdShapeAlign.ShapeInputOptions()
    options.useColors = colour
    reference = rdShapeAlign.PrepareConformer(_rdkit_query(path), -1, options)
    weight = 0.5 if colour else 1.0

    def score(blocks: List[str]) -> List[ConformerScores]:
        mol = _rdkit_molecule(blocks)
        results: List[ConformerScores] = []
        for conformer in mol.GetConformers():
            shape, colour_score = rdShapeAlign.AlignMol(
                reference, mol, probeConfId=conformer.GetId(), useColors=colour,
                opt_param=weight)
            scores = {"shape": shape}
            if colour:
                scores.update(colour=colour_score, combo=shape + colour_score)
            results.append(scores)
        return results

    return score


def _cdpkit_setup(path: str, colour: bool) -> Scorer:
    from CDPL import Base, Chem, Pharm, Shape

    reader = Chem.MoleculeReader(path)
    query = Chem.BasicMolecule()
    if not reader.read(query):
        raise ValueError(f"{path}: query not read")
    Pharm.prepareForPharmacophoreGeneration(query)
    processor = Shape.ScreeningProcessor()
    settings = processor.getSettings()
    if colour:
        settings.setScoringFunction(Shape.TanimotoComboScore())
    else:
        settings.setColorFeatureType(Shape.ScreeningSettings.ColorFeatureType.NO_FEATURES)
        settings.setScoringFunction(Shape.ShapeTanimotoScore())
    processor.addQuery(query)
    hits: List[Dict[str, float]] = []

    def hit(_query, _molecule, result) -> None:
        hits.append({"shape": Shape.calcShapeTanimotoScore(result),
                     "colour": Shape.calcColorTanimotoScore(result),
                     "combo": Shape.calcTanimotoComboScore(result)})

    processor.setHitCallback(hit)

    def score(blocks: List[str]) -> List[ConformerScores]:
        # The SD reader takes consecutive records of one constitution as the conformers of
        # one molecule; the processor reports the best conformer by its scoring function.
        text = "".join(block + "$$$$\n" for block in blocks)
        sd = Chem.SDFMoleculeReader(Base.StringIOStream(text))
        Chem.setMultiConfImportParameter(sd, True)
        mol = Chem.BasicMolecule()
        if not sd.read(mol):
            raise ValueError("not read by CDPL")
        Pharm.prepareForPharmacophoreGeneration(mol)
        hits.clear()
        if not processor.process(mol) or not hits:
            raise ValueError("no alignment")
        best = max(hits, key=lambda h: h["combo"] if colour else h["shape"])
        return [dict(best)]

    return score


def _o3a_setup(path: str) -> Scorer:
    from rdkit.Chem import rdMolAlign, rdMolDescriptors, rdShapeHelpers

    query = _rdkit_query(path)
    query_contributions = rdMolDescriptors._CalcCrippenContribs(query)

    def score(blocks: List[str]) -> List[ConformerScores]:
        mol = _rdkit_molecule(blocks)
        contributions = rdMolDescriptors._CalcCrippenContribs(mol)
        results: List[ConformerScores] = []
        for conformer in mol.GetConformers():
            cid = conformer.GetId()
            o3a = rdMolAlign.GetCrippenO3A(mol, query, contributions, query_contributions,
                                           prbCid=cid)
            o3a.Align()
            distance = rdShapeHelpers.ShapeTanimotoDist(mol, query, confId1=cid)
            results.append({"o3a": o3a.Score(), "shape_tanimoto": 1.0 - distance})
        return results

    return score


SETUPS: Dict[str, Callable[[str], Scorer]] = {
    "rdkit-shape": lambda path: _rdkit_shape_setup(path, colour=False),
    "rdkit-colour": lambda path: _rdkit_shape_setup(path, colour=True),
    "cdpkit-shape": lambda path: _cdpkit_setup(path, colour=False),
    "cdpkit-colour": lambda path: _cdpkit_setup(path, colour=True),
    "o3a-crippen": _o3a_setup,
}

# The score each method ranks by, which also picks a molecule's best conformer.
RANKED = {"rdkit-shape": "shape", "rdkit-colour": "combo", "cdpkit-shape": "shape",
          "cdpkit-colour": "combo", "o3a-crippen": "o3a"}

# --- the run --------------------------------------------------------------------------------

# The scorer of this worker process and the name of the score it ranks by.
_scorer: Optional[Scorer] = None
_ranked: Optional[str] = None


def _start_worker(method: str, query: str) -> None:
    global _scorer, _ranked
    from rdkit import RDLogger

    RDLogger.DisableLog("rdApp.*")
    _scorer = SETUPS[method](query)
    _ranked = RANKED[method]


def _best_conformer(blocks: List[str]) -> Tuple[Dict[str, float], str]:
    """The scores of the best conformer by the method's ranked score (the first of equal
    ones), or ({}, error)."""
    assert _scorer is not None and _ranked is not None
    ranked = _ranked
    try:
        per_conformer = [s for s in _scorer(blocks) if s and math.isfinite(s[ranked])]
    except Exception as error:  # noqa: BLE001 - any failure leaves the molecule unscored
        return {}, f"{type(error).__name__}: {error}"
    if not per_conformer:
        return {}, "no conformer scored"
    best = max(per_conformer, key=lambda scores: scores[ranked])
    return {name: float(value) for name, value in best.items()}, ""


def _score_molecule(molecule: Molecule) -> Tuple[str, int, Dict[str, float], str, float]:
    """(title, conformers, scores of the best conformer, error or "", seconds spent)."""
    title, blocks = molecule
    start = time.perf_counter()
    best, error = _best_conformer(blocks)
    return title, len(blocks), best, error, time.perf_counter() - start


def versions() -> Dict[str, str]:
    found = {"python": sys.version.split()[0]}
    try:
        import rdkit
        found["rdkit"] = rdkit.__version__
    except ImportError:
        pass
    try:
        from importlib.metadata import version
        found["cdpkit"] = version("cdpkit")
    except Exception:  # noqa: BLE001 - not installed
        pass
    return found


def run(method: str, query: str, db: Sequence[str], titles: Optional[Set[str]],
        processes: int) -> Dict[str, object]:
    """Scores the molecules; returns what --out writes."""
    start = time.perf_counter()
    scores: Dict[str, Dict[str, float]] = {}
    errors: Dict[str, str] = {}
    conformers = 0
    scoring_seconds = 0.0
    molecules = sd_molecules(db, titles)
    with multiprocessing.Pool(processes, _start_worker, (method, query)) as pool:
        for title, count, best, error, seconds in pool.imap(_score_molecule, molecules,
                                                            chunksize=2):
            conformers += count
            scoring_seconds += seconds
            scores[title] = best
            if error:
                errors[title] = error
    seconds = time.perf_counter() - start
    log(f"{method}: {len(scores)} molecules, {conformers} conformers in {seconds:.1f} s "
        f"({len(errors)} not scored)")
    return {"method": method, "ranked": RANKED[method], "settings": SETTINGS[method],
            "versions": versions(),
            "molecules": len(scores), "conformers": conformers, "seconds": seconds,
            "scoring_seconds": scoring_seconds,
            "processes": processes, "scores": scores, "errors": errors}


def main(argv: Optional[Sequence[str]] = None) -> int:
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--method", choices=METHODS, required=True)
    parser.add_argument("--query", required=True, help="the query (MOL2), one conformer")
    parser.add_argument("--db", nargs="+", required=True, help="SD files of conformers")
    parser.add_argument("--titles", help="score only these molecules (one title a line)")
    parser.add_argument("--processes", type=int, default=2)
    parser.add_argument("--out", required=True, help="the JSON to write")
    args = parser.parse_args(argv)
    titles = None
    if args.titles:
        with open(args.titles) as handle:
            titles = {line.strip() for line in handle if line.strip()}
    result = run(args.method, args.query, args.db, titles, args.processes)
    with open(args.out, "w") as out:
        json.dump(result, out)
    return 0


if __name__ == "__main__":
    sys.exit(main())

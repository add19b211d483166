"""RDKit helpers: hermite molecules from RDKit molecules, and overlays written back into them.

RDKit's Python objects cross into hermite as numpy arrays (coordinates, charges), never as
pointers, so any RDKit build whose Python module imports works.

Atoms and charges follow these conventions (those of :func:`hermite.read_molecules` too):

- the heavy atoms are taken by default, every atom with ``hydrogens=True`` (hydrogens that the
  molecule keeps implicit are not added); dummy atoms (atomic number 0) are never taken;
- partial charges are computed for the molecule with all its hydrogens explicit; the charge of
  every hydrogen that is not taken is added to the heavy atom it is bonded to (united atoms), so
  that the atoms taken carry the molecule's total charge.

Example::

    import hermite
    import hermite.rdkit

    query = next(hermite.read_mols("query.sdf"))
    table = hermite.rdkit.screen(query, hermite.read_mols("library.sdf.gz"))
    table.head(20)                                  # best first, with posed molecules
    hermite.write_sd("hits.sdf", table.head(100), columns=["rank"])

    posed = hermite.rdkit.overlay_mols(query, table.mol[0])
    print(posed.result.scores.shape_tanimoto, posed.mol.GetDoubleProp("hermite_shape_tanimoto"))
"""

from __future__ import annotations

import math
from typing import (TYPE_CHECKING, Any, Callable, Dict, Iterable, List, Literal, NamedTuple,
                    Optional, Sequence, Tuple, Union)

import numpy as np
from rdkit import Chem
from rdkit.Chem import AllChem
from rdkit.Geometry import Point3D

from . import _hermite
from .molfiles import RECORD_PROPERTY, sd_partial_charges, warn

if TYPE_CHECKING:  # pandas is imported by the functions that make tables
    import pandas

__all__ = [
    "ChargeModel",
    "MolOverlay",
    "apply_pose",
    "atom_charges",
    "from_rdkit",
    "from_rdkit_conformers",
    "overlay_mols",
    "screen",
    "write_scores",
]

ChargeModel = Literal["gasteiger", "mmff", "input"]
"""Where partial charges come from: RDKit's Gasteiger-Marsili or MMFF94 charges, or the
molecule's own per-atom charges ('input')."""

Charges = Union[ChargeModel, None, Sequence[float], np.ndarray]
"""A charge model, None (zeros), or the partial charges of every atom of the molecule."""

ProgressCallback = Callable[[int, int], Any]
"""progress(molecules_done, overlays_done), called on the calling thread during a screen."""

# Iterations of the Gasteiger-Marsili equalisation (RDKit's default, as hermite's reader uses).
_GASTEIGER_ITERATIONS = 12

# Per-atom properties read by charges='input', in order of preference: the SD atom property
# list (atom.dprop.PartialCharge), MOL2 atom charges, charges computed earlier by RDKit. Without
# them the molecule's SD data items PartialCharges or PUBCHEM_MMFF94_PARTIAL_CHARGES are read.
_INPUT_CHARGE_PROPERTIES = ("PartialCharge", "_TriposPartialCharge", "_GasteigerCharge")

# The scores written as molecule properties: property suffix and Scores attribute; the last
# three only when the electrostatic scores were computed. The names are those the command-line
# tool writes into SD files.
_SHAPE_SCORES = (
    ("shape_tanimoto", "shape_tanimoto"),
    ("hermite_tanimoto", "hermite_tanimoto"),
    ("tversky_query", "tversky_query"),
    ("tversky_fit", "tversky_fit"),
)
_ELECTROSTATIC_SCORES = (
    ("es_tanimoto", "es_tanimoto"),
    ("es_carbo", "es_carbo"),
    ("combo", "combo"),
)

# Positions of skipped None molecules quoted in screen's warning; more are elided.
_SHOWN_POSITIONS = 10

# The score columns of a screen table, in order; the electrostatic ones are NaN unless computed.
_SCORE_COLUMNS = tuple(attribute for _, attribute in _SHAPE_SCORES + _ELECTROSTATIC_SCORES)


class MolOverlay(NamedTuple):
    """An overlay of RDKit molecules: the result and the fit molecule holding the new pose."""

    result: _hermite.OverlayResult
    mol: Chem.Mol


def _require_mol(mol: Any, name: str) -> Chem.Mol:
    if not isinstance(mol, Chem.Mol):
        raise TypeError(f"{name} must be an RDKit molecule (rdkit.Chem.Mol), got "
                        f"{type(mol).__name__}")
    if mol.GetNumAtoms() == 0:
        raise ValueError(f"{name} has no atoms")
    return mol


def _conformer(mol: Chem.Mol, conf_id: int, name: str) -> Chem.Conformer:
    """The conformer `conf_id` (-1: the default one), which must be 3-D."""
    if mol.GetNumConformers() == 0:
        raise ValueError(f"{name} has no conformer: 3-D coordinates are needed")
    try:
        conformer = mol.GetConformer(int(conf_id))
    except ValueError:
        ids = [c.GetId() for c in mol.GetConformers()]
        raise ValueError(f"{name} has no conformer with id {conf_id}; its ids are {ids}") from None
    if not conformer.Is3D():
        raise ValueError(f"{name}: conformer {conformer.GetId()} is 2-D; 3-D coordinates are "
                         "needed")
    return conformer


def _heavy_neighbour(mol: Chem.Mol, index: int) -> int:
    """The first neighbour of atom `index` heavier than hydrogen, or -1."""
    for neighbour in mol.GetAtomWithIdx(index).GetNeighbors():
        if neighbour.GetAtomicNum() > 1:
            return neighbour.GetIdx()
    return -1


def _input_charges(mol: Chem.Mol) -> np.ndarray:
    charges = np.zeros(mol.GetNumAtoms())
    for atom in mol.GetAtoms():
        for prop in _INPUT_CHARGE_PROPERTIES:
            if atom.HasProp(prop):
                charges[atom.GetIdx()] = float(atom.GetProp(prop))
                break
        else:
            items = {name: mol.GetProp(name) for name in mol.GetPropNames()}
            listed = sd_partial_charges(items, mol.GetNumAtoms())
            if listed is not None:
                return np.array(listed)
            raise ValueError(
                f"charges='input': atom {atom.GetIdx()} has none of the properties "
                f"{', '.join(_INPUT_CHARGE_PROPERTIES)} and the molecule no data item "
                "PartialCharges or PUBCHEM_MMFF94_PARTIAL_CHARGES")
    return charges


def _model_charges(mol: Chem.Mol, model: str) -> np.ndarray:
    """Charges of every atom of `mol`, computed with all hydrogens explicit; the charges of the
    hydrogens `mol` keeps implicit are added to their heavy atoms."""
    with_h = Chem.AddHs(mol)  # the original atoms keep their indices; new hydrogens follow
    count = with_h.GetNumAtoms()
    if model == "gasteiger":
        AllChem.ComputeGasteigerCharges(with_h, nIter=_GASTEIGER_ITERATIONS,
                                        throwOnParamFailure=False)
        all_charges = np.empty(count)
        for atom in with_h.GetAtoms():
            charge = atom.GetDoubleProp("_GasteigerCharge")
            if atom.HasProp("_GasteigerHCharge"):
                charge += atom.GetDoubleProp("_GasteigerHCharge")
            all_charges[atom.GetIdx()] = charge
    else:
        properties = AllChem.MMFFGetMoleculeProperties(with_h)
        if properties is None:
            raise ValueError("MMFF94 charges could not be computed: MMFF94 atom typing failed")
        all_charges = np.array([properties.GetMMFFPartialCharge(i) for i in range(count)])
    charges = all_charges[:mol.GetNumAtoms()].copy()
    for added in range(mol.GetNumAtoms(), count):
        owner = _heavy_neighbour(with_h, added)
        if 0 <= owner < mol.GetNumAtoms():
            charges[owner] += all_charges[added]
    return charges


def atom_charges(mol: Chem.Mol, charges: Charges = "gasteiger") -> np.ndarray:
    """Partial charges of every atom of `mol` (hydrogens included, nothing folded yet), in
    elementary charges.

    Args:
        mol: an RDKit molecule.
        charges: 'gasteiger', 'mmff' (computed with all hydrogens explicit; implicit hydrogens'
            charges added to their heavy atoms), 'input' (the atoms' PartialCharge,
            _TriposPartialCharge or _GasteigerCharge property, else the molecule's data item
            PartialCharges or PUBCHEM_MMFF94_PARTIAL_CHARGES), None (zeros), or the charges
            themselves, one per atom (returned as a new array).
    """
    _require_mol(mol, "mol")
    if charges is None:
        return np.zeros(mol.GetNumAtoms())
    if not isinstance(charges, str):
        values = np.array(charges, dtype=float)
        if values.shape != (mol.GetNumAtoms(),):
            raise ValueError(f"charges must be a charge model or one charge per atom "
                             f"({mol.GetNumAtoms()}), got shape {values.shape}")
        return values
    model = charges.lower()
    if model == "mmff94":
        model = "mmff"
    if model == "input":
        return _input_charges(mol)
    if model in ("gasteiger", "mmff"):
        return _model_charges(mol, model)
    raise ValueError(f"charges must be 'gasteiger', 'mmff', 'input' or None, got {charges!r}")


def _selected_atoms(mol: Chem.Mol, hydrogens: bool) -> List[int]:
    return [atom.GetIdx() for atom in mol.GetAtoms()
            if atom.GetAtomicNum() > 1 or (hydrogens and atom.GetAtomicNum() == 1)]


def from_rdkit(mol: Chem.Mol, conf_id: int = -1, *, hydrogens: bool = False,
               charges: Charges = "gasteiger",
               title: Optional[str] = None) -> _hermite.Molecule:
    """A hermite.Molecule from a conformer of an RDKit molecule.

    Args:
        mol: the RDKit molecule.
        conf_id: the conformer (-1: the default conformer). It must be 3-D.
        hydrogens: take the explicit hydrogens as atoms too (default: heavy atoms only, each
            carrying the charges of its hydrogens).
        charges: the partial charges: 'gasteiger', 'mmff', 'input', None (zeros) or one charge
            per atom of `mol`; see :func:`atom_charges`.
        title: the title (default: the molecule's ``_Name`` property, or "").

    Raises:
        ValueError: no 3-D conformer, no atoms to take, or charges that cannot be computed.
    """
    return _molecule(mol, conf_id, "mol", hydrogens, charges, title)


def _molecule(mol: Chem.Mol, conf_id: int, name: str, hydrogens: bool, charges: Charges,
              title: Optional[str]) -> _hermite.Molecule:
    """:func:`from_rdkit`, its messages naming the molecule `name`."""
    _require_mol(mol, name)
    conformer = _conformer(mol, conf_id, name)
    selected = _selected_atoms(mol, hydrogens)
    if not selected:
        raise ValueError(f"{name} has no atoms to take (only hydrogens or dummy atoms; "
                         "try hydrogens=True)")
    values = _united_charges(mol, atom_charges(mol, charges), hydrogens)[selected]
    if not np.all(np.isfinite(values)):
        raise ValueError(f"the partial charges ({_charges_name(charges)}) of "
                         f"{_title(mol) or name} are not finite numbers; use another charge "
                         "model or charges=None")
    coords = np.asarray(conformer.GetPositions(), dtype=float)[selected]
    numbers = np.array([mol.GetAtomWithIdx(i).GetAtomicNum() for i in selected])
    return _hermite.Molecule(numbers, coords, values, _title(mol) if title is None else title)


def from_rdkit_conformers(mol: Chem.Mol, *, hydrogens: bool = False,
                          charges: Charges = "gasteiger",
                          title: Optional[str] = None) -> List[_hermite.Molecule]:
    """Every conformer of an RDKit molecule as a hermite.Molecule, in conformer order: the
    conformers of one molecule as :func:`hermite.screen` takes them. The charges are computed
    once for all of them; the arguments are those of :func:`from_rdkit`.

    Raises:
        ValueError: no conformer, a conformer that is not 3-D, no atoms to take, or charges that
            cannot be computed.
    """
    return _conformer_molecules(mol, "mol", hydrogens, charges, title)


def _conformer_molecules(mol: Chem.Mol, name: str, hydrogens: bool, charges: Charges,
                         title: Optional[str] = None) -> List[_hermite.Molecule]:
    """:func:`from_rdkit_conformers`, its messages naming the molecule `name`."""
    _require_mol(mol, name)
    if mol.GetNumConformers() == 0:
        raise ValueError(f"{name} has no conformer: 3-D coordinates are needed")
    values = atom_charges(mol, charges)
    return [_molecule(mol, conformer.GetId(), name, hydrogens, values, title)
            for conformer in mol.GetConformers()]


def _charges_name(charges: Charges) -> str:
    return charges if isinstance(charges, str) else "given"


def _united_charges(mol: Chem.Mol, values: np.ndarray, hydrogens: bool) -> np.ndarray:
    """`values` with each hydrogen's charge added to its heavy atom unless hydrogens are
    taken."""
    if not hydrogens:
        for atom in mol.GetAtoms():
            if atom.GetAtomicNum() == 1:
                owner = _heavy_neighbour(mol, atom.GetIdx())
                if owner >= 0:
                    values[owner] += values[atom.GetIdx()]
    return values


def _title(mol: Chem.Mol) -> str:
    return mol.GetProp("_Name") if mol.HasProp("_Name") else ""


def apply_pose(mol: Chem.Mol, result: _hermite.OverlayResult, conf_id: int = -1) -> None:
    """Moves every atom (hydrogens included) of conformer `conf_id` of `mol` by the result's
    transform, in place."""
    conformer = _conformer(mol, conf_id, "mol")
    moved = result.apply(np.asarray(conformer.GetPositions(), dtype=float))
    for index, (x, y, z) in enumerate(moved):
        conformer.SetAtomPosition(index, Point3D(float(x), float(y), float(z)))


def write_scores(mol: Chem.Mol, result: _hermite.OverlayResult, prefix: str = "hermite_") -> None:
    """Writes the scores of `result` into molecule properties (SetDoubleProp): hermite_shape_
    tanimoto, hermite_hermite_tanimoto, hermite_tversky_query, hermite_tversky_fit, with
    electrostatics also hermite_es_tanimoto, hermite_es_carbo and hermite_combo; and the query's
    title as hermite_query. Existing properties of the same names are replaced."""
    scores = result.scores
    written = _SHAPE_SCORES + (_ELECTROSTATIC_SCORES if result.electrostatics else ())
    for suffix, attribute in written:
        mol.SetDoubleProp(prefix + suffix, float(getattr(scores, attribute)))
    mol.SetProp(prefix + "query", result.query_title)


def _posed(mol: Chem.Mol, result: _hermite.OverlayResult, conf_id: int,
           inplace: bool) -> Chem.Mol:
    target = mol if inplace else Chem.Mol(mol)
    apply_pose(target, result, conf_id)
    write_scores(target, result)
    return target


def overlay_mols(query_mol: Chem.Mol, fit_mol: Chem.Mol, query_conf: int = -1,
                 fit_conf: int = -1, *, hydrogens: bool = False,
                 charges: Charges = "gasteiger", inplace: bool = False,
                 settings: Optional[_hermite.OverlaySettings] = None,
                 **kwargs: Any) -> MolOverlay:
    """Overlays a conformer of `fit_mol` onto a conformer of `query_mol` (hermite.overlay) and
    writes the pose and the scores back.

    The fit conformer of a copy of `fit_mol` (of `fit_mol` itself with ``inplace=True``) is
    moved, all its atoms, hydrogens included; the scores become properties of that molecule
    (see :func:`write_scores`). Its other conformers and properties are kept.

    Args:
        query_mol, fit_mol: RDKit molecules with 3-D conformers.
        query_conf, fit_conf: the conformer ids (-1: the default conformers).
        hydrogens, charges: how atoms and charges are taken (see :func:`from_rdkit`).
        inplace: move `fit_mol` itself rather than a copy.
        settings, **kwargs: overlay settings, as for :func:`hermite.overlay`.

    Returns:
        MolOverlay(result, mol): the hermite.OverlayResult and the posed molecule.
    """
    query = from_rdkit(query_mol, query_conf, hydrogens=hydrogens, charges=charges)
    fit = from_rdkit(fit_mol, fit_conf, hydrogens=hydrogens, charges=charges)
    result = _hermite.overlay(query, fit, settings=settings, **kwargs)
    return MolOverlay(result, _posed(fit_mol, result, fit_conf, inplace))




# ---------------------------------------------------------------------------------------------
# Screening into a table


class _Entry(NamedTuple):
    """One molecule of a screen: its position in the input, the molecule, its conformers as
    hermite molecules (None if they could not be made) and why not."""

    position: int
    mol: Chem.Mol
    conformers: Optional[List[_hermite.Molecule]]
    error: Optional[str]


def _entries(molecules: Iterable[Optional[Chem.Mol]], hydrogens: bool,
             charges: Charges) -> List[_Entry]:
    """The molecules converted, None entries left out with one warning."""
    if isinstance(molecules, (Chem.Mol, str, bytes)):
        raise TypeError("molecules must be an iterable of RDKit molecules, got "
                        f"{type(molecules).__name__}")
    entries: List[_Entry] = []
    missing: List[int] = []
    total = 0
    for position, mol in enumerate(molecules):
        total += 1
        if mol is None:
            missing.append(position)
            continue
        if not isinstance(mol, Chem.Mol):
            raise TypeError(f"molecules[{position}] must be an RDKit molecule (rdkit.Chem.Mol) "
                            f"or None, got {type(mol).__name__}")
        try:
            conformers = from_rdkit_conformers(mol, hydrogens=hydrogens, charges=charges)
            entries.append(_Entry(position, mol, conformers, None))
        except ValueError as error:
            entries.append(_Entry(position, mol, None, str(error)))
    if missing:
        shown = ", ".join(str(i) for i in missing[:_SHOWN_POSITIONS])
        if len(missing) > _SHOWN_POSITIONS:
            shown += ", ..."
        warn(f"screen skipped {len(missing)} of {total} molecules that are None (records the "
             f"supplier could not read; positions {shown}); the table has rows for the other "
             f"{total - len(missing)}")
    return entries


def _progress(progress: Union[bool, None, ProgressCallback],
              total: int) -> Tuple[Optional[ProgressCallback], Any]:
    """The extension's progress callback and the progress bar to close afterwards (if any)."""
    if progress is None or progress is False:
        return None, None
    if progress is True:
        try:
            from tqdm.auto import tqdm
        except ImportError:  # tqdm is optional: no bar then
            return None, None
        bar = tqdm(total=total, unit="mol", desc="hermite screen")
        return (lambda molecules, overlays: bar.update(molecules - bar.n)), bar
    if callable(progress):
        return progress, None
    raise TypeError("progress must be True, False, None or a callable(molecules_done, "
                    f"overlays_done), got {type(progress).__name__}")


def _best_pose(entry: _Entry, result: _hermite.OverlayResult) -> Chem.Mol:
    """A copy of the molecule holding only the result's conformer, moved onto the query, with
    that conformer's own record data items and the scores as properties."""
    conf_id = entry.mol.GetConformers()[result.conformer].GetId()
    posed = Chem.Mol(entry.mol, False, conf_id)
    conformer = posed.GetConformer(conf_id)
    for name in conformer.GetPropNames():
        if name != RECORD_PROPERTY:
            posed.SetProp(name, conformer.GetProp(name))
    apply_pose(posed, result, conf_id)
    write_scores(posed, result)
    return posed


def _row(entry: _Entry, result: Optional[_hermite.OverlayResult]) -> Dict[str, Any]:
    row: Dict[str, Any] = {"position": entry.position, "title": _title(entry.mol)}
    if result is None:
        row.update({name: math.nan for name in _SCORE_COLUMNS})
        row.update(conformer=None, query_conformer=None, error=entry.error,
                   mol=Chem.Mol(entry.mol))
    else:
        scores = result.scores
        electrostatic = {attribute for _, attribute in _ELECTROSTATIC_SCORES}
        row.update({name: float(getattr(scores, name))
                    if result.electrostatics or name not in electrostatic else math.nan
                    for name in _SCORE_COLUMNS})
        row.update(conformer=result.conformer, query_conformer=result.query_conformer,
                   error=None, mol=_best_pose(entry, result))
    row["conformers"] = entry.mol.GetNumConformers()
    return row


def _table(rows: List[Dict[str, Any]], metric: str) -> "pandas.DataFrame":
    """The rows as a DataFrame, best first (NaN scores last, ties in input order), ranked."""
    import pandas as pd

    columns = ["rank", "position", "title", *_SCORE_COLUMNS, "conformer", "query_conformer",
               "conformers", "error", "mol"]
    frame = pd.DataFrame(rows, columns=columns[1:])
    frame = frame.astype({"position": "int64", "conformers": "int64",
                          "conformer": "Int64", "query_conformer": "Int64",
                          **{name: "float64" for name in _SCORE_COLUMNS}})
    frame = frame.sort_values([metric, "position"], ascending=[False, True],
                              na_position="last", kind="mergesort", ignore_index=True)
    frame.insert(0, "rank", np.arange(1, len(frame) + 1, dtype=np.int64))
    for rank, mol, error in zip(frame["rank"], frame["mol"], frame["error"]):
        if error is None:
            mol.SetIntProp("hermite_rank", int(rank))
    try:  # show the molecules as pictures in notebooks, as RDKit's own frames do
        from rdkit.Chem import PandasTools

        PandasTools.ChangeMoleculeRendering(frame)
    except ImportError:  # pragma: no cover - PandasTools needs pandas, which is here
        pass
    return frame


def screen(query: Chem.Mol, molecules: Iterable[Optional[Chem.Mol]], *, threads: int = 0,
           progress: Union[bool, None, ProgressCallback] = True, hydrogens: bool = False,
           charges: Charges = "gasteiger", electrostatics: bool = False,
           score_only: bool = False, settings: Optional[_hermite.OverlaySettings] = None,
           **overlay_keywords: Any) -> "pandas.DataFrame":
    """Overlays RDKit molecules, each with any number of conformers, onto a query molecule and
    returns the results as a pandas DataFrame, best first.

    Every conformer of every molecule is overlaid onto every conformer of the query
    (:func:`hermite.screen`, on `threads` worker threads); each molecule keeps its best pair.
    Ctrl-C stops the screen with KeyboardInterrupt.

    Args:
        query: the RDKit query molecule; each of its conformers is a query conformer.
        molecules: RDKit molecules (any iterable: a list, an RDKit supplier,
            :func:`hermite.read_mols`). None entries, which suppliers give for records they
            could not read, are skipped with one hermite.HermiteWarning that counts them and
            names their positions; they get no row.
        threads: worker threads: 0 all cores, n > 0 that many, -n all cores but n.
        progress: True for a progress bar (tqdm, when it is installed), False or None for
            none, or a callable ``progress(molecules_done, overlays_done)`` called on the
            calling thread about every 100 ms.
        hydrogens, charges: how atoms and charges are taken (see :func:`from_rdkit`); charges
            are computed only for electrostatics.
        electrostatics: also compute the electrostatic scores and rank by combo (also when
            ``settings.electrostatics`` is set).
        score_only: score the molecules in their own poses instead of overlaying them.
        settings, **overlay_keywords: overlay settings, as for :func:`hermite.overlay`.

    Returns:
        a pandas DataFrame with one row per molecule that is not None, sorted best first by
        shape_tanimoto (combo with electrostatics; ties in input order, failed molecules last),
        with the columns

        - ``rank``: 1-based rank;
        - ``position``: 0-based index of the molecule in `molecules`;
        - ``title``: the molecule's ``_Name``;
        - ``shape_tanimoto``, ``hermite_tanimoto``, ``tversky_query``, ``tversky_fit``,
          ``es_tanimoto``, ``es_carbo``, ``combo``: the scores of the best pair; the last three
          NaN unless electrostatics were computed, all NaN for a molecule that failed;
        - ``conformer``, ``query_conformer``: 0-based indices of the best pair's conformers
          (``mol.GetConformers()`` order; pandas Int64, missing for a failed molecule);
        - ``conformers``: the molecule's number of conformers;
        - ``error``: why the molecule could not be screened (no 3-D conformer, say), else None;
        - ``mol``: a copy of the molecule holding only its best conformer, moved onto the
          query (every atom, hydrogens included), with that conformer's own data items, the
          scores as properties (see :func:`write_scores`) and ``hermite_rank``; for a failed
          molecule an unchanged copy.

        ``rdkit.Chem.PandasTools`` draws the mol column in notebooks, and
        :func:`hermite.write_sd` or ``PandasTools.WriteSDF(frame, path, molColName="mol")``
        write the posed molecules.

    Raises:
        ValueError: a query without 3-D conformers, or settings out of range.
        TypeError: entries of `molecules` that are neither RDKit molecules nor None.
    """
    _require_mol(query, "query")
    compute_electrostatics = bool(electrostatics) or bool(
        settings is not None and settings.electrostatics)
    model = charges if compute_electrostatics else None
    queries = _conformer_molecules(query, "query", hydrogens, model)
    entries = _entries(molecules, hydrogens, model)
    fits = [entry.conformers for entry in entries if entry.conformers is not None]
    callback, bar = _progress(progress, len(fits))
    try:
        results = iter(_hermite.screen(
            queries, fits, threads=threads, progress=callback, score_only=score_only,
            settings=settings, electrostatics=compute_electrostatics, **overlay_keywords)
            if fits else [])
    finally:
        if bar is not None:
            bar.close()
    rows = [_row(entry, next(results) if entry.conformers is not None else None)
            for entry in entries]
    return _table(rows, "combo" if compute_electrostatics else "shape_tanimoto")

"""RDKit helpers: hermite molecules from RDKit molecules, and overlays written back into them.

RDKit's Python objects cross into hermite as numpy arrays (coordinates, charges), never as
pointers, so any RDKit build whose Python module imports works.

Atoms and charges follow the conventions of hermite's own file reader:

- the heavy atoms are taken by default, every atom with ``hydrogens=True`` (hydrogens that the
  molecule keeps implicit are not added); dummy atoms (atomic number 0) are never taken;
- partial charges are computed for the molecule with all its hydrogens explicit; the charge of
  every hydrogen that is not taken is added to the heavy atom it is bonded to (united atoms), so
  that the atoms taken carry the molecule's total charge.

Example::

    from rdkit import Chem
    import hermite.rdkit

    supplier = Chem.SDMolSupplier("ligands.sdf", removeHs=False)
    posed = hermite.rdkit.overlay_mols(supplier[0], supplier[1])
    print(posed.result.scores.shape_tanimoto, posed.mol.GetDoubleProp("hermite_shape_tanimoto"))
"""

from __future__ import annotations

import warnings
from typing import Any, Iterable, List, Literal, NamedTuple, Optional

import numpy as np
from rdkit import Chem
from rdkit.Chem import AllChem
from rdkit.Geometry import Point3D

from . import _hermite

__all__ = [
    "ChargeModel",
    "MolOverlay",
    "apply_pose",
    "atom_charges",
    "from_rdkit",
    "overlay_mols",
    "screen_mols",
    "write_scores",
]

ChargeModel = Literal["gasteiger", "mmff", "input"]
"""Where partial charges come from: RDKit's Gasteiger-Marsili or MMFF94 charges, or the
molecule's own per-atom charges ('input')."""

# Iterations of the Gasteiger-Marsili equalisation (RDKit's default, as hermite's reader uses).
_GASTEIGER_ITERATIONS = 12

# Per-atom properties read by charges='input', in order of preference: the SD atom property
# list (atom.dprop.PartialCharge), MOL2 atom charges, charges computed earlier by RDKit.
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


# Positions of skipped None molecules quoted in screen_mols' warning; more are elided.
_SHOWN_POSITIONS = 10


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
            raise ValueError(
                f"charges='input': atom {atom.GetIdx()} has none of the properties "
                f"{', '.join(_INPUT_CHARGE_PROPERTIES)}")
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


def atom_charges(mol: Chem.Mol, charges: Optional[ChargeModel] = "gasteiger") -> np.ndarray:
    """Partial charges of every atom of `mol` (hydrogens included, nothing folded yet).

    Args:
        mol: an RDKit molecule.
        charges: 'gasteiger', 'mmff' (computed with all hydrogens explicit; implicit hydrogens'
            charges added to their heavy atoms), 'input' (the atoms' PartialCharge,
            _TriposPartialCharge or _GasteigerCharge property) or None (zeros).
    """
    _require_mol(mol, "mol")
    if charges is None:
        return np.zeros(mol.GetNumAtoms())
    model = charges.lower() if isinstance(charges, str) else charges
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
               charges: Optional[ChargeModel] = "gasteiger",
               title: Optional[str] = None) -> _hermite.Molecule:
    """A hermite.Molecule from a conformer of an RDKit molecule.

    Args:
        mol: the RDKit molecule.
        conf_id: the conformer (-1: the default conformer). It must be 3-D.
        hydrogens: take the explicit hydrogens as atoms too (default: heavy atoms only, each
            carrying the charges of its hydrogens).
        charges: the partial charges: 'gasteiger', 'mmff', 'input' or None (zeros); see
            :func:`atom_charges`.
        title: the title (default: the molecule's ``_Name`` property, or "").

    Raises:
        ValueError: no 3-D conformer, no atoms to take, or charges that cannot be computed.
    """
    _require_mol(mol, "mol")
    conformer = _conformer(mol, conf_id, "mol")
    selected = _selected_atoms(mol, hydrogens)
    if not selected:
        raise ValueError("mol has no atoms to take (only hydrogens or dummy atoms; "
                         "try hydrogens=True)")
    values = atom_charges(mol, charges)
    if not hydrogens:
        for atom in mol.GetAtoms():
            if atom.GetAtomicNum() == 1:
                owner = _heavy_neighbour(mol, atom.GetIdx())
                if owner >= 0:
                    values[owner] += values[atom.GetIdx()]
    values = values[selected]
    if not np.all(np.isfinite(values)):
        raise ValueError(f"the partial charges ({charges}) of {_title(mol) or 'mol'} are not "
                         "finite numbers; use another charge model or charges=None")
    coords = np.asarray(conformer.GetPositions(), dtype=float)[selected]
    numbers = np.array([mol.GetAtomWithIdx(i).GetAtomicNum() for i in selected])
    return _hermite.Molecule(numbers, coords, values, _title(mol) if title is None else title)


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
                 charges: Optional[ChargeModel] = "gasteiger", inplace: bool = False,
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


def screen_mols(query_mol: Chem.Mol, mols: Iterable[Chem.Mol], query_conf: int = -1,
                conf_id: int = -1, *, threads: int = 0, hydrogens: bool = False,
                charges: Optional[ChargeModel] = "gasteiger", inplace: bool = False,
                settings: Optional[_hermite.OverlaySettings] = None,
                **kwargs: Any) -> List[MolOverlay]:
    """Overlays conformer `conf_id` of every molecule of `mols` onto `query_mol`
    (hermite.screen, in parallel) and writes the poses and scores back as
    :func:`overlay_mols` does.

    Args:
        query_mol: the RDKit query molecule.
        mols: RDKit molecules (an iterable, e.g. an SDMolSupplier). None entries, which
            suppliers give for records they could not read, are skipped with one
            hermite.HermiteWarning that counts them and gives their positions.
        query_conf, conf_id: conformer ids (-1: the default conformers).
        threads: worker threads (0: all cores).
        hydrogens, charges, inplace, settings, **kwargs: as for :func:`overlay_mols`.

    Returns:
        a list of MolOverlay(result, mol), in the order of `mols`, one for each molecule that is
        not None: with None entries skipped the list is shorter than `mols`, and the i-th
        result belongs to the i-th molecule that was read (its ``mol`` is that molecule or its
        posed copy, and ``result.title`` its title).
    """
    query = from_rdkit(query_mol, query_conf, hydrogens=hydrogens, charges=charges)
    fit_mols: List[Chem.Mol] = []
    fits = []
    missing: List[int] = []
    total = 0
    for index, mol in enumerate(mols):
        total += 1
        if mol is None:
            missing.append(index)
            continue
        fit_mols.append(mol)
        fits.append(from_rdkit(mol, conf_id, hydrogens=hydrogens, charges=charges))
    if missing:
        shown = ", ".join(str(i) for i in missing[:_SHOWN_POSITIONS])
        if len(missing) > _SHOWN_POSITIONS:
            shown += ", ..."
        warnings.warn(f"screen_mols skipped {len(missing)} of {total} molecules that are None "
                      f"(records the supplier could not read; positions {shown}); the results "
                      f"are for the other {total - len(missing)}, in order",
                      _hermite.HermiteWarning, stacklevel=2)
    results = _hermite.screen(query, fits, threads=threads, settings=settings, **kwargs)
    return [MolOverlay(result, _posed(mol, result, conf_id, inplace))
            for mol, result in zip(fit_mols, results)]

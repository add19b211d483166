"""RDKit helpers: hermite molecules from RDKit molecules, and overlays written back into them.

RDKit's Python objects cross into hermite as numpy arrays (coordinates, charges), never as
pointers, so any RDKit build whose Python module imports works.

Atoms and charges follow these conventions (those of :func:`hermite.read_molecules` too):

- the heavy atoms are taken by default, every atom with ``hydrogens=True`` (hydrogens that the
  molecule keeps implicit are not added); dummy atoms (atomic number 0) are never taken;
- partial charges are computed for the molecule with all its hydrogens explicit; the charge of
  every hydrogen that is not taken is added to the heavy atom it is bonded to (united atoms), so
  that the atoms taken carry the molecule's total charge;
- colour (pharmacophore) features are perceived on the whole molecule by RDKit's feature factory
  from .fdef definitions (:func:`feature_definitions`; by default the package's
  colour_features.fdef, which the command-line tool compiles in), exactly as the command-line
  tool perceives them: the same types and the same positions (:func:`perceive_features`).

Example::

    import hermite
    import hermite.rdkit

    query = next(hermite.read_mols("query.sdf"))
    table = hermite.rdkit.screen(query, hermite.read_mols("library.sdf.gz"))
    table.head(20)                                  # best first, with posed molecules
    hermite.write_sd("hits.sdf", table.head(100), columns=["rank"])

    posed = hermite.rdkit.overlay_mols(query, table.mol[0])
    print(posed.result.scores.shape_tanimoto, posed.mol.GetDoubleProp("hermite_shape_tanimoto"))

    coloured = hermite.rdkit.screen(query, hermite.read_mols("library.sdf.gz"), colour=True)
    coloured[["title", "combo", "shape_tanimoto", "colour_tanimoto"]]   # ranked by combo
"""

from __future__ import annotations

import math
import os
import re
from pathlib import Path
from typing import (TYPE_CHECKING, Any, Callable, Dict, Iterable, List, Literal, NamedTuple,
                    Optional, Sequence, Tuple, Union)

import numpy as np
from rdkit import Chem, rdBase
from rdkit.Chem import AllChem, ChemicalFeatures
from rdkit.Geometry import Point3D

from . import _hermite
from .molfiles import RECORD_PROPERTY, sd_partial_charges, warn

if TYPE_CHECKING:  # pandas is imported by the functions that make tables
    import pandas

__all__ = [
    "ChargeModel",
    "FeatureDefinitions",
    "MolOverlay",
    "apply_pose",
    "atom_charges",
    "feature_definitions",
    "from_rdkit",
    "from_rdkit_conformers",
    "overlay_mols",
    "perceive_features",
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

# The scores written as molecule properties (after a prefix) and as the columns of a screen
# table, each the name of a Scores attribute: the shape scores always, the electrostatic ones
# when they were computed, then the colour ones when they were computed. The names and their
# order are those of the command-line tool's SD tags and score table.
_SHAPE_SCORES = ("shape_tanimoto", "hermite_tanimoto", "tversky_query", "tversky_fit")
_ELECTROSTATIC_SCORES = ("es_tanimoto", "es_carbo", "es_combo")
_COLOUR_SCORES = ("colour_tanimoto", "combo")

# Positions of skipped None molecules quoted in screen's warning; more are elided.
_SHOWN_POSITIONS = 10

# The score columns of a screen table, in order; the electrostatic and colour ones are NaN
# unless computed.
_SCORE_COLUMNS = _SHAPE_SCORES + _ELECTROSTATIC_SCORES + _COLOUR_SCORES

# The column of each rank metric of screen (whose rank_by also takes the names spelt with
# hyphens, as the command-line tool's --rank-by).
_RANK_COLUMNS = {"shape": "shape_tanimoto", "shape_tanimoto": "shape_tanimoto",
                 "combo": "combo", "es_combo": "es_combo", "tversky_query": "tversky_query",
                 "tversky_fit": "tversky_fit"}


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


# ---------------------------------------------------------------------------------------------
# Colour features


# The default feature definitions: the package's copy of the repository's
# data/colour_features.fdef, whose text the command-line tool compiles in; the repository's file
# itself when the package runs from the source tree.
_DEFAULT_FEATURES_FILE = "colour_features.fdef"

# Characters that RDKit's .fdef reader trims from lines.
_FDEF_SPACE = " \t\r\n"


class _FeatureDefinition(NamedTuple):
    """One DefineFeature block: its family's type and the weights of its pattern atoms,
    normalised to sum 1 as RDKit normalises them (empty when the block has none)."""

    name: str
    family: str
    type: int
    weights: Tuple[float, ...]


def _fdef_lines(text: str) -> List[str]:
    """The logical lines of a .fdef text as RDKit's reader sees them: lines starting with '#' and
    blank lines are skipped, and a line ending in '\\' continues on the next one (both
    trimmed)."""
    lines: List[str] = []
    joined = ""
    continued = False
    # The last piece after the final line break is not a line (RDKit's reader stops there).
    for physical in text.split("\n")[:-1]:
        if not physical or physical[0] == "#" or not physical.rstrip(_FDEF_SPACE):
            continue
        if physical.rstrip(_FDEF_SPACE).endswith("\\"):
            continued = True
            joined += physical.strip(_FDEF_SPACE)[:-1]
            continue
        joined += physical.strip(_FDEF_SPACE) if continued else physical
        lines.append(joined)
        joined = ""
        continued = False
    return lines


def _reject_lines_without_words(text: str, source: str) -> None:
    """Raises ValueError for a line without any letter or digit (such as "]"): RDKit's reader
    takes the first word of each line without checking that there is one, and aborts the whole
    process on such a line. No such line is valid anywhere in the format."""
    joined = ""
    for number, physical in enumerate(text.split("\n"), start=1):
        line = physical.strip(_FDEF_SPACE)
        if not physical or physical[0] == "#" or not line:
            continue
        if line.endswith("\\"):
            joined += line[:-1]
            continue
        joined += line
        if joined[0] != "#" and not any(c.isascii() and c.isalnum() for c in joined):
            raise ValueError(f'{source}: line {number}: no keyword: "{joined}"')
        joined = ""


def _rdkit_factory(text: str, source: str) -> Any:
    """RDKit's feature factory of `text`; its parse errors become ValueError naming `source`
    and the line."""
    try:
        return ChemicalFeatures.BuildFeatureFactoryFromString(text)
    except (ValueError, RuntimeError) as error:
        message = str(error).strip()
        found = re.match(r"Error parsing feature file at line (\d+):\s*(.*)", message, re.S)
        if found:
            message = f"line {found.group(1)}: {' '.join(found.group(2).split())}"
        else:
            message = "invalid feature definitions: " + " ".join(message.split())
        raise ValueError(f"{source}: {message}") from None


def _weights(text: str, name: str, source: str) -> List[float]:
    """The comma-separated weights of a Weights line of feature `name`."""
    weights = []
    for token in text.split(","):
        try:
            weights.append(float(token))
        except ValueError:
            raise ValueError(f"{source}: bad weight {token!r} of feature {name}") from None
    return weights


def _definition_blocks(lines: Sequence[str], source: str
                       ) -> Tuple[List[Tuple[str, str, List[float]]], List[str]]:
    """The DefineFeature blocks of text RDKit has parsed, as (name, family, raw weights), and
    the logical lines again with each feature renamed to its index, so that a feature that
    RDKit perceives with them names the block that made it."""
    blocks: List[Tuple[str, str, List[float]]] = []
    indexed: List[str] = []
    i = 0
    while i < len(lines):
        line = lines[i].strip(_FDEF_SPACE)
        i += 1
        if not line or line[0] == "#":
            continue
        keyword = re.split(r"[^A-Za-z0-9]", line, maxsplit=1)[0].upper()
        if keyword != "DEFINEFEATURE":
            indexed.append(line)  # an AtomType line
            continue
        words = re.split(r"[ \t]+", line)
        name, family, weights = words[1], "", []
        indexed.append(f"DefineFeature {len(blocks)} {words[2]}")
        while i < len(lines):
            inner = lines[i].strip(_FDEF_SPACE)
            i += 1
            if not inner or inner[0] == "#":
                continue
            indexed.append(inner)
            words = re.split(r"[ \t]+", inner)
            key = words[0].upper()
            if key == "ENDFEATURE":
                break
            if key == "FAMILY":
                family = words[1]
            elif key == "WEIGHTS":
                # Every Weights line of a block adds to its weights, as in RDKit.
                weights += _weights(words[1], name, source)
        blocks.append((name, family, weights))
    return blocks, indexed


def _normalised(weights: Sequence[float], name: str, source: str) -> Tuple[float, ...]:
    """The weights divided by their sum, as RDKit stores them; ValueError when they sum to
    zero (no position could be computed)."""
    total = 0.0
    for weight in weights:
        total += weight
    if weights and (total == 0.0 or not math.isfinite(total)):
        raise ValueError(f"{source}: the weights of feature {name} sum to zero")
    return tuple(weight / total for weight in weights)


class FeatureDefinitions:
    """Colour (pharmacophore) feature definitions in RDKit's .fdef format, parsed once; made by
    :func:`feature_definitions` and used by :func:`perceive_features`.

    A feature's type is the index of its family in :attr:`families`, the families in the
    order in which the definitions first name them; features perceived with different
    definitions must not be compared. The command-line tool (``--colour``, ``--features``)
    perceives the same features, at the same positions, from the same definitions.

    Attributes:
        families: the family names; a feature's type indexes this tuple.
        text: the .fdef text.
        source: what the text came from (a file name, or "default feature definitions").
        factory: RDKit's feature factory of the text (``GetFeaturesForMol`` and friends).

    Instances are not changed after they are made; they can be shared and pickled.
    """

    families: Tuple[str, ...]
    text: str
    source: str
    factory: Any

    def __init__(self, text: str, source: str = "feature definitions") -> None:
        """Parses .fdef `text`; `source` names it in error messages.

        Raises:
            ValueError: the text cannot be used: a syntax error RDKit reports (with its line),
                a line without any word, a Weights line that does not match its pattern,
                weights that sum to zero, or no feature defined.
        """
        if not isinstance(text, str):
            raise TypeError(f"the feature definitions must be text (str), got "
                            f"{type(text).__name__}")
        # RDKit's reader ignores a last line without a line break.
        terminated = text if not text or text.endswith("\n") else text + "\n"
        _reject_lines_without_words(terminated, source)
        factory = _rdkit_factory(terminated, source)
        blocks, indexed = _definition_blocks(_fdef_lines(terminated), source)
        if not blocks:
            raise ValueError(f"{source}: no feature is defined (DefineFeature ... EndFeature)")
        if len(blocks) != factory.GetNumFeatureDefs():
            raise ValueError(f"{source}: cannot follow the feature definitions ("
                             f"{len(blocks)} found, RDKit has {factory.GetNumFeatureDefs()})")
        families: List[str] = []
        definitions: List[_FeatureDefinition] = []
        for name, family, weights in blocks:
            if family not in families:
                families.append(family)
            definitions.append(_FeatureDefinition(name, family, families.index(family),
                                                  _normalised(weights, name, source)))
        self.families = tuple(families)
        self.text = text
        self.source = source
        self.factory = factory
        self._definitions = tuple(definitions)
        self._indexed = _rdkit_factory("\n".join(indexed) + "\n", source)

    @classmethod
    def from_file(cls, path: Union[str, "os.PathLike[str]"]) -> "FeatureDefinitions":
        """The definitions of the .fdef file at `path` (UTF-8); OSError when it cannot be
        read, ValueError naming it when it cannot be parsed."""
        name = os.fspath(path)
        with open(name, encoding="utf-8") as stream:
            return cls(stream.read(), str(name))

    def type_of(self, family: str) -> int:
        """The type of `family`; KeyError when the definitions have no such family."""
        try:
            return self.families.index(family)
        except ValueError:
            raise KeyError(f"{family!r} is not a feature family of {self.source} (families: "
                           f"{', '.join(self.families)})") from None

    def perceive(self, mol: Chem.Mol, conf_id: int = -1) -> np.ndarray:
        """The features of conformer `conf_id` of `mol`: see :func:`perceive_features`."""
        _require_mol(mol, "mol")
        return _placed(self._matches(mol), _conformer(mol, conf_id, "mol"))

    def _matches(self, mol: Chem.Mol) -> List["_FeatureMatch"]:
        """The features of `mol`'s constitution, before they are placed in a conformer;
        ValueError when RDKit fails on the molecule."""
        try:
            found = self._indexed.GetFeaturesForMol(_matchable(mol))
        except RuntimeError as error:
            raise ValueError(f"feature perception failed: {error}") from None
        matches = []
        for feature in found:
            definition = self._definitions[int(feature.GetType())]
            matches.append(_FeatureMatch(definition.type, tuple(feature.GetAtomIds()),
                                         definition.weights))
        return matches

    def __repr__(self) -> str:
        return f"FeatureDefinitions(source={self.source!r}, families={self.families!r})"

    def __reduce__(self) -> Tuple[Any, Tuple[str, str]]:
        return (FeatureDefinitions, (self.text, self.source))


class _FeatureMatch(NamedTuple):
    """A feature found in a molecule: its type, its atoms in pattern order and the weights of
    its definition."""

    type: int
    atoms: Tuple[int, ...]
    weights: Tuple[float, ...]


def _placed(matches: Sequence[_FeatureMatch], conformer: Chem.Conformer) -> np.ndarray:
    """The (n, 4) rows (type, x, y, z) of the features in `conformer`."""
    positions = np.asarray(conformer.GetPositions(), dtype=float)
    rows = [(float(match.type), *_feature_position(positions, match.atoms, match.weights))
            for match in matches]
    return np.array(rows, dtype=float).reshape(len(rows), 4)


def _feature_position(positions: np.ndarray, atoms: Sequence[int],
                      weights: Sequence[float]) -> Tuple[float, float, float]:
    """The weighted mean of the atoms' positions (equal weights unless the definition gives
    one per atom), computed in the order and the double precision of the command-line tool,
    so that both give the same bits."""
    weighted = len(weights) == len(atoms)
    x = y = z = total = 0.0
    for k, atom in enumerate(atoms):
        w = weights[k] if weighted else 1.0
        x += float(positions[atom, 0]) * w
        y += float(positions[atom, 1]) * w
        z += float(positions[atom, 2]) * w
        total += w
    return x / total, y / total, z / total


def _rings_known(mol: Chem.Mol) -> bool:
    with rdBase.BlockLogs():  # RDKit logs the failed precondition before raising
        try:
            mol.GetRingInfo().NumRings()
        except RuntimeError:
            return False
    return True


def _matchable(mol: Chem.Mol) -> Chem.Mol:
    """`mol` itself when RDKit's pattern matching can use it as it is, else a copy with implicit
    hydrogens computed and rings perceived (the smallest set of smallest rings), as the
    command-line tool prepares its records."""
    if _rings_known(mol) and not mol.NeedsUpdatePropertyCache():
        return mol
    copy = Chem.RWMol(mol)
    copy.UpdatePropertyCache(strict=False)
    Chem.GetSSSR(copy)
    return copy


_default_definitions: Optional[FeatureDefinitions] = None


def _default_features_path() -> Path:
    packaged = Path(__file__).with_name(_DEFAULT_FEATURES_FILE)
    if packaged.is_file():
        return packaged
    repository = Path(__file__).resolve().parents[2] / "data" / _DEFAULT_FEATURES_FILE
    if repository.is_file():
        return repository
    raise FileNotFoundError(f"the default feature definitions {packaged} are missing: the "
                            "hermite package is incomplete")


def feature_definitions(path: Union[str, "os.PathLike[str]", None] = None
                        ) -> FeatureDefinitions:
    """Colour feature definitions: those of the .fdef file at `path`, or by default hermite's
    own (the package's colour_features.fdef, the definitions the command-line tool compiles in:
    six families, types 0 to 5: Donor, Acceptor, Cation, Anion, Aromatic, Hydrophobe).

    The default definitions are parsed once and shared.

    Raises:
        OSError: the file cannot be read.
        ValueError: the definitions cannot be used (see :class:`FeatureDefinitions`).
    """
    global _default_definitions
    if path is not None:
        return FeatureDefinitions.from_file(path)
    if _default_definitions is None:
        default = _default_features_path()
        _default_definitions = FeatureDefinitions(default.read_text(encoding="utf-8"),
                                                  "default feature definitions")
    return _default_definitions


Features = Union[bool, None, FeatureDefinitions, str, "os.PathLike[str]"]
"""Which colour features a molecule gets: none (False or None), those of the default
definitions (True), of given definitions, or of the .fdef file at a path."""


def _definitions_of(features: Features, name: str = "features") -> Optional[FeatureDefinitions]:
    """The definitions a `features` argument asks for, or None for no features."""
    if features is None or features is False:
        return None
    if features is True:
        return feature_definitions()
    if isinstance(features, FeatureDefinitions):
        return features
    if isinstance(features, (str, os.PathLike)):
        return feature_definitions(features)
    raise TypeError(f"{name} must be True, False, None, hermite.rdkit.FeatureDefinitions or "
                    f"the path of a .fdef file, got {type(features).__name__}")


def perceive_features(mol: Chem.Mol, conf_id: int = -1,
                      definitions: Optional[FeatureDefinitions] = None) -> np.ndarray:
    """The colour (pharmacophore) features of a conformer of an RDKit molecule, as
    ``hermite.Molecule(..., features=...)`` takes them.

    RDKit's feature factory matches the definitions on the whole molecule, hydrogens included
    as far as it has them (the default definitions give the same features with and without
    explicit hydrogens). A feature's position is the weighted mean of its atoms' positions with
    its definition's weights (the plain centroid when it gives none), in the conformer's
    coordinates, angstrom. Features come in definition order, within a definition in RDKit's
    match order; within a family, a match whose atoms all belong to an earlier match of that
    family gives no feature. The command-line tool perceives the same features.

    Args:
        mol: the RDKit molecule.
        conf_id: the conformer (-1: the default one). It must be 3-D.
        definitions: the feature definitions (default: :func:`feature_definitions`).

    Returns:
        an (n, 4) float array of rows (type, x, y, z); the type indexes
        ``definitions.families``.
    """
    chosen = feature_definitions() if definitions is None else definitions
    if not isinstance(chosen, FeatureDefinitions):
        raise TypeError("definitions must be hermite.rdkit.FeatureDefinitions or None, got "
                        f"{type(definitions).__name__}")
    return chosen.perceive(mol, conf_id)


def _selected_atoms(mol: Chem.Mol, hydrogens: bool) -> List[int]:
    return [atom.GetIdx() for atom in mol.GetAtoms()
            if atom.GetAtomicNum() > 1 or (hydrogens and atom.GetAtomicNum() == 1)]


def from_rdkit(mol: Chem.Mol, conf_id: int = -1, *, hydrogens: bool = False,
               charges: Charges = "gasteiger", title: Optional[str] = None,
               features: Features = False) -> _hermite.Molecule:
    """A hermite.Molecule from a conformer of an RDKit molecule, optionally with its colour
    features.

    Args:
        mol: the RDKit molecule.
        conf_id: the conformer (-1: the default conformer). It must be 3-D.
        hydrogens: take the explicit hydrogens as atoms too (default: heavy atoms only, each
            carrying the charges of its hydrogens).
        charges: the partial charges: 'gasteiger', 'mmff', 'input', None (zeros) or one charge
            per atom of `mol`; see :func:`atom_charges`.
        title: the title (default: the molecule's ``_Name`` property, or "").
        features: the colour features (see :func:`perceive_features`): False or None for none,
            True for those of the default definitions, or those of given
            :class:`FeatureDefinitions` or of a .fdef file's path.

    Raises:
        ValueError: no 3-D conformer, no atoms to take, charges that cannot be computed, or
            feature definitions that cannot be used.
    """
    return _molecule_with_features(mol, conf_id, "mol", hydrogens, charges,
                                   _definitions_of(features), title)


def _molecule(mol: Chem.Mol, conf_id: int, name: str, hydrogens: bool, charges: Charges,
              title: Optional[str],
              matches: Optional[Sequence[_FeatureMatch]] = None) -> _hermite.Molecule:
    """:func:`from_rdkit`, its messages naming the molecule `name`; with the features
    `matches` (perceived on `mol`) placed in the conformer."""
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
    placed = _placed(matches, conformer) if matches is not None else None
    return _hermite.Molecule(numbers, coords, values, _title(mol) if title is None else title,
                             features=placed)


def from_rdkit_conformers(mol: Chem.Mol, *, hydrogens: bool = False,
                          charges: Charges = "gasteiger", title: Optional[str] = None,
                          features: Features = False) -> List[_hermite.Molecule]:
    """Every conformer of an RDKit molecule as a hermite.Molecule, in conformer order: the
    conformers of one molecule as :func:`hermite.screen` takes them. The charges are computed,
    and the features perceived, once for all of them; the arguments are those of
    :func:`from_rdkit`.

    Raises:
        ValueError: no conformer, a conformer that is not 3-D, no atoms to take, charges that
            cannot be computed, or feature definitions that cannot be used.
    """
    return _conformer_molecules(mol, "mol", hydrogens, charges, title,
                                _definitions_of(features))


def _conformer_molecules(mol: Chem.Mol, name: str, hydrogens: bool, charges: Charges,
                         title: Optional[str] = None,
                         definitions: Optional[FeatureDefinitions] = None
                         ) -> List[_hermite.Molecule]:
    """:func:`from_rdkit_conformers`, its messages naming the molecule `name`."""
    _require_mol(mol, name)
    if mol.GetNumConformers() == 0:
        raise ValueError(f"{name} has no conformer: 3-D coordinates are needed")
    values = atom_charges(mol, charges)
    matches = definitions._matches(mol) if definitions is not None else None
    return [_molecule(mol, conformer.GetId(), name, hydrogens, values, title, matches)
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


def _computed_scores(result: _hermite.OverlayResult) -> Tuple[str, ...]:
    """The names of the scores `result` has: shape, electrostatic and colour as computed."""
    return (_SHAPE_SCORES + (_ELECTROSTATIC_SCORES if result.electrostatics else ())
            + (_COLOUR_SCORES if result.colour else ()))


def write_scores(mol: Chem.Mol, result: _hermite.OverlayResult, prefix: str = "hermite_") -> None:
    """Writes the scores of `result` into molecule properties (SetDoubleProp): hermite_shape_
    tanimoto, hermite_hermite_tanimoto, hermite_tversky_query, hermite_tversky_fit, with
    electrostatics also hermite_es_tanimoto, hermite_es_carbo and hermite_es_combo, with colour
    hermite_colour_tanimoto and hermite_combo; and the query's title as hermite_query. Existing
    properties of the same names are replaced."""
    scores = result.scores
    for name in _computed_scores(result):
        mol.SetDoubleProp(prefix + name, float(getattr(scores, name)))
    mol.SetProp(prefix + "query", result.query_title)


def _posed(mol: Chem.Mol, result: _hermite.OverlayResult, conf_id: int,
           inplace: bool) -> Chem.Mol:
    target = mol if inplace else Chem.Mol(mol)
    apply_pose(target, result, conf_id)
    write_scores(target, result)
    return target


def overlay_mols(query_mol: Chem.Mol, fit_mol: Chem.Mol, query_conf: int = -1,
                 fit_conf: int = -1, *, hydrogens: bool = False,
                 charges: Charges = "gasteiger", colour: bool = False,
                 features: Union[FeatureDefinitions, str, "os.PathLike[str]", None] = None,
                 inplace: bool = False, settings: Optional[_hermite.OverlaySettings] = None,
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
        colour: also match the colour (pharmacophore) features of both molecules, perceived
            with `features` (also when ``settings.colour`` is set); ``colour_weight`` weighs
            them in the search.
        features: the feature definitions, :class:`FeatureDefinitions` or the path of a .fdef
            file (default: :func:`feature_definitions`); only with colour.
        inplace: move `fit_mol` itself rather than a copy.
        settings, **kwargs: overlay settings, as for :func:`hermite.overlay`.

    Returns:
        MolOverlay(result, mol): the hermite.OverlayResult and the posed molecule.
    """
    definitions = _colour_definitions(colour, features, settings)
    query = _molecule_with_features(query_mol, query_conf, "query_mol", hydrogens, charges,
                                    definitions)
    fit = _molecule_with_features(fit_mol, fit_conf, "fit_mol", hydrogens, charges, definitions)
    if definitions is not None:
        kwargs["colour"] = True
    result = _hermite.overlay(query, fit, settings=settings, **kwargs)
    return MolOverlay(result, _posed(fit_mol, result, fit_conf, inplace))


def _molecule_with_features(mol: Chem.Mol, conf_id: int, name: str, hydrogens: bool,
                            charges: Charges, definitions: Optional[FeatureDefinitions],
                            title: Optional[str] = None) -> _hermite.Molecule:
    """:func:`from_rdkit` with the features of `definitions` (none when None), its messages
    naming the molecule `name`."""
    _require_mol(mol, name)
    matches = definitions._matches(mol) if definitions is not None else None
    return _molecule(mol, conf_id, name, hydrogens, charges, title, matches)


def _colour_definitions(colour: bool,
                        features: Union[FeatureDefinitions, str, "os.PathLike[str]", None],
                        settings: Optional[_hermite.OverlaySettings]
                        ) -> Optional[FeatureDefinitions]:
    """The feature definitions of a run with colour (`colour` or ``settings.colour``), or None
    without colour; ValueError for `features` without colour, as the command-line tool's
    --features without --colour."""
    if not (colour or (settings is not None and settings.colour)):
        if features is not None:
            raise ValueError("features defines the colour features: pass colour=True too")
        return None
    definitions = _definitions_of(True if features is None else features)
    if definitions is None:
        raise ValueError("colour needs feature definitions: leave features=None for the "
                         "default ones")
    return definitions




# ---------------------------------------------------------------------------------------------
# Screening into a table


class _Entry(NamedTuple):
    """One molecule of a screen: its position in the input, the molecule, its conformers as
    hermite molecules (None if they could not be made) and why not."""

    position: int
    mol: Chem.Mol
    conformers: Optional[List[_hermite.Molecule]]
    error: Optional[str]


def _entries(molecules: Iterable[Optional[Chem.Mol]], hydrogens: bool, charges: Charges,
             definitions: Optional[FeatureDefinitions]) -> List[_Entry]:
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
            conformers = _conformer_molecules(mol, "mol", hydrogens, charges, None, definitions)
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
        computed = _computed_scores(result)
        row.update({name: float(getattr(scores, name)) if name in computed else math.nan
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
    # A missing reason reads back as None, NaN or NA, as the column's dtype has it.
    for rank, mol, error in zip(frame["rank"], frame["mol"], frame["error"]):
        if pd.isna(error):
            mol.SetIntProp("hermite_rank", int(rank))
    try:  # show the molecules as pictures in notebooks, as RDKit's own frames do
        from rdkit.Chem import PandasTools

        PandasTools.ChangeMoleculeRendering(frame)
    except ImportError:  # pragma: no cover - PandasTools needs pandas, which is here
        pass
    return frame


def _positive(value: Any) -> bool:
    """True for a number above 0; anything else is left to the settings' own checks."""
    try:
        return float(value) > 0.0
    except (TypeError, ValueError):
        return False


def screen(query: Chem.Mol, molecules: Iterable[Optional[Chem.Mol]], *, threads: int = 0,
           progress: Union[bool, None, ProgressCallback] = True, hydrogens: bool = False,
           charges: Charges = "gasteiger", electrostatics: bool = False, colour: bool = False,
           features: Union[FeatureDefinitions, str, "os.PathLike[str]", None] = None,
           rank_by: Optional[str] = None, score_only: bool = False,
           settings: Optional[_hermite.OverlaySettings] = None,
           **overlay_keywords: Any) -> "pandas.DataFrame":
    """Overlays RDKit molecules, each with any number of conformers, onto a query molecule and
    returns the results as a pandas DataFrame, best first.

    Every conformer of every molecule is overlaid onto every conformer of the query
    (:func:`hermite.screen`, on `threads` worker threads); each molecule keeps its best pair by
    the rank metric. Ctrl-C stops the screen with KeyboardInterrupt.

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
        electrostatics: also compute the electrostatic scores (also when
            ``settings.electrostatics`` is set, or an ``electrostatic_weight`` above 0 lets
            the electrostatics move the pose).
        colour: also match the colour (pharmacophore) features, perceived with `features`
            (also when ``settings.colour`` is set): the search maximises shape +
            ``colour_weight`` * colour overlap, and the colour scores are computed.
        features: the feature definitions, :class:`FeatureDefinitions` or the path of a .fdef
            file (default: :func:`feature_definitions`); only with colour.
        rank_by: the rank metric, which also picks each molecule's best pair: 'shape' (shape
            Tanimoto), 'combo' (shape + colour Tanimoto; implies colour), 'es_combo' (shape +
            electrostatic Tanimoto; implies electrostatics), 'tversky_query' or 'tversky_fit'
            (hyphens work too, as in the command-line tool's --rank-by). Default: combo with
            colour, else es_combo with electrostatics, else shape.
        score_only: score the molecules in their own poses instead of overlaying them.
        settings, **overlay_keywords: overlay settings, as for :func:`hermite.overlay`; among
            them ``colour_weight``, the weight of the colour overlap in the search (0 to 100,
            default 3), and ``electrostatic_weight``, that of the electrostatic overlap (0 to
            100000, default 0: electrostatics scored only; it implies electrostatics).

    Returns:
        a pandas DataFrame with one row per molecule that is not None, sorted best first by the
        rank metric (ties in input order, failed molecules last), with the columns

        - ``rank``: 1-based rank;
        - ``position``: 0-based index of the molecule in `molecules`;
        - ``title``: the molecule's ``_Name``;
        - ``shape_tanimoto``, ``hermite_tanimoto``, ``tversky_query``, ``tversky_fit``,
          ``es_tanimoto``, ``es_carbo``, ``es_combo``, ``colour_tanimoto``, ``combo``: the
          scores of the best pair; the electrostatic ones (``es_*``) NaN unless electrostatics
          were computed, ``colour_tanimoto`` and ``combo`` (shape + colour Tanimoto) NaN unless
          colour was; all NaN for a molecule that failed;
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
        ValueError: a query without 3-D conformers, settings out of range, an unknown rank
            metric, `features` without colour, or feature definitions that cannot be used.
        TypeError: entries of `molecules` that are neither RDKit molecules nor None.
    """
    _require_mol(query, "query")
    metric = _rank_metric(rank_by)
    electrostatic_weight = overlay_keywords.get(
        "electrostatic_weight", settings.electrostatic_weight if settings is not None else 0.0)
    compute_electrostatics = (bool(electrostatics) or metric == "es_combo"
                              or bool(settings is not None and settings.electrostatics)
                              or _positive(electrostatic_weight))
    definitions = _colour_definitions(bool(colour) or metric == "combo", features, settings)
    compute_colour = definitions is not None
    if metric is None:
        metric = ("combo" if compute_colour else
                  "es_combo" if compute_electrostatics else "shape")
    model = charges if compute_electrostatics else None
    queries = _conformer_molecules(query, "query", hydrogens, model, None, definitions)
    entries = _entries(molecules, hydrogens, model, definitions)
    fits = [entry.conformers for entry in entries if entry.conformers is not None]
    overlay_keywords.update(electrostatics=compute_electrostatics, colour=compute_colour)
    callback, bar = _progress(progress, len(fits))
    try:
        results = iter(_hermite.screen(
            queries, fits, threads=threads, progress=callback, score_only=score_only,
            rank_by=metric, settings=settings, **overlay_keywords) if fits else [])
    finally:
        if bar is not None:
            bar.close()
    rows = [_row(entry, next(results) if entry.conformers is not None else None)
            for entry in entries]
    return _table(rows, _RANK_COLUMNS[metric])


def _rank_metric(rank_by: Optional[str]) -> Optional[str]:
    """The metric `rank_by` names ('shape', 'combo', ...; None for the default); ValueError for
    another name."""
    if rank_by is None:
        return None
    name = rank_by.replace("-", "_") if isinstance(rank_by, str) else None
    if name not in _RANK_COLUMNS:
        raise ValueError("rank_by must be 'shape', 'combo', 'es_combo', 'tversky_query' or "
                         f"'tversky_fit', got {rank_by!r}")
    return "shape" if name == "shape_tanimoto" else name

"""Molecule files as RDKit molecules: SD, MOL2 and SMILES files read, SD files written.

Reading (:func:`read_mols`) gives RDKit molecules with their conformers; :func:`read_molecules`
turns them into the flat list of hermite.Molecule conformers that :func:`hermite.screen` and
:func:`hermite.overlay` take; :func:`write_sd` writes molecules (or the posed molecules of a
:func:`hermite.rdkit.screen` table) back. The chemistry is the RDKit of the running interpreter,
imported on first use, so that ``import hermite`` does not load RDKit.

Conventions:

- The format comes from the file name: .sdf, .sd and .mol are SD files, .mol2 MOL2 files,
  .smi and .smiles SMILES files, each optionally followed by .gz (case is ignored). Compressed
  files are also recognised by their content.
- Records are numbered from 0 in file order, as an RDKit supplier indexes them; SMILES records
  are the lines that hold a SMILES (messages also give their 1-based line number).
- Text is decoded as UTF-8; a line that is not valid UTF-8 (a Latin-1 file, say) is decoded as
  Latin-1 instead, so such files read completely and their titles show as intended.
- Coordinates are in angstrom.
"""

from __future__ import annotations

import gzip
import io
import math
import os
import secrets
import sys
import warnings
from typing import (TYPE_CHECKING, Any, BinaryIO, Callable, Dict, Generator, Iterator,
                    List, NamedTuple, Optional, Sequence, Tuple, Union, cast)

from . import _hermite

if TYPE_CHECKING:  # RDKit is imported where it is used, never by ``import hermite``
    from rdkit import Chem

    from .rdkit import ChargeModel, FeatureDefinitions, Features

__all__ = [
    "RECORD_PROPERTY",
    "MolReader",
    "read_mols",
    "read_molecules",
    "write_sd",
]

PathArgument = Union[str, bytes, "os.PathLike[str]", "os.PathLike[bytes]"]

RECORD_PROPERTY = "hermite_record"
"""Integer property of every conformer :func:`read_mols` gives: the 0-based index of the record
it was read from. :func:`write_sd` does not write it."""

# Extensions of the formats (after a ".gz" is removed).
_FORMATS = {"sdf": "sdf", "sd": "sdf", "mol": "sdf", "mol2": "mol2", "smi": "smiles",
            "smiles": "smiles"}
_GZIP_MAGIC = b"\x1f\x8b"
# Up to three points always lie in a plane; more atoms all at z = 0 are a 2-D drawing.
_MAX_PLANAR_ATOMS = 3
# |z| below this counts as zero (molfile coordinates have four decimals).
_ZERO_Z = 1e-4
# SD data items with per-atom partial charges, in order of preference: one value per atom...
_DENSE_CHARGE_ITEMS = ("atom.dprop.PartialCharge", "PartialCharges")
# ... or a count followed by "atom-number charge" pairs (atoms not listed have charge 0).
_SPARSE_CHARGE_ITEM = "PUBCHEM_MMFF94_PARTIAL_CHARGES"
_CHARGE_MODELS = ("gasteiger", "mmff", "mmff94", "input")
_MASK64 = (1 << 64) - 1


# ---------------------------------------------------------------------------------------------
# Warnings reported at the caller


def _outside_package(filename: str) -> bool:
    return not filename.startswith(os.path.dirname(os.path.abspath(__file__)) + os.sep)


def warn(message: str) -> None:
    """Issues `message` as a hermite.HermiteWarning attributed to the first caller outside the
    hermite package (also through generators), so that it points at the user's code."""
    frame = sys._getframe(1)
    level = 2
    while frame.f_back is not None and not _outside_package(frame.f_code.co_filename):
        frame = frame.f_back
        level += 1
    warnings.warn(message, _hermite.HermiteWarning, stacklevel=level)


# ---------------------------------------------------------------------------------------------
# Arguments


def _path_argument(path: Any, name: str = "path") -> Union[str, bytes]:
    try:
        value = os.fspath(path)
    except TypeError:
        raise TypeError(f"{name} must be a str, bytes or os.PathLike, got "
                        f"{type(path).__name__}") from None
    if ("\0" if isinstance(value, str) else b"\0") in value:
        raise ValueError(f"{name} must not contain NUL characters")
    return value


def _integer(value: Any, name: str, low: int, high: int) -> int:
    """`value` as an int in low..high; the messages are those of the compiled module."""
    if isinstance(value, float) or not hasattr(value, "__index__"):
        raise TypeError(f"{name} must be an integer, got {type(value).__name__}")
    number = value.__index__()
    if not low <= number <= high:
        raise ValueError(f"{name} must lie in {low}..{high}, got {number!r}")
    return number


def _file_format(path: Union[str, bytes], format: Optional[str]) -> str:
    if format is not None:
        key = format.lower().lstrip(".")
        if key not in _FORMATS:
            raise ValueError(f"format must be one of {', '.join(sorted(_FORMATS))}, got "
                             f"{format!r}")
        return _FORMATS[key]
    name = os.path.basename(os.fsdecode(path)).lower()
    if name.endswith(".gz"):
        name = name[:-3]
    extension = name.rpartition(".")[2] if "." in name else ""
    if extension not in _FORMATS:
        raise ValueError(f"{os.fsdecode(path)}: unknown file extension (expected .sdf, .sd, "
                         ".mol, .mol2, .smi or .smiles, optionally followed by .gz; or pass "
                         "format=)")
    return _FORMATS[extension]


def _open_text(path: Union[str, bytes]) -> BinaryIO:
    """The file's bytes, decompressed when it is gzip data; OSError says "cannot open file"."""
    try:
        raw = open(path, "rb")
    except OSError as error:
        raise type(error)(error.errno, f"cannot open file: {error.strerror}",
                          error.filename) from None
    if raw.peek(2)[:2] == _GZIP_MAGIC:
        return gzip.GzipFile(fileobj=raw, mode="rb")  # type: ignore[return-value]
    return raw


# ---------------------------------------------------------------------------------------------
# Records: text only


class _Record(NamedTuple):
    number: int     # 0-based record number
    title: str      # first line (SD), molecule name (MOL2), name (SMILES), trimmed
    text: str       # the record's lines (SMILES: the SMILES alone)
    line: int = 0   # 1-based line number (SMILES only)


def _decode(data: bytes) -> str:
    try:
        return data.decode("utf-8")
    except UnicodeDecodeError:
        # Line by line, so that one Latin-1 data item leaves a UTF-8 title alone.
        return "".join(_decode_line(line) for line in data.splitlines(keepends=True))


def _decode_line(line: bytes) -> str:
    try:
        return line.decode("utf-8")
    except UnicodeDecodeError:
        return line.decode("latin-1")


def _trim(text: str) -> str:
    return text.strip(" \t\r\n")


def _lines(stream: BinaryIO) -> Iterator[bytes]:
    for line in stream:
        yield line.rstrip(b"\r\n") + b"\n"


def _sd_records(stream: BinaryIO) -> Iterator[_Record]:
    """SD records end with a line starting with "$$$$"; the last one may lack it. Stretches of
    blank lines between records are not records."""
    index = 0
    lines: List[bytes] = []
    for line in _lines(stream):
        if not line.startswith(b"$$$$"):
            lines.append(line)
            continue
        if any(part.strip() for part in lines):
            text = _decode(b"".join(lines))
            yield _Record(index, _trim(text.split("\n", 1)[0]), text)
            index += 1
        lines = []
    if any(part.strip() for part in lines):
        text = _decode(b"".join(lines))
        yield _Record(index, _trim(text.split("\n", 1)[0]), text)


def _mol2_records(stream: BinaryIO) -> Iterator[_Record]:
    """MOL2 records start at a "@<TRIPOS>MOLECULE" line, the next line being the name; anything
    before the first one is ignored."""
    index = 0
    lines: Optional[List[bytes]] = None
    for line in _lines(stream):
        if line.startswith(b"@<TRIPOS>MOLECULE"):
            if lines is not None:
                yield _mol2_record(index, lines)
                index += 1
            lines = [line]
        elif lines is not None:
            lines.append(line)
    if lines is not None:
        yield _mol2_record(index, lines)


def _mol2_record(index: int, lines: List[bytes]) -> _Record:
    text = _decode(b"".join(lines))
    title = _trim(text.split("\n")[1]) if len(lines) > 1 else ""
    return _Record(index, title, text)


def _is_smiles_header(content: str) -> bool:
    """A column header such as RDKit's SMILES writer puts first ("SMILES Name", "smiles,name"):
    its first column is the word "smiles", never a valid SMILES."""
    first = content.replace(",", " ").replace(";", " ").split(None, 1)[0]
    return first.lower() == "smiles"


def _smiles_records(stream: BinaryIO) -> Iterator[_Record]:
    """One SMILES per line, then optionally a name (the rest of the line; without one the
    SMILES is the title). Blank lines and lines starting with '#' are skipped, and so is a
    column header on the first other line."""
    index = 0
    seen = False
    for number, line in enumerate(_lines(stream), start=1):
        content = _trim(_decode_line(line))
        if not content or content.startswith("#"):
            continue
        if not seen:
            seen = True
            if _is_smiles_header(content):
                continue
        parts = content.split(None, 1)
        title = _trim(parts[1]) if len(parts) > 1 else parts[0]
        yield _Record(index, title, parts[0], number)
        index += 1


_RECORD_SPLITTERS: Dict[str, Callable[[BinaryIO], Iterator[_Record]]] = {
    "sdf": _sd_records, "mol2": _mol2_records, "smiles": _smiles_records}


# ---------------------------------------------------------------------------------------------
# Records: chemistry


class _Skip(Exception):
    """A record that cannot be used; the message says why."""


class _Options(NamedTuple):
    remove_hs: bool
    sanitize: bool
    require_3d: bool
    smiles_conformers: int
    seed: int


def _describe(file: str, record: _Record) -> str:
    """"ligands.sdf, record 2 (ZINC03814459)" for messages."""
    where = f"{file}, record {record.number}"
    if record.line:
        where += f", line {record.line}"
    title = " ".join(record.title.split())
    return f"{where} ({title})" if title else where


def _sanitisation_failure(unsanitised: Optional["Chem.Mol"], what: str) -> _Skip:
    """Why RDKit refused a record: its sanitisation error, if that is what failed."""
    from rdkit import Chem

    if unsanitised is None:
        return _Skip(f"RDKit could not parse the {what}")
    try:
        Chem.SanitizeMol(unsanitised)
    except Exception as error:  # RDKit raises several exception types here
        return _Skip(f"RDKit could not sanitise the molecule: {error}")
    return _Skip(f"RDKit could not read the {what}")


def record_seed(seed: int, line: int) -> int:
    """The embedding seed of the SMILES on (1-based) `line` of a file read with `seed`: a hash
    of both (splitmix64), so that every record has its own random stream, the same as the
    command-line tool's. Always in 0..2**31 - 1 (RDKit's seeds are signed ints)."""
    z = (((seed << 32) | line) + 0x9E3779B97F4A7C15) & _MASK64
    z = ((z ^ (z >> 30)) * 0xBF58476D1CE4E5B9) & _MASK64
    z = ((z ^ (z >> 27)) * 0x94D049BB133111EB) & _MASK64
    z ^= z >> 31
    return z & 0x7FFFFFFF


def _declared_dimension(text: str) -> int:
    """The dimension code of a molfile's program line (its second line, columns 21-22): 2 or 3,
    0 when there is none."""
    lines = text.split("\n", 2)
    line = lines[1] if len(lines) > 1 else ""
    if len(line) < 22 or line[21] not in "Dd" or line[20] not in "23":
        return 0
    return int(line[20])


def _require_3d(mol: "Chem.Mol", declared: int = 0) -> None:
    """Refuses records without 3-D coordinates. The program line is what the writing program
    knew: "3D" is 3-D even when all atoms lie in one plane (benzene), "2D" is a drawing even
    with z values. Without it, all z = 0 for more than three atoms is a drawing."""
    if mol.GetNumConformers() == 0 or declared == 2:
        raise _Skip("molecule has no 3-D coordinates")
    if declared == 3:
        return
    conformer = mol.GetConformer()
    flat = mol.GetNumAtoms() > _MAX_PLANAR_ATOMS and all(
        abs(z) < _ZERO_Z for z in conformer.GetPositions()[:, 2])
    if not conformer.Is3D() or flat:
        raise _Skip("molecule has no 3-D coordinates")


def _finish(mol: "Chem.Mol", record: _Record, options: _Options, declared: int = 0) -> "Chem.Mol":
    if mol.GetNumAtoms() == 0:
        raise _Skip("molecule has no atoms")
    if options.require_3d:
        _require_3d(mol, declared)
    mol.SetProp("_Name", record.title)
    return mol


def _parse_sd(record: _Record, options: _Options) -> "Chem.Mol":
    """The record's molecule with its data items as properties (as an RDKit SD supplier reads
    them, atom property lists included); each conformer also holds them."""
    from rdkit import Chem

    supplier = Chem.SDMolSupplier()
    supplier.SetData(record.text + "$$$$\n", sanitize=options.sanitize,
                     removeHs=options.remove_hs)
    mol = supplier[0] if len(supplier) else None
    if mol is None:
        raise _sanitisation_failure(Chem.MolFromMolBlock(record.text, sanitize=False,
                                                         removeHs=False), "record")
    _finish(mol, record, options, _declared_dimension(record.text))
    for conformer in mol.GetConformers():
        for name in mol.GetPropNames():
            conformer.SetProp(name, mol.GetProp(name))
    return mol


def _check_mol2(text: str) -> None:
    """Refuses MOL2 records that RDKit's MOL2 parser cannot survive: it reserves as many atoms
    and bonds as the counts line says (read as unsigned: -20 asks for gigabytes), and checks the
    upper end of a bond's atom numbers but not the lower one (atom 0 reads atom -1)."""
    lines = text.split("\n")
    section = ""
    for i, line in enumerate(lines):
        if line.startswith("@<TRIPOS>"):
            section = line[9:].split()[0] if line[9:].split() else ""
            if section == "MOLECULE" and i + 2 < len(lines):
                for what, field in zip(("atom", "bond"), lines[i + 2].split()):
                    count = _whole_integer(field)
                    if count is not None and not 0 <= count <= len(lines):
                        raise _Skip(f"the MOL2 {what} count {field} does not match the record")
            continue
        fields = line.split()
        if section != "BOND" or len(fields) < 3:
            continue
        for atom in fields[1:3]:
            number = _whole_integer(atom)
            if number is not None and number < 1:
                raise _Skip(f"bond {fields[0]} refers to atom {atom} (MOL2 atoms are numbered "
                            "from 1)")


def _whole_integer(text: str) -> Optional[int]:
    try:
        return int(text)
    except ValueError:
        return None


def _parse_mol2(record: _Record, options: _Options) -> "Chem.Mol":
    from rdkit import Chem

    _check_mol2(record.text)
    mol = Chem.MolFromMol2Block(record.text, sanitize=options.sanitize,
                                removeHs=options.remove_hs)
    if mol is None:
        raise _sanitisation_failure(Chem.MolFromMol2Block(record.text, sanitize=False,
                                                          removeHs=False), "record")
    return _finish(mol, record, options)


def _parse_smiles(record: _Record, options: _Options) -> Tuple["Chem.Mol", Optional[str]]:
    """The SMILES embedded with hydrogens (ETKDGv3), and a note when some conformers could not
    be embedded."""
    from rdkit import Chem
    from rdkit.Chem import AllChem

    mol = Chem.MolFromSmiles(record.text)
    if mol is None:
        raise _sanitisation_failure(Chem.MolFromSmiles(record.text, sanitize=False),
                                    f"SMILES '{record.text}'")
    if mol.GetNumAtoms() == 0:
        raise _Skip("molecule has no atoms")
    mol = Chem.AddHs(mol)
    parameters = AllChem.ETKDGv3()
    parameters.randomSeed = record_seed(options.seed, record.line)
    parameters.numThreads = 1
    embedded = list(AllChem.EmbedMultipleConfs(mol, options.smiles_conformers, parameters))
    if not embedded:
        raise _Skip("no 3-D conformer could be embedded (RDKit ETKDG)")
    if options.remove_hs:
        mol = Chem.RemoveHs(mol)
    mol.SetProp("_Name", record.title)
    missing = options.smiles_conformers - len(embedded)
    note = (f"{missing} of {options.smiles_conformers} conformers could not be embedded "
            "(RDKit ETKDG)") if missing else None
    return mol, note


# ---------------------------------------------------------------------------------------------
# Conformers of one molecule


def _same_atoms(first: "Chem.Mol", other: "Chem.Mol") -> bool:
    """True when `other` has the atoms and bonds of `first` in the same order, so that its
    coordinates can be a conformer of `first`."""
    if first.GetNumAtoms() != other.GetNumAtoms() or first.GetNumBonds() != other.GetNumBonds():
        return False
    if any(a.GetAtomicNum() != b.GetAtomicNum() for a, b in zip(first.GetAtoms(),
                                                                 other.GetAtoms())):
        return False
    return _bond_pairs(first) == _bond_pairs(other)


def _bond_pairs(mol: "Chem.Mol") -> set:
    return {tuple(sorted((b.GetBeginAtomIdx(), b.GetEndAtomIdx()))) for b in mol.GetBonds()}


def constitution_key(mol: "Chem.Mol") -> str:
    """The heavy-atom graph of `mol` (elements and connections; bond orders, charges,
    hydrogens, isotopes and stereochemistry do not count) as a canonical SMILES."""
    from rdkit import Chem

    graph = Chem.RWMol()
    index: Dict[int, int] = {}
    for atom in mol.GetAtoms():
        if atom.GetAtomicNum() != 1:
            copy = Chem.Atom(atom.GetAtomicNum())
            copy.SetNoImplicit(True)
            index[atom.GetIdx()] = graph.AddAtom(copy)
    for bond in mol.GetBonds():
        begin, end = index.get(bond.GetBeginAtomIdx()), index.get(bond.GetEndAtomIdx())
        if begin is not None and end is not None:
            graph.AddBond(begin, end, Chem.BondType.SINGLE)
    graph.UpdatePropertyCache(False)
    Chem.FastFindRings(graph)
    return Chem.MolToSmiles(graph, isomericSmiles=False, canonical=True)


class _Group:
    """The molecule being built from consecutive SD records of one title."""

    def __init__(self, mol: "Chem.Mol", record: _Record) -> None:
        self.mol = mol
        self.first = record
        self._key: Optional[str] = None
        mol.GetConformer().SetIntProp(RECORD_PROPERTY, record.number)

    def key(self) -> str:
        if self._key is None:
            self._key = constitution_key(self.mol)
        return self._key

    def joins(self, record: _Record) -> bool:
        return bool(record.title) and record.title == self.first.title

    def add(self, mol: "Chem.Mol", record: _Record) -> bool:
        """Adds the conformer of `mol`, if it has the atoms of the group's molecule."""
        from rdkit import Chem

        if not _same_atoms(self.mol, mol):
            return False
        conformer = Chem.Conformer(mol.GetConformer())
        conformer.SetIntProp(RECORD_PROPERTY, record.number)
        self.mol.AddConformer(conformer, assignId=True)
        return True


# ---------------------------------------------------------------------------------------------
# Reading


class MolReader:
    """Iterator over the RDKit molecules of a file (see :func:`read_mols`); a context manager
    that closes the file."""

    def __init__(self, path: Union[str, bytes], file_format: str, options: _Options) -> None:
        self.path = os.fsdecode(path)
        self.format = file_format
        self._stream = _open_text(path)
        self._options = options
        self._molecules = self._read()

    def __iter__(self) -> "MolReader":
        return self

    def __next__(self) -> "Chem.Mol":
        return next(self._molecules)

    def __enter__(self) -> "MolReader":
        return self

    def __exit__(self, *exception: Any) -> None:
        self.close()

    def close(self) -> None:
        """Closes the file; the iteration ends."""
        self._molecules.close()
        self._stream.close()

    def _records(self) -> Iterator[_Record]:
        try:
            yield from _RECORD_SPLITTERS[self.format](self._stream)
        except (OSError, EOFError) as error:  # truncated or corrupt gzip data, say
            warn(f"{self.path}: read error: {error}; the records before it were read")

    def _parse(self, record: _Record) -> Optional["Chem.Mol"]:
        """The record's molecule, or None with a warning."""
        from rdkit import rdBase

        silence = rdBase.BlockLogs()  # the reasons become our warnings
        try:
            if self.format == "sdf":
                return _parse_sd(record, self._options)
            if self.format == "mol2":
                return _parse_mol2(record, self._options)
            mol, note = _parse_smiles(record, self._options)
            if note:
                warn(f"{_describe(self.path, record)}: {note}")
            return mol
        except _Skip as skip:
            warn(f"{_describe(self.path, record)}: {skip}; skipped")
        finally:
            del silence
        return None

    def _read(self) -> Generator["Chem.Mol", None, None]:
        try:
            if self.format == "sdf":
                yield from self._sd_molecules()
            else:
                for record in self._records():
                    mol = self._parse(record)
                    if mol is not None:
                        for conformer in mol.GetConformers():
                            conformer.SetIntProp(RECORD_PROPERTY, record.number)
                        yield mol
        finally:
            self._stream.close()

    def _sd_molecules(self) -> Iterator["Chem.Mol"]:
        """Consecutive records of one (non-empty) title and the same atoms become conformers of
        one molecule. Records that cannot be read neither join nor end a run; another title
        does."""
        group: Optional[_Group] = None
        for record in self._records():
            if group is not None and not group.joins(record):
                yield group.mol
                group = None
            mol = self._parse(record)
            if mol is None:
                continue
            if group is not None and not group.add(mol, record):
                if constitution_key(mol) != group.key():
                    warn(f"{_describe(self.path, record)}: shares the title of record "
                         f"{group.first.number} but has another constitution: read as a "
                         "separate molecule")
                yield group.mol
                group = None
            if group is None:
                group = _Group(mol, record)
        if group is not None:
            yield group.mol


def read_mols(path: PathArgument, *, format: Optional[str] = None, remove_hs: bool = False,
              sanitize: bool = True, require_3d: bool = True, smiles_conformers: int = 10,
              seed: int = 42) -> MolReader:
    """The molecules of an SD, MOL2 or SMILES file (optionally gzipped) as RDKit molecules, in
    file order, read one at a time.

    SD files: consecutive records with the same (non-empty) title and the same atoms (elements
    and bonds in the same order) are the conformers of one molecule, which carries the first
    record's data items as properties (strings, as an RDKit SD supplier sets them; atom
    property lists such as ``atom.dprop.PartialCharge`` become atom properties). Every conformer
    holds its own record's data items as conformer properties. A record with the title of the
    one before but another heavy-atom constitution starts a new molecule with a warning;
    records of one compound whose hydrogens differ (protomers, tautomers) cannot share one RDKit
    molecule and become consecutive molecules of the same title. The chemistry (bond orders,
    charges, stereo tags) is that of the first record.

    MOL2 files: one molecule per record. SMILES files: one molecule per line, "SMILES [name]"
    (without a name the SMILES is the title); blank lines, lines starting with '#' and a column
    header line ("SMILES Name") are ignored. Each SMILES is embedded with hydrogens by RDKit's
    ETKDGv3, ``smiles_conformers`` times, seeded by a hash of ``seed`` and the line number, so
    that the same file and seed give the same coordinates.

    Every conformer has the integer property ``hermite_record`` (:data:`RECORD_PROPERTY`): the
    0-based index of its record. The title is the molecule's ``_Name``.

    Records that cannot be used (RDKit cannot parse or sanitise them, no atoms, no 3-D
    coordinates with ``require_3d``) are skipped with one hermite.HermiteWarning each that names
    the file, the record and the reason; RDKit's own log messages are held back meanwhile.

    Args:
        path: the file: str, bytes or os.PathLike.
        format: 'sdf', 'mol2' or 'smi' to override the file name's extension.
        remove_hs: remove hydrogens (RDKit's RemoveHs) as RDKit's readers do; by default
            they are kept as the file has them.
        sanitize: sanitise the molecules (RDKit); SMILES are always sanitised.
        require_3d: skip records without 3-D coordinates. Whether an SD record is 3-D is what
            its program line (second line, columns 21-22) says; without that code, and for
            MOL2, a record is 3-D unless RDKit marks it 2-D or more than three atoms all lie
            at z = 0.
        smiles_conformers: conformers embedded per SMILES, 1..10000.
        seed: seed of the SMILES embedding, 0..4294967295.

    Returns:
        a :class:`MolReader`: an iterator over the molecules, and a context manager that closes
        the file (``list(read_mols(path))`` reads them all).

    Raises:
        OSError: the file cannot be opened ("cannot open file: ...").
        ValueError: an unknown extension or format, or arguments out of range.
    """
    path = _path_argument(path)
    options = _Options(bool(remove_hs), bool(sanitize), bool(require_3d),
                       _integer(smiles_conformers, "smiles_conformers", 1, 10000),
                       _integer(seed, "seed", 0, 4294967295))
    return MolReader(path, _file_format(path, format), options)


# ---------------------------------------------------------------------------------------------
# hermite.Molecule conformers


def sd_partial_charges(items: Dict[str, str], num_atoms: int) -> Optional[List[float]]:
    """Per-atom partial charges from SD data items: ``atom.dprop.PartialCharge`` or
    ``PartialCharges`` (one value per atom, white space separated) or
    ``PUBCHEM_MMFF94_PARTIAL_CHARGES`` (a count, then "atom-number charge" pairs; atoms not
    listed have charge 0). None when there is none of them.

    Raises:
        ValueError: an item that is not numbers, or does not fit the atoms.
    """
    for name in _DENSE_CHARGE_ITEMS:
        if name in items:
            charges = _numbers(items[name], name)
            if len(charges) != num_atoms:
                raise ValueError(f"data item <{name}> has {len(charges)} partial charges for "
                                 f"{num_atoms} atoms")
            return charges
    if _SPARSE_CHARGE_ITEM not in items:
        return None
    numbers = _numbers(items[_SPARSE_CHARGE_ITEM], _SPARSE_CHARGE_ITEM)
    if not numbers or len(numbers) % 2 != 1 or numbers[0] != (len(numbers) - 1) // 2:
        raise ValueError(f"data item <{_SPARSE_CHARGE_ITEM}> is not a count followed by "
                         "atom-charge pairs")
    charges = [0.0] * num_atoms
    for atom, charge in zip(numbers[1::2], numbers[2::2]):
        if atom != int(atom) or not 1 <= atom <= num_atoms:
            raise ValueError(f"data item <{_SPARSE_CHARGE_ITEM}> names an atom that does not "
                             "exist")
        charges[int(atom) - 1] = charge
    return charges


def _numbers(text: str, name: str) -> List[float]:
    numbers = []
    for word in text.split():
        try:
            value = float(word)
        except ValueError:
            value = math.nan
        if not math.isfinite(value):
            raise ValueError(f"partial charges in data item <{name}> are not numbers: '{word}'")
        numbers.append(value)
    return numbers


def _hermite_conformers(mol: "Chem.Mol", file: str, file_format: str, hydrogens: bool,
                        charges: "ChargeModel",
                        definitions: "Optional[FeatureDefinitions]") -> List[_hermite.Molecule]:
    """The conformers of `mol` as hermite.Molecule, the charges computed once for all of them
    (SD input charges: each conformer's own record's); a conformer that cannot be used is
    skipped with a warning naming its record."""
    from . import rdkit as hr

    title = mol.GetProp("_Name") if mol.HasProp("_Name") else ""
    shared: Any = None
    failure: Optional[ValueError] = None
    if charges != "input" or file_format != "sdf":
        try:
            shared = hr.atom_charges(mol, charges)
        except ValueError as error:
            failure = error
    molecules = []
    for conformer in mol.GetConformers():
        try:
            if failure is not None:
                raise failure
            values = shared if shared is not None else _record_charges(mol, conformer)
            molecules.append(hr.from_rdkit(
                mol, conformer.GetId(), hydrogens=hydrogens, charges=values, title=title,
                features=False if definitions is None else definitions))
        except ValueError as error:
            record = _Record(conformer.GetIntProp(RECORD_PROPERTY), title, "")
            warn(f"{_describe(file, record)}: {error}; skipped")
    return molecules


def _record_charges(mol: "Chem.Mol", conformer: Any) -> List[float]:
    """The input charges of the SD record a conformer was read from."""
    items = {name: conformer.GetProp(name) for name in conformer.GetPropNames()}
    values = sd_partial_charges(items, mol.GetNumAtoms())
    if values is None:
        raise ValueError("no input partial charges (need a data item atom.dprop.PartialCharge, "
                         f"PartialCharges or {_SPARSE_CHARGE_ITEM})")
    return values


def read_molecules(path: PathArgument, *, hydrogens: bool = False, charges: str = "gasteiger",
                   smiles_conformers: int = 10, seed: int = 42,
                   features: "Features" = False) -> List[_hermite.Molecule]:
    """Reads the conformers of every molecule of an SD, MOL2 or SMILES file (optionally
    gzipped), in file order, each as a hermite.Molecule titled like its record.

    The file is read by :func:`read_mols` (RDKit; consecutive SD records with the same title and
    constitution are conformers of one molecule; SMILES are embedded in 3-D,
    ``smiles_conformers`` conformers each, seeded by ``seed``) and each conformer converted as
    :func:`hermite.rdkit.from_rdkit` does: heavy atoms by default, each carrying the partial
    charges of its hydrogens, which are computed once per molecule with all hydrogens explicit.

    Records that cannot be used are skipped with a hermite.HermiteWarning each; a file that
    cannot be opened raises OSError. Ctrl-C interrupts the reading (between molecules) with
    KeyboardInterrupt.

    Titles are decoded as UTF-8; a title that is not valid UTF-8 is decoded as Latin-1 instead,
    so files written in Latin-1 read without errors and their titles show as intended. The same
    holds for the titles in warning and error messages.

    Args:
        path: the file: str, bytes or os.PathLike (e.g. pathlib.Path).
        hydrogens: keep hydrogens as atoms (default: heavy atoms, hydrogen charges folded into
            them).
        charges: partial charges: 'gasteiger', 'mmff' or 'input' (the file's own: MOL2 atom
            charges; in SD files the data item atom.dprop.PartialCharge, PartialCharges or
            PUBCHEM_MMFF94_PARTIAL_CHARGES of each record).
        smiles_conformers: conformers embedded per SMILES, 1..10000.
        seed: seed of the SMILES embedding, 0..4294967295.
        features: the colour features of every conformer (for ``colour=True`` overlays and
            screens): False or None for none, True for those of the default definitions, or
            those of given :class:`hermite.rdkit.FeatureDefinitions` or of a .fdef file's path;
            the command-line tool's ``--colour`` perceives the same.

    Returns:
        list of hermite.Molecule, one per conformer.
    """
    if charges not in _CHARGE_MODELS:
        raise ValueError(f"charges must be 'gasteiger', 'mmff' or 'input', got {charges!r}")
    model = cast("ChargeModel", "mmff" if charges == "mmff94" else charges)
    from . import rdkit as hr

    definitions = hr._definitions_of(features)
    reader = read_mols(path, smiles_conformers=smiles_conformers, seed=seed)
    with reader:
        if model == "input" and reader.format == "smiles":
            raise ValueError("charges='input': SMILES have no partial charges (use 'gasteiger' "
                             "or 'mmff')")
        molecules: List[_hermite.Molecule] = []
        for mol in reader:
            molecules.extend(_hermite_conformers(mol, reader.path, reader.format,
                                                 bool(hydrogens), model, definitions))
    return molecules


# ---------------------------------------------------------------------------------------------
# Writing


def _atomic_file(path: Union[str, bytes]) -> Tuple[BinaryIO, str]:
    """A new temporary file next to `path` (mode 0666 less the umask), and its name."""
    target = os.fsdecode(path)
    directory, name = os.path.split(target)
    while True:
        temporary = os.path.join(directory, f".{name}.{secrets.token_hex(4)}.tmp")
        try:
            descriptor = os.open(temporary, os.O_WRONLY | os.O_CREAT | os.O_EXCL, 0o666)
        except FileExistsError:
            continue
        except OSError as error:
            raise type(error)(error.errno, f"cannot write file: {error.strerror}",
                              target) from None
        return os.fdopen(descriptor, "wb"), temporary


def _value_text(value: Any) -> Optional[str]:
    """A DataFrame cell as data item text; None for missing values (None, NaN, pandas.NA)."""
    if value is None or value is getattr(sys.modules.get("pandas"), "NA", None):
        return None
    if isinstance(value, float) and math.isnan(value):
        return None
    return str(value)


def _items(mol: "Chem.Mol", conformer: Any, extra: Sequence[Tuple[str, str]]) -> List[
        Tuple[str, str]]:
    """The data items of one conformer's record: the molecule's properties, those the
    conformer holds itself (its own record's data items) in their place or after them, then
    `extra`, which replace items of the same names."""
    items: Dict[str, str] = {name: mol.GetProp(name) for name in mol.GetPropNames()}
    for name in conformer.GetPropNames():
        if name != RECORD_PROPERTY:
            items[name] = conformer.GetProp(name)
    for name, value in extra:
        items.pop(name, None)
        items[name] = value
    return list(items.items())


def _sd_record(mol: "Chem.Mol", conformer: Any, extra: Sequence[Tuple[str, str]]) -> str:
    from rdkit import Chem

    try:
        block = Chem.MolToMolBlock(mol, confId=conformer.GetId())
    except Exception:  # molecules RDKit cannot kekulise are written aromatic
        block = Chem.MolToMolBlock(mol, confId=conformer.GetId(), kekulize=False)
    parts = [block]
    for name, value in _items(mol, conformer, extra):
        parts.append(f">  <{name}>\n{value}\n\n" if value else f">  <{name}>\n\n")
    parts.append("$$$$\n")
    return "".join(parts)


def _rows(source: Any, mol_column: str, columns: Optional[Sequence[str]]) -> Iterator[
        Tuple[Any, List[Tuple[str, str]]]]:
    """(molecule, extra data items) for a molecule, an iterable of them or a DataFrame."""
    from rdkit import Chem

    if isinstance(source, Chem.Mol):
        yield source, []
        return
    if hasattr(source, "columns") and hasattr(source, "itertuples"):  # a pandas DataFrame
        if mol_column not in source.columns:
            raise ValueError(f"the DataFrame has no column {mol_column!r} (mol_column)")
        names = list(columns or ())
        missing = [name for name in names if name not in source.columns]
        if missing:
            raise ValueError(f"the DataFrame has no columns {missing} (columns)")
        errors = source["error"] if "error" in source.columns else None
        for i, mol in enumerate(source[mol_column]):
            if errors is not None and _value_text(errors.iloc[i]) is not None:
                yield None, []  # a row the screen could not pose
                continue
            extra = [(name, _value_text(source[name].iloc[i])) for name in names]
            yield mol, [(name, text) for name, text in extra if text is not None]
        return
    if columns:
        raise ValueError("columns are for DataFrames")
    for mol in source:
        yield mol, []


def write_sd(path: PathArgument, mols: Any, *, mol_column: str = "mol",
             columns: Optional[Sequence[str]] = None) -> int:
    """Writes RDKit molecules to an SD file: every conformer of every molecule as a record, with
    the molecule's properties as data items (a conformer's own properties, the data items of the
    record it was read from, take the place of the molecule's of the same name; the
    ``hermite_record`` index is not written).

    The file appears complete or not at all: the records go to a temporary file in the same
    directory, which is renamed onto `path` at the end (an existing file is replaced only
    then). A name ending in ".gz" is written gzip-compressed.

    Args:
        path: the file: str, bytes or os.PathLike.
        mols: an RDKit molecule, an iterable of them (None entries are skipped), or a pandas
            DataFrame such as :func:`hermite.rdkit.screen` returns, whose `mol_column` holds the
            molecules (rows with an ``error`` are skipped).
        mol_column: the DataFrame's molecule column.
        columns: DataFrame columns to write as data items too (e.g. ``["rank"]``), after the
            molecule's properties; missing values (None, NaN) are left out.

    Returns:
        the number of records written.

    Raises:
        OSError: the file cannot be written.
        TypeError: an entry that is not an RDKit molecule.
    """
    from rdkit import Chem

    target = _path_argument(path)
    compress = os.fsdecode(target).lower().endswith(".gz")
    raw, temporary = _atomic_file(target)
    written = skipped = 0
    try:
        with raw:
            stream: BinaryIO = (gzip.GzipFile(  # type: ignore[assignment]
                filename=os.path.basename(os.fsdecode(target))[:-3], fileobj=raw, mode="wb",
                mtime=0) if compress else raw)
            with io.TextIOWrapper(stream, encoding="utf-8", newline="\n") as text:
                for position, (mol, extra) in enumerate(_rows(mols, mol_column, columns)):
                    if mol is not None and not isinstance(mol, Chem.Mol):
                        raise TypeError(f"mols[{position}] must be an RDKit molecule, got "
                                        f"{type(mol).__name__}")
                    if mol is None or mol.GetNumConformers() == 0:
                        skipped += 1
                        continue
                    for conformer in mol.GetConformers():
                        text.write(_sd_record(mol, conformer, extra))
                        written += 1
        os.replace(temporary, target)
    except BaseException:
        if os.path.exists(temporary):
            os.remove(temporary)
        raise
    if skipped:
        warn(f"write_sd skipped {skipped} entries without a conformer or a pose (None, no "
             "conformers, or rows with an error)")
    return written

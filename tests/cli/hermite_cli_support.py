"""Helpers of the command-line tests: running the binary, the CDK2 data, reading outputs.

The binary comes from the environment variable HERMITE_CLI (set by CTest), the CDK2 ligand set
of Debian's rdkit-data from HERMITE_CDK2_SDF.
"""

import atexit
import csv
import math
import os
import shutil
import subprocess
import tempfile
from pathlib import Path

import pytest

HERMITE = os.environ.get("HERMITE_CLI", "")
CDK2 = Path(os.environ.get("HERMITE_CDK2_SDF",
                           "/usr/share/RDKit/Contrib/Fastcluster/testdata/cdk2.sdf"))


def time_limit(seconds):
    """`seconds` scaled for slow builds: HERMITE_TIME_SCALE (set by the sanitizer runs)
    multiplies every time limit of the tests."""
    return seconds * float(os.environ.get("HERMITE_TIME_SCALE", "1") or 1)


def require_inputs():
    """Fails the test (not skips it) when the binary or the data are missing."""
    if not HERMITE or not Path(HERMITE).is_file():
        pytest.fail(f"HERMITE_CLI does not name the built hermite binary: {HERMITE!r}")
    if not CDK2.is_file():
        pytest.fail(f"CDK2 ligands not found at {CDK2} (install rdkit-data)")


def run(*args, cwd=None, timeout=240):
    """Runs hermite with `args`; returns the CompletedProcess with text stdout and stderr."""
    require_inputs()
    return subprocess.run([HERMITE, *map(str, args)], cwd=cwd, capture_output=True, text=True,
                          timeout=timeout)


def cdk2_records():
    """The 47 SD records of the CDK2 set as text, each ending with its '$$$$' line."""
    text = CDK2.read_text()
    return [record + "$$$$\n" for record in text.split("$$$$\n") if record.strip()]


def query_file():
    """A file holding the first CDK2 ligand alone (every molecule of a query file is a query),
    in a temporary directory that lives as long as the test process and is removed at its exit."""
    directory = Path(tempfile.mkdtemp(prefix="hermite-query-"))
    atexit.register(shutil.rmtree, directory, ignore_errors=True)
    return write_sdf(directory / "query.sdf", cdk2_records()[:1])


def ranked(rows, column="shape_tanimoto"):
    """Score-table rows in rank order: highest score first, ties in input order."""
    return sorted(rows, key=lambda row: -float(row[column]))


def write_sdf(path, records):
    """Writes SD records (each ending with '$$$$\\n') to `path` and returns it."""
    Path(path).write_text("".join(records))
    return Path(path)


def read_sdf(path):
    """The records of an SD file as (title, {tag: value}) pairs, in file order."""
    records = []
    for block in Path(path).read_text().split("$$$$\n"):
        if not block.strip():
            continue
        lines = block.split("\n")
        tags = {}
        for i, line in enumerate(lines):
            if line.startswith("> <") and ">" in line[3:]:
                name = line[3:line.index(">", 3)]
                tags[name] = lines[i + 1] if i + 1 < len(lines) else ""
        records.append((lines[0], tags))
    return records


def read_tsv(path):
    """The rows of a TSV with a header line as dictionaries."""
    with open(path, newline="") as handle:
        return list(csv.DictReader(handle, delimiter="\t"))


def sd_coordinates(record_text):
    """The atom coordinates of a V2000 molfile record as a list of (x, y, z)."""
    lines = record_text.split("\n")
    count = int(lines[3][:3])
    return [tuple(float(lines[4 + i][10 * k:10 * k + 10]) for k in range(3))
            for i in range(count)]


def hermite_polynomials(order, x):
    """H_0(x) .. H_order(x), the physicists' Hermite polynomials, by their recurrence."""
    values = [1.0, 2.0 * x]
    for n in range(1, order):
        values.append(2.0 * x * values[n] - 2.0 * n * values[n - 1])
    return values[:order + 1]


def expansion_value(expansion, point):
    """The density of an expansion printed by `hermite expand` at a point of the molecule's
    coordinates: sum of c_lmn H_l(lx x) H_m(ly y) H_n(lz z) exp(-(lx^2 x^2 + ...) / 2) with
    (x, y, z) the point minus the expansion's centre."""
    order = expansion["order"]
    scaled = [lam * (p - c) for lam, p, c in zip(expansion["lambdas"], point,
                                                  expansion["centre"])]
    hx, hy, hz = (hermite_polynomials(order, u) for u in scaled)
    total = sum(value * hx[l] * hy[m] * hz[n] for l, m, n, value in expansion["coefficients"])
    return total * math.exp(-0.5 * sum(u * u for u in scaled))


def retitled(record, title):
    """An SD record with another title."""
    return title + "\n" + record.split("\n", 1)[1]


def scaled(record, factor):
    """The SD record with every atom moved away from (factor > 1) or towards (factor < 1) its
    first atom: the same compound in another shape, as another conformer of it."""
    lines = record.split("\n")
    count = int(lines[3][:3])
    origin = [float(lines[4][10 * i:10 * i + 10]) for i in range(3)]
    for k in range(4, 4 + count):
        xyz = [float(lines[k][10 * i:10 * i + 10]) for i in range(3)]
        moved = [origin[i] + factor * (xyz[i] - origin[i]) for i in range(3)]
        lines[k] = "".join(f"{v:10.4f}" for v in moved) + lines[k][30:]
    return "\n".join(lines)


def sd_record_texts(path):
    """The records of an SD file as text, each ending with its '$$$$' line."""
    return [record + "$$$$\n" for record in Path(path).read_text().split("$$$$\n")
            if record.strip()]


def sd_elements(record_text):
    """The element symbols of the atoms of a V2000 molfile record, in atom order."""
    lines = record_text.split("\n")
    count = int(lines[3][:3])
    return [lines[4 + i][31:34].strip() for i in range(count)]


def write_smiles(path, entries):
    """Writes (smiles, title) pairs as a SMILES file, one per line, and returns its path."""
    Path(path).write_text("".join(f"{smiles} {title}\n" for smiles, title in entries))
    return Path(path)

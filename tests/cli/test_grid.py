"""`hermite grid`: each map format read back by an independent reader (gemmi's Python module
for CCP4/MRC, a small cube parser here) and compared with the density evaluated in Python from
the expansion that `hermite expand --centre` prints."""

import json
import math
import random
import re
import subprocess

import pytest

from hermite_cli_support import CDK2, cdk2_records, expansion_value, run, sd_coordinates

BOHR_PER_ANGSTROM = 1.8897261246257702
SPACING = 0.5


def expansion(tmp_path, *extra):
    """The centred expansion of the first CDK2 ligand, as the grid renders it."""
    result = run("expand", CDK2, "--centre", *extra, "--out", "expansion.json", cwd=tmp_path)
    assert result.returncode == 0, result.stderr
    return json.loads((tmp_path / "expansion.json").read_text())


def read_ccp4(path):
    """Header facts and values of a map read by gemmi in a separate Debian Python process:
    {points, cell, start, mode, axes, spacegroup, spacing, values}, values[(i, j, k)] for the
    file's own indices (first point = start)."""
    script = f"""
import json, gemmi
m = gemmi.read_ccp4_map({str(path)!r})
header = dict(points=[m.header_i32(w) for w in (1, 2, 3)],
              start=[m.header_i32(w) for w in (5, 6, 7)], mode=m.header_i32(4),
              axes=[m.header_i32(w) for w in (17, 18, 19)],
              cell=[m.grid.unit_cell.a, m.grid.unit_cell.b, m.grid.unit_cell.c,
                    m.grid.unit_cell.alpha, m.grid.unit_cell.beta, m.grid.unit_cell.gamma],
              spacegroup=m.grid.spacegroup.hm)
# Expanded to the whole cell: the point of file index i on an axis lands at (start + i) mod n.
m.setup(float('nan'))
header['spacing'] = list(m.grid.spacing)
n = m.grid.nu
header['values'] = [m.grid.get_value(u, v, w) for w in range(n) for v in range(n)
                    for u in range(n)]
print(json.dumps(header))
"""
    output = subprocess.run(["/usr/bin/python3", "-c", script], capture_output=True, text=True,
                            check=True)
    facts = json.loads(output.stdout)
    n = facts["points"][0]
    values = facts.pop("values")
    start = facts["start"]
    facts["values"] = lambda i, j, k: values[(start[0] + i) % n + n * (
        (start[1] + j) % n + n * ((start[2] + k) % n))]
    return facts


def read_cube(path):
    """A cube file parsed here: comments, atoms (Z, charge, x, y, z in Bohr), origin and axes
    (Bohr) and values[(i, j, k)] with z fastest in the file."""
    lines = path.read_text().split("\n")
    natoms, *origin = lines[2].split()
    natoms = int(natoms)
    axes = []
    for line in lines[3:6]:
        count, *vector = line.split()
        axes.append((int(count), [float(v) for v in vector]))
    atoms = [tuple(float(v) for v in line.split()) for line in lines[6:6 + natoms]]
    numbers = [float(v) for line in lines[6 + natoms:] for v in line.split()]
    n = [count for count, _ in axes]
    assert len(numbers) == n[0] * n[1] * n[2]
    # A new line after each run along z.
    run_lines = [line for line in lines[6 + natoms:] if line]
    assert len(run_lines) == n[0] * n[1] * ((n[2] + 5) // 6)
    return {
        "comments": lines[:2], "origin": [float(v) for v in origin], "axes": axes,
        "atoms": atoms,
        "values": lambda i, j, k: numbers[(i * n[1] + j) * n[2] + k],
    }


def sample_indices(n, count=40, seed=5):
    """Corners, the centre and random points of an n^3 grid."""
    rng = random.Random(seed)
    points = [(0, 0, 0), (n - 1, n - 1, n - 1), (n // 2, n // 2, n // 2), (0, n - 1, n // 3)]
    points += [tuple(rng.randrange(n) for _ in range(3)) for _ in range(count)]
    return points


def assert_values_match(value_at, world_of, expansion_data, n):
    """Map values at sampled points equal the density evaluated in Python (the map holds
    single-precision values)."""
    pairs = [(value_at(*index), expansion_value(expansion_data, world_of(index)))
             for index in sample_indices(n)]
    peak = max(abs(reference) for _, reference in pairs)
    assert peak > 0.01
    for got, reference in pairs:
        assert abs(got - reference) <= 1e-5 * peak + 1e-5 * abs(reference), (got, reference)


@pytest.mark.parametrize("extension", ["ccp4", "mrc", "map"])
def test_ccp4_map_read_back_by_gemmi(tmp_path, extension):
    data = expansion(tmp_path)
    result = run("grid", CDK2, "--spacing", SPACING, "--out", f"density.{extension}",
                 cwd=tmp_path)
    assert result.returncode == 0, result.stderr
    facts = read_ccp4(tmp_path / f"density.{extension}")
    n = facts["points"][0]
    assert facts["points"] == [n, n, n]
    assert 5 <= n <= 300
    assert facts["mode"] == 2
    assert facts["axes"] == [1, 2, 3]
    assert facts["spacegroup"] == "P 1"
    assert facts["cell"] == pytest.approx([n * SPACING] * 3 + [90.0] * 3)
    assert facts["spacing"] == pytest.approx([SPACING] * 3)
    # The grid is about the molecule: its centre within a spacing of the expansion's centre.
    for axis in range(3):
        middle = (facts["start"][axis] + (n - 1) / 2) * SPACING
        assert abs(middle - data["centre"][axis]) <= SPACING
    assert_values_match(facts["values"],
                        lambda index: [(s + i) * SPACING for s, i in zip(facts["start"], index)],
                        data, n)
    assert sorted(p.name for p in tmp_path.iterdir()) == ["density." + extension,
                                                          "expansion.json"]


@pytest.mark.parametrize("electrostatics", [False, True])
def test_cube_file_read_back(tmp_path, electrostatics):
    extra = ["--electrostatics"] if electrostatics else []
    data = expansion(tmp_path, *extra)
    assert data["density"] == ("electrostatic" if electrostatics else "shape")
    result = run("grid", CDK2, "--spacing", SPACING, "--out", "density.cube", *extra,
                 cwd=tmp_path)
    assert result.returncode == 0, result.stderr
    cube = read_cube(tmp_path / "density.cube")
    step = SPACING * BOHR_PER_ANGSTROM
    n = cube["axes"][0][0]
    assert [count for count, _ in cube["axes"]] == [n, n, n]
    for axis, (_, vector) in enumerate(cube["axes"]):
        assert vector == pytest.approx([step if a == axis else 0.0 for a in range(3)], abs=1e-6)
    # The first point lies on a multiple of the spacing.
    first = [value / BOHR_PER_ANGSTROM / SPACING for value in cube["origin"]]
    assert first == pytest.approx([round(v) for v in first], abs=1e-4)
    # The atoms: the heavy atoms of the record, in Bohr.
    record = cdk2_records()[0].split("\n")
    atom_lines = record[4:4 + int(record[3][:3])]
    heavy = [line for line in atom_lines if line[31:34].strip() != "H"]
    coordinates = sd_coordinates(cdk2_records()[0])
    assert len(cube["atoms"]) == data["atoms"] == len(heavy)
    for atom in cube["atoms"]:
        assert atom[0] in (6, 7, 8, 16, 9, 17) and atom[1] == atom[0]
        position = [v / BOHR_PER_ANGSTROM for v in atom[2:]]
        assert min(sum((a - b) ** 2 for a, b in zip(position, c)) for c in coordinates) < 1e-10
    origin = [round(v) * SPACING for v in first]
    assert_values_match(cube["values"],
                        lambda index: [o + i * SPACING for o, i in zip(origin, index)], data, n)
    kind = "electrostatic" if electrostatics else "shape"
    assert cube["comments"][1].startswith(f"{kind} density, Hermite order 5")


def test_formats_agree(tmp_path):
    assert run("grid", CDK2, "--spacing", "0.7", "--out", "a.ccp4", cwd=tmp_path).returncode == 0
    assert run("grid", CDK2, "--spacing", "0.7", "--out", "a.cube", cwd=tmp_path).returncode == 0
    facts = read_ccp4(tmp_path / "a.ccp4")
    cube = read_cube(tmp_path / "a.cube")
    n = facts["points"][0]
    assert cube["axes"][0][0] == n
    assert [v / BOHR_PER_ANGSTROM for v in cube["origin"]] == \
        pytest.approx([s * 0.7 for s in facts["start"]], abs=1e-5)
    for index in sample_indices(n, count=20):
        assert cube["values"](*index) == pytest.approx(facts["values"](*index), rel=1e-5,
                                                       abs=1e-9)


def test_a_spacing_too_fine_to_cover_the_molecule_is_refused(tmp_path):
    result = run("grid", CDK2, "--spacing", "0.001", "--order", "0", "--out", "fine.ccp4",
                 cwd=tmp_path)
    assert result.returncode == 2, result.stderr
    assert "--spacing 0.001 is too fine for this molecule" in result.stderr
    suggested = float(re.search(r"use --spacing ([0-9.]+) or more", result.stderr).group(1))
    assert list(tmp_path.iterdir()) == []
    # The suggested spacing fits: the map covers the molecule with 3 angstrom to spare.
    fits = run("grid", CDK2, "--spacing", str(suggested), "--order", "0", "--out", "fit.ccp4",
               cwd=tmp_path)
    assert fits.returncode == 0, fits.stderr
    assert "warning" not in fits.stderr
    (tmp_path / "fit.ccp4").unlink()


def test_the_map_covers_the_molecule_with_a_margin_of_3_angstrom(tmp_path):
    result = run("grid", CDK2, "--spacing", "0.5", "--order", "2", "--out", "map.ccp4",
                 cwd=tmp_path)
    assert result.returncode == 0, result.stderr
    facts = read_ccp4(tmp_path / "map.ccp4")
    record = cdk2_records()[0]
    lines = record.split("\n")
    heavy = [p for i, p in enumerate(sd_coordinates(record)) if lines[4 + i][31:34].strip() != "H"]
    for k in range(3):
        low = facts["start"][k] * 0.5
        high = (facts["start"][k] + facts["points"][k] - 1) * 0.5
        # 3 angstrom beyond the outermost atom centre, less at most one spacing of rounding.
        assert min(p[k] for p in heavy) - low >= 3.0 - 0.5, k
        assert high - max(p[k] for p in heavy) >= 3.0 - 0.5, k


def test_a_molecule_whose_atoms_are_not_one_cloud_is_refused(tmp_path):
    lines = cdk2_records()[0].split("\n")
    line = lines[5]
    lines[5] = f"{float(line[:10]) + 100.0:10.4f}" + line[10:]
    (tmp_path / "stray.sdf").write_text("\n".join(lines))
    result = run("grid", "stray.sdf", "--spacing", "0.5", "--out", "map.ccp4", cwd=tmp_path)
    assert result.returncode == 3, result.stderr
    assert "stray.sdf, record 1" in result.stderr
    assert "its atoms are not one cloud" in result.stderr
    assert not (tmp_path / "map.ccp4").exists()


def test_unwritable_output(tmp_path):
    result = run("grid", CDK2, "--spacing", SPACING, "--out", "nodir/density.ccp4",
                 cwd=tmp_path)
    assert result.returncode == 3
    assert "nodir/density.ccp4" in result.stderr
    assert list(tmp_path.iterdir()) == []


def test_unreadable_molecule(tmp_path):
    result = run("grid", "missing.sdf", "--spacing", SPACING, "--out", "density.ccp4",
                 cwd=tmp_path)
    assert result.returncode == 3
    assert "missing.sdf: cannot open file" in result.stderr
    assert list(tmp_path.iterdir()) == []


def test_molecule_far_from_the_origin(tmp_path):
    # The first ligand moved by a translation that is no multiple of the spacing.
    shift = (31.37, -17.11, 8.6)
    lines = cdk2_records()[0].split("\n")
    count = int(lines[3][:3])
    for i in range(4, 4 + count):
        line = lines[i]
        moved = "".join("%10.4f" % (float(line[10 * k:10 * k + 10]) + shift[k]) for k in range(3))
        lines[i] = moved + line[30:]
    (tmp_path / "moved.sdf").write_text("\n".join(lines))
    result = run("expand", "moved.sdf", "--centre", "--out", "expansion.json", cwd=tmp_path)
    assert result.returncode == 0, result.stderr
    data = json.loads((tmp_path / "expansion.json").read_text())
    result = run("grid", "moved.sdf", "--spacing", "0.4", "--out", "moved.mrc", cwd=tmp_path)
    assert result.returncode == 0, result.stderr
    facts = read_ccp4(tmp_path / "moved.mrc")
    n = facts["points"][0]
    for axis in range(3):
        middle = (facts["start"][axis] + (n - 1) / 2) * 0.4
        assert abs(middle - data["centre"][axis]) <= 0.4
    assert_values_match(facts["values"],
                        lambda index: [(s + i) * 0.4 for s, i in zip(facts["start"], index)],
                        data, n)


def test_exact_density_is_the_sum_of_the_gaussians_at_every_point(tmp_path):
    # Three carbons (shape Gaussians 2.7 exp(-0.811151803 r^2)) at known places.
    positions = [(0.25, -0.5, 1.0), (1.7, 0.1, 0.6), (2.4, 1.3, -0.2)]
    atoms = "".join(f"{x:10.4f}{y:10.4f}{z:10.4f} C   0  0  0  0  0  0  0  0  0  0  0  0\n"
                    for x, y, z in positions)
    molfile = ("carbons\n  test        3D\n\n  3  2  0  0  0  0  0  0  0  0999 V2000\n" + atoms +
               "  1  2  1  0\n  2  3  1  0\nM  END\n$$$$\n")
    (tmp_path / "c3.sdf").write_text(molfile)
    result = run("grid", "c3.sdf", "--spacing", "0.5", "--exact", "--out", "exact.ccp4",
                 cwd=tmp_path)
    assert result.returncode == 0, result.stderr
    assert "exact sum of Gaussians" in result.stderr
    facts = read_ccp4(tmp_path / "exact.ccp4")
    n = facts["points"][0]
    start = facts["start"]
    worst = 0.0
    for i in range(0, n, 3):
        for j in range(0, n, 3):
            for k in range(0, n, 3):
                point = [(start[0] + i) * 0.5, (start[1] + j) * 0.5, (start[2] + k) * 0.5]
                expected = sum(2.7 * math.exp(-0.811151803 * sum((point[a] - p[a]) ** 2
                                                                  for a in range(3)))
                               for p in positions)
                worst = max(worst, abs(facts["values"](i, j, k) - expected))
    assert worst <= 1e-5
    values = [facts["values"](i, j, k) for i in range(n) for j in range(n) for k in range(n)]
    assert min(values) >= 0.0  # no truncation ripples
    hermite_map = run("grid", "c3.sdf", "--spacing", "0.5", "--out", "hermite.ccp4",
                      cwd=tmp_path)
    assert hermite_map.returncode == 0
    assert read_ccp4(tmp_path / "hermite.ccp4")["start"] == start

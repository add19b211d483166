"""`hermite expand`: the JSON parses, and its numbers agree with independent recomputation."""

import json
import math
import re

import pytest

from hermite_cli_support import CDK2, cdk2_records, run

KEYS = ["title", "file", "record", "density", "atoms", "order", "lambdas", "optimal_lambda",
        "self_overlap", "exact_self_overlap", "centre", "coefficient_order", "coefficients"]

# The shape Gaussian of every atom, as the library narrows it to single precision.
SHAPE_HEIGHT = 2.7
SHAPE_EXPONENT = 0.811151803


def expand(*args, cwd=None):
    result = run("expand", CDK2, *args, cwd=cwd)
    assert result.returncode == 0, result.stderr
    return json.loads(result.stdout), result


def k_values(order):
    """K_i = 2^i i! sqrt(pi)."""
    return [2.0 ** i * math.factorial(i) * math.sqrt(math.pi) for i in range(order + 1)]


def heavy_atom_positions():
    lines = cdk2_records()[0].split("\n")
    atoms = lines[4:4 + int(lines[3][:3])]
    return [tuple(float(line[10 * k:10 * k + 10]) for k in range(3)) for line in atoms
            if line[31:34].strip() != "H"]


def test_json_fields_and_coefficient_order():
    data, result = expand("--order", "4", "--no-centre")
    assert list(data) == KEYS
    assert data["title"] == "ZINC03814457"
    assert data["record"] == 1 and data["density"] == "shape"
    assert data["atoms"] == len(heavy_atom_positions())
    assert data["order"] == 4
    assert data["optimal_lambda"] is True
    assert data["centre"] == [0, 0, 0]
    assert data["coefficient_order"] == "lmn: by total degree, then l, then m"
    triples = [tuple(c[:3]) for c in data["coefficients"]]
    assert len(triples) == 5 * 6 * 7 // 6
    assert triples == sorted(triples, key=lambda t: (sum(t), t[0], t[1]))
    assert len(set(triples)) == len(triples)
    assert "note: " in result.stderr  # the file holds 47 molecules; the first is used


def test_numbers_are_printed_round_trip_exact():
    _, result = expand("--order", "3")
    numbers = re.findall(r"-?\d+\.\d+(?:e[-+]\d+)?", result.stdout)
    assert len(numbers) > 20
    for text in numbers:
        assert "%.17g" % float(text) == text


@pytest.mark.parametrize("order", [0, 3, 8])
def test_self_overlap_equals_the_coefficient_sum(order):
    data, _ = expand("--order", str(order))
    k = k_values(order)
    lx, ly, lz = data["lambdas"]
    total = sum(c * c * k[l] * k[m] * k[n] for l, m, n, c in data["coefficients"])
    assert data["self_overlap"] == pytest.approx(total / (lx * ly * lz), rel=1e-12)


def test_exact_self_overlap_is_the_analytic_integral():
    data, _ = expand("--order", "2")
    positions = heavy_atom_positions()
    a = SHAPE_EXPONENT
    total = 0.0
    for p in positions:
        for q in positions:
            d2 = sum((x - y) ** 2 for x, y in zip(p, q))
            total += SHAPE_HEIGHT ** 2 * (math.pi / (2 * a)) ** 1.5 * math.exp(-a / 2 * d2)
    assert data["exact_self_overlap"] == pytest.approx(total, rel=1e-5)


def test_truncated_self_overlap_approaches_the_exact_one_from_below():
    low, _ = expand("--order", "2", "--centre")
    high, _ = expand("--order", "10", "--centre")
    assert low["self_overlap"] < high["self_overlap"] <= high["exact_self_overlap"] * (1 + 1e-9)
    assert high["exact_self_overlap"] == pytest.approx(low["exact_self_overlap"], rel=1e-12)


def test_fixed_lambda_and_optimum():
    optimal, _ = expand("--centre")
    best = optimal["lambdas"][0]
    assert optimal["lambdas"] == [best, best, best]
    for factor in (0.9, 1.1):
        fixed, _ = expand("--centre", "--lambda", repr(best * factor))
        assert fixed["optimal_lambda"] is False
        assert fixed["lambdas"] == pytest.approx([best * factor] * 3, rel=1e-15)
        assert fixed["self_overlap"] < optimal["self_overlap"]


def test_centre_is_the_mean_atom_position():
    data, _ = expand()
    positions = heavy_atom_positions()
    mean = [sum(p[axis] for p in positions) / len(positions) for axis in range(3)]
    assert data["centre"] == pytest.approx(mean, abs=1e-5)


def test_electrostatic_density_uses_the_shape_lambda():
    shape, _ = expand("--centre")
    electrostatic, _ = expand("--centre", "--electrostatics")
    assert electrostatic["density"] == "electrostatic"
    assert electrostatic["lambdas"] == shape["lambdas"]
    assert electrostatic["coefficients"] != shape["coefficients"]
    assert 0 < electrostatic["self_overlap"] <= electrostatic["exact_self_overlap"] * (1 + 1e-9)


def test_hydrogens_add_atoms():
    heavy, _ = expand("--order", "1")
    with_h, _ = expand("--order", "1", "--hydrogens")
    lines = cdk2_records()[0].split("\n")
    assert with_h["atoms"] == int(lines[3][:3]) > heavy["atoms"]


def test_output_file_is_written_atomically(tmp_path):
    result = run("expand", CDK2, "--out", "expansion.json", cwd=tmp_path)
    assert result.returncode == 0
    assert result.stdout == ""
    assert list(json.loads((tmp_path / "expansion.json").read_text())) == KEYS
    result = run("expand", CDK2, "--out", "nodir/expansion.json", cwd=tmp_path)
    assert result.returncode == 3
    assert "nodir/expansion.json" in result.stderr
    assert [p.name for p in tmp_path.iterdir()] == ["expansion.json"]


def test_smiles_input(tmp_path):
    (tmp_path / "mol.smi").write_text("c1ccccc1C(=O)O benzoic acid\n")
    result = run("expand", "mol.smi", "--order", "2", cwd=tmp_path)
    assert result.returncode == 0, result.stderr
    data = json.loads(result.stdout)
    assert data["title"] == "benzoic acid"
    assert data["atoms"] == 9


def moved_query(tmp_path, shift):
    """The first CDK2 ligand moved by `shift` angstrom along x, as an SD file."""
    record = cdk2_records()[0].split("\n")
    counts = int(record[3][:3])
    for i in range(4, 4 + counts):
        line = record[i]
        record[i] = f"{float(line[:10]) + shift:10.4f}" + line[10:]
    path = tmp_path / f"moved-{shift}.sdf"
    path.write_text("\n".join(record))
    return path


def test_a_molecule_far_from_the_origin_is_centred_by_default(tmp_path):
    near, _ = expand()
    far_path = moved_query(tmp_path, 250.0)
    result = run("expand", far_path)
    assert result.returncode == 0, result.stderr
    far = json.loads(result.stdout)
    assert far["centre"][0] == pytest.approx(near["centre"][0] + 250.0, abs=1e-3)
    assert far["lambdas"] == pytest.approx(near["lambdas"], rel=1e-4)
    assert far["self_overlap"] == pytest.approx(near["self_overlap"], rel=1e-4)
    assert "warning" not in result.stderr


def test_an_uncentred_expansion_that_loses_the_density_is_reported(tmp_path):
    result = run("expand", moved_query(tmp_path, 250.0), "--no-centre")
    assert result.returncode == 0, result.stderr
    data = json.loads(result.stdout)
    assert data["centre"] == [0, 0, 0]
    assert data["self_overlap"] < 0.5 * data["exact_self_overlap"]
    assert "warning: the expansion holds only" in result.stderr
    assert "from the origin" in result.stderr
    both = run("expand", CDK2, "--centre", "--no-centre")
    assert both.returncode == 2

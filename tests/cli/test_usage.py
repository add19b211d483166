"""Help, version and mistakes on the command line (exit status 2)."""

import re

import pytest

from hermite_cli_support import CDK2, query_file, run, write_smiles

COMMANDS = ["overlay", "grid", "expand"]

# Every option each subcommand must document in its --help.
OPTIONS = {
    "overlay": ["--query", "--db", "--out", "--scores", "--best", "--cutoff", "--rank-by",
                "--threads", "--order", "--hydrogens", "--electrostatics", "--charges",
                "--score-only", "--seed", "--starts", "--conformers", "--quiet", "--help",
                "--effort", "--scan", "--searches", "--refine", "--skip-by-bound", "--lambda",
                "--large-lambda"],
    "grid": ["--spacing", "--out", "--electrostatics", "--order", "--charges", "--hydrogens",
             "--help"],
    "expand": ["--order", "--hydrogens", "--electrostatics", "--lambda", "--centre", "--out",
               "--charges", "--help"],
}


def test_version():
    result = run("--version")
    assert result.returncode == 0
    assert result.stdout == "hermite 0.1.0\n"


@pytest.mark.parametrize("flag", ["--help", "-h"])
def test_main_help_lists_every_command(flag):
    result = run(flag)
    assert result.returncode == 0
    assert result.stdout.startswith("Usage: hermite <command>")
    for command in COMMANDS:
        assert re.search(rf"^  {command} +\S", result.stdout, re.M), command
    assert "--version" in result.stdout


def test_no_arguments_prints_usage_and_fails():
    result = run()
    assert result.returncode == 2
    assert "Usage: hermite" in result.stderr


@pytest.mark.parametrize("command", COMMANDS)
def test_command_help_documents_every_option(command):
    result = run(command, "--help")
    assert result.returncode == 0
    assert result.stdout.startswith(f"Usage: hermite {command} ")
    for option in OPTIONS[command]:
        assert re.search(rf"^  (-h, )?{option}\b", result.stdout, re.M), option
    assert "Exit status" in result.stdout


@pytest.mark.parametrize("command", COMMANDS)
def test_help_command_equals_help_option(command):
    assert run("help", command).stdout == run(command, "--help").stdout


def test_unknown_command():
    result = run("frobnicate")
    assert result.returncode == 2
    assert result.stderr == "hermite: unknown command frobnicate (see hermite --help)\n"


def test_unknown_option():
    result = run("overlay", "--query", CDK2, "--db", CDK2, "--foo")
    assert result.returncode == 2
    assert result.stderr == "hermite overlay: unknown option --foo (see hermite overlay --help)\n"
    assert result.stdout == ""


def test_order_above_range():
    result = run("overlay", "--query", CDK2, "--db", CDK2, "--order", "101")
    assert result.returncode == 2
    assert result.stderr == "hermite overlay: --order must be an integer from 0 to 100, got 101\n"


def test_effort_must_be_a_preset():
    result = run("overlay", "--query", CDK2, "--db", CDK2, "--effort", "maximal")
    assert result.returncode == 2
    assert result.stderr == (
        "hermite overlay: --effort must be fast, default or thorough, got maximal\n")


def test_effort_and_explicit_search_options_change_the_poses(tmp_path):
    scores = {}
    for name, options in {"fast": ["--effort", "fast"], "thorough": ["--effort", "thorough"],
                          "explicit": ["--effort", "thorough", "--refine", "1", "--searches", "2",
                                       "--scan", "100"]}.items():
        result = run("overlay", "--query", query_file(), "--db", CDK2, "--scores",
                     tmp_path / f"{name}.tsv", "--quiet", *options)
        assert result.returncode == 0, result.stderr
        scores[name] = (tmp_path / f"{name}.tsv").read_text()
    # The explicit options override the preset: thorough with fast's search is fast.
    assert scores["explicit"] == scores["fast"]
    assert scores["thorough"] != scores["fast"]


# Two natural products of 62 and 51 heavy atoms: a pair of large molecules, searched with the
# large lambda and its own scan, local searches and refined poses.
PACLITAXEL = ("CC1=C2[C@@]([C@]([C@H]([C@@H]3[C@]4([C@H](OC4)C[C@@H]([C@]3(C(=O)[C@@H]2OC(=O)C)C)O)"
              "OC(=O)C)OC(=O)c5ccccc5)(C[C@@H]1OC(=O)[C@H](O)[C@@H](NC(=O)c6ccccc6)c7ccccc7)O)"
              "(C)C")
ERYTHROMYCIN = ("CC[C@@H]1[C@@]([C@@H]([C@H](C(=O)[C@@H](C[C@@]([C@@H]([C@H]([C@@H]([C@H]"
                "(C(=O)O1)C)O[C@H]2C[C@@]([C@H]([C@@H](O2)C)O)(C)OC)C)O[C@H]3[C@@H]([C@H]"
                "(C[C@H](O3)C)N(C)C)O)(C)O)C)C)O)(C)O")


def test_explicit_search_options_set_the_large_pairs_search_too(tmp_path):
    query = write_smiles(tmp_path / "query.smi", [(PACLITAXEL, "paclitaxel")])
    database = write_smiles(tmp_path / "db.smi", [(ERYTHROMYCIN, "erythromycin")])
    scores = {}
    for name, options in {"default": [],
                          "the large pairs' defaults": ["--scan", "30", "--searches", "4",
                                                        "--refine", "3"],
                          "the drug-sized defaults": ["--scan", "200", "--searches", "5",
                                                      "--refine", "2"]}.items():
        result = run("overlay", "--query", query, "--db", database, "--conformers", "2",
                     "--scores", tmp_path / "scores.tsv", "--quiet", *options)
        assert result.returncode == 0, result.stderr
        scores[name] = (tmp_path / "scores.tsv").read_text()
    assert scores["the large pairs' defaults"] == scores["default"]
    assert scores["the drug-sized defaults"] != scores["default"]


@pytest.mark.parametrize("args, message", [
    (["overlay", "--db", "x.sdf"], "missing required option --query"),
    (["overlay", "--query", "x.sdf"], "missing required option --db"),
    (["overlay", "--query", "x.sdf", "--db"], "--db needs a value"),
    (["overlay", "--query", "x.sdf", "--db", "y.sdf", "--threads", "two"],
     "--threads must be an integer"),
    (["overlay", "--query", "x.sdf", "--db", "y.sdf", "--order", "-1"],
     "--order must be an integer from 0 to 100, got -1"),
    (["overlay", "--query", "x.sdf", "--db", "y.sdf", "--lambda", "0"],
     "--lambda must be a number from 0.01 to 10, got 0"),
    (["overlay", "--query", "x.sdf", "--db", "y.sdf", "--lambda", "nan"],
     "--lambda must be a number"),
    (["overlay", "--query", "x.sdf", "--db", "y.sdf", "--large-lambda", "-0.3"],
     "--large-lambda must be a number from 0 to 10, got -0.3"),
    (["overlay", "--query", "x.sdf", "--db", "y.sdf", "--best", "0"],
     "--best must be an integer from 1"),
    (["overlay", "--query", "x.sdf", "--db", "y.sdf", "--cutoff", "high"],
     "--cutoff must be a number"),
    (["overlay", "--query", "x.sdf", "--db", "y.sdf", "--rank-by", "volume"],
     "--rank-by must be shape, combo, es-combo, tversky-query or tversky-fit, got volume"),
    (["overlay", "--query", "x.sdf", "--db", "y.sdf", "--charges", "eem"],
     "--charges must be gasteiger, mmff or input, got eem"),
    (["overlay", "--query", "x.sdf", "--db", "y.sdf", "--skip-by-bound", "--scores", "s.tsv"],
     "--skip-by-bound leaves the molecules it skips without scores: it cannot be used with "
     "--scores or --report"),
    (["overlay", "--query", "x.sdf", "--db", "y.sdf", "--skip-by-bound", "--report", "r"],
     "it cannot be used with --scores or --report"),
    (["overlay", "--query", "x.sdf", "--db", "y.sdf", "--skip-by-bound", "--score-only"],
     "--skip-by-bound skips overlays: --score-only makes none"),
    (["grid", "m.sdf", "--out", "m.ccp4"], "missing required option --spacing"),
    (["grid", "m.sdf", "--spacing", "0", "--out", "m.ccp4"], "--spacing must be a number"),
    (["grid", "m.sdf", "--spacing", "-0.5", "--out", "m.ccp4"], "--spacing must be a number"),
    (["grid", "m.sdf", "--spacing", "abc", "--out", "m.ccp4"], "--spacing must be a number"),
    (["grid", "m.sdf", "--spacing", "nan", "--out", "m.ccp4"], "--spacing must be a number"),
    (["grid", "m.sdf", "--spacing", "0.5", "--out", "m.pdf"],
     "--out must end in .ccp4, .map, .mrc or .cube, got m.pdf"),
    (["grid", "--spacing", "0.5", "--out", "m.ccp4"], "missing argument MOL"),
    (["expand"], "missing argument MOL"),
    (["expand", "a.sdf", "b.sdf"], "unexpected argument 'b.sdf'"),
    (["expand", "a.sdf", "--lambda", "0"], "--lambda must be a number"),
    (["expand", "a.sdf", "--centre=yes"], "--centre takes no value"),
])
def test_usage_errors(args, message):
    result = run(*args)
    assert result.returncode == 2, result.stderr
    assert result.stderr.startswith(f"hermite {args[0]}: ")
    assert message in result.stderr
    assert result.stdout == ""


def test_option_with_equals_sign():
    result = run("overlay", f"--query={CDK2}", "--db", CDK2, "--order=101")
    assert result.returncode == 2
    assert "--order must be an integer from 0 to 100, got 101" in result.stderr

#!/usr/bin/env bash
# `pip install .` into a fresh virtual environment, next to PyPI's current rdkit, numpy, pandas
# and matplotlib, then the Python tests against the installed package (run from outside the
# source tree, so that nothing of the build tree is imported). The package's extension must
# share its process with PyPI's RDKit; the `hermite` console script must start the tool.
#
# Usage: scripts/pip-check.sh [VENV]   (default: build-venv; recreated every time)
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
venv=${1:-build-venv}
interpreter=${HERMITE_VENV_PYTHON:-python3}

rm -rf "$venv"
"$interpreter" -m venv "$venv"
venv=$(cd "$venv" && pwd)
"$venv/bin/python" -m pip install -q --upgrade pip
CMAKE_BUILD_PARALLEL_LEVEL=${CMAKE_BUILD_PARALLEL_LEVEL:-$(nproc)} \
    "$venv/bin/python" -m pip install -q "$root[test]"

"$venv/bin/hermite" --version
package=$("$venv/bin/python" -c 'import hermite, os; print(os.path.dirname(hermite.__file__))')
workdir=$(mktemp -d)
trap 'rm -rf "$workdir"' EXIT
cd "$workdir"
# The tests run the tool itself, not its launcher: name the interpreter its reports use.
HERMITE_CLI="$package/bin/hermite" HERMITE_PYTHON="$venv/bin/python" PYTHONDONTWRITEBYTECODE=1 \
    "$venv/bin/python" -m pytest -q -p no:cacheprovider "$root/python/tests"

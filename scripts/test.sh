#!/usr/bin/env bash
# The whole test suite: installs the dependencies, checks the formatting, runs the unit tests
# under AddressSanitizer and UndefinedBehaviorSanitizer, fuzzes the file readers for a bounded
# number of inputs, then builds Release and runs every test (unit tests and the CMake packaging
# tests), and last installs the Python package with pip into a fresh virtual environment beside
# PyPI's RDKit and runs the Python tests there.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
bash scripts/check-format.sh
bash scripts/sanitize.sh
bash scripts/fuzz.sh

cmake -S . -B build -DCMAKE_BUILD_TYPE=Release
cmake --build build -j"$(nproc)"
ctest --test-dir build --output-on-failure -j"$(nproc)"
bash scripts/pip-check.sh

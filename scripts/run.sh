#!/usr/bin/env bash
# The main job: installs the dependencies, builds hermite (Release) and runs the example that
# expands a small molecule and compares its self-overlap with the exact one for N = 2..12.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release
cmake --build build -j"$(nproc)"
./build/examples/self_overlap_convergence

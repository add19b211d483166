#!/usr/bin/env bash
# The main job: installs the dependencies, builds hermite (Release) and overlays the 47 CDK2
# ligands of Debian's rdkit-data onto the first one by shape: prints the ranked table and writes
# hits.sdf (the posed hits with their scores as SD tags) and scores.tsv (one row per ligand).
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release
cmake --build build -j"$(nproc)"

cdk2=/usr/share/RDKit/Contrib/Fastcluster/testdata/cdk2.sdf
# Every molecule of a query file is a query: the first ligand goes to a file of its own.
query=$(mktemp --suffix=.sdf)
trap 'rm -f "$query"' EXIT
awk '{ print } /^\$\$\$\$/ { exit }' "$cdk2" >"$query"
./build/cli/hermite overlay --query "$query" --db "$cdk2" --out hits.sdf --scores scores.tsv

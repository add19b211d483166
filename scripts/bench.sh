#!/usr/bin/env bash
# Builds the benchmarks in Release (build-bench) and prints the timing table of hermite_bench.
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."

# Only the library and the benchmarks are needed here.
cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DHERMITE_BUILD_BENCHMARKS=ON \
    -DHERMITE_BUILD_TESTS=OFF -DHERMITE_BUILD_EXAMPLES=OFF
cmake --build build-bench --target hermite_bench -j2

# Extra arguments go to the benchmark, e.g. --benchmark_filter='N:12/'.
./build-bench/bench/hermite_bench --benchmark_min_time=0.2 "$@"

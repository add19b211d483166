#!/usr/bin/env bash
# Builds and tests a Debug tree (build-asan) under the address and undefined-behaviour sanitizers.
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."

cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DHERMITE_SANITIZE=address,undefined \
    -DHERMITE_BUILD_BENCHMARKS=OFF
cmake --build build-asan -j2

# The packaging tests rebuild the library without sanitizers and add nothing here.
export ASAN_OPTIONS=detect_leaks=1
LSAN_OPTIONS=suppressions=$(pwd)/scripts/lsan.supp
export LSAN_OPTIONS
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
# Sanitized code runs several times slower: the tests' time limits (stopping within a second
# after a signal...) are scaled by this factor.
export HERMITE_TIME_SCALE=4
cd build-asan
ctest --output-on-failure -j2 -E 'find-package|add-subdirectory'

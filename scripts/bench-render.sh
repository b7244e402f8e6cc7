#!/bin/sh
# Builds the benchmarks in an optimised build (build-bench) and runs the
# rendering benchmark: the "show storage all-info" text, its JSON form and
# the /metrics exposition for a store of 64 nodes, side by side.  Arguments
# go to the benchmark: [nodes] [rounds].
set -eu
cd "$(dirname "$0")/.."
cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=RelWithDebInfo -DSTOVIG_BENCH=ON >/dev/null
cmake --build build-bench -j2 --target bench_show_render
exec nice ./build-bench/tests/bench/bench_show_render "$@"

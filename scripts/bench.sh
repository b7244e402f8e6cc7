#!/bin/sh
# Builds the benchmarks in an optimised build (build-bench) and runs the I/O
# tick benchmark: the tick with the daemon's log at the default routing and at
# "[log] level = debug", beside a bare taskstats sweep, at 2000 and 4000 extra
# processes.  Arguments go to the benchmark: [extra processes, comma-separated]
# [rounds].  Taskstats queries need CAP_NET_ADMIN, so it runs as root (through
# sudo when started by another user).
set -eu
cd "$(dirname "$0")/.."
cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=RelWithDebInfo -DSTOVIG_BENCH=ON >/dev/null
cmake --build build-bench -j"$(nproc)" --target bench_io_tick
SUDO=""
[ "$(id -u)" -eq 0 ] || SUDO=sudo
exec $SUDO nice ./build-bench/tests/bench/bench_io_tick "$@"

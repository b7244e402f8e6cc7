#!/bin/sh
# Builds with AddressSanitizer and UndefinedBehaviorSanitizer and runs every
# test; installs the dependencies first when something is missing.
set -eu
cd "$(dirname "$0")/.."
./scripts/have-deps.sh 2>/dev/null || ./scripts/deps.sh
# STOVIG_WERROR=ON in the environment (as CI sets it) makes warnings errors.
cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DSTOVIG_SANITIZE=ON ${STOVIG_WERROR:+-DSTOVIG_WERROR=$STOVIG_WERROR}
cmake --build build-asan -j"$(nproc)"
# The taskstats, mount-namespace and planted-file tests need root: a user
# runs the tests through sudo, as the quick start runs the daemon, and gets
# the test tree back as their own afterwards; Python leaves no root-owned
# bytecode in the user's source tree.
AS_ROOT=""
[ "$(id -u)" -eq 0 ] || ! command -v sudo >/dev/null 2>&1 || AS_ROOT="sudo env PYTHONDONTWRITEBYTECODE=1"
run_ctest() { # tree, ctest arguments...
  tree=$1
  shift
  status=0
  (cd "$tree" && $AS_ROOT ctest "$@") || status=$?
  [ -z "$AS_ROOT" ] || sudo chown -R "$(id -u):$(id -g)" "$tree"
  return $status
}
run_ctest build-asan --output-on-failure --timeout 900 "$@"
# Without ctest arguments, the libFuzzer harnesses too: a clang build of
# their own, each run for a few seconds on its seed corpus.
if [ $# -eq 0 ]; then
  CC=clang CXX=clang++ cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=Debug -DSTOVIG_FUZZ=ON \
    -DSTOVIG_TESTS=OFF -DSTOVIG_BENCH=OFF
  cmake --build build-fuzz -j"$(nproc)" --target stovig_fuzzers
  run_ctest build-fuzz --output-on-failure -L fuzz
fi

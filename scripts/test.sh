#!/bin/sh
# Builds with AddressSanitizer and UndefinedBehaviorSanitizer and runs every
# test; installs the dependencies first when something is missing.
set -eu
cd "$(dirname "$0")/.."
./scripts/have-deps.sh 2>/dev/null || ./scripts/deps.sh
cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DSTOVIG_SANITIZE=ON
cmake --build build-asan -j"$(nproc)"
cd build-asan
ctest --output-on-failure --timeout 900 "$@"

#!/bin/sh
# Builds with AddressSanitizer and UndefinedBehaviorSanitizer and runs every test.
set -eu
cd "$(dirname "$0")/.."
cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DSTOVIG_SANITIZE=ON
cmake --build build-asan -j"$(nproc)"
cd build-asan
ctest --output-on-failure --timeout 900 "$@"

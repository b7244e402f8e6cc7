#!/bin/sh
# Fresh machine to running daemon: install dependencies, build, and run
# qn-stovig in the foreground as a stand-alone box on the embedded bus.
set -eu
cd "$(dirname "$0")/.."
./scripts/deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DSTOVIG_TESTS=OFF
cmake --build build -j"$(nproc)"
echo "qn-stovig running; debug log: ${TMPDIR:-/tmp}/stovig/stovig.log (Ctrl-C stops it)"
exec ./build/src/qn-stovig

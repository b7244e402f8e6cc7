#!/bin/sh
# Fresh machine to running daemon: install what is missing, build, and run
# qn-stovig in the foreground as a stand-alone box on the embedded bus.  The
# daemon runs as root (taskstats queries need it), through sudo only when
# started by another user.
set -eu
cd "$(dirname "$0")/.."
./scripts/have-deps.sh 2>/dev/null || ./scripts/deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DSTOVIG_TESTS=OFF
cmake --build build -j"$(nproc)"
SUDO=""
[ "$(id -u)" -eq 0 ] || SUDO=sudo
run_dir="${TMPDIR:-/tmp}/stovig"
# The run directory belongs to root (mode 0700): the shell reaches the daemon
# as root, so a user who started this script through sudo needs sudo there too.
shell_env=""
[ -z "${TMPDIR:-}" ] || shell_env="env TMPDIR=$TMPDIR "
echo "qn-stovig running (Ctrl-C stops it); event lines: $run_dir/stovig-events.log," \
     "debug log: $run_dir/stovig.log"
echo "operator shell, from another terminal:" \
     "${SUDO:+sudo }${shell_env}./build/platform/tools/qn-stovig-cli/qn-stovig-cli -c \"show storage all-info\""
exec $SUDO env ${TMPDIR:+TMPDIR="$TMPDIR"} ./build/src/qn-stovig

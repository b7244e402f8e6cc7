#!/bin/sh
# Runs every libFuzzer harness of tests/fuzz for SECONDS each (default 60),
# one after the other, at low priority:  ./scripts/fuzz.sh [SECONDS]
# FUZZ_RUNS=N stops each after N executions instead of after SECONDS;
# FUZZ_HARNESSES="diskstats smart" picks harnesses.  Inputs that found new
# coverage are kept in build-fuzz/fuzz-work/NAME/corpus (and reused by the
# next run); a crash stops that harness, is copied to fuzz-crashes/NAME/ and
# makes the script exit non-zero.  Reproduce one with
#   build-fuzz/tests/fuzz/fuzz_NAME fuzz-crashes/NAME/crash-...
set -eu
cd "$(dirname "$0")/.."
seconds=${1:-60}
runs=${FUZZ_RUNS:-}
[ -n "$runs" ] && seconds=0
CC=clang CXX=clang++ cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=Debug -DSTOVIG_FUZZ=ON \
  -DSTOVIG_TESTS=OFF -DSTOVIG_BENCH=OFF >/dev/null
cmake --build build-fuzz -j"$(nproc)" --target stovig_fuzzers
status=0
for name in ${FUZZ_HARNESSES:-diskstats mounts ext_csd smart taskstats bus_records config_ini cli_parse}; do
  work=build-fuzz/fuzz-work/$name
  mkdir -p "$work"
  if nice -n 10 tests/fuzz/run_fuzzer.sh "build-fuzz/tests/fuzz/fuzz_$name" "$seconds" "tests/fuzz/corpus/$name" \
    "$work" $runs >"$work.log" 2>&1; then
    result=ok
  else
    result="CRASH (see $work.log)"
    status=1
  fi
  for crash in "$work"/crash-* "$work"/leak-* "$work"/timeout-* "$work"/oom-*; do
    [ -e "$crash" ] || continue
    mkdir -p "fuzz-crashes/$name"
    cp "$crash" "fuzz-crashes/$name/"
  done
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$work.log")
  rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$work.log")
  echo "$name: $result, ${execs:-?} executions (${rate:-?}/s)"
done
exit $status

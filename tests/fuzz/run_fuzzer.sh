#!/bin/sh
# Runs one libFuzzer harness: run_fuzzer.sh BINARY SECONDS SEEDS WORK [RUNS]
# New inputs go to WORK/corpus, crashes to WORK/crash-*; the seed corpus is
# only read.  With RUNS, it stops after that many executions instead of
# SECONDS (0: no time limit).  Exit status non-zero when a crash was found.
set -eu
bin=$1 seconds=$2 seeds=$3 work=$4 runs=${5:-}
mkdir -p "$work/corpus"
set -- -max_total_time="$seconds" -timeout=25 -rss_limit_mb=2048 -close_fd_mask=3 -print_final_stats=1 \
  -artifact_prefix="$work/" -detect_leaks=1
[ -n "$runs" ] && set -- "$@" -runs="$runs"
exec "$bin" "$@" "$work/corpus" "$seeds"

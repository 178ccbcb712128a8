#!/usr/bin/env bash
# The four figures of the row phase from whole runs, 2 threads:
#
#   bench/figures.sh [BUILD_DIR] [RUNS]      (defaults: build, 5)
#
# Each survey is written by make_survey into a scratch directory and run RUNS
# times; the best "sens" time of the log is taken (the machine's other load
# only ever adds). QUOLVENT_VECTOR passes through to the program.
set -euo pipefail
build=${1:-build}
runs=${2:-5}
exe=$(realpath "$build/quolvent")
make_survey=$(realpath "$build/make_survey")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

best_sens() {  # DIR: the best sens time of RUNS runs, in seconds
  local best=""
  for _ in $(seq "$runs"); do
    (cd "$1" && "$exe" run.inp 2 > /dev/null)
    local t
    t=$(sed -n -E 's/^ *sens cpu time: *([0-9]+):([0-9]+):([0-9]+\.[0-9]+)$/\1 \2 \3/p' "$1/quolvent.log" |
        awk '{ print $1 * 3600 + $2 * 60 + $3 }')
    best=$(awk -v a="$best" -v b="$t" 'BEGIN { print (a == "" || b < a) ? b : a }')
  done
  echo "$best"
}

figure() {  # NAME UNIT SIZE ARGS...: one survey, its figure
  local name=$1 unit=$2 size=$3
  shift 3
  mkdir -p "$work/$name"
  (cd "$work/$name" && "$make_survey" "$@")
  local t
  t=$(best_sens "$work/$name")
  awk -v n="$name" -v t="$t" -v s="$size" -v u="$unit" \
    'BEGIN { printf "%-18s %7.3f s  %9.3g %s\n", n, t, s / t, u }'
}

echo "quolvent row phase, best of $runs runs, 2 threads, $(nproc) processors"
figure uncompressed100k "cells*data/s" 1e8 50 50 40 40 25 NONE 0
figure uncompressed1M "cells*data/s" 1e8 100 100 100 10 10 NONE 0
figure compressed100k "cells*data/s" 1e8 50 50 40 40 25 daub2 0
figure grid50k "bytes/s stored" 5e8 100 100 5 50 50

#!/usr/bin/env bash
# The four figures of the row phase from whole runs, 2 threads:
#
#   bench/figures.sh [BUILD_DIR] [RUNS] [PROGRAM] [THREADS] [SET]
#                                  (defaults: build, 5, quolvent, 2, cpu)
#
# Each survey is written by make_survey into a scratch directory and run RUNS
# times; the best "sens" time of the log is taken (the machine's other load
# only ever adds), and the best TOTAL. QUOLVENT_VECTOR passes through to the
# program. SET gpu: the device's surveys (8,000 data), for quolvent-gpu and
# for the CPU program on the same machine:
#   bench/figures.sh build 3 quolvent-gpu 16 gpu
#   bench/figures.sh build 3 quolvent 16 gpu
set -euo pipefail
build=${1:-build}
runs=${2:-5}
program=${3:-quolvent}
threads=${4:-2}
set_name=${5:-cpu}
exe=$(realpath "$build/$program")
make_survey=$(realpath "$build/make_survey")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

best_times() {  # DIR: the best sens and TOTAL times of RUNS runs, in seconds
  local best="" total=""
  for _ in $(seq "$runs"); do
    (cd "$1" && "$exe" run.inp "$threads" > /dev/null)
    local t w
    t=$(phase_seconds "$1/quolvent.log" sens)
    w=$(phase_seconds "$1/quolvent.log" TOTAL)
    best=$(awk -v a="$best" -v b="$t" 'BEGIN { print (a == "" || b < a) ? b : a }')
    total=$(awk -v a="$total" -v b="$w" 'BEGIN { print (a == "" || b < a) ? b : a }')
  done
  echo "$best $total"
}

phase_seconds() {  # LOG PHASE: the phase's time in the log, in seconds
  sed -n -E "s/^ *$2 cpu time: *([0-9]+):([0-9]+):([0-9]+\.[0-9]+)\$/\1 \2 \3/p" "$1" |
    awk '{ print $1 * 3600 + $2 * 60 + $3 }'
}

figure() {  # NAME UNIT SIZE ARGS...: one survey, its figure
  local name=$1 unit=$2 size=$3
  shift 3
  mkdir -p "$work/$name"
  (cd "$work/$name" && "$make_survey" "$@")
  local t total
  read -r t total < <(best_times "$work/$name")
  awk -v n="$name" -v t="$t" -v s="$size" -v u="$unit" -v w="$total" \
    'BEGIN { printf "%-18s %7.3f s  %9.3g %s  (whole run %.2f s)\n", n, t, s / t, u, w }'
}

echo "$program row phase, best of $runs runs, $threads threads, $(nproc) processors"
if [ "$set_name" = gpu ]; then
  figure uncompressed8000 "cells*data/s" 8e8 50 50 40 100 80 NONE 0
  figure uncompressed1M "cells*data/s" 1e8 100 100 100 10 10 NONE 0
  figure compressed8000 "cells*data/s" 8e8 50 50 40 100 80 daub2 0
  figure grid50k "bytes/s stored" 5e8 100 100 5 50 50
  exit 0
fi
figure uncompressed100k "cells*data/s" 1e8 50 50 40 40 25 NONE 0
figure uncompressed1M "cells*data/s" 1e8 100 100 100 10 10 NONE 0
figure compressed100k "cells*data/s" 1e8 50 50 40 40 25 daub2 0
figure grid50k "bytes/s stored" 5e8 100 100 5 50 50

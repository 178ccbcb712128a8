#!/usr/bin/env bash
# Whole runs for the cost model of the README: the phases of the log, the
# peak resident memory, and the time the same disk takes to write and sync a
# file of the matrix file's size (dd), for several thread counts:
#
#   bench/whole_node.sh [BUILD_DIR] [RUNS] [THREADS...]   (defaults: build, 3, 1 2)
#
# Surveys (make_survey arguments): uncompressed 1,000 data over 100,000 cells
# (a 400 MB file) and 10 data over the same cells (the memory without rows),
# 100 data over 1,000,000 cells, and daub2 over 1,000 x 100,000. Each line:
# survey, threads, best init / sens / rest (the matrix file's last records and
# sync, the text outputs) / TOTAL in seconds, the largest peak memory in MB,
# and for uncompressed surveys dd's seconds for the file's size. The scratch
# directory is made beside the build (the disk the file goes to), or in
# $WORK_DIR.
set -euo pipefail
build=${1:-build}
runs=${2:-3}
shift $(( $# < 2 ? $# : 2 ))
threads=("$@")
[ ${#threads[@]} -eq 0 ] && threads=(1 2)
exe=$(realpath "$build/quolvent")
make_survey=$(realpath "$build/make_survey")
work=$(mktemp -d "${WORK_DIR:-$(realpath "$build")}/whole_node.XXXXXX")
trap 'rm -rf "$work"' EXIT

phase_seconds() {  # LOG PHASE: the phase's time in the log, in seconds (0: none)
  sed -n -E "s/^ *$2 cpu time: *([0-9]+):([0-9]+):([0-9]+\.[0-9]+)\$/\1 \2 \3/p" "$1" |
    awk 'BEGIN { s = 0 } { s = $1 * 3600 + $2 * 60 + $3 } END { print s }'
}

for survey in "50 50 40 5 2 NONE 0" "50 50 40 40 25 NONE 0" "100 100 100 10 10 NONE 0" \
              "50 50 40 40 25 daub2 0"; do
  dir="$work/${survey// /_}"
  mkdir -p "$dir"
  (cd "$dir" && "$make_survey" $survey > /dev/null)
  for t in "${threads[@]}"; do
    best="" rss=0
    for _ in $(seq "$runs"); do
      (cd "$dir" && /usr/bin/time -f "%M" -o rss.txt "$exe" run.inp "$t" > /dev/null)
      log="$dir/quolvent.log"
      line=$(awk -v i="$(phase_seconds "$log" init)" -v s="$(phase_seconds "$log" sens)" \
                 -v u="$(phase_seconds "$log" uncompress)" -v T="$(phase_seconds "$log" TOTAL)" \
                 'BEGIN { printf "%.2f %.2f %.2f %.2f", i, s, T - i - s, T }')
      best=$(echo "$best|$line" | awk -F'|' '$1 == "" { print $2; next }
             { split($1, a, " "); split($2, b, " "); print (b[4] < a[4]) ? $2 : $1 }')
      rss=$(awk -v a="$rss" -v b="$(cat "$dir/rss.txt")" 'BEGIN { print (b > a) ? b : a }')
    done
    echo "$survey | threads $t | init sens rest TOTAL: $best | peak $((rss / 1024)) MB"
  done
  if [[ "$survey" == *NONE* ]]; then
    bytes=$(stat -c %s "$dir/dulmarok.mtx")
    rm -f "$dir"/dulmarok.mtx
    secs=$( { /usr/bin/time -f "%e" dd if=/dev/zero of="$dir/dd.bin" bs=4M \
              count=$(( (bytes + 4194303) / 4194304 )) conv=fsync status=none; } 2>&1 )
    rm -f "$dir/dd.bin"
    echo "$survey | dd of $((bytes / 1000000)) MB with fsync: $secs s"
  fi
done

#!/usr/bin/env bash
# Whole runs of one survey under different layouts of processes and threads:
# the plain program with T threads against quolvent-mpi with R processes of
# T' threads, each the best of REPS runs; prints the phase times of the log
# (init, sens: the row phase and the reductions, TOTAL: with the matrix file).
#
#   bench/mpi_layouts.sh BUILD_DIR [NX NY NZ NDX NDY]
#
# The survey is made by BUILD_DIR/make_survey (defaults: 100 x 100 x 10
# cells, 40 x 25 data: 100,000 cells and 1,000 data), once per loop and
# compression: the regular-grid loop and the general loop (IDIR 0), NONE and
# daub2. Layouts: LAYOUTS="plain:2 mpi:2x1 mpi:1x2" (plain:T, mpi:RxT).
set -euo pipefail
build=$(cd "$1" && pwd)
shift
size=("${@:-100 100 10 40 25}")
read -r -a size <<<"${size[*]}"
reps=${REPS:-3}
layouts=${LAYOUTS:-"plain:2 mpi:2x1 mpi:1x2"}
export OMPI_ALLOW_RUN_AS_ROOT=1 OMPI_ALLOW_RUN_AS_ROOT_CONFIRM=1

seconds() {  # the span of a timer line, in seconds
  awk -v l="$1" '$1 == l && $2 == "cpu" { split($4, a, ":"); print a[1] * 3600 + a[2] * 60 + a[3] }' "$2"
}

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
printf '%-22s %-10s %8s %8s %8s\n' survey layout init sens TOTAL
for idir in 1 0; do
  for wavelet in NONE daub2; do
    dir="$work/s-$idir-$wavelet"
    mkdir -p "$dir"
    (cd "$dir" && "${MAKE_SURVEY:-$build/make_survey}" "${size[@]}" "$wavelet" "$idir")
    name="$([ "$idir" = 1 ] && echo grid || echo general)-$wavelet"
    for layout in $layouts; do
      best_i=; best_s=; best_t=
      for ((k = 0; k < reps; ++k)); do
        case $layout in
          plain:*) (cd "$dir" && "$build/quolvent" run.inp "${layout#plain:}" >/dev/null) ;;
          mpi:*)
            ranks_threads=${layout#mpi:}
            (cd "$dir" && mpirun -np "${ranks_threads%x*}" --oversubscribe --bind-to none \
              "$build/quolvent-mpi" run.inp "${ranks_threads#*x}" >/dev/null) ;;
        esac
        i=$(seconds init "$dir/quolvent.log"); s=$(seconds sens "$dir/quolvent.log")
        t=$(seconds TOTAL "$dir/quolvent.log")
        if [ -z "$best_t" ] || awk -v a="$t" -v b="$best_t" 'BEGIN { exit !(a < b) }'; then
          best_i=$i; best_s=$s; best_t=$t
        fi
      done
      printf '%-22s %-10s %8.2f %8.2f %8.2f\n' "$name" "$layout" "$best_i" "$best_s" "$best_t"
    done
  done
done

#!/usr/bin/env bash
# The checks of quolvent-gpu that need a device, on a machine that has one
# but not the project's build tools.
#
#   scripts/gpu_device.sh pack [BUILD_DIR]   here: the programs, the device
#                                            tests and their shared libraries
#                                            into gpu-carry/ (git ignores it)
#   scripts/gpu_device.sh run [OUT_DIR]      there, in the tree's root with
#                                            gpu-carry/ beside it: the device
#                                            tests, compute-sanitizer on a run
#                                            of many batches, the figures of
#                                            both programs on 16 threads
set -euo pipefail
cd "$(dirname "$0")/.."
mode=${1:-}
if [ "$mode" = pack ]; then
  build=${2:-build}
  ninja -C "$build" quolvent quolvent-gpu test_gpu make_survey
  rm -rf gpu-carry
  mkdir gpu-carry
  cp "$build"/{quolvent,quolvent-gpu,test_gpu,make_survey} gpu-carry/
  for exe in gpu-carry/quolvent-gpu gpu-carry/test_gpu; do
    ldd "$exe" | awk '/libomp|libhwy|libcudart|libstdc\+\+|libgcc_s/ { print $3 }'
  done | sort -u | xargs -I{} cp -L {} gpu-carry/
  grep -qx '/gpu-carry/' .git/info/exclude 2>/dev/null || echo '/gpu-carry/' >> "$(git rev-parse --git-path info/exclude)"
  du -sh gpu-carry
  exit 0
fi
[ "$mode" = run ] || { echo "usage: $0 pack [BUILD_DIR] | run [OUT_DIR]"; exit 2; }
out=${2:-${OUT:-/tmp}}
carry=$(realpath gpu-carry)
export LD_LIBRARY_PATH="$carry${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}"
export QUOLVENT_EXE="$carry/quolvent" QUOLVENT_GPU_EXE="$carry/quolvent-gpu"
nvidia-smi -L || true
rc=0
"$carry/test_gpu" 2>&1 | tee "$out/test_gpu.txt" | tail -25 || rc=1

# compute-sanitizer: one compressed and one uncompressed run in batches of 16.
work=$(mktemp -d)
for wavelet in daub2 NONE; do
  mkdir -p "$work/$wavelet"
  (cd "$work/$wavelet" && "$carry/make_survey" 20 16 12 10 8 "$wavelet" 0 &&
     QUOLVENT_GPU_BATCH_ROWS=16 compute-sanitizer --tool memcheck --error-exitcode 9 \
       "$carry/quolvent-gpu" run.inp 4 > "$out/sanitizer_$wavelet.txt" 2>&1) || rc=1
  tail -3 "$out/sanitizer_$wavelet.txt"
done
rm -rf "$work"

# The figures: the device's program and the CPU program on the same machine.
bench/figures.sh "$carry" 3 quolvent-gpu 16 gpu 2>&1 | tee "$out/figures_gpu.txt"
bench/figures.sh "$carry" 3 quolvent 16 gpu 2>&1 | tee "$out/figures_cpu.txt"
exit $rc

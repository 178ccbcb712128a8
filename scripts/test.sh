#!/usr/bin/env bash
# Builds and runs the whole test suite: once optimised, once under
# AddressSanitizer and UndefinedBehaviorSanitizer, then a short fuzzing pass.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh

scripts/build.sh build -DCMAKE_BUILD_TYPE=Release
ctest --test-dir build --output-on-failure -j2

scripts/build.sh build-asan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQUOLVENT_SANITIZE=ON \
  -DQUOLVENT_BENCH=OFF -DQUOLVENT_FUZZ=OFF
ctest --test-dir build-asan --output-on-failure -j2

# Fuzzing: a few seconds per target from the bundled seeds (longer by hand:
# build/fuzz_NAME -max_total_time=600 fuzz/corpus_NAME).
for target in build/fuzz_*; do
  [ -x "$target" ] || continue
  name=$(basename "$target")
  corpus=$(mktemp -d)
  [ -d "fuzz/corpus_${name#fuzz_}" ] && cp "fuzz/corpus_${name#fuzz_}"/* "$corpus"/
  echo "Fuzzing $name for 10 s"
  rc=0
  "$target" -max_total_time=10 -print_final_stats=1 "$corpus" >"$corpus.log" 2>&1 || rc=$?
  grep -E 'stat::number_of_executed_units|ERROR|SUMMARY' "$corpus.log" || true
  if [ "$rc" -ne 0 ]; then tail -40 "$corpus.log"; echo "$name found a failure"; exit 1; fi
  rm -f "$corpus.log"
  rm -rf "$corpus"
done
echo "All tests passed."

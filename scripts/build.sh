#!/usr/bin/env bash
# Configures and builds one tree: scripts/build.sh DIR [cmake options...]
set -euo pipefail
dir=$1
shift
cmake -S . -B "$dir" -G Ninja -DCMAKE_CXX_COMPILER=clang++ "$@" >/dev/null
ninja -C "$dir"

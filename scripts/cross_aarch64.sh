#!/usr/bin/env bash
# Cross-builds the program's libraries and quolvent itself for 64-bit ARM
# Linux in build-aarch64/ (not run by the test suite; a check that the code
# has no x86-only part):
#
#   scripts/cross_aarch64.sh
#
# It installs Debian's ARM cross toolchain, and unpacks the ARM builds of
# libomp and Highway into build-aarch64/sysroot without installing them (the
# ARM libomp can't be installed beside the machine's own).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"
if ! dpkg -s g++-aarch64-linux-gnu >/dev/null 2>&1; then
  $sudo apt-get update
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y --no-install-recommends g++-aarch64-linux-gnu
fi
sysroot=$(pwd)/build-aarch64/sysroot
if [ ! -f "$sysroot/usr/lib/llvm-14/lib/libomp.so" ]; then
  if ! dpkg --print-foreign-architectures | grep -qx arm64; then
    $sudo dpkg --add-architecture arm64
    $sudo apt-get update
  fi
  debs=$(mktemp -d)
  (cd "$debs" && chmod 777 . && apt-get download libomp5-14:arm64 libomp-14-dev:arm64 libhwy1:arm64 libhwy-dev:arm64)
  mkdir -p "$sysroot"
  for d in "$debs"/*.deb; do dpkg -x "$d" "$sysroot"; done
  rm -rf "$debs"
fi
cmake -S . -B build-aarch64 -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake \
  -DQUOLVENT_ARM_SYSROOT="$sysroot" -DCMAKE_BUILD_TYPE=Release -DQUOLVENT_TESTS=OFF \
  -DQUOLVENT_BENCH=OFF -DQUOLVENT_FUZZ=OFF -DQUOLVENT_PYTHON=OFF -DCMAKE_DISABLE_FIND_PACKAGE_MPI=ON >/dev/null
ninja -C build-aarch64 quolvent
file build-aarch64/quolvent

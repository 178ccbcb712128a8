#!/usr/bin/env bash
# Installs the Debian packages the build needs, where they are missing.
set -euo pipefail

packages=(
  clang
  libomp-dev
  libclang-rt-dev
  cmake
  ninja-build
  libgtest-dev
  libbenchmark-dev
  openmpi-bin
  libopenmpi-dev
  libhwy-dev
  pybind11-dev
  python3-pybind11
  python3-numpy
  python3-scipy
  python3-matplotlib
  python3-pytest
  python3-venv
  python3-pip
  python3-setuptools
  python3-wheel
  strace
)

missing=()
for p in "${packages[@]}"; do
  dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing: ${missing[*]}"
  sudo=""
  [ "$(id -u)" -ne 0 ] && sudo="sudo"
  $sudo apt-get update
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y --no-install-recommends "${missing[@]}"
fi

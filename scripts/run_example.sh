#!/usr/bin/env bash
# Builds the program and runs it on the bundled example survey in
# build/example-run: the matrix file, the log and the text files land there.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
scripts/build.sh build -DCMAKE_BUILD_TYPE=Release
mkdir -p build/example-run
cd build/example-run
../quolvent ../../examples/quolvent.inp "$@"
# The pictures of the run, drawn by the Python module (for /usr/bin/python3).
PYTHONPATH=../python /usr/bin/python3 -m quolvent.plot .
echo
echo "Outputs in $(pwd):"
ls -l

#!/usr/bin/env bash
# The main job: builds the library and its example host, then records one run's usage in
# ./demo/ and prints the record file. Installs what is missing first.
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/bootstrap.sh

cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build --target example_host
rm -rf build/demo && mkdir -p build/demo
build/tools/example_host build/demo 2>/dev/null
echo
echo "record folder build/demo/veltrainfo:"
ls -l build/demo/veltrainfo

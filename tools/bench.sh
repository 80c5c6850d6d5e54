#!/usr/bin/env bash
# Builds the benchmarks (Release, build-bench/) and runs them in build-bench/run/, on the disk the
# records would live on. Extra arguments go to every benchmark program, e.g.
# --benchmark_filter=builder.
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/bootstrap.sh
cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DINFORMATION_API_BUILD_BENCH=ON \
  -DINFORMATION_API_BUILD_TESTS=OFF -DINFORMATION_API_BUILD_TOOLS=OFF >/dev/null
cmake --build build-bench
mkdir -p build-bench/run
cd build-bench/run
for bench in ../bench/bench_*; do
  if [ -f "$bench" ] && [ -x "$bench" ]; then "$bench" "$@"; fi
done

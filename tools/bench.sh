#!/usr/bin/env bash
# Builds the benchmarks (Release, build-bench/) and runs them in build-bench/run/, on the disk the
# records would live on. Extra arguments go to every benchmark program, e.g.
# --benchmark_filter=builder.
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/bootstrap.sh bench  # nginx-light answers a fixed body as the collector's ceiling
cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DINFORMATION_API_BUILD_BENCH=ON \
  -DINFORMATION_API_BUILD_TESTS=OFF -DINFORMATION_API_BUILD_TOOLS=OFF >/dev/null
cmake --build build-bench
mkdir -p build-bench/run
cd build-bench/run
for bench in ../bench/bench_*; do
  [ -f "$bench" ] && [ -x "$bench" ] || continue
  if [ "$(basename "$bench")" = bench_collector ]; then  # also on a throwaway PostgreSQL 15, fsync on
    pg_virtualenv -o fsync=on -t env BENCH_DATABASE=postgresql:// "$bench" "$@"
  else
    "$bench" "$@"
  fi
done

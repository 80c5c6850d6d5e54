#!/usr/bin/env bash
# Builds the library and runs every test: once in a normal build, once more under
# AddressSanitizer + UndefinedBehaviorSanitizer, and the threaded tests under ThreadSanitizer.
# Installs what is missing first.
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/bootstrap.sh

run_suite() {  # build dir, extra cmake args...
  local dir=$1; shift
  cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
  cmake --build "$dir"
  (cd "$dir" && ctest --output-on-failure -j "$(nproc)" "${CTEST_ARGS[@]}")
}

echo "== tests =="
CTEST_ARGS=()
run_suite build
echo "== tests under AddressSanitizer + UndefinedBehaviorSanitizer =="
CTEST_ARGS=(-LE package)  # the package test builds a host without the sanitizer runtime
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  run_suite build-asan -DINFORMATION_API_SANITIZERS=address,undefined -DINFORMATION_API_BUILD_TOOLS=OFF
echo "== threaded tests under ThreadSanitizer =="
CTEST_ARGS=(-L threaded)
TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 suppressions=$PWD/tests/tsan.supp" \
  run_suite build-tsan -DINFORMATION_API_SANITIZERS=thread -DINFORMATION_API_BUILD_TOOLS=OFF

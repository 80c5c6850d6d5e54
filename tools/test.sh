#!/usr/bin/env bash
# Builds the library and runs every test: once in a normal build (then its API reference, which
# fails on any Doxygen warning), once more under AddressSanitizer + UndefinedBehaviorSanitizer, the
# threaded tests under ThreadSanitizer, then fuzzes the response handlers and the record reader
# for a bounded time. Installs what is missing first.
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
echo "== API reference (Doxygen: one warning fails it) =="
cmake --build build --target docs
echo "== Debian packages =="
(cd build && rm -f ./*.deb && cpack -G DEB >/dev/null)
check_package() {  # package name, the dependency it must declare, files it must hold below /usr
  local deb; deb=$(ls build/"$1"_*.deb)
  dpkg-deb -f "$deb" Depends | grep -q "$2" || { echo "$deb does not depend on $2"; exit 1; }
  local files; files=$(dpkg-deb -c "$deb")
  for path in "${@:3}"; do
    grep -qE " \./usr/$path( |$)" <<<"$files" || { echo "$deb lacks /usr/$path"; exit 1; }
  done
  echo "$(basename "$deb"): $(grep -c '^-' <<<"$files") files, depends on $(dpkg-deb -f "$deb" Depends)"
}
check_package libinformation-api1 libqt5network5 lib/libinformation_api.so.1
check_package libinformation-api-dev libinformation-api1 lib/libinformation_api.so \
  include/information_api/information_api.h include/information_api/transport_security.h \
  include/information_api/information_api_version.h lib/pkgconfig/information_api.pc \
  lib/cmake/information_api/information_apiConfig.cmake
check_package information-api-tools libinformation-api1 bin/information_uploader bin/information_devserver \
  bin/information_collector share/man/man1/information_uploader.1 share/man/man1/information_devserver.1 \
  share/man/man1/information_collector.1
echo "== tests under AddressSanitizer + UndefinedBehaviorSanitizer =="
CTEST_ARGS=(-LE package)  # the package test builds a host without the sanitizer runtime
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  run_suite build-asan -DINFORMATION_API_SANITIZERS=address,undefined -DINFORMATION_API_BUILD_TOOLS=OFF
echo "== threaded tests under ThreadSanitizer =="
CTEST_ARGS=(-L threaded)
TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 suppressions=$PWD/tests/tsan.supp" \
  run_suite build-tsan -DINFORMATION_API_SANITIZERS=thread -DINFORMATION_API_BUILD_TOOLS=OFF -DINFORMATION_API_BUILD_EXAMPLES=OFF
echo "== fuzzing the response handlers and record reading (libFuzzer, 30 s each) =="
cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=clang++ \
  -DINFORMATION_API_SANITIZERS=address,undefined -DINFORMATION_API_BUILD_FUZZERS=ON \
  -DINFORMATION_API_BUILD_TESTS=OFF -DINFORMATION_API_BUILD_TOOLS=OFF -DINFORMATION_API_BUILD_EXAMPLES=OFF >/dev/null
cmake --build build-fuzz
for target in handlers scan_info; do
  corpus=$(mktemp -d)  # the fuzzer adds what it finds; the seed corpus in the tree stays as it is
  cp tests/fuzz/corpus/$target/* "$corpus/"
  log=build-fuzz/fuzz_$target.log
  dict=()
  [ -f tests/fuzz/$target.dict ] && dict=(-dict="$PWD/tests/fuzz/$target.dict")
  if ! QT_QPA_PLATFORM=offscreen build-fuzz/tests/fuzz/fuzz_$target -max_total_time=30 "${dict[@]}" \
      -rss_limit_mb=2048 -artifact_prefix="$PWD/tests/fuzz/crashes/" "$corpus" >"$log" 2>&1; then
    tail -n 60 "$log"
    echo "fuzz_$target failed; its input is in tests/fuzz/crashes/: fix the fault and keep the input"
    exit 1
  fi
  echo "fuzz_$target: $(grep '^Done' "$log")"
  rm -rf "$corpus"
done

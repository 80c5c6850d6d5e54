#!/usr/bin/env bash
# Builds the library and runs every test: once in a normal build (then its API reference, which
# fails on any Doxygen warning), once more under AddressSanitizer + UndefinedBehaviorSanitizer, the
# threaded tests under ThreadSanitizer, then fuzzes the response handlers and the record reader
# for a bounded time. Installs what is missing first.
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/bootstrap.sh tests

echo "== format (clang-format with .clang-format; a difference fails it) =="
git ls-files '*.cpp' '*.h' | xargs clang-format --dry-run -Werror

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
echo "== Debian packages (debhelper; one lintian error fails it) =="
version=$(sed -n 's/^project(information_api VERSION \([0-9.]*\) .*/\1/p' CMakeLists.txt)
deb_version=$(dpkg-parsechangelog -l debian/changelog -S Version)
[ "${deb_version%-*}" = "$version" ] || { echo "debian/changelog is at $deb_version, the project at $version"; exit 1; }
# dpkg-buildpackage writes the packages beside the source tree: it builds a copy inside build/.
rm -rf build/deb && mkdir -p build/deb/src
tar --exclude-vcs --anchored --exclude='./build*' -cf - . | tar -xf - -C build/deb/src
start=$SECONDS
(cd build/deb/src && DEB_BUILD_OPTIONS=nocheck dpkg-buildpackage -b -us -uc >../build.log 2>&1) ||
  { tail -n 60 build/deb/build.log; echo "the package build failed (build/deb/build.log)"; exit 1; }
echo "packages built in $((SECONDS - start)) s"
multiarch=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
check_package() {  # package name, a dependency it must declare, files and folders it must hold
  local deb; deb=$(ls build/deb/"$1"_*.deb)
  dpkg-deb -f "$deb" Depends | grep -q "$2" || { echo "$deb does not depend on $2"; exit 1; }
  local files; files=$(dpkg-deb -c "$deb")
  for path in "${@:3}"; do
    grep -qE " \./$path(/| |$)" <<<"$files" || { echo "$deb lacks /$path"; exit 1; }
  done
  echo "$(basename "$deb"): $(grep -c '^-' <<<"$files") files, depends on $(dpkg-deb -f "$deb" Depends)"
}
check_package libinformation-api1 libqt5network5 "usr/lib/$multiarch/libinformation_api.so.1"
check_package libinformation-api-dev libinformation-api1 "usr/lib/$multiarch/libinformation_api.so" \
  usr/include/information_api/information_api.h usr/include/information_api/transport_security.h \
  usr/include/information_api/queued_sink.h usr/include/information_api/information_api_version.h "usr/lib/$multiarch/pkgconfig/information_api.pc" \
  "usr/lib/$multiarch/cmake/information_api/information_apiConfig.cmake"
check_package information-api-tools libinformation-api1 usr/bin/information_uploader usr/bin/information_devserver \
  usr/share/man/man1/information_uploader.1.gz usr/share/man/man1/information_devserver.1.gz
check_package information-collector libjs-chart.js usr/bin/information_collector \
  usr/share/man/man1/information_collector.1.gz lib/systemd/system/information-collector.service \
  etc/default/information-collector var/lib/information-collector
# examples/ built against the unpacked library and development packages, as against the installed tree.
for p in libinformation-api1 libinformation-api-dev; do dpkg-deb -x build/deb/${p}_*.deb build/deb/root; done
cmake -DPREFIX="$PWD/build/deb/root/usr" -DEXAMPLES="$PWD/examples" -DEXAMPLES_BUILD="$PWD/build/deb/examples" \
  -DGENERATOR=Ninja -DVERSION="$version" -P tests/install_consumer/run.cmake
# Errors fail the build; warnings are printed (README: "Installing and packages" explains each).
lintian --fail-on error build/deb/*.deb
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

#!/usr/bin/env bash
# Installs the Debian 12 packages the project needs to build and run its tools; with "tests" also
# what the tests, the API reference and the packages need; with "bench" what the benchmarks need.
# Idempotent: when everything is present it prints nothing and touches nothing.
set -euo pipefail

# What building the library, its tools and examples and running the main job (tools/demo.sh) need.
packages=(
  build-essential cmake ninja-build pkg-config
  qtbase5-dev libqt5network5 libqt5concurrent5
  libboost-dev libgoogle-glog-dev libgflags-dev
  libssl-dev openssl libsqlite3-dev libpq-dev help2man curl
  hwdata          # pci.ids, which names the graphics adapters of the machine description
  libjs-chart.js  # the dashboard's charts, served by information_collector
)
for extra in "$@"; do
  case $extra in
    tests)  # a throwaway PostgreSQL, the browser tests, fuzzing, the API reference, the packages
      packages+=(postgresql-15 postgresql-common chromium chromium-driver python3-selenium
                 clang libclang-rt-14-dev clang-format doxygen debhelper lintian) ;;
    bench) packages+=(libbenchmark-dev libcurl4-openssl-dev nginx-light postgresql-15 postgresql-common) ;;
    *) echo "usage: bootstrap.sh [tests] [bench]" >&2; exit 2 ;;
  esac
done

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q '^install ok installed$' || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "bootstrap: installing ${missing[*]}"
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null

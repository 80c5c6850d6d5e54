#!/usr/bin/env bash
# Installs every Debian 12 package the project needs to build, test, benchmark, document and run
# its tools.
# Idempotent: when everything is present it prints nothing and touches nothing.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config
  qtbase5-dev libqt5network5 libqt5concurrent5
  libboost-dev libgoogle-glog-dev libgflags-dev
  libcpp-httplib-dev libssl-dev openssl
  libbenchmark-dev libcurl4-openssl-dev curl
  clang libclang-rt-14-dev
  doxygen help2man
  hwdata  # pci.ids, which names the graphics adapters of the machine description
)

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

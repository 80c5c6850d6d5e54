#!/usr/bin/env bash
# The main job, end to end on this machine: builds the library and its tools, starts the local
# collection service, records one of every kind through the example host, uploads the due records
# with information_uploader, shows what the service received and what is left, and stops the
# service. Installs what is missing first.
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/bootstrap.sh

cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build --target example_host information_uploader information_devserver
bin=$PWD/build/tools
examples=$PWD/build/examples
demo=$PWD/build/demo
rm -rf "$demo" && mkdir -p "$demo/res"

echo "== starting the local collection service =="
"$bin/information_devserver" --data-dir "$demo/devserver-data" >"$demo/devserver.log" 2>&1 &
server=$!
trap 'kill "$server" 2>/dev/null; wait "$server" 2>/dev/null || true' EXIT
for _ in $(seq 100); do
  [ -s "$demo/devserver-data/url" ] && break
  kill -0 "$server" || { cat "$demo/devserver.log"; exit 1; }
  sleep 0.1
done
url=$(cat "$demo/devserver-data/url")
echo "listening on $url"

# Uploading on, records due as soon as they are written, the release URL pointing at the service.
printf '[General]\nenable=1\nuploadintval=0\n' >"$demo/res/system.ini"
printf '[General]\nupload_url=%s/dtta\n' "$url" >"$demo/url_config.ini"

echo
echo "== recording one of every kind (example_host) =="
"$examples/example_host" "$demo" 2>/dev/null

echo
echo "== uploading the due records (information_uploader) =="
"$bin/information_uploader" --dir "$demo" 2>"$demo/uploader.log" || {
  cat "$demo/uploader.log"; exit 1; }

echo
echo "== what the service received =="
"$bin/information_devserver" --data-dir "$demo/devserver-data" --list
echo
echo "== left in $demo/veltrainfo (score records are never uploaded) =="
ls "$demo/veltrainfo"

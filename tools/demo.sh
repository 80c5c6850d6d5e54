#!/usr/bin/env bash
# The main job, end to end on this machine: builds the library and its tools, starts
# information_collector on SQLite, records one of every kind through the example host, uploads the
# due records with information_uploader, prints the dashboard's URL and summary, stops the
# collector, shows what is left and ends with the collector's stats. Installs what is missing first.
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/bootstrap.sh

cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build --target example_host information_uploader information_collector
bin=$PWD/build/tools
collector=$PWD/build/tools/collector/information_collector
examples=$PWD/build/examples
demo=$PWD/build/demo
rm -rf "$demo" && mkdir -p "$demo/res"

data=$demo/collector-data
echo "== starting information_collector (SQLite in $data) =="
"$collector" serve --data-dir "$data" >"$demo/collector.log" 2>&1 &
server=$!
trap 'kill "$server" 2>/dev/null; wait "$server" 2>/dev/null || true' EXIT
for _ in $(seq 100); do
  [ -s "$data/url" ] && [ -s "$data/dashboard_url" ] && break
  kill -0 "$server" || { cat "$demo/collector.log"; exit 1; }
  sleep 0.1
done
url=$(cat "$data/url")
echo "listening on $url"
dashboard=$(cat "$data/dashboard_url")
echo "dashboard on $dashboard (open it in a browser while the demo runs; trust $data/ca.pem)"

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
echo "== the dashboard's summary of the last 28 days (GET ${dashboard}api/v1/summary) =="
curl -sS --cacert "$data/ca.pem" "${dashboard}api/v1/summary" |
  python3 -c 'import json, sys; s = json.load(sys.stdin); print("total", s["total"], "by kind", s["kinds"])'

kill -TERM "$server" && wait "$server"  # answers what is in flight, then exits 0
trap - EXIT
echo
echo "== left in $demo/veltrainfo (score records are never uploaded) =="
ls "$demo/veltrainfo"
echo
echo "== what the collector kept (information_collector stats) =="
"$collector" stats --data-dir "$data"

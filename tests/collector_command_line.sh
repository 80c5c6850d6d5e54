#!/bin/sh
# Each failure of information_collector: its exit status and a message naming the cause.
collector=$1
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
mkdir -p "$dir/url-is-a-folder/url"
failed=0
check() {  # status, what the message says, arguments...
  status=$1 message=$2; shift 2
  out=$(timeout 10 "$collector" "$@" 2>&1 </dev/null); got=$?
  case "$got $out" in
    "$status "*"$message"*) ;;
    *) echo "FAIL: $* -> $got $out"; failed=1;;
  esac
}
check 2 "name one command" --data-dir "$dir"
check 2 "unknown command" frobnicate
check 2 "--listen takes ADDR:PORT" serve --data-dir "$dir/a" --listen nowhere
check 2 "does not go with serve" serve --serial 1
check 2 "--older-than-days takes" purge --data-dir "$dir" --older-than-days 0
check 1 "cannot create the data folder" serve --data-dir /proc/collector
check 1 "cannot listen on 192.0.2.1:1" serve --data-dir "$dir/b" --listen 192.0.2.1:1
check 1 "cannot open the database" serve --data-dir "$dir/c" --database sqlite:/proc/none/x
check 1 "cannot write" serve --data-dir "$dir/url-is-a-folder"
check 1 "no database at" stats --data-dir "$dir/none"
exit $failed

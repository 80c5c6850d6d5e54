#!/bin/sh
# Each failure of information_collector ($1) and information_devserver ($2): its exit status and a
# message naming the cause.
tool=$1
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
mkdir -p "$dir/url-is-a-folder/url" "$dir/dashboard-url-is-a-folder/dashboard_url"
touch "$dir/a-file"
failed=0
check() {  # status, what the message says, arguments...
  status=$1 message=$2; shift 2
  out=$(timeout 10 "$tool" "$@" 2>&1 </dev/null); got=$?
  case "$got $out" in
    "$status "*"$message"*) ;;
    *) echo "FAIL: $tool $* -> $got $out"; failed=1;;
  esac
}
check 2 "name one command" --data-dir "$dir"
check 2 "unknown command" frobnicate
check 2 "--listen takes ADDR:PORT" serve --data-dir "$dir/a" --listen nowhere
check 2 "does not go with serve" serve --serial 1
check 2 "--older-than-days takes" purge --data-dir "$dir" --older-than-days 0
check 1 "cannot create the data folder" serve --data-dir /proc/collector
check 1 "cannot create the data folder $dir/a-file" serve --data-dir "$dir/a-file"
check 1 "cannot listen on 192.0.2.1:1" serve --data-dir "$dir/b" --listen 192.0.2.1:1
check 1 "cannot open the database" serve --data-dir "$dir/c" --database sqlite:/proc/none/x
check 1 "cannot write $dir/url-is-a-folder/url" serve --data-dir "$dir/url-is-a-folder"
check 1 "cannot write $dir/dashboard-url-is-a-folder/dashboard_url" serve --data-dir "$dir/dashboard-url-is-a-folder"
check 1 "no database at" stats --data-dir "$dir/none"
[ -n "$2" ] || exit $failed  # a build without the tools has no dev server
tool=$2
for port in 0 65536 abc; do
  check 2 "--port takes a number from 1 to 65535" --port $port --data-dir "$dir/unused"
done
check 1 "cannot create the data folder $dir/a-file" --data-dir "$dir/a-file"
check 1 "cannot listen on 192.0.2.1" --data-dir "$dir/b" --host 192.0.2.1
check 1 "cannot write $dir/url-is-a-folder/url" --data-dir "$dir/url-is-a-folder"
exit $failed

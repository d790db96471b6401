#!/usr/bin/env bash
# Runs the README's snippet against a real norv-collector: both events must arrive, and with
# the collector gone the snippet must say on its diagnostics sink that its events were lost.
#   run-readme-snippet.sh SNIPPET COLLECTOR [ARGUMENT...]
# runs SNIPPET ARGUMENT... HOST:PORT (for a script: its interpreter, then the script).
set -euo pipefail
snippet=$1 collector=$2
shift 2
work=$(mktemp -d)
# The snippet's keychain file goes here, not into the user's data.
export XDG_DATA_HOME="$work/data"
mkfifo "$work/out"
"$collector" serve --host 127.0.0.1 --port 0 --db "$work/collector.sqlite" >"$work/out" 2>&1 &
collector_pid=$!
trap 'kill "$collector_pid" 2>/dev/null || true; wait "$collector_pid" 2>/dev/null || true; rm -rf "$work"' EXIT
exec 3<"$work/out"
# "norv-collector listening on http://127.0.0.1:PORT/ (open it in a browser ...)"
read -r -t 30 -u 3 listening || { echo "the collector did not start"; exit 1; }
cat <&3 >"$work/collector.log" &
host=${listening##*http://}
host=${host%%[/ ]*}

"$snippet" "$@" "$host" 2>"$work/snippet.err" || { cat "$work/snippet.err"; echo "flush timed out"; exit 1; }
"$collector" list --db "$work/collector.sqlite" --raw >"$work/received"
expect() {
  grep -q -- "$1" "$work/received" || {
    cat "$work/received" "$work/snippet.err"; echo "missing at the collector: $1"; exit 1; }
}
expect "&type=2&"
expect "&pageName=Orders&"
[ "$(grep -c '^#' "$work/received")" = 2 ] || { cat "$work/received"; echo "not 2 events"; exit 1; }

kill "$collector_pid"; wait "$collector_pid" 2>/dev/null || true
"$snippet" "$@" "$host" 2>"$work/snippet.err" || { echo "flush timed out with the collector down"; exit 1; }
grep -q "App Open event (type 2) was not delivered: " "$work/snippet.err" || {
  cat "$work/snippet.err"; echo "no diagnostics line with the collector down"; exit 1; }
echo "readme snippet: 2 events delivered; with the collector down it said so"

#!/usr/bin/env bash
# Compares each LIBRARY's ABI with the committed baseline for its SONAME, BASELINES/<SONAME>.abi:
# fails on any change a host built against the baseline could notice (a function or variable
# removed or changed, a type's layout or virtual table changed), passes on additions. An
# incompatible change needs a new SONAME, and a new SONAME a new baseline (scripts/abi-baseline).
#   check-abi.sh BASELINES LIBRARY:HEADERS_DIR...
set -euo pipefail
baselines=$1
shift
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failed=0
for entry in "$@"; do
  library=${entry%%:*} headers=${entry#*:}
  soname=$(objdump -p "$library" | awk '$1 == "SONAME" { print $2 }')
  baseline="$baselines/$soname.abi"
  if [ ! -f "$baseline" ]; then
    echo "$soname: no ABI baseline ($baseline); scripts/abi-baseline writes it"
    failed=1
    continue
  fi
  "$(dirname "$0")/abi-dump.sh" "$library" "$headers" "$work/$soname.abi"
  # abidiff's exit status is a bit set: 1 error, 2 usage, 4 a change, 8 an incompatible one.
  # Without the added symbols, any change left is one a host could notice.
  status=0
  abidiff --no-added-syms "$baseline" "$work/$soname.abi" >"$work/report" || status=$?
  if [ "$status" -ne 0 ]; then
    cat "$work/report"
    echo "$soname: its ABI changed incompatibly since the baseline (abidiff status $status)"
    failed=1
  else
    abidiff "$baseline" "$work/$soname.abi" >"$work/report" || true
    echo "$soname: compatible with its baseline$(grep -q 'Added' "$work/report" && echo ', with additions')"
  fi
done
exit $failed

#!/usr/bin/env bash
# Writes LIBRARY's ABI as abidw's XML to OUT: the exported interfaces and the types they reach,
# with the public headers in HEADERS_DIR, and nothing that depends on where the tree lies, so
# the committed baseline and a check's dump differ only where the ABI does (a new library
# needed is no change of ours to the interface).
#   abi-dump.sh LIBRARY HEADERS_DIR OUT
set -euo pipefail
library=$1 headers=$2 out=$3
root=$(cd "$(dirname "$0")/../.." && pwd)
abidw --no-corpus-path --no-comp-dir-path --no-show-locs --no-elf-needed --drop-undefined-syms \
  --exported-interfaces-only --type-id-style hash --headers-dir "$headers" --drop-private-types \
  "$library" | sed "s|path='$root/|path='|" >"$out"

#!/usr/bin/env bash
# Prints the README's first ```LANGUAGE block whose first line starts with FIRST-LINE, as a host
# would paste it; fails when there is none.
#   readme-block.sh README LANGUAGE FIRST-LINE
set -euo pipefail
awk -v fence="\`\`\`$2" -v first="$3" '
  !inside && $0 == fence { inside = 1; lines = 0; text = ""; next }
  inside && $0 == "```" {
    if (wanted) { printf "%s", text; found = 1; exit }
    inside = 0; next
  }
  inside { if (lines++ == 0) wanted = (index($0, first) == 1); text = text $0 "\n" }
  END { exit found ? 0 : 1 }' "$1"

#!/usr/bin/env bash
# Fails when a LIBRARY exports a symbol that is not public API, or one without its version NODE.
# Public API: C++ names in namespace NorvAnalytic (their type information and virtual tables
# included) and the C calls and constants; never a standard-library instantiation, a
# function-local entity (a static, a lambda's type) or a class's private implementation.
#   check-exports.sh LIBRARY NODE [LIBRARY NODE]...
set -euo pipefail

# Prints each symbol of LIBRARY that breaks the rule; fails when there is one.
check() {
  local library=$1 node=$2
  nm -D --defined-only --demangle --with-symbol-versions "$library" | awk -v node="$node" '
    { kind = $2; sub(/^[^ ]+ [^ ]+ /, "") }
    kind == "A" && $0 == node { next }
    {
      count++
      at = index($0, "@@")
      name = at ? substr($0, 1, at - 1) : $0
      version = at ? substr($0, at + 2) : ""
      if (version != node) { print "  without " node ": " $0; bad++; next }
      entity = name
      sub(/^(typeinfo name for|typeinfo for|vtable for|VTT for|non-virtual thunk to|virtual thunk to) /, "", entity)
      if (entity ~ /^(norv_[a-z0-9_]+|NorvAnalyticVersionNumber|NorvAnalyticVersionString|BrixKeychainErrorDomain)$/) next
      # A function template instantiation reads "ReturnType std::f<...>(...)": a space before
      # the name, which no name of ours has (but an operator may).
      head = entity
      sub(/[(<].*/, "", head)
      if (entity !~ /^NorvAnalytic::/ || (head ~ / / && head !~ /::operator /) ||
          entity ~ /\)::|\{lambda|\(anonymous namespace\)|::Impl(::|\(|$)/) {
        print "  not public API: " name; bad++
      }
    }
    END { print count + 0 " symbols, " bad + 0 " wrong"; exit bad || !count }'
}

failed=0
while [ $# -ge 2 ]; do
  echo "$1 (version node $2):"
  check "$1" "$2" || failed=1
  shift 2
done
exit $failed

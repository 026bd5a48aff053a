#!/bin/bash
# Fails when a shared library exports a dynamic symbol that its allowed list does not name.
#
#   check-exported-symbols.sh NM LIBRARY ALLOWED-LIST
# NM is the nm of the library's target (the cross nm for a cross build).
set -euo pipefail
nm=$1 library=$2 list=$3

# The allowed names, as two anchored extended regular expressions: any definition, weak only.
names() { grep -Ev '^[[:space:]]*(#|$)' "$list" | sed -nE "$1" | paste -sd'|'; }
any="^($(names '/^weak /!p'))(::|\(|$)"
weak="(^| )($(names 's/^weak //p'))"  # after the return type, if any

# "TYPE DEMANGLED-NAME" per exported definition, with the typeinfo, vtable and thunk wording
# removed so that they count as their class (and AddressSanitizer's indicator of an exported
# global as that global).
symbols=$("$nm" -D --defined-only "$library" | awk '{ print $2, $3 }' |
  while read -r type name; do printf '%s %s\n' "$type" "$(c++filt "${name#__odr_asan.}")"; done |
  sed -E 's/^(.) (typeinfo name for |typeinfo for |vtable for |VTT for |(non-)?virtual thunk to )/\1 /')
[ -n "$symbols" ] || { echo "no exported symbols read from $library" >&2; exit 1; }

unexpected=$(while read -r type name; do
  if [[ $name =~ $any ]]; then continue; fi
  if [[ $type =~ ^[WVu]$ && $name =~ $weak ]]; then continue; fi
  echo "  $type $name"
done <<<"$symbols")
if [ -n "$unexpected" ]; then
  echo "$library exports symbols outside the public API (mark them SELVANE_EXPORT only if they"
  echo "belong to it, and name them in $list):"
  echo "$unexpected"
  exit 1
fi
echo "$(wc -l <<<"$symbols") exported symbols, all in the public API"

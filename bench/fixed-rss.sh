#!/bin/bash
# The fixed memory cost of linking libselvane: the peak RSS of an empty program (int main() {})
# linked against nothing, against each of the library's dependencies alone, and against
# libselvane, all measured in the same run, alternated, 7 rounds, median per program. Prints the
# peak RSS of each and what it adds to the empty program's.
#
#   bench/fixed-rss.sh [BUILD-DIR]     (after a build; default build/)
set -euo pipefail
cd "$(dirname "$0")/.."
build=$(cd "${1:-build}" && pwd)
peak=$build/bin/peak-rss
[ -x "$peak" ] || { echo "build first: cmake --build ${1:-build}" >&2; exit 1; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
echo 'int main() { return 0; }' >"$work/empty.cpp"

# program NAME LIBS...: the empty program linked against LIBS, each kept even though unused.
names=()
program() {
  local name=$1
  shift
  c++ -O2 -o "$work/$name" "$work/empty.cpp" -Wl,--no-as-needed "$@"
  names+=("$name")
}
program none
program protobuf -lprotobuf
program boost -lboost_filesystem
program curl -lcurl
program libarchive -larchive
program openssl -lcrypto
program libselvane -L"$build/lib/selvane" -lselvane -Wl,-rpath,"$build/lib/selvane"

rounds=7
for ((round = 0; round < rounds; ++round)); do
  for name in "${names[@]}"; do
    "$peak" "$work/$name" 2>&1 | awk '{ print $2 }' >>"$work/$name.kib"
  done
done
median() { sort -n "$1" | sed -n "$(((rounds + 1) / 2))p"; }
base=$(median "$work/none.kib")
printf '%-12s %10s %10s\n' program 'peak KiB' 'added KiB'
for name in "${names[@]}"; do
  kib=$(median "$work/$name.kib")
  printf '%-12s %10d %10d\n' "$name" "$kib" "$((kib - base))"
done

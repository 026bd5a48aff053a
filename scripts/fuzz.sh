#!/bin/bash
# Builds the fuzz targets (tests/fuzz, libFuzzer with clang, ASan and UBSan) in build-fuzz/ and
# runs each for SECONDS (default 60): first over its kept regression inputs, then from its corpus
# (build-fuzz/corpus/NAME, kept between runs) and freshly made seeds. Prints executions and
# findings per target; fails if any target found something. A finding is left in
# build-fuzz/findings/: fix it, then keep the input in tests/fuzz/regressions/NAME/.
#
#   scripts/fuzz.sh [SECONDS]
set -euo pipefail
shopt -s nullglob
cd "$(dirname "$0")/.."
seconds=${1:-60}
bash scripts/install-deps.sh
build=build-fuzz
cmake -S . -B "$build" -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DSELVANE_FUZZ=ON \
  -DSELVANE_BUILD_TESTS=OFF -DSELVANE_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" -j2
bash tests/fuzz/make-seeds.sh "$build/seeds" "$build/bin/selvane-pack"
mkdir -p "$build/findings"

export ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
failed=()
summary=()
while read -r name seeds; do
  target=$build/fuzz/fuzz-$name
  regressions=tests/fuzz/regressions/$name
  corpus=$build/corpus/$name
  log=$build/fuzz-$name.log
  mkdir -p "$corpus"
  inputs=("$corpus" "$build/seeds/$seeds")
  echo "== $name: regression inputs, then $seconds s from $corpus and seeds/$seeds"
  kept=("$regressions"/*)
  [ ${#kept[@]} -eq 0 ] || inputs+=("$regressions")
  if [ ${#kept[@]} -gt 0 ] && ! "$target" "${kept[@]}" >"$log" 2>&1 </dev/null; then
    cat "$log"
    failed+=("$name")
    summary+=("$name: a regression input fails again (see $log)")
    continue
  fi
  ok=true
  "$target" -max_total_time="$seconds" -timeout=20 -rss_limit_mb=2048 -print_final_stats=1 \
    -artifact_prefix="$build/findings/$name-" "${inputs[@]}" >"$log" 2>&1 </dev/null || ok=false
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
  if $ok; then
    summary+=("$name: ${runs:-?} executions, no finding")
  else
    tail -60 "$log"
    failed+=("$name")
    summary+=("$name: ${runs:-?} executions, FINDING (see $log and $build/findings/)")
  fi
done <"$build/fuzz-targets.txt"

printf '%s\n' "${summary[@]}"
if [ ${#failed[@]} -gt 0 ]; then
  echo "fuzz: findings in: ${failed[*]}" >&2
  exit 1
fi

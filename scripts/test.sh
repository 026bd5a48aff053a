#!/bin/bash
# Runs the whole test suite from a fresh clone: installs what is missing, configures, builds and
# runs CTest. Run it as root on Debian 12 (tests that need root skip otherwise).
#
#   scripts/test.sh              the suite, in build/
#   scripts/test.sh --sanitize   the suite under AddressSanitizer and UBSan, in build-sanitize/
#   scripts/test.sh --valgrind   the unit suites under valgrind's memcheck, in build-valgrind/
#   scripts/test.sh --armhf      cross-build for 32-bit ARM and run the suite under qemu-arm
set -euo pipefail
cd "$(dirname "$0")/.."

mode=${1:-native}
case "$mode" in
  native | --sanitize | --valgrind) bash scripts/install-deps.sh ;;
  --armhf) exec bash scripts/test-armhf.sh ;;
  *) echo "usage: $0 [--sanitize | --valgrind | --armhf]" >&2; exit 2 ;;
esac
for setup in scripts/setup-*.sh; do
  [ -e "$setup" ] && bash "$setup"
done

build=build
flags=()
skip=()
if [ "$mode" = --sanitize ]; then
  build=build-sanitize
  flags=(-DSELVANE_SANITIZE=ON -DCMAKE_BUILD_TYPE=Debug)
  export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
  export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
elif [ "$mode" = --valgrind ]; then
  build=build-valgrind
  flags=(-DSELVANE_VALGRIND=ON -DSELVANE_BUILD_BENCH=OFF)
  # The end-to-end tests only run selvane-sim and selvane-update as programs: nothing of theirs
  # runs inside the test binary.
  skip=(-LE '^UpdateEndToEndTest$')
fi
cmake -S . -B "$build" "${flags[@]}"
cmake --build "$build" -j"$(nproc)"
cd "$build"
ctest -j2 --output-on-failure --timeout 600 "${skip[@]}"

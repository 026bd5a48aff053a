#!/bin/bash
# Builds the emulated ARM board (tools/selvane-board) from the armhf build and runs the end-to-end
# tests on it: update and commit, fallback, wipe and halt, power cuts (ctest -L board).
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh --board || echo "board-test: the board's packages could not be installed"
bash scripts/test-armhf.sh --build-only
cd build-armhf/build
ctest -L board -j2 --output-on-failure --timeout 1200

#!/bin/bash
# Cross-builds the library and its tests for 32-bit ARM and runs them under qemu-arm.
# Tests that need facilities qemu's user mode cannot give them skip with a reason.
# --build-only: build, run nothing.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh --armhf
for setup in scripts/setup-*.sh; do
  [ -e "$setup" ] && bash "$setup"
done

packages=(libc6-dev libstdc++-12-dev libcurl4-openssl-dev libssl-dev libarchive-dev
  libprotobuf-dev libboost-filesystem-dev libboost-system-dev libboost-thread-dev
  libboost-chrono-dev libgtest-dev libubootenv-dev zlib1g-dev)
headers=(libcli11-dev nlohmann-json3-dev) # architecture-independent
sysroot=$PWD/build-armhf/sysroot
stamp="$sysroot/.packages"
if [ "$(cat "$stamp" 2>/dev/null)" != "${packages[*]} ${headers[*]}" ]; then
  if ! dpkg --print-foreign-architectures | grep -qx armhf; then
    dpkg --add-architecture armhf
  fi
  # The armhf index of the security mirror can fail while it syncs; that is harmless here.
  apt-get update -q || true
  bash scripts/mk-armhf-sysroot.sh "$sysroot" "${packages[@]/%/:armhf}" "${headers[@]}"
  echo "${packages[*]} ${headers[*]}" >"$stamp"
fi

cmake -S . -B build-armhf/build -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/armhf-toolchain.cmake" \
  -DARMHF_SYSROOT="$sysroot" -DSELVANE_BUILD_BENCH=OFF
cmake --build build-armhf/build -j"$(nproc)"
[ "${1:-}" = --build-only ] && exit 0
cd build-armhf/build
# The emulated board's tests run on their own (scripts/board-test.sh).
ctest -j2 --output-on-failure --timeout 900 -LE board

#!/bin/bash
# Installs every Debian package that building and testing selvane needs.
# Idempotent: packages already present are left alone, so a second run is quick.
# Usage: scripts/install-deps.sh [--armhf | --board]   (--board: the emulated board, with --armhf's)
set -euo pipefail

packages=(
  build-essential cmake pkg-config clang-format
  protobuf-compiler libprotobuf-dev
  libcurl4-openssl-dev libssl-dev openssl libarchive-dev
  libboost-filesystem-dev libboost-system-dev libboost-thread-dev libboost-chrono-dev
  libgtest-dev libgmock-dev
  libubootenv-dev libubootenv-tool libcli11-dev nlohmann-json3-dev help2man
  busybox-static e2fsprogs util-linux binutils xz-utils
  nginx-light nodejs npm curl ca-certificates
  clang libclang-rt-dev valgrind
)
if [ "${1:-}" = "--armhf" ] || [ "${1:-}" = "--board" ]; then
  packages+=(g++-arm-linux-gnueabihf qemu-user-static)
fi
if [ "${1:-}" = "--board" ]; then
  packages+=(qemu-system-arm u-boot-qemu u-boot-tools gdisk dosfstools mtools cpio python3)
fi

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
# node and npm may come from the machine image rather than Debian's packages.
if command -v node >/dev/null && command -v npm >/dev/null; then
  missing=("${missing[@]/nodejs}"); missing=("${missing[@]/npm}")
fi
read -ra missing <<<"${missing[*]}"
if [ ${#missing[@]} -gt 0 ]; then
  echo "install-deps: installing ${missing[*]}"
  # The armhf index of the security mirror can fail while it syncs; that is harmless here.
  apt-get update -q || true
  DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends "${missing[@]}"
fi

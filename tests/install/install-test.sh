#!/bin/bash
# Installs the build into a fresh prefix outside /usr and moves it, then, from there only: runs the
# installed selvane-update, and builds and runs a small consumer once through find_package(selvane)
# and once through pkg-config.
#
#   install-test.sh BUILD-DIR CXX "CXXFLAGS" [TOOLCHAIN-FILE SYSROOT EMULATOR...]
# A cross build passes its toolchain file, its sysroot and the emulator that runs its programs.
set -euo pipefail
build=$1 cxx=$2 cxxflags=$3
toolchain=${4:-} sysroot=${5:-}
emulator=("${@:6}")
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d /tmp/selvane-install-test.XXXXXX)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
mkdir "$work/scratch"

# Installed in one place and used from another: nothing may depend on where it was installed.
cmake --install "$build" --prefix "$work/staging" >/dev/null
mv "$work/staging" "$prefix"
"${emulator[@]}" "$prefix/bin/selvane-update" --help >"$work/help"
grep -q '^Usage: selvane-update' "$work/help"
echo "installed selvane-update --help: ok"

config=$(dirname "$(find "$prefix" -name selvaneConfig.cmake)")
cmake_args=(-DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_CXX_FLAGS="$cxxflags")
if [ -n "$toolchain" ]; then
  # A cross build finds packages in its sysroot only, so it is shown the package directory.
  cmake_args+=(-DCMAKE_TOOLCHAIN_FILE="$toolchain" -DARMHF_SYSROOT="$sysroot" -Dselvane_DIR="$config")
else
  cmake_args+=(-DCMAKE_PREFIX_PATH="$prefix")
fi
cmake -S "$here" -B "$work/cmake" "${cmake_args[@]}" >/dev/null
cmake --build "$work/cmake" >/dev/null
"${emulator[@]}" "$work/cmake/consumer" "$work/scratch"

pc_dir=$(dirname "$(find "$prefix" -name selvane.pc)")
if [ -n "$sysroot" ]; then
  # The sysroot's own .pc files; the sysroot is not prepended, it would be to the prefix too.
  export PKG_CONFIG_LIBDIR=$pc_dir:$sysroot/usr/lib/arm-linux-gnueabihf/pkgconfig:$sysroot/usr/share/pkgconfig
  cxxflags+=" --sysroot=$sysroot"
else
  export PKG_CONFIG_PATH=$pc_dir
fi
libdir=$(pkg-config --variable=libdir selvane)
# shellcheck disable=SC2046,SC2086 # flags are lists of words
"$cxx" -std=c++17 $cxxflags -o "$work/pc-consumer" "$here/consumer.cpp" \
  $(pkg-config --cflags --libs selvane) -Wl,-rpath,"$libdir"
"${emulator[@]}" "$work/pc-consumer" "$work/scratch"

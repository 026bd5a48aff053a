#!/bin/bash
# Peak memory of `selvane-update install` as the package grows: one release with a 1 MiB package
# (the baseline) and one with a 512 MiB package, installed on the simulated device in the same
# run. Prints both peak RSS figures and their ratio; a client that streams stays near 1.0.
#
#   bench/install-peak-rss.sh          (as root, after a build in build/)
set -euo pipefail
cd "$(dirname "$0")/.."
sim=tools/selvane-sim/selvane-sim
bin=$PWD/build/bin
[ -x "$bin/peak-rss" ] || { echo "build first: cmake --build build" >&2; exit 1; }
work=$(mktemp -d)
device=$work/device
trap '"$sim" destroy "$device" >/dev/null 2>&1; rm -rf "$work"' EXIT
"$sim" create "$device" --main-b-size 1200M >/dev/null

# release NAME MIB: release 2.0's packages plus a package holding MIB MiB of random data.
release() {
  local name=$1 mib=$2 src=$work/src-$1 out=$device/www/$1 port
  port=$(cat "$device/port")
  mkdir -p "$src/data/usr/share/payload" "$src/control" "$out"
  head -c "$((mib << 20))" /dev/urandom >"$src/data/usr/share/payload/blob"
  printf 'Package: payload\nVersion: %s\nArchitecture: all\nMaintainer: bench\nDescription: payload\n' \
    "$mib" >"$src/control/control"
  (cd "$src/data" && sha256sum usr/share/payload/blob) >"$src/control/sha256sums"
  echo 2.0 >"$src/debian-binary"
  tar -C "$src/control" -czf "$src/control.tar.gz" .
  # Random data does not compress: store it without spending minutes in gzip.
  tar -C "$src/data" -cf - . | gzip -1 >"$src/data.tar.gz"
  (cd "$src" && ar rc "$out/payload_${mib}_all.ipk" debian-binary control.tar.gz data.tar.gz)
  rm -rf "$src"
  cp "$device"/www/release-2.0/*.ipk "$out/"
  "$bin/selvane-pack" sign --key "$device/keys/release.pem" "$out/payload_${mib}_all.ipk" >/dev/null
  "$bin/selvane-pack" manifest --version "$name" --base-url "https://localhost:$port/$name" \
    --output "$out/manifest" "$out"/*.ipk >/dev/null
  "$bin/selvane-pack" sign-manifest --key "$device/keys/release.pem" "$out/manifest" >/dev/null
}

measure() {
  local name=$1
  "$sim" run "$device" -- "$bin/peak-rss" "$bin/selvane-update" install \
    --manifest "https://localhost:$(cat "$device/port")/$name/manifest" \
    --keys "$device/keys/trusted" --cache "$work/cache-$name" 2>&1 >/dev/null |
    sed -n 's/.*peak-rss-kib //p'
}

release small 1
release large 512
small=$(measure small)
large=$(measure large)
echo "selvane-update install, peak RSS with a 1 MiB package:   ${small} KiB"
echo "selvane-update install, peak RSS with a 512 MiB package: ${large} KiB"
awk -v s="$small" -v l="$large" 'BEGIN { printf "ratio (512 MiB / 1 MiB): %.2f\n", l / s }'

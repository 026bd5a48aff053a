#!/bin/bash
# Makes the seed inputs of the fuzz targets, one directory per kind (see CMakeLists.txt):
#   packages/   opkg packages: signed with keys/fuzz.key, unsigned, reordered, with extra members
#   manifests/  manifest files: written by selvane-pack, and edge cases encoded with protoc
#   sums/       sha256sum lists over this directory's files (the sums-file target's root)
#   status/     opkg status files
#
#   tests/fuzz/make-seeds.sh OUTDIR SELVANE-PACK
set -euo pipefail
out=$1 pack=$2
here=$(cd "$(dirname "$0")" && pwd)
proto=$here/../../lib/selvane/protobuf
rm -rf "$out"
mkdir -p "$out"/{packages,manifests,sums,status}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# ---- packages
mkdir -p "$work/control" "$work/data/usr/bin"
printf 'Package: hello\nVersion: 1.0-r0\nArchitecture: all\nDescription: fuzz seed\n' \
  >"$work/control/control"
printf '#!/bin/sh\necho hello\n' >"$work/data/usr/bin/hello"
(cd "$work/data" && sha256sum usr/bin/hello) >"$work/control/sha256sums"
echo 2.0 >"$work/debian-binary"
tar -C "$work/control" -czf "$work/control.tar.gz" .
tar -C "$work/data" -czf "$work/data.tar.gz" .
(cd "$work" && ar rc unsigned.ipk debian-binary control.tar.gz data.tar.gz)
"$pack" sign --key "$here/keys/fuzz.key" --output "$work/signed.ipk" "$work/unsigned.ipk" >/dev/null
mkdir "$work/members"
(cd "$work/members" && ar x ../signed.ipk)
(cd "$work/members" && ar rc ../reordered.ipk signature data.tar.gz debian-binary control.tar.gz)
echo extra >"$work/members/extra"
(cd "$work/members" && ar rc ../extra.ipk debian-binary control.tar.gz data.tar.gz signature extra)
cp "$work"/{unsigned,signed,reordered,extra}.ipk "$out/packages/"

# ---- manifests
"$pack" manifest --version 2.0 --base-url https://example.invalid/2.0 \
  --output "$out/manifests/selvane-pack" "$work/signed.ipk" >/dev/null
encode() { protoc --encode=Manifest -I "$proto" "$proto/Manifest.proto" >"$out/manifests/$1"; }
package='packages { name: "a" version: "1" size: 4294967296 url: "http://h/a" sha256: "00" }'
echo 'version: "1.0"' | encode empty
echo "version: \"1.0\" $package" | encode large-size
echo "version: \"1.0\" $package $package" | encode duplicate
echo 'version: "1.0" packages { name: "a" version: "1" size: 1 url: "u" }' | encode no-sha256 2>/dev/null

# ---- sums files (relative to this directory)
(cd "$here" && sha256sum ./*.cpp CMakeLists.txt) >"$out/sums/text"
(cd "$here" && sha256sum -b ./*.h keys/fuzz.pub) >"$out/sums/binary"
printf '%s' "$(cat "$out/sums/text")" >"$out/sums/no-final-newline"
sed '1s/^./0/' "$out/sums/text" >"$out/sums/mismatch"
: >"$out/sums/empty"

# ---- opkg status files
cat >"$out/status/plain" <<'STATUS'
Package: busybox
Version: 1.36.1-r0
Depends: libc6
Status: install ok installed
Architecture: armv7a-vfp-neon

Package: hello
Version: 2.0
Status: install user unpacked
Description: a package
 with a continuation line: and a colon

Package: vindal-manifest
Version: 1
Status: install ok installed

STATUS
printf 'Package: a\nStatus: install ok installed\n\nPackage:b\nVersion:  1 \nStatus: deinstall ok not-installed\n\nPackage: vindal-manifest\nVersion: 2\nStatus: x  installed' \
  >"$out/status/carry-over"
printf 'Package: a\nVersion: 1\nStatus: install ok half-installed\n\nPackage: a\nVersion: 1\nStatus: install ok installed\nPackage: a\nVersion: 2\n\n' \
  >"$out/status/overwrite"

#!/bin/bash
# Assembles an armhf sysroot from Debian's packages, without installing anything armhf:
#   scripts/mk-armhf-sysroot.sh DEST PKG:armhf... [PKG...]
# The packages and their dependency closure are downloaded and unpacked into DEST. Packages named
# without ":armhf" are architecture-independent ones (header-only libraries), taken as they are. Only the
# headers and libraries are kept: qemu-arm -L DEST would otherwise show the ARM programs DEST's
# /bin, /etc or /tmp in place of the host's.
set -euo pipefail
DEST=$(realpath -m "$1")
shift
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
armhf=() any=()
for p in "$@"; do
  case $p in *:armhf) armhf+=("$p") ;; *) any+=("$p") ;; esac
done
closure=$(
  apt-cache depends --recurse --no-recommends --no-suggests --no-conflicts \
    --no-breaks --no-replaces --no-enhances "${armhf[@]}" | grep -E '^[a-z0-9][^ ]*:armhf$'
  printf '%s\n' "${any[@]}"
)
closure=$(sort -u <<<"$closure")
chown _apt "$work" 2>/dev/null || true # apt's sandbox user writes the .debs
(cd "$work" && apt-get download -q $closure >/dev/null)
rm -rf "$DEST"
mkdir -p "$DEST"
for f in "$work"/*.deb; do dpkg-deb -x "$f" "$DEST"; done
# Absolute symlinks (usr/lib/arm-linux-gnueabihf/libz.so -> /lib/...) must point inside DEST.
find "$DEST" -type l -lname '/*' | while read -r l; do ln -sfr "$DEST$(readlink "$l")" "$l"; done
find "$DEST" -mindepth 1 -maxdepth 1 ! -name lib ! -name usr -exec rm -rf {} +
find "$DEST/usr" -mindepth 1 -maxdepth 1 ! -name lib ! -name include ! -name share -exec rm -rf {} +
find "$DEST/usr/share" -mindepth 1 -maxdepth 1 ! -name pkgconfig ! -name cmake -exec rm -rf {} +
echo "$(wc -w <<<"$closure") packages unpacked into $DEST"

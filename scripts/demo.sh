#!/bin/bash
# The main job: builds selvane and shows it at work on this machine.
# It runs a command under a time limit as the package manager runs opkg, then checks files against
# a sha256sum list as installed packages are verified.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake -S . -B build >/dev/null
cmake --build build -j"$(nproc)" --target selvane-demo >/dev/null

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/root/etc"
echo "selvane demo" >"$work/root/etc/motd"
(cd "$work/root" && sha256sum etc/motd >"$work/motd.sha256sums")

demo=build/tools/selvane-demo
echo "== a command that finishes in time, then a check of the files it left"
"$demo" --timeout 5 --sums "$work/motd.sha256sums" --root "$work/root" -- /bin/sh -c 'echo hello from the child'
echo
echo "== a command that outlives its time limit of 2 s"
"$demo" --timeout 2 -- /bin/sleep 30 || true
echo
echo "== the same check after a file was changed"
echo "tampered" >>"$work/root/etc/motd"
"$demo" --sums "$work/motd.sha256sums" --root "$work/root" -- /bin/true || true

#!/bin/bash
# The main job: builds selvane, makes a simulated A/B device, and takes it through one update.
#
# The device runs release 1.0 from main-A. selvane-update installs release 2.0, fetched over HTTPS
# with a signed manifest, into main-B and switches the boot properties to main-B. Then main-B is "booted" (chroot), shows
# that the new release runs, and marks itself known good. The device is removed at the end.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake -S . -B build >/dev/null
cmake --build build -j"$(nproc)" --target selvane-update selvane-pack >/dev/null

sim=tools/selvane-sim/selvane-sim
work=$(mktemp -d)
device=$work/device
trap '"$sim" destroy "$device"; rm -rf "$work"' EXIT
step() { printf '\n\033[1m== %s\033[0m\n' "$*"; }

step "Creating the simulated device"
"$sim" create "$device"
manifest=https://localhost:$(cat "$device/port")/release-2.0/manifest

step "Boot properties before the update"
"$sim" env "$device"
step "What the update would do (selvane-update check)"
"$sim" run "$device" -- build/bin/selvane-update check --manifest "$manifest" \
  --keys "$device/keys/trusted"

step "Installing release 2.0 into main-B (selvane-update install)"
"$sim" run "$device" -- build/bin/selvane-update install --manifest "$manifest" \
  --keys "$device/keys/trusted" --retries 3

step "Boot properties after the update"
"$sim" env "$device"

step "Booting main-B (chroot) and running the new release"
"$sim" boot "$device" main-B -- /usr/bin/hello
"$sim" boot "$device" main-B -- /run/selvane/selvane-update mark-good
"$sim" boot "$device" main-B -- /run/selvane/selvane-update status

step "Summary"
props=$("$sim" env "$device")
echo "main-B runs release 2.0; $(grep '^boot.bootmode=' <<<"$props"), $(grep '^boot.knowngood=' <<<"$props")"
echo "main-A still holds release 1.0, untouched, as the fallback."

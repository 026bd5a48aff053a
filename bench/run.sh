#!/bin/bash
# The benchmarks: every operation against a baseline program, measured in the same run, in pairs
# (ours, then the baseline, PAIRS times; default 7), on tmpfs. Both sides run as programs timed by
# bench/peak-rss, so both pay one process start. Prints one table: the median ratio of times
# (ours / baseline) with its range, the goal, and each operation's peak RSS at a small and at a
# large input.
#
#   bench/run.sh            (as root, after a build in build/; about 5 minutes)
#
# Uses a private mount namespace: a tmpfs for the files, a loop device over a tmpfs file for the
# wipe, and a CA bundle that trusts the benchmark's own CA for the HTTPS downloads (curl and
# libcurl read the same bundle). Downloads come from nginx on 127.0.0.1.
set -euo pipefail
cd "$(dirname "$0")/.."
if [ -z "${SELVANE_BENCH_NAMESPACE:-}" ]; then
  exec env SELVANE_BENCH_NAMESPACE=1 unshare --mount --propagation private bash "$0" "$@"
fi
bin=$PWD/build/bin
pairs=${PAIRS:-7}
buffer=102400 # the receive buffer selvane-update sets (tools/selvane-update/Downloads.cpp)
[ -x "$bin/selvane-bench" ] && [ -x "$bin/peak-rss" ] || {
  echo "build first: cmake -S . -B build && cmake --build build" >&2
  exit 1
}

work=$(mktemp -d /tmp/selvane-bench.XXXXXX)
loops=()
cleanup() {
  cd /
  [ -n "${SERVER_PID:-}" ] && { exec {SERVER[1]}>&-; wait "$SERVER_PID" || true; }
  for loop in "${loops[@]}"; do losetup -d "$loop" || true; done
  umount "$work" 2>/dev/null || true
  rmdir "$work"
}
trap cleanup EXIT
mount -t tmpfs -o size=4G,mode=0755 selvane-bench "$work"
cd "$work"

echo "preparing inputs in $work (tmpfs)" >&2
head -c 1M /dev/urandom >small.bin
head -c 1G /dev/urandom >large.bin

# Packages of about 1 MiB and 256 MiB, signed, and their members for openssl.
openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out key.pem 2>/dev/null
openssl pkey -in key.pem -pubout -out key.pub
package() {
  mkdir -p "$1" && cd "$1"
  printf 'Package: payload\nVersion: 1\nArchitecture: all\nDescription: bench\n' >control
  tar -czf control.tar.gz control
  echo 2.0 >debian-binary
  head -c "$2" /dev/urandom >data.tar.gz # random bytes: their digest costs what a package's does
  ar rc unsigned.ipk debian-binary control.tar.gz data.tar.gz
  "$bin/selvane-pack" sign --key ../key.pem --output ../"$1".ipk unsigned.ipk >/dev/null
  rm unsigned.ipk
  cd ..
}
package small-pkg 1M
package large-pkg 256M

# The HTTPS server's PKI, and a CA bundle that trusts it, in this namespace only.
key='-newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes'
openssl req -x509 -new $key -days 2 -keyout ca.key -out ca.crt -subj '/CN=selvane bench CA' \
  -addext basicConstraints=critical,CA:TRUE -addext keyUsage=critical,keyCertSign 2>/dev/null
printf 'subjectAltName=DNS:localhost,IP:127.0.0.1\nextendedKeyUsage=serverAuth\n' >server.ext
openssl req -new $key -keyout server.key -out server.csr -subj /CN=localhost 2>/dev/null
openssl x509 -req -in server.csr -CA ca.crt -CAkey ca.key -CAcreateserial -days 2 \
  -extfile server.ext -out server.crt 2>/dev/null
cat /etc/ssl/certs/ca-certificates.crt ca.crt >bundle.crt
mount --bind bundle.crt /etc/ssl/certs/ca-certificates.crt

coproc SERVER { "$bin/selvane-bench" serve "$work/server.crt" "$work/server.key"; }
read -r docroot <&"${SERVER[0]}"
read -r http <&"${SERVER[0]}"
read -r https <&"${SERVER[0]}"
ln -s "$work/small.bin" "$work/large.bin" "$docroot/"

# Loop devices over tmpfs files for the wipe.
truncate -s 16M wipe-small.img
truncate -s 1G wipe-large.img
wipeSmall=$(losetup --find --show wipe-small.img) && loops+=("$wipeSmall")
wipeLarge=$(losetup --find --show wipe-large.img) && loops+=("$wipeLarge")
"$bin/selvane-bench" plain-wipe "$wipeLarge" # allocates the pages both sides then overwrite

# measure COMMAND...: runs it once; prints "SECONDS PEAK_KIB". A failing command ends the run.
measure() {
  local report
  report=$("$bin/peak-rss" "$@" 2>&1 >/dev/null) || { echo "failed: $*: $report" >&2; return 1; }
  sed -n 's/^seconds \([0-9.]*\) peak-rss-kib \([0-9]*\)$/\1 \2/p' <<<"$report"
}

# row NAME INPUT GOAL SMALL-COMMAND -- OURS-COMMAND -- BASELINE-COMMAND -- [AFTER-EACH-COMMAND]
# SMALL-COMMAND is ours on the small input, for its peak RSS. GOAL "-" is a row without a goal.
row() {
  local name=$1 input=$2 goal=$3
  shift 3
  local small=() ours=() theirs=() after=()
  while [ "$1" != -- ]; do small+=("$1"); shift; done; shift
  while [ "$1" != -- ]; do ours+=("$1"); shift; done; shift
  while [ "$1" != -- ]; do theirs+=("$1"); shift; done; shift
  after=("$@")
  echo "measuring: $name" >&2
  local ratios=() peakLarge=0 peakSmall a b rss m
  for ((i = 0; i < pairs; i++)); do
    m=$(measure "${ours[@]}")
    read -r a rss <<<"$m"
    [ ${#after[@]} -eq 0 ] || "${after[@]}"
    if ((rss > peakLarge)); then peakLarge=$rss; fi
    m=$(measure "${theirs[@]}")
    read -r b _ <<<"$m"
    [ ${#after[@]} -eq 0 ] || "${after[@]}"
    ratios+=("$(awk -v a="$a" -v b="$b" 'BEGIN { printf "%.3f", a / b }')")
  done
  m=$(measure "${small[@]}")
  read -r _ peakSmall <<<"$m"
  [ ${#after[@]} -eq 0 ] || "${after[@]}"
  printf '%s\n' "${ratios[@]}" | sort -n | awk -v name="$name" -v input="$input" -v goal="$goal" \
    -v s="$peakSmall" -v l="$peakLarge" '
    { r[NR] = $1 }
    END {
      median = NR % 2 ? r[(NR + 1) / 2] : (r[NR / 2] + r[NR / 2 + 1]) / 2
      met = goal == "-" ? "-" : median <= goal ? "met" : "MISSED"
      printf "| %s | %s | %d | %.2f | %.2f to %.2f | %s | %s | %d / %d KiB (%+d) |\n", name, input,
        NR, median, r[1], r[NR], goal == "-" ? "-" : "<= " goal, met, s, l, l - s
    }' >>table.md
}

removeOutput() { rm -f out.bin; }
sha=$(sha256sum large.bin | cut -d' ' -f1)
shaSmall=$(sha256sum small.bin | cut -d' ' -f1)
(cd large-pkg && ar x ../large-pkg.ipk)

{
  echo "| Operation / baseline | Input | Pairs | Median ratio | Range | Goal | Met | Peak RSS, small / large input |"
  echo "|---|---|---|---|---|---|---|---|"
} >table.md
row '`VerifySHA256Sum` / `openssl dgst -sha256`' '1 GiB' 1.05 \
  "$bin/selvane-bench" sha256 small.bin "$shaSmall" -- \
  "$bin/selvane-bench" sha256 large.bin "$sha" -- openssl dgst -sha256 large.bin --
row '`PackageVerifier` / `openssl dgst -sha1` over the members' '256 MiB' 1.05 \
  "$bin/selvane-bench" verify key.pub small-pkg.ipk -- \
  "$bin/selvane-bench" verify key.pub large-pkg.ipk -- \
  openssl dgst -sha1 large-pkg/debian-binary large-pkg/control.tar.gz large-pkg/data.tar.gz --
row 'download over HTTP, libcurl'"'"'s default 16 KiB buffer / `curl -o`' '1 GiB' - \
  "$bin/selvane-bench" download "$http/small.bin" out.bin 0 -- \
  "$bin/selvane-bench" download "$http/large.bin" out.bin 0 -- \
  curl -sS -f -o out.bin "$http/large.bin" -- removeOutput
for scheme in http https; do
  base=${!scheme}
  row "download over ${scheme^^} / \`curl -o\`" '1 GiB' 1.00 \
    "$bin/selvane-bench" download "$base/small.bin" out.bin "$buffer" -- \
    "$bin/selvane-bench" download "$base/large.bin" out.bin "$buffer" -- \
    curl -sS -f -o out.bin "$base/large.bin" -- removeOutput
done
row '`evictDataAndHalt` / 4096-byte writes, fsync, sync' '1 GiB device' 1.05 \
  "$bin/selvane-bench" wipe "$wipeSmall" -- \
  "$bin/selvane-bench" wipe "$wipeLarge" -- "$bin/selvane-bench" plain-wipe "$wipeLarge" --

echo "small inputs: 1 MiB files and packages, a 16 MiB device; ours at $buffer bytes of receive buffer"
cat table.md

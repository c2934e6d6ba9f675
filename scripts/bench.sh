#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Measures the release build over loopback: server CPU per call and per directory entry. Three rounds,
# interleaved; the median of each figure goes to docs/benchmarks.md (nowhere with --dry).
#   scripts/bench.sh [--dry] [--seconds N]
set -euo pipefail
cd "$(dirname "$0")/.."

dry= seconds=4 rounds=3
while [[ $# -gt 0 ]]; do
  case $1 in
    --dry) dry=yes ;;
    --seconds) seconds=$2; shift ;;
    *) echo "usage: scripts/bench.sh [--dry] [--seconds N]" >&2; exit 1 ;;
  esac
  shift
done

mkdir -p build
cmake --preset release >build/configure-release.log
cmake --build --preset release --target oxelnfsd oxelctl oxel-load oxel-floor >build/build-release.log

work=$(mktemp -d "${TMPDIR:-/tmp}/oxel-bench.XXXXXX")
pid= floor_pid=
cleanup() {
  for child in $pid $floor_pid; do
    kill -TERM "$child" 2>/dev/null || true
    wait "$child" 2>/dev/null || true
  done
  rm -rf "$work"
}
trap cleanup EXIT

share=$work/share
mkdir -p "$share/many" "$share/few" "$work/root/etc/oxelnfsd"
head -c $((64 << 20)) /dev/urandom >"$share/file"
touch "$share/written"
(cd "$share/many" && seq -f 'a-file-with-a-name-%06g' 10000 | xargs touch)
printf '[Oxel]\nnHardened = 1\nnNfs3Port = 0\n' >"$work/root/etc/oxelnfsd/Bench.conf"
printf '"%s" 127.0.0.1(rw,no_root_squash,insecure)\n' "$share" >"$work/root/etc/oxelnfsd/Bench.exports"

export OXEL_ROOT=$work/root
build/release/bin/oxelnfsd -cn bench -vm Bench -no_pm_reg 2>"$work/stderr" &
pid=$!
port=
for _ in $(seq 100); do
  port=$(sed -n 's/^MountServerPort_v4 *= *//p' "$work/root/run/oxelnfsd/Bench/runtime.conf" 2>/dev/null || true)
  [[ -n "$port" ]] && break
  sleep 0.1
done
[[ -n "$port" ]] || { cat "$work/stderr" >&2; exit 1; }

build/release/bin/oxel-floor >"$work/floor-port" &
floor_pid=$!
until [[ -s "$work/floor-port" ]]; do sleep 0.1; done

at() { # port pid options
  build/release/bin/oxel-load --json --share "$share" --seconds "$seconds" --mount-port "$port" \
    --port "$1" --server-pid "$2" "${@:3}"
}
load() { at "$port" "$pid" "$@"; }
for _ in $(seq "$rounds"); do
  at "$(<"$work/floor-port")" "$floor_pid" --op null --connections 8 --depth 8 >>"$work/floor"
  load --op null --connections 8 --depth 8 >>"$work/null"
  load --op getattr --file file --connections 8 --depth 8 >>"$work/getattr"
  load --op getattr --file file --connections 1 --depth 1 >>"$work/getattr-single"
  load --op read --file file --bytes 65536 --connections 4 --depth 4 >>"$work/read"
  load --op readdirplus --file many --bytes 65536 --connections 1 >>"$work/readdirplus"
  load --op write --file written --bytes 65536 --stable 0 --connections 4 --depth 4 >>"$work/write"
  load --op write --file written --bytes 65536 --stable 2 --connections 4 --depth 4 >>"$work/write-sync"
  load --op create-remove --file few --connections 4 >>"$work/create-remove"
done

# median FILE FIELD: the middle one of the rounds, with two digits.
median() {
  sed -n "s/.*\"$2\":\([0-9.e+]*\).*/\1/p" "$work/$1" | sort -g | sed -n "$(((rounds + 1) / 2))p" |
    xargs printf '%.2f'
}
row() { # label file extra-field extra-unit
  local extra=${3:+$(median "$2" "$3") $4} cpu floor
  cpu=$(median "$2" serverCpuUsPerCall) floor=$(median floor serverCpuUsPerCall)
  printf '| %s | %s | %s | %s | %s | %s | %s |\n' "$1" "$(median "$2" callsPerSecond)" "$cpu" \
    "$(awk "BEGIN { printf \"%.2f\", $cpu / $floor }")" "$(median "$2" p50us)" \
    "$(median "$2" p99us)" "$extra"
}
table() {
  echo '| load | calls/s | server CPU per call, us | of the floor | p50 us | p99 us | |'
  echo '|---|---|---|---|---|---|---|'
  row 'floor, 8 connections x depth 8' floor
  row 'NULL, 8 connections x depth 8' null
  row 'GETATTR, 8 connections x depth 8' getattr
  row 'GETATTR, 1 connection x depth 1' getattr-single
  row 'READ 64 KiB, 4 connections x depth 4' read mibPerSecond MiB/s
  row 'READDIRPLUS 64 KiB pages, 10,000 names' readdirplus entriesPerSecond 'entries/s'
  row 'WRITE 64 KiB UNSTABLE, 4 connections x depth 4' write mibPerSecond MiB/s
  row 'WRITE 64 KiB FILE_SYNC, 4 connections x depth 4' write-sync mibPerSecond MiB/s
  row 'CREATE and REMOVE in turn, 4 connections x depth 1' create-remove
}
if [[ -n "$dry" ]]; then
  table
  exit 0
fi
{
  echo '# Benchmarks'
  echo
  echo 'Written by `make bench`: the release build over loopback, load generator and server on one'
  echo 'machine, raw pipelined calls (`bench/oxel_load.cpp`), every status checked. Medians of'
  echo "$rounds interleaved rounds of $seconds s. The machine is small and shared, and its speed changes"
  echo 'from hour to hour: read the column "of the floor". The floor is `bench/oxel_floor.cpp`, one'
  echo 'thread that reads calls and writes fixed replies: what the sockets alone cost at that moment.'
  echo
  echo "- commit: $(git rev-parse --short HEAD 2>/dev/null || echo unknown)"
  echo "- machine: $(nproc) cores, $(sed -n 's/^model name[^:]*: //p' /proc/cpuinfo | head -n 1), Linux $(uname -r)"
  echo "- date: $(date -u +%F)"
  echo
  table
} | tee docs/benchmarks.md

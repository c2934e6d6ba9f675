#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Measures the release build, interleaved with others, over loopback.
#   scripts/bench.sh                       against nfs-ganesha; writes docs/benchmarks.md and .svg
#   scripts/bench.sh --scale               many connections, files and shares; writes its part there
#   scripts/bench.sh --against OXELNFSD    against another build of our own; only prints
# Options: --seconds N (of one measurement: 2, with --scale 1), --rounds N (3), --only PATTERN (only
# rows of bench/rows whose name matches; printed, not written), --place disk|tmpfs|both (both),
# --default-mode (with --against: nHardened = 0), --dry (print, write nothing), --no-build.
# As root everything runs in namespaces of its own: network, mounts, processes. Otherwise there is
# no peer and no tmpfs.
set -euo pipefail
cd "$(dirname "$0")/.."

usage() { sed -n '3,13s/^# \{0,1\}//p' "$0" >&2; exit 2; }
kind=full against='' dry='' build=yes
export BENCH_SECONDS='' BENCH_ROUNDS=3 BENCH_ONLY=. BENCH_PLACES='disk tmpfs' BENCH_HARDENED=1
while [[ $# -gt 0 ]]; do
  case $1 in
    --scale) kind=scale ;;
    --against) kind=against; against=$(realpath "${2:?}"); shift ;;
    --seconds) BENCH_SECONDS=${2:?}; shift ;;
    --rounds) BENCH_ROUNDS=${2:?}; shift ;;
    --only) BENCH_ONLY=${2:?} dry=yes; shift ;;
    --place) BENCH_PLACES=${2:?}; shift; [[ $BENCH_PLACES != both ]] || BENCH_PLACES='disk tmpfs' ;;
    --default-mode) BENCH_HARDENED=0 ;;
    --dry) dry=yes ;;
    --no-build) build='' ;;
    *) usage ;;
  esac
  shift
done
[[ -n "$BENCH_SECONDS" ]] || { [[ $kind == scale ]] && BENCH_SECONDS=1 || BENCH_SECONDS=2; }
[[ -z "$against" || -x "$against" ]] || { echo "bench: $against is no program" >&2; exit 2; }

mkdir -p build
if [[ -n "$build" ]]; then
  cmake --preset release >build/configure-release.log
  cmake --build --preset release --target oxelnfsd oxelctl oxel-load oxel-floor oxel-tree \
    >build/build-release.log || { tail -n 20 build/build-release.log >&2; exit 1; }
fi

isolate=(unshare --net --mount --pid --fork --kill-child --mount-proc)
if [[ $EUID -ne 0 ]] || ! "${isolate[@]}" true 2>/dev/null; then
  echo 'bench: namespaces may not be made here (they need root): no peer, no tmpfs' >&2
  isolate=()
  BENCH_PLACES=disk
elif [[ $kind != against ]]; then
  scripts/install-packages.sh bench || echo 'bench: the peer could not be installed' >&2
fi

BENCH_WORK=$(mktemp -d "${TMPDIR:-/tmp}/oxel-bench.XXXXXX")
BENCH_ISOLATED=${isolate:+yes} BENCH_AGAINST=$against BENCH_KIND=$kind
export BENCH_WORK BENCH_ISOLATED BENCH_AGAINST BENCH_KIND
child=
cleanup() {
  if [[ -n "$child" ]] && kill -0 "$child" 2>/dev/null; then
    # The namespaces end with unshare, and every process and mount in them with them; without
    # namespaces the script ends what it has started.
    if [[ -n "$BENCH_ISOLATED" ]]; then kill -KILL "$child"; else kill -TERM "$child"; fi
    wait "$child" 2>/dev/null || true
  fi
  rm -rf "$BENCH_WORK" 2>/dev/null || { sleep 1; rm -rf "$BENCH_WORK"; }
}
trap cleanup EXIT
trap 'exit 130' INT TERM HUP

"${isolate[@]}" bench/run.sh </dev/null &
child=$!
wait "$child" || { echo 'bench: ended early' >&2; exit 1; }
child=

bench/tables.sh "$kind" >"$BENCH_WORK/tables"
if [[ $kind == against || -n "$dry" ]]; then
  cat "$BENCH_WORK/tables"
  exit 0
fi
bench/write_document.sh "$kind" "$BENCH_WORK/tables" docs/benchmarks.md

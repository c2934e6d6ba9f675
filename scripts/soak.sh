#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The long runs: mixed load under each sanitizer and as shipped, kills, integrity, and whatever else
# tests/ has that goes on for OXEL_SOAK_SECONDS. One line for each; build/soak/ has their output.
# Writes docs/soak.svg and docs/soak-*.csv: what the daemon used during the mixed load.
#   scripts/soak.sh [SECONDS]         of each run: 1800 unless said otherwise
#   scripts/soak.sh --plot            only draws what the last runs have left
set -euo pipefail
cd "$(dirname "$0")/.."

out=build/soak
mkdir -p "$out"
plot() {
  command -v gnuplot >/dev/null || { echo 'soak: no gnuplot, no picture'; return; }
  gnuplot -e "directory='docs'; picture='docs/soak.svg'" scripts/soak.gp
}
[[ "${1:-}" != --plot ]] || { plot; exit; }

seconds=${1:-1800} failed=0
[[ "$seconds" =~ ^[0-9]+$ ]] || { sed -n '6,7s/^# \{0,1\}//p' "$0" >&2; exit 2; }

build() {
  if ! cmake --preset "$1" >"$out/configure-$1.log" 2>&1 ||
    ! cmake --build --preset "$1" --target "${@:2}" >"$out/build-$1.log" 2>&1; then
    tail -n 20 "$out/configure-$1.log" "$out/build-$1.log" >&2 || true
    exit 1
  fi
}
# run NAME command...: its last telling line behind its name.
run() {
  local name=$1 began=$SECONDS verdict=ok
  shift
  "$@" >"$out/$name.log" 2>&1 || { verdict=FAILED failed=1; }
  printf '%-6s %-18s %5d s  %s\n' "$verdict" "$name" $((SECONDS - began)) \
    "$(grep -aE '^(RSS|[0-9]+ (lives|operations|calls))|^SOAK ' "$out/$name.log" | tr '\n' ';' || true)"
}
# The share in memory, where root may have it so: calls and not the disk are what is waited for.
in_memory=()
if [[ $EUID -eq 0 ]] && unshare --mount true 2>/dev/null; then
  in_memory=(unshare --mount bash -c 'mount -t tmpfs tmpfs /tmp && exec "$@"' soak)
fi

tests=(system_soak_tests system_integrity_tests)
build release oxelnfsd oxelctl "${tests[@]}"
build asan oxelnfsd
build tsan oxelnfsd
export OXEL_SOURCE_DIR=$PWD OXELCTL=$PWD/build/release/bin/oxelctl
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
export TSAN_OPTIONS=halt_on_error=0:second_deadlock_stack=1:exitcode=66

# The clients are not what is looked at: the daemon of each preset, the clients of one.
for preset in asan tsan release; do
  export OXELNFSD=$PWD/build/$preset/bin/oxelnfsd
  mkdir -p "$out/$preset"
  OXEL_SOAK_SECONDS=$seconds OXEL_SOAK_CSV=$PWD/$out/$preset run "mixed-$preset" \
    "${in_memory[@]}" build/release/tests/system_soak_tests
  for mode in default hardened; do
    [[ ! -f "$out/$preset/$mode.csv" ]] || cp "$out/$preset/$mode.csv" "docs/soak-$preset-$mode.csv"
  done
  OXEL_CRASH_ROUNDS=$((seconds / 20 + 1)) run "kills-$preset" \
    build/release/tests/system_integrity_tests --gtest_filter='*Crash*'
  OXEL_INTEGRITY_SECONDS=$seconds run "integrity-$preset" \
    "${in_memory[@]}" build/release/tests/system_integrity_tests --gtest_filter='*Integrity*'
done
# Faults of the disk and the network, where they are built.
export OXELNFSD=$PWD/build/release/bin/oxelnfsd OXEL_SOAK_SECONDS=$seconds
if [[ -f tests/faults/CMakeLists.txt ]]; then
  cmake --build --preset release >"$out/build-faults.log" 2>&1 || { tail "$out/build-faults.log"; exit 1; }
  run faults ctest --test-dir build/release/tests/faults --verbose
fi
plot
exit "$failed"

#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The data-integrity tests for long, under each of the given presets (release, asan and tsan by
# default). OXEL_SEED repeats a run.
#   scripts/integrity.sh SECONDS [preset...]
set -euo pipefail
cd "$(dirname "$0")/.."

export OXEL_INTEGRITY_SECONDS=${1:-600}
shift || true
[[ $# -gt 0 ]] || set -- release asan tsan
mkdir -p build
failed=()
for preset in "$@"; do
  echo "== $preset: build"
  cmake --preset "$preset" >"build/configure-$preset.log" 2>&1 ||
    { cat "build/configure-$preset.log"; exit 1; }
  cmake --build --preset "$preset" --target oxelnfsd system_integrity_tests \
    >"build/build-$preset.log" 2>&1 || { tail -n 40 "build/build-$preset.log"; exit 1; }
  echo "== $preset: $OXEL_INTEGRITY_SECONDS s"
  ctest --test-dir "build/$preset" -R '^system_integrity_tests$' --verbose || failed+=("$preset")
done
if [[ ${#failed[@]} -gt 0 ]]; then
  echo "Tests failed under: ${failed[*]}" >&2
  exit 1
fi

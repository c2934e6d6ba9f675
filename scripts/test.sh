#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds the given presets and runs their tests. Every preset runs even when an earlier one failed;
# the last line counts.
set -euo pipefail
cd "$(dirname "$0")/.."

mkdir -p build
failed=()
for preset in "$@"; do
  echo "== $preset: build"
  cmake --preset "$preset" >"build/configure-$preset.log" 2>&1 ||
    { cat "build/configure-$preset.log"; exit 1; }
  cmake --build --preset "$preset" >"build/build-$preset.log" 2>&1 ||
    { grep -aE 'error|FAILED' -A 10 "build/build-$preset.log" | head -n 60; exit 1; }
  echo "== $preset: test"
  # Two at a time: most of them wait for a daemon or a disk.
  ctest --test-dir "build/$preset" --parallel 2 --output-on-failure || failed+=("$preset")
done
if [[ ${#failed[@]} -gt 0 ]]; then
  echo "Tests failed under: ${failed[*]}" >&2
  exit 1
fi

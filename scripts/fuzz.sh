#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Fuzzes each target for a while, one after the other. What they learn stays in
# build/fuzz-corpus/<target>; an input that ends a target is copied to fuzz/findings/<target>.
#   scripts/fuzz.sh SECONDS [target...]   targets: calls store ... ; without any, all of them
#   scripts/fuzz.sh --seeds [target...]   puts what was learned, minimised, into fuzz/seeds
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=$1
shift
targets=("$@")
[[ ${#targets[@]} -gt 0 ]] ||
  mapfile -t targets < <(sed -n 's/^oxel_fuzz(\([a-z]*\) .*/\1/p' fuzz/CMakeLists.txt)

mkdir -p build
cmake --preset fuzz >build/configure-fuzz.log || { cat build/configure-fuzz.log; exit 1; }
cmake --build --preset fuzz --target "${targets[@]/#/fuzz_}"

# They write small files all the time.
[[ ! -w /dev/shm ]] || export TMPDIR=/dev/shm
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
failed=()
for target in "${targets[@]}"; do
  program=build/fuzz/fuzz/fuzz_$target
  corpus=build/fuzz-corpus/$target
  findings=fuzz/findings/$target
  mkdir -p "$corpus"
  if [[ $seconds == --seeds ]]; then
    learned=$(mktemp -d)
    "$program" -merge=1 -max_len=8192 "$learned" "fuzz/seeds/$target" "$corpus" >"build/fuzz-$target.log" 2>&1
    find "$learned" -type f -size -3k -exec cp -n {} "fuzz/seeds/$target/" \;
    rm -rf "$learned"
    continue
  fi
  echo "fuzz_$target for $seconds s; build/fuzz-$target.log has its words."
  found=$(mktemp -d)
  options=(-max_total_time="$seconds" -timeout=60 -print_final_stats=1 -artifact_prefix="$found/")
  [[ ! -f fuzz/dictionaries/$target.dict ]] || options+=(-dict="fuzz/dictionaries/$target.dict")
  if ! "$program" "${options[@]}" "$corpus" "fuzz/seeds/$target" >"build/fuzz-$target.log" 2>&1; then
    failed+=("$target")
    mkdir -p "$findings"
    cp "$found"/* "$findings/" || true
    grep -m1 -E 'DEMAND|ERROR|runtime error' "build/fuzz-$target.log" || true
    echo "fuzz_$target has found something: $findings"
  fi
  rm -rf "$found"
  awk -v target="$target" '
    /DONE|pulse|NEW|REDUCE/ { for (i = 1; i < NF; ++i) if ($i == "cov:") edges = $(i + 1) }
    /stat::number_of_executed_units/ { runs = $2 }
    END { printf "fuzz_%s: %s runs, %s edges\n", target, runs, edges }' "build/fuzz-$target.log"
done
if [[ ${#failed[@]} -gt 0 ]]; then
  echo "Found something: ${failed[*]}. To repeat: build/fuzz/fuzz/fuzz_<target> <file>" >&2
  exit 1
fi

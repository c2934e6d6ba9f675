#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Static checks: every source compiled by clang, with its analysis of locks, and read by clang-tidy;
# cppcheck; shellcheck; the rules of tests/style. All of them run even when one has found something;
# the last line counts. What a run has looked at and has not changed is not looked at by the next.
#   scripts/check.sh [JOBS]   as many at a time; the default is one for each processor
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=${1:-$(nproc)}
mkdir -p build/cppcheck
scripts/install-packages.sh
scripts/install-packages.sh check

failed=()
# check NAME COMMAND...: says what it has found.
check() {
  local name=$1 log=build/check-$1.log
  shift
  echo "== $name"
  "$@" >"$log" 2>&1 || {
    failed+=("$name")
    # A finding in a header comes once for each source that includes it.
    grep -E '(error|warning|style|performance|portability)( \(.*\))?:' "$log" | sort -u | head -n 200 || true
    echo "The whole of it is in $log."
  }
}

# Objects only: nothing of this is run.
compile() {
  cmake --preset check
  local objects
  mapfile -t objects < <(ninja -C build/check -t targets all | sed -n 's/^\(.*\.o\): CXX_COMPILER.*/\1/p')
  ninja -C build/check -j "$jobs" -k 0 "${objects[@]}"
}

analyse() {
  git ls-files '*.cpp' >build/check-files
  cppcheck --quiet -j "$jobs" --cppcheck-build-dir=build/cppcheck --error-exitcode=1 \
    --std=c++20 --language=c++ --enable=warning,performance,portability --inline-suppr \
    --suppressions-list=scripts/cppcheck-suppressions --library=posix,googletest \
    -I . -I build/check/generated --file-list=build/check-files
}

read_scripts() {
  # Those that are sourced are read where they are sourced.
  local script scripts=()
  while read -r script; do
    [[ "$(head -n 1 "$script")" != '#!'*bash ]] || scripts+=("$script")
  done < <(git ls-files '*.sh')
  shellcheck -x -a -P SCRIPTDIR:. "${scripts[@]}"
}

check clang compile
check cppcheck analyse
check shellcheck read_scripts
for rule in format include_directions headers_compile_alone no_file_over_600_lines; do
  check "$rule" env CXX=clang++ GENERATED=build/check/generated "tests/style/$rule.sh" .
done
if [[ ${#failed[@]} -gt 0 ]]; then
  echo "Not clean: ${failed[*]}" >&2
  exit 1
fi
echo "Clean."

#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Every header includes what it needs: a file that includes nothing else compiles.
source "$(dirname "$0")/sources.sh"

compiler=${CXX:-g++}
flags=(-std=gnu++20 -fsyntax-only -Wall -Wextra -Werror -I. -I"${GENERATED:-build/release/generated}")
# shellcheck disable=SC2207
flags+=($(pkg-config --cflags libtirpc libsystemd libsodium))

check() {
  local header=$1
  # With no other line in the file a header's own mistakes are what the compiler sees first.
  printf '#include "%s"\n' "$header" | "$compiler" "${flags[@]}" -x c++ - 2>&1 ||
    { echo "^^ $header does not compile alone"; return 1; }
}

bad=0
running=0
while read -r header; do
  check "$header" &
  if (( ++running >= 2 )); then
    wait -n || bad=1
    running=$((running - 1))
  fi
done < <(sources '*.h')
while (( running-- > 0 )); do
  wait -n || bad=1
done
exit $bad

#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# A file that has outgrown 600 lines does more than one thing and is to be split by what it does.
source "$(dirname "$0")/sources.sh"

declare -A longer=(
  # RFC 1813's records, one after the other as the RFC has them: there is nothing to split.
  [nfs3/nfs3types.h]=800
)

bad=0
while read -r file; do
  most=${longer[$file]:-600}
  lines=$(wc -l <"$file")
  if (( lines > most )); then
    echo "$file has $lines lines, more than $most: split it by what it does" >&2
    bad=1
  fi
done < <(sources '*.h' '*.cpp')
exit $bad

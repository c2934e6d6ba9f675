#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Puts measured tables into a document, between the lines <!-- KIND: begin --> and <!-- KIND: end -->;
# the rest of it is written by hand. For a full run also plots the ratios beside the document.
#   bench/write_document.sh full|scale TABLES DOCUMENT
set -euo pipefail
kind=$1 tables=$2 document=$3

for mark in begin end; do
  grep -qx "<!-- $kind: $mark -->" "$document" ||
    { echo "$document has no line <!-- $kind: $mark -->" >&2; exit 1; }
done
if [[ $kind == full ]] && command -v gnuplot >/dev/null && [[ -s "$BENCH_WORK/results" ]]; then
  awk -v places_file="$BENCH_WORK/places" -f bench/medians.awk -f bench/ratios.awk bench/rows \
    "$BENCH_WORK/results" >"$BENCH_WORK/ratios"
  [[ ! -s "$BENCH_WORK/ratios" ]] ||
    gnuplot -e "ratios='$BENCH_WORK/ratios'; picture='${document%.md}.svg'" bench/plot.gp
fi
new=$(mktemp "$document.XXXXXX")
trap 'rm -f "$new"' EXIT
awk -v tables="$tables" -v begin="<!-- $kind: begin -->" -v end="<!-- $kind: end -->" '
  $0 == end { inside = 0 }
  !inside { print }
  $0 == begin {
    inside = 1
    print ""
    while ((getline line < tables) > 0) print line
    print ""
  }' "$document" >"$new"
chmod 644 "$new"
mv "$new" "$document"
echo "Written: $document" >&2

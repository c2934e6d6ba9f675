#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Prints what scripts/bench.sh has measured as tables: bench/tables.sh full|against|scale
set -euo pipefail
cd "$(dirname "$0")/.."
kind=$1

version() { dpkg-query -W -f '${Version}' "$1" 2>/dev/null || echo none; }
commit=$(git rev-parse --short HEAD 2>/dev/null || echo unknown)
git diff --quiet HEAD 2>/dev/null || commit="$commit and changes not committed"
other="peer nfs-ganesha $(version nfs-ganesha)"
[[ $kind != against ]] || other="other $BENCH_AGAINST"
# shellcheck source=/dev/null
system=$(. /etc/os-release && echo "$PRETTY_NAME")
cat <<TEXT
- commit: $commit
- machine: $(nproc) cores, $(sed -n 's/^model name[^:]*: //p' /proc/cpuinfo | head -n 1), $(awk '/^MemTotal/ { printf "%.0f GiB", $2 / 1048576 }' /proc/meminfo), Linux $(uname -r)
- versions: $system, GCC $(gcc -dumpfullversion 2>/dev/null || echo none), libtirpc $(version libtirpc3), $other
- date: $(date -u +%F), $BENCH_ROUNDS round$([[ $BENCH_ROUNDS == 1 ]] || echo s) of $BENCH_SECONDS s
TEXT
touch "$BENCH_WORK/results"
sed -n 's/.*othersPercent=\([^ ]*\).*/\1/p' "$BENCH_WORK/results" | sort -g | awk '
  { share[NR] = $1 }
  END { if (NR) printf "- others had %.0f %% of the machine meanwhile (median; %.0f %% at most)\n", share[int((NR + 1) / 2)], share[NR] }'
if [[ $kind == scale ]]; then
  awk -f bench/medians.awk -f bench/scale.awk bench/rows "$BENCH_WORK/results"
else
  awk -v kind="$kind" -v places_file="$BENCH_WORK/places" -f bench/medians.awk -f bench/tables.awk \
    bench/rows "$BENCH_WORK/results"
fi

#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Draws packaging/grafana/oxelnfsd.json as it looks with a daemon that has all kinds of clients for
# 90 seconds: what Prometheus answers to its queries, laid out as Grafana does. Two minutes.
#   scripts/dashboard.sh [PICTURE]   the default is docs/dashboard.png
set -euo pipefail
cd "$(dirname "$0")/.."
picture=${1:-docs/dashboard.png}

scripts/install-packages.sh
if ! { command -v gnuplot && command -v pngquant; } >/dev/null; then
  scripts/install-packages.sh bench
fi
mkdir -p build
cmake --preset release >build/configure-release.log
cmake --build --preset release --target oxelnfsd oxel-load oxel-tree >build/build-release.log ||
  { tail -n 20 build/build-release.log >&2; exit 1; }
export OXELNFSD=build/release/bin/oxelnfsd OXEL_LOAD=build/release/bin/oxel-load
export OXEL_TREE=build/release/bin/oxel-tree
source tests/dashboard/rig.sh
trap rig_stop EXIT
trap 'exit 130' INT TERM HUP

dashboard=packaging/grafana/oxelnfsd.json
rig_start_daemon
rig_start_prometheus "$PWD/packaging/prometheus/alerts.yml"
begin=$(date +%s)
# at SECOND: waits for it.
at() { sleep $((begin + $1 - $(date +%s))) 2>/dev/null || true; }

rig_begin_load projects mix --file mix --connections 3 --depth 1 --seconds 90 --from 127.0.0.2
rig_background rig_idlers_for_ever
at 12
rig_begin_load media read --file data --bytes 65536 --connections 2 --depth 2 --seconds 40 \
  --from 127.0.0.3
at 25
rig_begin_load media write --bytes 32768 --stable 2 --connections 2 --depth 2 --seconds 35 \
  --from 127.0.0.4
at 45
rig_background rig_mistakes_for_ever
mistakes=$rig_started
at 60
kill -TERM "$mistakes"
rig_begin_load projects create-remove --connections 6 --depth 4 --seconds 20 --from 127.0.0.5
at 90
end=$((begin + 90))

jq -c --arg rate 5s --arg range 90s -f tests/dashboard/targets.jq "$dashboard" | jq -c '.[]' |
  while read -r target; do
    rig_prometheus query_range --get --data-urlencode "query=$(jq -r .expression <<<"$target")" \
      --data "start=$begin&end=$end&step=1" |
      jq -c --argjson target "$target" \
        '{id: $target.id, legend: $target.legend, series: .data.result}'
  done | jq -s . >"$rig_work/answers"
jq -r --slurpfile all "$rig_work/answers" --argjson from "$begin" --argjson until "$end" \
  "\$all[0] as \$answers | $(cat scripts/dashboard.jq)" "$dashboard" >"$rig_work/dashboard.gp"
gnuplot -e "picture='$picture'" "$rig_work/dashboard.gp"
# A picture in a repository should be small.
pngquant --force --output "$picture" 64 "$picture"
echo "$picture: $(stat -c %s "$picture") bytes."

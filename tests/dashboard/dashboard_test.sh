#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The dashboard, the alerts and their document against what the daemon tells: every panel has to show
# something of a daemon whose clients do all kinds of things, through a real Prometheus.
# Needs OXELNFSD, OXEL_LOAD, OXEL_TREE and OXEL_SOURCE_DIR.
set -euo pipefail
cd "${OXEL_SOURCE_DIR:?}"
source tests/dashboard/rig.sh

dashboard=packaging/grafana/oxelnfsd.json
alerts=packaging/prometheus/alerts.yml
document=docs/monitoring.md
bound=90  # seconds that a condition may take
# Panels that may be empty, and families that nothing shows: none. Name them here, with the reason.
declare -A may_be_empty=() may_be_unused=()

failures=0
wrong() {
  echo "FAILED: $1" >&2
  failures=$((failures + 1))
}
must_say_nothing() {
  local said
  said=$("${@:2}" 2>&1) || true
  [[ -z "$said" ]] || wrong "$1: $said"
}

for program in prometheus promtool curl jq; do
  command -v "$program" >/dev/null || rig_fail "There is no $program: run scripts/install-packages.sh."
done
trap rig_stop EXIT
trap 'exit 130' INT TERM HUP

# ---- What needs no daemon ----

must_say_nothing "$dashboard" jq -r -f tests/dashboard/shape.jq "$dashboard"
said=$(promtool check rules "$alerts" 2>&1) || wrong "$said"
said=$(promtool test rules tests/dashboard/alerts_test.yml 2>&1) || wrong "$said"

# ---- A daemon that has all kinds of clients ----

rig_start_daemon
rig_start_prometheus "$PWD/$alerts"
rig_begin_load projects mix --file mix --connections 1 --depth 2 --seconds 600
rig_begin_load projects write --stable 2 --connections 4 --depth 4 \
  --seconds 600 --from 127.0.0.2
rig_background rig_mistakes_for_ever
rig_background rig_idlers_for_ever

# The families, as the text tells them: all that there can be are there once calls have failed.
all_kinds_seen() {
  rig_scrape >"$rig_work/scraped" &&
    grep -q '^oxelnfsd_call_errors_total{.*share="/archive",status="ACCES"' "$rig_work/scraped" &&
    grep -q '^oxelnfsd_rejected_calls_total{reason="unknownProcedure"} [1-9]' "$rig_work/scraped" &&
    grep -q '^oxelnfsd_rejected_calls_total{reason="weakCredential"} [1-9]' "$rig_work/scraped" &&
    grep -q '^oxelnfsd_rejected_calls_total{reason="garbageArguments"} [1-9]' "$rig_work/scraped" &&
    grep -q '^oxelnfsd_connections_ended_total{reason="recordTooLarge"} [1-9]' "$rig_work/scraped" &&
    grep -q '^oxelnfsd_connections_ended_total{reason="idle"} [1-9]' "$rig_work/scraped" &&
    grep -q '^oxelnfsd_call_record_wait_seconds_count [1-9]' "$rig_work/scraped"
}
rig_until "$bound" all_kinds_seen || {
  cat "$rig_work/scraped" >&2
  wrong "After $bound s some kind of call has not been counted; what was scraped is above."
}
must_say_nothing 'promtool check metrics' promtool check metrics <"$rig_work/scraped"

# Names as queries have them: a histogram is asked for by its parts.
awk '$1 == "#" && $2 == "TYPE" { print $3, $4 }' "$rig_work/scraped" >"$rig_work/families"
names_in() { grep -oE 'oxelnfsd_[a-z_]+' "$1" | sort -u || true; }
awk '$2 == "histogram" { print $1 "_bucket", $1; print $1 "_sum", $1; print $1 "_count", $1; next }
     { print $1, $1 }' "$rig_work/families" | sort >"$rig_work/askable"
[[ -s "$rig_work/families" ]] || wrong 'The daemon tells no families.'

jq -r '.. | (.expr?, .definition?) // empty' "$dashboard" >"$rig_work/expressions"
sed -n 's/^ *expr: *//p' "$alerts" >"$rig_work/alert-expressions"
for used in "$rig_work/expressions" "$rig_work/alert-expressions"; do
  [[ -s "$used" ]] || wrong "There is nothing in $used."
  while read -r name; do
    grep -q "^$name " "$rig_work/askable" || wrong "$name is asked for, and the daemon does not tell it."
  done < <(names_in "$used")
done
# Label values too. The daemon tells a status once it has occurred; its list is in the source.
while read -r label value; do
  grep -q "{$label=\"$value\"}" "$rig_work/scraped" || grep -q "\"$value\"}" bin/oxelService_meters.cpp ||
    wrong "There is no $label $value, and somebody asks for it."
done < <(grep -ohE '(status|reason)!?=~?"[A-Za-z_|]+"' "$rig_work"/*expressions |
  sed -E 's/[!=~]+"/|/; s/"//' | awk -F'|' '{ for (i = 2; i <= NF; ++i) print $1, $i }')
names_in "$rig_work/expressions" | join - "$rig_work/askable" | cut -d' ' -f2 | sort -u >"$rig_work/shown"
while read -r family type; do
  grep -qx "$family" "$rig_work/shown" || [[ -n "${may_be_unused[$family]:-}" ]] ||
    wrong "No panel shows $family."
  grep -q "^| \`$family\` | $type |" "$document" || wrong "$document does not tell of $family, a $type."
done <"$rig_work/families"
while read -r name; do
  cut -d' ' -f1,2 --output-delimiter=$'\n' "$rig_work/askable" | grep -qx "$name" ||
    wrong "$document tells of $name, which there is not."
done < <(names_in "$document")

# ---- Every target of every panel ----

jq --arg rate 10s --arg range 60s -f tests/dashboard/targets.jq "$dashboard" >"$rig_work/targets"
# Numbers, not only series, and each has the labels that its legend shows.
has_data() {
  rig_prometheus query --get --data-urlencode "query=$1" >"$rig_work/answer" 2>"$rig_work/answer-error" &&
    jq -e --arg legend "$2" '
      [$legend | scan("{{([a-z_]+)}}")[0]] as $labels
      | [.data.result[] | select(.value[1] | test("^[-+0-9.e]+$"))
         | select(.metric as $has | $labels | all($has[.] != null))]
      | length > 0' "$rig_work/answer" >/dev/null
}
targets=$(jq length "$rig_work/targets")
[[ $targets -gt 0 ]] || wrong "$dashboard asks for nothing."
for ((i = 0; i < targets; ++i)); do
  title=$(jq -r ".[$i].title" "$rig_work/targets")
  expression=$(jq -r ".[$i].expression" "$rig_work/targets")
  [[ -z "${may_be_empty[$title]:-}" ]] || continue
  rig_until "$bound" has_data "$expression" "$(jq -r ".[$i].legend" "$rig_work/targets")" ||
    wrong "The panel $title has no data: $expression: $(cat "$rig_work/answer" "$rig_work/answer-error")"
done

# What the variables offer.
for variable in instance share; do
  # shellcheck disable=SC2016  # the dollar sign is Grafana's
  query=$(jq -r --arg name "$variable" '.templating.list[] | select(.name == $name) | .definition' \
    "$dashboard" | sed -E 's/^label_values\((.*), *[a-z]+\)$/\1/; s/\$instance/.*/')
  rig_prometheus "label/$variable/values" --get --data-urlencode "match[]=$query" |
    jq -e '.data | length > 0' >/dev/null || wrong "The variable $variable offers nothing: $query"
done
alerts_can_be_evaluated() {
  rig_prometheus rules |
    jq -e '[.data.groups[].rules[]] | length > 0 and all(.health == "ok")' >/dev/null
}
rig_until "$bound" alerts_can_be_evaluated ||
  wrong "An alert cannot be evaluated: $(rig_prometheus rules)"

if [[ $failures -gt 0 ]]; then
  tail -n 5 "$rig_work/loads" "$rig_work/stderr" "$rig_log" "$rig_work/prometheus.log" >&2 || true
  exit 1
fi
echo "$targets targets have data, $(wc -l <"$rig_work/families") families are shown and told of."

# SPDX-License-Identifier: Apache-2.0
# A Grafana dashboard: one object for each target, with the dashboard's variables put in, as Grafana
# does. $rate and $range are durations.
[.panels[] | select(.type != "row") | . as $panel | .targets[]
  | {id: $panel.id, title: $panel.title, refId, legend: .legendFormat,
     expression: (.expr
       | gsub("\\$(?<name>instance|share)\\b"; ".*")
       | gsub("\\$__rate_interval\\b"; $rate)
       | gsub("\\$__range\\b"; $range))}]

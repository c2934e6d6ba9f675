# SPDX-License-Identifier: Apache-2.0
# A Grafana dashboard: what is wrong with it, as a list of texts.
def overlap($a; $b):
  $a.x < $b.x + $b.w and $b.x < $a.x + $a.w and $a.y < $b.y + $b.h and $b.y < $a.y + $a.h;
.panels as $panels
| [.templating.list[].name] as $variables
| [
    (["datasource", "instance", "share"] - $variables | .[] | "there is no variable \(.)"),
    ($panels | group_by(.id)[] | select(length > 1) | "\(length) panels have the id \(.[0].id)"),
    ($panels | group_by(.title)[] | select(length > 1) | "\(length) panels are called \(.[0].title)"),
    ($panels[] | select(.gridPos | .x < 0 or .y < 0 or .w < 1 or .h < 1 or .x + .w > 24)
      | "\(.title) is outside the grid"),
    ([$panels, $panels] | combinations | select(.[0].id < .[1].id)
      | select(overlap(.[0].gridPos; .[1].gridPos)) | "\(.[0].title) and \(.[1].title) overlap"),
    ($panels[] | select(.type != "row")
      | (select((.description // "") | length < 40) | "\(.title) has no description"),
        (select((.fieldConfig.defaults.unit // "") == "") | "\(.title) has no unit"),
        (select((.targets | length) == 0) | "\(.title) has no targets"),
        (select([.targets[].refId] | length != (unique | length)) | "\(.title): equal refIds"),
        (select([.datasource, .targets[].datasource]
                 != [.datasource, .targets[].datasource | {type: "prometheus", uid: "${datasource}"}])
          | "\(.title) asks another data source than the chosen one"),
        (.title as $title | .targets[].expr | scan("\\$([a-z_]+|\\{[^}]*\\})")[0]
          | select(. as $name | $variables + ["__rate_interval", "__range"] | index($name) | not)
          | "\($title) uses $\(.), which is no variable")),
    (select((.schemaVersion | type) != "number" or .schemaVersion < 36) | "schemaVersion is too low")
  ]
| .[]

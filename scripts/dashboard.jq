# SPDX-License-Identifier: Apache-2.0
# A dashboard and what its queries gave, as a gnuplot program: every panel where Grafana's grid has
# it. The input is the dashboard; $answers has, for each target, {id, legend, series}, $from and $until
# are seconds since the epoch.
def pixels_wide: 1200;
def unit_high: 26;
def colours: ["#4f8f3f", "#d9a520", "#2fa5c0", "#e06c1f", "#d0342c", "#1f60a8", "#a83f9b", "#6a55a8",
              "#2f5f2a", "#8f7300", "#7fb0e0", "#f0a878", "#7f1008", "#0a2f60", "#c080c0", "#777777"];
def colour($i): colours[$i % (colours | length)];
def quoted: "'" + gsub("'"; "’") + "'";
def number: if type == "string" and test("^[-+0-9.e]+$") then tonumber else null end;

# The figure of a stat panel.
def shown($unit):
  if . == null then "–"
  elif $unit == "s" then
    (if . >= 1 then "\(. * 10 | round / 10) s" else "\(. * 1000 | round) ms" end)
  elif $unit == "percentunit" then "\(. * 1000 | round / 10) %"
  else "\(. * 10 | round / 10)" end;
# The numbers of an axis. gnuplot's %c is the prefix of the power of ten.
def axis($unit):
  {s: "%.0s %cs", Bps: "%.0s %cB/s", reqps: "%g/s"}[$unit] // "%g";

def named($legend; $metric):
  $legend | gsub("\\{\\{(?<label>[a-z_]+)\\}\\}"; $metric[.label] // "") | sub("^ +"; "");

(([.panels[].gridPos | .y + .h] | max) * unit_high) as $high
| def place:
    "set origin \(.x / 24), \(1 - (.y + .h) * unit_high / $high)",
    "set size \(.w / 24), \(.h * unit_high / $high)";
def bare: "set lmargin 0; set rmargin 0; set tmargin 0; set bmargin 0; unset border; unset tics; unset key",
          "set title; unset logscale";
def plot_bare: "plot [0:1] [0:1] NaN notitle", "unset label";

"set terminal pngcairo size \(pixels_wide),\($high) font 'DejaVu Sans,9' noenhanced background '#ffffff'",
"set output picture",
"set encoding utf8",
"set datafile missing 'NaN'",
"set multiplot",
(.panels[] | . as $panel | .fieldConfig.defaults as $defaults
  | [$answers[] | select(.id == $panel.id) | .legend as $legend | .series[]
     | {name: named($legend; .metric),
        points: ([.values[] | {key: (.[0] | floor | tostring), value: (.[1] | number)}] | from_entries)}
     | select([.points[] | values] | length > 0)]
    as $series
  | if .type == "row" then
      bare, (.gridPos | place),
      "set label 1 \(.title | quoted) at graph 0.004, graph 0.4 font 'DejaVu Sans Bold,11' textcolor '#222222'",
      "set arrow 1 from graph 0, graph 0.05 to graph 1, graph 0.05 nohead linecolor '#999999'",
      plot_bare, "unset arrow 1"
    elif .type == "stat" then
      bare, (.gridPos | place),
      "set label 1 \(.title | quoted) at graph 0.03, graph 0.85 font 'DejaVu Sans,10' textcolor '#444444'",
      "set label 2 \(if .options.textMode == "name" then $series[0].name // "–"
                     else [$series[0].points[]? | values] | last | shown($defaults.unit) end | quoted) at graph 0.5, graph 0.4 center font 'DejaVu Sans Bold,22' textcolor '#1f60a8'",
      plot_bare
    else
      (if $defaults.custom.stacking.mode == "normal" then true else false end) as $stacked
      | (.options.legend.placement == "right") as $right
      | (.gridPos | place),
        "unset lmargin; unset rmargin; unset tmargin; unset bmargin",
        "set lmargin 9.5; set tmargin 2.2",
        # As wide as the longest name.
        (if $right then "set rmargin \(([$series[].name | length] | max // 10) * 0.85 + 5)" else "set rmargin 2" end),
        "set border 3 linecolor '#888888'; set tics textcolor '#444444' nomirror scale 0.5",
        "set title \(.title | quoted) font 'DejaVu Sans,10' textcolor '#222222' offset 0,-0.6",
        "set grid xtics ytics linecolor '#e4e4e4' linetype 1; set xtics \(if .gridPos.w < 8 then 30 else 15 end) format '%g s'",
        "set ytics format \(axis($defaults.unit) | quoted)",
        (if $defaults.custom.scaleDistribution.type == "log"
         then "set logscale y 10; set yrange [*:*]; set ytics autofreq; set mytics default"
         else "unset logscale; unset mytics; set yrange [0:\(if $defaults.unit == "s" then 0.001 else 1 end)<*]"
         end),
        "set key default; set key \(if $right then "outside right top vertical width -1" else "bmargin left horizontal maxrows 2" end) Left reverse samplen 1 spacing 0.9 font ',8' textcolor '#333333'",
        "set xrange [0:\($until - $from)]",
        (if ($series | length) == 0 then "unset logscale; set yrange [0:1]; plot NaN notitle"
         else
           "$data << END",
           (range($from; $until + 1) | tostring as $at
             | [$series[].points[$at]]
             | if $stacked
               then [foreach map(. // 0)[] as $one (0; . + $one)]
               else map(. // "NaN") end
             | "\(($at | tonumber) - $from) \(map(tostring) | join(" "))"),
           "END",
           "plot " + ([range($series | length) as $i | $series[$i].name | quoted as $name
              | if $stacked
                then "$data using 1:\($i + 2) with filledcurves y1=0 linecolor '\(colour($i))' title \($name)"
                else "$data using 1:\($i + 2) with lines linewidth 1.4 linecolor '\(colour($i))' title \($name)" end]
             # The lower ones cover the upper ones, so they are drawn last.
             | (if $stacked then reverse else . end) | join(", ")),
           "undefine $data"
         end)
    end),
"unset multiplot"

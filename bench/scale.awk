# SPDX-License-Identifier: Apache-2.0
# The tables of the scale run; behind medians.awk.

function of(row, who, name,    p, result) {
  for (p in places_seen) if ((result = median(row, p, who, name)) != "") return result
  return ""
}
function whole(number) { return number < 1000 ? number "" : with_commas(number) }
function both(row, name) {
  return with_commas(of(row, "ours", name)) " | " with_commas(of(row, "peer", name))
}
# (after - before) / count, in KiB
function growth(row, after, before, count, who,    a, b) {
  a = of(row, who, after); b = of(row, who, before)
  return a == "" || b == "" ? "" : (a - b) / count
}
function flying(who,    a, b) {
  a = of("flying-64", who, "rssPeakKib"); b = of("flying-1", who, "rssPeakKib")
  return a == "" || b == "" ? "" : (a - b) / 504
}

{ places_seen[field["place"]] }

END {
  print "\n### Connections, all of them busy\n"
  print "| operation | connections | in flight on each | ours/s | peer/s | ours CPU us | peer CPU us |"
  print "|---|--:|--:|--:|--:|--:|--:|"
  n = split("1 10 100 1000 1500", counts, " ")
  split("getattr lookup", operations, " "); split("1 8", depths, " ")
  for (o = 1; o <= 2; ++o)
    for (d = 1; d <= 2; ++d)
      for (i = 1; i <= n; ++i) {
        row = operations[o] "-c" counts[i] "-d" depths[d]
        print "| " toupper(operations[o]) " | " whole(counts[i]) " | " depths[d] " | " \
          both(row, "callsPerSecond") " | " both(row, "serverCpuUsPerCall") " |"
      }
  print "\n### Files in the share, a random one each call\n"
  print "| operation | files | ours/s | peer/s | ours CPU us | peer CPU us | ours RSS MiB | peer RSS MiB |"
  print "|---|--:|--:|--:|--:|--:|--:|--:|"
  n = split("10 1000 100000 1000000", counts, " ")
  for (o = 1; o <= 2; ++o)
    for (i = 1; i <= n; ++i) {
      row = operations[o] "-f" counts[i]
      a = of(row, "ours", "rssKib"); b = of(row, "peer", "rssKib")
      print "| " toupper(operations[o]) " | " whole(counts[i]) " | " \
        both(row, "callsPerSecond") " | " both(row, "serverCpuUsPerCall") " | " \
        (a == "" ? "-" : shown(a / 1024)) " | " (b == "" ? "-" : shown(b / 1024)) " |"
    }
  print "\n### Memory and start\n"
  print "| | ours | peer |"
  print "|---|--:|--:|"
  print "| RSS of a server without connections, KiB | " both("idle", "rssBeforeKib") " |"
  print "| RSS per idle connection, KiB | " shown(growth("idle", "rssKib", "rssBeforeKib", 1000, "ours")) \
    " | " shown(growth("idle", "rssKib", "rssBeforeKib", 1000, "peer")) " |"
  print "| peak RSS per READ of 64 KiB in flight, KiB | " shown(flying("ours")) " | " shown(flying("peer")) " |"
  print "| start with 1 share, ms | " both("start-1", "ms") " |"
  print "| start with 1,000 shares, ms | " both("start-1000", "ms") " |"
  print "| RSS with 1,000 shares, KiB | " both("start-1000", "rssKib") " |"
}

# SPDX-License-Identifier: Apache-2.0
# The tables of docs/benchmarks.md; behind medians.awk. -v kind=full or against.

function pair_table(place, one, other, one_title, other_title,    i, row, calls, cpu, p50, p99, any) {
  for (i = 1; i <= rows; ++i)
    if (median(row_name[i], place, one, "calls") != "" && row_name[i] !~ /^(floor|default)/) any = 1
  if (!any) return
  print ""
  print "### " (place == "disk" ? "On the disk" : "In memory") " (" filesystem[place] ")"
  print ""
  print "| operation | conns x depth | " one_title "/s | " other_title "/s | ratio | " \
    one_title " CPU us | " other_title " CPU us | ratio | " one_title " p50 / p99 us | " \
    other_title " p50 / p99 us |"
  print "|---|---|--:|--:|--:|--:|--:|--:|--:|--:|"
  for (i = 1; i <= rows; ++i) {
    row = row_name[i]
    if (row ~ /^(floor|default)/ || median(row, place, one, "calls") == "") continue
    calls = "callsPerSecond"; cpu = "serverCpuUsPerCall"; p50 = "p50us"; p99 = "p99us"
    if (row ~ /^list/) {
      calls = "listingsPerSecond"; cpu = "serverCpuUsPerListing"
      p50 = "listingP50us"; p99 = "listingP99us"
    }
    print "| " label[row] " | " shape[row] \
      " | " with_commas(median(row, place, one, calls)) \
      " | " with_commas(median(row, place, other, calls)) \
      " | **" shown(median_ratio(row, place, one, other, calls)) "**" \
      " | " with_commas(median(row, place, one, cpu)) \
      " | " with_commas(median(row, place, other, cpu)) \
      " | **" shown(median_ratio(row, place, one, other, cpu)) "**" \
      " | " with_commas(median(row, place, one, p50)) " / " with_commas(median(row, place, one, p99)) \
      " | " with_commas(median(row, place, other, p50)) " / " \
        with_commas(median(row, place, other, p99)) " |"
  }
}

function derived_table(one, other, one_title, other_title, pattern, rate, cpu, rate_title, cpu_title,
                       i, p, row, place, any) {
  for (i = 1; i <= rows; ++i) {
    row = row_name[i]
    if (row !~ pattern) continue
    for (p = 1; p <= places; ++p) {
      place = place_name[p]
      if (median(row, place, one, rate) == "") continue
      if (!any) {
        print ""
        print "| operation | on | " one_title " " rate_title " | " other_title " " rate_title \
          (cpu == "" ? "" : " | " one_title " " cpu_title " | " other_title " " cpu_title) " |"
        print "|---|---|--:|--:|" (cpu == "" ? "" : "--:|--:|")
        any = 1
      }
      print "| " label[row] " | " place " | " with_commas(median(row, place, one, rate)) \
        " | " with_commas(median(row, place, other, rate)) \
        (cpu == "" ? "" : " | " shown(median(row, place, one, cpu)) " | " \
         shown(median(row, place, other, cpu))) " |"
    }
  }
}

function single_table(title, pattern, names,    i, n, j, row, who, any) {
  n = split(names, who, " ")
  for (i = 1; i <= rows; ++i) {
    row = row_name[i]
    if (row !~ pattern) continue
    for (j = 1; j <= n; ++j) {
      if (median(row, "disk", who[j], "calls") == "") continue
      if (!any) {
        print "\n### " title "\n"
        print "| operation | conns x depth | calls/s | CPU us | p50 / p99 us |"
        print "|---|---|--:|--:|--:|"
        any = 1
      }
      print "| " label[row] (who[j] == "batched" ? ", replies batched" : "") " | " shape[row] " | " \
        with_commas(median(row, "disk", who[j], "callsPerSecond")) " | " \
        shown(median(row, "disk", who[j], "serverCpuUsPerCall")) " | " \
        with_commas(median(row, "disk", who[j], "p50us")) " / " \
        with_commas(median(row, "disk", who[j], "p99us")) " |"
    }
  }
}

BEGIN {
  while ((getline line < places_file) > 0) {
    split(line, part, " ")
    place_name[++places] = part[1]
    filesystem[part[1]] = part[2]
  }
}

END {
  one = kind == "against" ? "this" : "ours"
  other = kind == "against" ? "other" : "peer"
  for (p = 1; p <= places; ++p) pair_table(place_name[p], one, other, one, other)
  derived_table(one, other, one, other, "^(read|write|mix)", "mibPerSecond", "", "MiB/s")
  derived_table(one, other, one, other, "^list", "entriesPerSecond", "serverCpuUsPerEntry",
                "entries/s", "CPU us per entry")
  if (kind != "full") exit
  single_table("The floor: one thread that reads calls and writes fixed replies", "^floor", "floor batched")
  single_table("Ours in its default mode (nHardened = 0)", "^default", "default")
}

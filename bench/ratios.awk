# SPDX-License-Identifier: Apache-2.0
# For bench/plot.gp, behind medians.awk: label, and of disk and memory how many times the peer's
# calls we serve, and how many times our CPU time the peer uses; NaN where not measured.

function ratio(row, place, one, other, name,    result) {
  result = median_ratio(row, place, one, other, name)
  return result == "" || result <= 0 ? "NaN" : result
}

END {
  for (i = 1; i <= rows; ++i) {
    row = row_name[i]
    if (median(row, "disk", "ours", "calls") == "" && median(row, "tmpfs", "ours", "calls") == "") continue
    if (row ~ /^(floor|default)/) continue
    calls = row ~ /^list/ ? "listingsPerSecond" : "callsPerSecond"
    cpu = row ~ /^list/ ? "serverCpuUsPerListing" : "serverCpuUsPerCall"
    line = "\"" label[row] "\""
    for (p = 1; p <= 2; ++p) line = line " " ratio(row, p == 1 ? "disk" : "tmpfs", "ours", "peer", calls)
    for (p = 1; p <= 2; ++p) line = line " " ratio(row, p == 1 ? "disk" : "tmpfs", "peer", "ours", cpu)
    if (line ~ / [0-9.]+/) print line
  }
}

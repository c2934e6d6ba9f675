# SPDX-License-Identifier: Apache-2.0
# Reads lines of name=value (measurements) and gives the medians over the rounds. A script that
# uses this reads bench/rows first and then the results.

FILENAME ~ /\/rows$/ {
  if ($0 == "" || /^#/) next
  split($0, column, "|")
  row_name[++rows] = column[1]
  label[column[1]] = column[2]
  shape[column[1]] = column[5] " x " column[6]
  next
}

{
  delete field
  for (i = 1; i <= NF; ++i) {
    at = index($i, "=")
    field[substr($i, 1, at - 1)] = substr($i, at + 1)
  }
  key = field["row"] SUBSEP field["place"] SUBSEP field["who"]
  if (field["round"] > rounds) rounds = field["round"]
  for (name in field) value[key, name, field["round"]] = field[name]
}

# The middle one of the n numbers in list[1..n]; "" when there is none.
function middle(list, n,    i, j, swap) {
  for (i = 2; i <= n; ++i)
    for (j = i; j > 1 && list[j - 1] > list[j]; --j) {
      swap = list[j]; list[j] = list[j - 1]; list[j - 1] = swap
    }
  if (n == 0) return ""
  return n % 2 ? list[(n + 1) / 2] : (list[n / 2] + list[n / 2 + 1]) / 2
}

function median(row, place, who, name,    list, n, i, k) {
  n = 0
  for (i = 1; i <= rounds; ++i) {
    k = row SUBSEP place SUBSEP who SUBSEP name SUBSEP i
    if (k in value) list[++n] = value[k] + 0
  }
  return middle(list, n)
}

# Of one to the other, each round's pair for itself: what slows the machine down for a while slows
# both down.
function median_ratio(row, place, one, other, name,    list, n, i, k, l) {
  n = 0
  for (i = 1; i <= rounds; ++i) {
    k = row SUBSEP place SUBSEP one SUBSEP name SUBSEP i
    l = row SUBSEP place SUBSEP other SUBSEP name SUBSEP i
    if ((k in value) && (l in value) && value[l] > 0) list[++n] = value[k] / value[l]
  }
  return middle(list, n)
}

# With as many digits as tell something.
function shown(number) {
  if (number == "") return "-"
  if (number >= 100) return sprintf("%.0f", number)
  return number >= 10 ? sprintf("%.1f", number) : sprintf("%.2f", number)
}

function with_commas(number,    text, out) {
  if (number == "") return "-"
  if (number < 100) return shown(number)
  text = sprintf("%.0f", number)
  while (length(text) > 3) {
    out = "," substr(text, length(text) - 2) out
    text = substr(text, 1, length(text) - 3)
  }
  return text out
}

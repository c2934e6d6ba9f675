#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The inside of scripts/bench.sh: starts the servers, runs every row of bench/rows with each of them
# in turn, round by round, and writes one line per measurement to $BENCH_WORK/results.
set -euo pipefail
cd "$(dirname "$0")/.."
source bench/servers.sh

trap stop_servers EXIT
trap 'exit 130' INT TERM HUP
ulimit -n "$(ulimit -Hn)"

if [[ -n "$BENCH_ISOLATED" ]]; then
  ip link set lo up
  # What the peer and its port mapper write stays in here.
  mount -t tmpfs bench /run
  mkdir -p /run/ganesha /var/lib/nfs
  mount -t tmpfs bench /var/lib/nfs
fi

# Where the shares are: the disk and, in memory, a file system of its own.
share_of() { echo "$BENCH_WORK/$1"; }
for place in $BENCH_PLACES; do
  mkdir -p "$(share_of "$place")"
  [[ $place != tmpfs ]] || mount -t tmpfs -o size=80%,nr_inodes=0 bench "$(share_of tmpfs)"
done
for place in $BENCH_PLACES; do
  df --output=fstype "$(share_of "$place")" | sed -n "2s/^/$place /p" >>"$BENCH_WORK/places"
done

# field NAME LINE
field() { sed -n "s/.*\b$1=\([^ ]*\).*/\1/p" <<<"$2"; }

# A measurement is repeated when strangers had more than this of the machine meanwhile, at most
# twice, and the quietest one counts. What reaches the disk keeps the kernel's own threads busy.
others_most=20 retries_left=$((BENCH_ROUNDS * 25))

# measure ROW PLACE WHO ROUND OPTIONS...: one line of results.
measure() {
  local row=$1 place=$2 who=$3 round=$4 line best='' others least=1000 mounts most=$others_most
  shift 4
  mounts=(--share "$(share_of "$place")")
  [[ $who != floor && $who != batched ]] || mounts=()  # they have none
  [[ ! $row =~ ^(idle|flying|.*-f1000000) ]] || most=1000  # the server remembers, or it takes long
  [[ $place != disk || ! $row =~ ^(write|create|mkdir|mix) ]] || most=1000
  for _ in 1 2 3; do
    line=$(timeout 300 "$bin/oxel-load" --port "${nfs_port[$who]}" \
      --mount-port "${mount_port[$who]}" --server-pid "${pid[$who]}" "${mounts[@]}" \
      --format line "$@" 2>>"$BENCH_WORK/errors") || break
    others=$(field othersPercent "$line")
    others=${others%.*}
    if ((others < least)); then least=$others best=$line; fi
    ((others > most && retries_left > 0)) || break
    retries_left=$((retries_left - 1))
  done
  if [[ -z "$best" ]]; then
    echo "bench: $row on $place with $who failed: $(tail -n 1 "$BENCH_WORK/errors")" >&2
    return
  fi
  echo "row=$row place=$place who=$who round=$round $best" >>"$BENCH_WORK/results"
  printf '%-22s %-6s %-8s %10s calls/s %10s us CPU, others had %2d %%\n' "$row" "$place" "$who" \
    "$(field callsPerSecond "$best")" "$(field serverCpuUsPerCall "$best")" "$least" >&2
}

if [[ $BENCH_KIND == scale ]]; then
  source bench/scale.sh
  exit 0
fi

for place in $BENCH_PLACES; do
  share=$(share_of "$place")
  "$bin/oxel-tree" data "$share/data" $((64 << 20))
  "$bin/oxel-tree" names "$share/names-1000" 1000
  "$bin/oxel-tree" names "$share/names-100000" 100000
  "$bin/oxel-tree" mix "$share/mix"
done
sync

if [[ $BENCH_KIND == against ]]; then
  pair='this other'
  start_oxel this "$bin/oxelnfsd" "$BENCH_HARDENED"
  start_oxel other "$BENCH_AGAINST" "$BENCH_HARDENED"
else
  pair=ours
  start_oxel ours "$bin/oxelnfsd" 1
  start_oxel default "$bin/oxelnfsd" 0
  start_floor floor
  start_floor batched --batch
  ! start_peer || pair='ours peer'
fi

for round in $(seq "$BENCH_ROUNDS"); do
  echo "bench: round $round of $BENCH_ROUNDS" >&2
  while IFS='|' read -r row _ who places connections depth options; do
    [[ -n "$row" && $row != \#* && $row =~ $BENCH_ONLY ]] || continue
    [[ $BENCH_KIND == full || $who == pair ]] || continue
    [[ $who != pair ]] || who=$pair
    # The one that went first goes last in the next round.
    # shellcheck disable=SC2086  # one word for each server
    ((round % 2)) || who=$(printf '%s\n' $who | tac)
    for place in $BENCH_PLACES; do
      [[ " $places " == *" $place "* ]] || continue
      for one in $who; do
        # One server's unwritten pages are not left to the next one.
        [[ $row != write* || $place != disk ]] || sync -f "$(share_of disk)"
        # shellcheck disable=SC2086
        measure "$row" "$place" "$one" "$round" --connections "$connections" --depth "$depth" \
          --seconds "$BENCH_SECONDS" --warmup "$(awk "BEGIN { print $BENCH_SECONDS / 5 }")" $options
      done
    done
  done <bench/rows
done

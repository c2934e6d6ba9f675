# SPDX-License-Identifier: Apache-2.0
# Sourced by bench/run.sh: what grows with connections, files, calls in flight and shares.

peer=
start_both() {
  start_oxel ours "$bin/oxelnfsd" 1
  peer=
  ! start_peer || peer=peer
}
stop_both() {
  stop_one ours
  [[ -z "$peer" ]] || stop_one peer
}
wanted() { [[ $1 =~ $BENCH_ONLY ]]; }

place=${BENCH_PLACES##* }  # in memory when there is a choice
share=$(share_of "$place")
"$bin/oxel-tree" data "$share/data" $((16 << 20))
for count in 10 1000 100000 1000000; do
  if wanted "files-$count" || [[ $count == 1000 ]]; then
    "$bin/oxel-tree" names "$share/names-$count" "$count"
  fi
done

# Memory: of servers that have done nothing else yet.
for round in $(seq "$BENCH_ROUNDS"); do
  wanted memory || break
  start_both
  for who in ours $peer; do
    measure idle "$place" "$who" "$round" --op idle --connections 1000 --depth 1
    for depth in 1 64; do
      measure "flying-$depth" "$place" "$who" "$round" --op read --file data --bytes 65536 \
        --connections 8 --depth "$depth" --seconds "$BENCH_SECONDS" --warmup 0
    done
  done
  stop_both
done

# Time from the start of the process until a share can be mounted.
for round in $(seq "$BENCH_ROUNDS"); do
  wanted start || break
  for shares in 1 1000; do
    : >"$BENCH_WORK/exports" && : >"$BENCH_WORK/peer-exports"
    for number in $(seq "$shares"); do
      mkdir -p "$share/shares/$number"
      echo "\"$share/shares/$number\" 127.0.0.1(rw,no_root_squash,insecure)" >>"$BENCH_WORK/exports"
      peer_export "$number" "$share/shares/$number" >>"$BENCH_WORK/peer-exports"
    done
    for who in ours peer; do
      before=$(date +%s%N)
      if [[ $who == ours ]]; then
        start_oxel ours "$bin/oxelnfsd" 1 "$BENCH_WORK/exports"
      else
        start_peer "$BENCH_WORK/peer-exports" || { stop_one peer; continue; }
      fi
      "$bin/oxel-load" --op ready --port "${nfs_port[$who]}" --mount-port "${mount_port[$who]}" \
        --share "$share/shares/$shares" >/dev/null || { stop_one "$who"; continue; }
      after=$(date +%s%N)
      echo "row=start-$shares place=$place who=$who round=$round ms=$(((after - before) / 1000000))" \
        "rssKib=$(awk '/^VmRSS/ { print $2 }' "/proc/${pid[$who]}/status")" |
        tee -a "$BENCH_WORK/results" >&2
      stop_one "$who"
    done
  done
done

start_both
for round in $(seq "$BENCH_ROUNDS"); do
  for connections in 1 10 100 1000 1500; do
    wanted "connections-$connections" || continue
    for depth in 1 8; do
      for operation in getattr lookup; do
        for who in ours $peer; do
          measure "$operation-c$connections-d$depth" "$place" "$who" "$round" --op "$operation" \
            --set names-1000 --connections "$connections" --depth "$depth" \
            --seconds "$BENCH_SECONDS" --warmup 0.3
        done
      done
    done
  done
  for count in 10 1000 100000 1000000; do
    wanted "files-$count" || continue
    # Reading a million handles takes longer than the measurement.
    [[ $count != 1000000 || $round == 1 ]] || continue
    for operation in getattr lookup; do
      for who in ours $peer; do
        measure "$operation-f$count" "$place" "$who" "$round" --op "$operation" \
          --set "names-$count" --connections 8 --depth 8 --seconds "$BENCH_SECONDS" --warmup 0.3
      done
    done
  done
done

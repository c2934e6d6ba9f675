# SPDX-License-Identifier: Apache-2.0
# For bench/run.sh: starting and stopping the servers. Each has a name, under which its process and
# its ports are found.
bin=build/release/bin
declare -A pid nfs_port mount_port
declare -a started=()

# Asks a process to end, and makes it after 5 s: a peer that is told to end while it still starts
# may not listen.
end_process() {
  [[ -d /proc/$1 ]] || return 0
  kill -TERM "$1" 2>/dev/null || true
  for _ in $(seq 100); do
    [[ -d /proc/$1 && $(<"/proc/$1/stat") != *') Z '* ]] 2>/dev/null || break
    sleep 0.05
  done
  kill -KILL "$1" 2>/dev/null || true
  wait "$1" 2>/dev/null || true
}
stop_one() { end_process "${pid[$1]}"; }
stop_servers() {
  local one
  for one in "${started[@]}"; do end_process "$one"; done
}

# start_oxel NAME PROGRAM HARDENED [EXPORTS-FILE]
start_oxel() {
  local name=$1 root=$BENCH_WORK/root-$1 place
  rm -rf "$root"
  mkdir -p "$root/etc/oxelnfsd"
  printf '[Oxel]\nnHardened = %s\nnNfs3Port = 0\n' "$3" >"$root/etc/oxelnfsd/Bench.conf"
  if [[ -n "${4:-}" ]]; then
    cp "$4" "$root/etc/oxelnfsd/Bench.exports"
  else
    for place in $BENCH_PLACES; do
      printf '"%s" 127.0.0.1(rw,no_root_squash,insecure)\n' "$(share_of "$place")"
    done >"$root/etc/oxelnfsd/Bench.exports"
  fi
  OXEL_ROOT=$root "$2" -cn bench -vm Bench -no_pm_reg >"$root/stderr" 2>&1 </dev/null &
  pid[$name]=$!
  started+=($!)
  local runtime=$root/run/oxelnfsd/Bench/runtime.conf port=
  for _ in $(seq 4000); do
    port=$(sed -n 's/^NfsServerPort_v4 *= *//p' "$runtime" 2>/dev/null || true)
    [[ -z "$port" ]] || break
    kill -0 "${pid[$name]}" 2>/dev/null || break
    sleep 0.005
  done
  [[ -n "$port" ]] || { echo "bench: $2 did not start:" >&2; tail "$root/stderr" >&2; return 1; }
  nfs_port[$name]=$port
  mount_port[$name]=$(sed -n 's/^MountServerPort_v4 *= *//p' "$runtime")
}

# start_floor NAME [OPTION]
start_floor() {
  "$bin/oxel-floor" "${@:2}" >"$BENCH_WORK/$1-port" </dev/null &
  pid[$1]=$!
  started+=($!)
  until [[ -s "$BENCH_WORK/$1-port" ]]; do sleep 0.05; done
  nfs_port[$1]=$(<"$BENCH_WORK/$1-port")
  mount_port[$1]=${nfs_port[$1]}
}

# peer_export ID PATH
peer_export() {
  cat <<CONF
EXPORT {
  Export_Id = $1; Path = $2; Pseudo = /share-$1; Filesystem_Id = 1.$1;
  Protocols = 3; Transports = TCP; Access_Type = RW; Squash = No_Root_Squash; SecType = sys;
  FSAL { Name = VFS; }
}
CONF
}

# nfs-ganesha with what it does not need here turned off. Fails when it is not there, or may not
# have a network of its own (it wants the port mapper's well-known port).
# start_peer [FILE-WITH-EXPORTS]
start_peer() {
  if [[ -z "$BENCH_ISOLATED" ]] || ! command -v ganesha.nfsd >/dev/null; then
    echo 'bench: without the peer (nfs-ganesha, which needs root here)' >&2
    return 1
  fi
  local conf=$BENCH_WORK/peer.conf place number=0
  cat >"$conf" <<CONF
NFS_CORE_PARAM {
  Protocols = 3;
  NFS_Port = 2049; MNT_Port = 20048;
  Enable_UDP = false; Enable_NLM = false; Enable_RQUOTA = false;
  Enable_NFS_Stats = false; Enable_Fast_Stats = false;
  RPC_Ioq_ThrdMax = 2; RPC_Max_Connections = 10000;
}
NFSv4 { Graceless = true; }
LOG { Default_Log_Level = CRIT; }
CONF
  if [[ -n "${1:-}" ]]; then
    cat "$1" >>"$conf"
  else
    for place in $BENCH_PLACES; do
      number=$((number + 1))
      peer_export "$number" "$(share_of "$place")" >>"$conf"
    done
  fi
  if [[ -z "${pid[rpcbind]:-}" ]]; then
    rpcbind -f -w >/dev/null 2>&1 </dev/null &
    pid[rpcbind]=$!
    started+=($!)
    for _ in $(seq 100); do rpcinfo -p >/dev/null 2>&1 && break; sleep 0.05; done
  fi
  ganesha.nfsd -F -f "$conf" -L "$BENCH_WORK/peer.log" -p "$BENCH_WORK/peer.pid" -N NIV_CRIT \
    >"$BENCH_WORK/peer.out" 2>&1 </dev/null &
  pid[peer]=$!
  started+=($!)
  nfs_port[peer]=2049 mount_port[peer]=20048
  if ! "$bin/oxel-load" --op ready --port 2049 --mount-port 20048 \
      --share "$(awk '$1 == "Export_Id" { sub(/;/, "", $6); print $6; exit }' "$conf")" \
      >"$BENCH_WORK/peer-ready" 2>>"$BENCH_WORK/errors"; then
    echo 'bench: the peer did not start:' >&2
    tail "$BENCH_WORK/peer.log" "$BENCH_WORK/peer.out" >&2 || true
    return 1
  fi
}

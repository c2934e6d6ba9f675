# shellcheck shell=bash
# SPDX-License-Identifier: Apache-2.0
# Sourced by dashboard_test.sh and by scripts/dashboard.sh: a real daemon with its metrics on, clients
# that do all kinds of things, and a real Prometheus that scrapes it every second. All of it on the
# loopback address and in a directory of its own, and ended by rig_stop.
# Needs OXELNFSD, OXEL_LOAD and OXEL_TREE, the programs' paths.

rig_instance=Dashboard
declare -a rig_pids=()
rig_work='' rig_log='' rig_nfs_port='' rig_metrics_port='' rig_prometheus_port='' rig_started=''

rig_fail() {
  echo "$1" >&2
  exit 1
}

# rig_background COMMAND...: its pid is in rig_started; rig_stop ends it.
rig_background() {
  "$@" </dev/null &
  rig_started=$!
  rig_pids+=("$rig_started")
}

# Asks a process to end, and makes it after 10 s.
rig_end() {
  kill -TERM "$1" 2>/dev/null || return 0
  for _ in $(seq 200); do
    [[ -d /proc/$1 && $(<"/proc/$1/stat") != *') Z '* ]] 2>/dev/null || break
    sleep 0.05
  done
  kill -KILL "$1" 2>/dev/null || true
  wait "$1" 2>/dev/null || true
}

rig_stop() {
  local i
  # The clients first, so that they do not complain about the daemon's end.
  for ((i = ${#rig_pids[@]} - 1; i >= 0; --i)); do rig_end "${rig_pids[i]}"; done
  rig_pids=()
  [[ -z "$rig_work" ]] || rm -rf "$rig_work"
}

# rig_until SECONDS COMMAND...: until the command succeeds; fails when that takes longer.
rig_until() {
  local deadline=$((SECONDS + $1))
  shift
  until "$@"; do
    ((SECONDS < deadline)) || return 1
    sleep 0.1
  done
}

rig_get() { curl --silent --show-error --fail --max-time 20 "$@"; }
rig_scrape() { rig_get "http://127.0.0.1:$rig_metrics_port/metrics"; }
# A port that is probably free: whoever takes it finds out, and tries the next one.
rig_some_port() { echo $((20000 + (RANDOM * 32768 + RANDOM) % 12000)); }

# The log's word, because another program may answer at the metrics' port.
rig_daemon_serves() {
  kill -0 "$rig_started" 2>/dev/null || return 0
  rig_nfs_port=$(sed -n 's/^NfsServerPort_v4 *= *//p' \
    "$rig_work/run/oxelnfsd/$rig_instance/runtime.conf" 2>/dev/null || true)
  [[ -n "$rig_nfs_port" ]] && grep -qs 'Metrics are at\|No metrics at' "$rig_log"
}

# One share for work, one for large files, one that is read-only. One handler thread, so that there
# are only five call records and some calls have to wait for one.
rig_start_daemon() {
  local share
  rig_work=$(mktemp -d "${TMPDIR:-/tmp}/oxel-dashboard.XXXXXX")
  rig_log=$rig_work/var/log/oxelnfsd/$rig_instance.log
  mkdir -p "$rig_work/etc/oxelnfsd"
  for share in projects media archive; do mkdir -p "$rig_work/srv/$share"; done
  "$OXEL_TREE" mix "$rig_work/srv/projects/mix"
  "$OXEL_TREE" data "$rig_work/srv/media/data" $((8 << 20))
  cat >"$rig_work/etc/oxelnfsd/$rig_instance.exports" <<EXPORTS
/projects -dir=$rig_work/srv/projects 127.0.0.0/8(rw,no_root_squash,insecure)
/media    -dir=$rig_work/srv/media    127.0.0.0/8(rw,no_root_squash,insecure)
/archive  -dir=$rig_work/srv/archive  127.0.0.0/8(ro,no_root_squash,insecure)
EXPORTS
  for _ in $(seq 20); do
    rig_metrics_port=$(rig_some_port)
    cat >"$rig_work/etc/oxelnfsd/$rig_instance.conf" <<CONF
[Oxel]
nHardened = 1
nNfs3Port = 0
nMaxNFSRPCThread = 1
nIdleSeconds = 5
nMetricsPort = $rig_metrics_port
nMetricsPerClient = 1
CONF
    rm -f "$rig_work/run/oxelnfsd/$rig_instance/runtime.conf"
    rm -f "$rig_log"
    OXEL_ROOT=$rig_work rig_background "$OXELNFSD" -cn dashboard -vm "$rig_instance" -no_pm_reg \
      2>>"$rig_work/stderr"
    rig_until 60 rig_daemon_serves || break
    kill -0 "$rig_started" 2>/dev/null || break
    if ! grep -qs 'No metrics at' "$rig_log"; then return; fi
    rig_end "$rig_started"  # the port was taken
  done
  tail -n 20 "$rig_work/stderr" "$rig_log" >&2 || true
  rig_fail 'The daemon did not start with its metrics; its last words are above.'
}

rig_prometheus() { rig_get "http://127.0.0.1:$rig_prometheus_port/api/v1/$1" "${@:2}"; }
rig_prometheus_scrapes() {
  kill -0 "$rig_started" 2>/dev/null || return 0
  # Our target, because another Prometheus may have the port.
  rig_prometheus targets 2>/dev/null | jq -e --arg port ":$rig_metrics_port/" '
    .data.activeTargets[0] | .health == "up" and (.scrapeUrl | contains($port))' >/dev/null 2>&1
}

# rig_start_prometheus RULES
rig_start_prometheus() {
  cat >"$rig_work/prometheus.yml" <<YML
global:
  scrape_interval: 1s
  evaluation_interval: 1s
rule_files: ['$1']
scrape_configs:
  - job_name: oxelnfsd
    static_configs:
      - targets: ['127.0.0.1:$rig_metrics_port']
YML
  promtool check config "$rig_work/prometheus.yml" >"$rig_work/prometheus.log" 2>&1 ||
    rig_fail "$(cat "$rig_work/prometheus.log")"
  for _ in $(seq 20); do
    rig_prometheus_port=$(rig_some_port)
    rig_background prometheus --config.file="$rig_work/prometheus.yml" \
      --storage.tsdb.path="$rig_work/prometheus" \
      --web.listen-address="127.0.0.1:$rig_prometheus_port" >"$rig_work/prometheus.log" 2>&1
    rig_until 60 rig_prometheus_scrapes || break
    kill -0 "$rig_started" 2>/dev/null && return
    wait "$rig_started" 2>/dev/null || true  # the port was taken
  done
  tail -n 20 "$rig_work/prometheus.log" >&2
  rig_fail 'Prometheus did not scrape the daemon; its last words are above.'
}

# ---- Clients ----

# rig_load SHARE OPERATION OPTIONS...: until it has had its time.
rig_load() {
  "$OXEL_LOAD" --port "$rig_nfs_port" --share "/$1" --op "$2" --warmup 0 "${@:3}" >/dev/null
}
# The same beside what follows. Its last words need not be good: a connection of its own that it has
# left idle is ended.
rig_begin_load() {
  rig_background "$OXEL_LOAD" --port "$rig_nfs_port" --share "/$1" --op "$2" --warmup 0 "${@:3}" \
    >/dev/null 2>>"$rig_work/loads"
}

# A record as it is sent, in hexadecimal, and the reply's first bytes, if there is one.
rig_send() {
  local connection
  exec {connection}<>"/dev/tcp/127.0.0.1/$rig_nfs_port" || return 0
  # shellcheck disable=SC2059  # the bytes are the format
  printf "$(sed 's/ //g; s/../\\x&/g' <<<"$1")" >&"$connection"
  timeout 5 head -c 24 <&"$connection" >/dev/null || true
  exec {connection}>&-
}

# What clients get wrong, once each. The loads end at the first status that is not OK.
rig_mistakes() {
  local call='00000001 00000000 00000002 000186a3 00000003' unix='00000001 00000014' nothing
  nothing='00000000 00000000'
  {
    rig_load archive create-remove --seconds 0.1 || true        # it is read-only
    rig_load projects lookup --file none --seconds 0.1 || true  # there is no such file
    rig_load nowhere getattr --seconds 0.1 || true              # there is no such share
  } 2>/dev/null
  rig_send "80000028 $call 00000063 $nothing $nothing"                                # no procedure
  rig_send "80000028 $call 00000001 $nothing $nothing"                                # no credential
  rig_send "8000003c $call 00000001 $unix $nothing $nothing 00000000 $nothing"        # no arguments
  rig_send "ffffffff $call"                                                           # 2 GiB
}
rig_mistakes_for_ever() {
  while true; do
    rig_mistakes
    sleep 0.2
  done
}
# Connections that are ended because they are idle.
rig_idlers_for_ever() {
  local connection
  while true; do
    exec {connection}<>"/dev/tcp/127.0.0.1/$rig_nfs_port" || return 0
    timeout 60 cat <&"$connection" >/dev/null || true
    exec {connection}>&-
  done
}

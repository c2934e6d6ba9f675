#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Serves one directory, read-write, to this machine, from a private tree under build/run/, without
# rpcbind and on whatever port is free. Stays in the foreground; Ctrl-C ends it.
set -euo pipefail
cd "$(dirname "$0")/.."

directory=${1:-} port=${2:-2049}
if [[ -z "$directory" || ! -d "$directory" ]]; then
  echo "usage: make run DIR=/some/directory [PORT=2049]" >&2
  [[ -z "$directory" ]] || echo "make run: '$directory' is not a directory" >&2
  exit 1
fi
directory=$(realpath "$directory")

root=$PWD/build/run instance=Demo
mkdir -p "$root/etc/oxelnfsd"
cat >"$root/etc/oxelnfsd/$instance.conf" <<CONF
# The settings of the instance "$instance".
[Oxel]
nHardened = 1
nNfs3Port = $port
CONF
# In the exports file a blank, a quote or a backslash of the path is written as \ooo.
quoted=$(printf '%s' "$directory" | sed -e 's/\\/\\134/g' -e 's/"/\\042/g' -e 's/ /\\040/g')
cat >"$root/etc/oxelnfsd/$instance.exports" <<EXPORTS
# path   client(options): this machine may read and write, with root's rights for root
"$quoted"  127.0.0.1(rw,no_root_squash,insecure) ::1(rw,no_root_squash,insecure)
EXPORTS

export OXEL_ROOT=$root
daemon=build/release/bin/oxelnfsd ctl=build/release/bin/oxelctl
log=$root/var/log/oxelnfsd/$instance.log
"$daemon" -cn "$(hostname)" -vm "$instance" -no_pm_reg 2>"$root/stderr.log" &
pid=$!
# The daemon leads a process group of its own, so Ctrl-C at the terminal reaches this script only.
trap 'kill -TERM $pid 2>/dev/null || true' INT TERM HUP

field() { "$ctl" -vm "$instance" --json status 2>/dev/null | sed -n "s/.*\"$1\": *\([0-9]*\).*/\1/p" | head -n 1; }
for _ in $(seq 100); do
  [[ "$(field state)" == 2 && -n "$(field mountPort)" ]] && break
  kill -0 "$pid" 2>/dev/null || break
  sleep 0.1
done
if [[ "$(field state)" != 2 ]]; then
  echo "oxelnfsd did not start; its last words:" >&2
  tail -n 20 "$root/stderr.log" "$log" >&2 2>/dev/null || true
  kill -TERM "$pid" 2>/dev/null || true
  wait "$pid" || true
  exit 1
fi
nfs=$(field nfsPort) mount=$(field mountPort)

cat <<TEXT

oxelnfsd serves $directory on port $nfs.

  Mount it (as root, needs the package nfs-common):
    mkdir -p /mnt/demo
    mount -t nfs -o vers=3,tcp,nolock,port=$nfs,mountport=$mount,mountproto=tcp '127.0.0.1:$directory' /mnt/demo

  Look at it from another terminal, in this directory:
    OXEL_ROOT=$root $ctl -vm $instance status
    tail -f $log

  Change who may mount it in $root/etc/oxelnfsd/$instance.exports, then
    OXEL_ROOT=$root $ctl -vm $instance reload
  Unmount with "umount /mnt/demo", and end the server here with Ctrl-C.

TEXT
status=0
wait "$pid" || status=$?
# The first wait returns when a signal was trapped; the second one is the daemon's own end.
if kill -0 "$pid" 2>/dev/null; then
  status=0
  wait "$pid" || status=$?
fi
echo "oxelnfsd has ended (exit code $status)."
exit "$status"

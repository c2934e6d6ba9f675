#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# The first process of the kernel under user-mode-linux. Its root is the host's root, read only;
# what is written goes into memory, or to /run/host, the folder that the test has given.
# The test writes lines "ID SECONDS" on the second console: /run/host/guest/ID.sh is run, its output
# goes to ID.out, and "ended ID EXITCODE" is the answer. When the test hangs up, the machine goes off.
export PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LANG=C.UTF-8

mount -t proc proc /proc
mount -t sysfs sys /sys
for directory in /run /mnt /root; do mount -t tmpfs tmpfs "$directory"; done
ln -s /proc/self/fd /dev/fd
mkdir /run/host /run/source /run/tools
mount -t hostfs -o "$OXEL_FOLDER" none /run/host
mount -t hostfs -o ro,"$OXEL_SOURCE_DIR" none /run/source
[[ -z "$OXEL_TOOLS" ]] || mount -t hostfs -o ro,"$OXEL_TOOLS" none /run/tools
mount -t tmpfs tmpfs /tmp  # last: the folders before may be below it
chmod 1777 /tmp

modules=/usr/lib/uml/modules/$(uname -r)/kernel
for module in net/sunrpc/sunrpc fs/nfs_common/grace fs/lockd/lockd fs/netfs/netfs fs/fscache/fscache \
    fs/nfs/nfs fs/nfs_common/nfs_acl fs/nfs/nfsv3; do
  insmod "$modules/$module.ko"
done
ip link set lo up
ip addr add "$OXEL_ADDRESS/24" dev vec0
ip link set vec0 up

run() {
  cd / || exit
  timeout -k 5 "$2" bash "/run/host/guest/$1.sh" >"/run/host/guest/$1.out" 2>&1 </dev/null
  local code=$?
  sync -f "/run/host/guest/$1.out"
  echo "ended $1 $code" >&"$control"
}

exec {control}<>/dev/tty1
stty raw -echo <&"$control"
echo ready >&"$control"
while read -r id seconds <&"$control" && [[ -n "$id" ]]; do run "$id" "$seconds" & done
echo o >/proc/sysrq-trigger
sleep 60

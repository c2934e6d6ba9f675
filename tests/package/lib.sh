# SPDX-License-Identifier: Apache-2.0
# What the scripts of the machine have in common.
set -euo pipefail
export LC_ALL=C.UTF-8 PATH=/usr/sbin:/usr/bin:/sbin:/bin

unit=oxelnfsd@Instance001
exports=/etc/oxelnfsd/Instance001.exports

step() { echo "-- $* ($SECONDS s)"; }
fail() {
  echo "FAILED: $*"
  systemctl --no-pager --full status "$unit" || true
  tail -n 20 /var/log/oxelnfsd/Instance001.log || true
  exit 1
}
# expect WANTED GOT WHAT
expect() { [[ "$1" == "$2" ]] || fail "$3: wanted '$1', got '$2'"; }
# has TEXT PART WHAT
has() { [[ "$1" == *"$2"* ]] || fail "$3: '$2' is not in '$1'"; }
property() { systemctl show --value -p "$1" "$unit"; }
listens() { grep -q ':0801 00000000000000000000000000000000:0000 0A\|:0801 00000000:0000 0A' /proc/net/tcp /proc/net/tcp6 2>/dev/null; }
# until_true SECONDS COMMAND...: what takes longer has failed.
until_true() {
  local end=$((SECONDS + $1))
  shift
  until "$@"; do
    [[ $SECONDS -lt $end ]] || fail "never: $*"
    sleep 0.1
  done
}
mount_share() {
  mkdir -p "$2"
  mount -t nfs -o "vers=3,tcp,nolock,port=2049,mountport=2049,mountproto=tcp${3:+,$3}" "127.0.0.1:$1" "$2"
}
# as USER COMMAND...
as() {
  local user=$1
  shift
  setpriv --reuid "$user" --regid "$user" --clear-groups -- "$@"
}

load_nfs_client() {
  local modules=/run/modules module
  mkdir -p "$modules"
  mount -t hostfs -o "/usr/lib/uml/modules/$(uname -r)/kernel" none "$modules"
  for module in net/sunrpc/sunrpc fs/nfs_common/grace fs/lockd/lockd fs/netfs/netfs \
      fs/fscache/fscache fs/nfs/nfs fs/nfs_common/nfs_acl fs/nfs/nfsv3; do
    insmod "$modules/$module.ko"
  done
}

# SPDX-License-Identifier: Apache-2.0
# What the scripts that run under the kernel's client have in common.
#   lib.sh SHARE NAME: runs scripts/NAME.sh in a new directory NAME of the mounted share.
set -euo pipefail
shopt -s nullglob

fail() {
  echo "FAILED: $*"
  exit 1
}

# expect WANTED GOT WHAT
expect() { [[ "$1" == "$2" ]] || fail "$3: wanted '$1', got '$2'"; }

# fails TEXT COMMAND...: the command fails, and says so with the text.
fails() {
  local text=$1 said
  shift
  ! said=$("$@" 2>&1) || fail "'$*' succeeded"
  [[ "$said" == *"$text"* ]] || fail "'$*' said '$said' instead of '$text'"
}

# What is read next comes from the server.
forget() {
  sync
  echo 3 >/proc/sys/vm/drop_caches
}

# as USER COMMAND...: with this number as user and group, and no other groups.
as() {
  local user=$1
  shift
  setpriv --reuid "$user" --regid "$user" --clear-groups -- "$@"
}

probe() { /run/tools/oxel_probe "$@"; }

# mount_share SHARE FOLDER [OPTIONS]
mount_share() {
  mkdir -p "$2"
  mount -t nfs -o "vers=3,tcp,nolock,port=2049,mountport=2049,mountproto=tcp${3:+,$3}" \
    "$OXEL_SERVER:/$1" "$2"
}

# The files of the project, without what was built: something real to work with.
source_files() { tar -C /run/source --exclude=./build --exclude=./.git --sort=name -cf - .; }

if [[ $# -eq 2 ]]; then
  mounted=/mnt/$1/$2        # as the client has it
  served=/run/host/$1/$2    # as the server has it
  mkdir "$mounted"
  cd "$mounted"
  # shellcheck source=/dev/null
  . "/run/source/tests/kernel/scripts/$2.sh"
  cd /
  rm -rf "$mounted"
  [[ ! -e "$mounted" ]] || fail "$mounted is still there"
fi

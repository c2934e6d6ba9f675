#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Makes the Debian package and lives with it, in a clean Debian 12: it is installed with nothing but
# what it depends on; then, in a machine of its own (user-mode-linux with systemd as its first
# process), started, mounted, reloaded, killed, upgraded, removed and purged (machine.sh).
#   package_test.sh BUILD_FOLDER [SCRIPT]
# SCRIPT runs in the machine instead of machine.sh: capabilities.sh takes 5 minutes and shows what each
# capability of the unit is for.
# The clean system is made once and kept in BUILD_FOLDER/../package-test/root.tar.
set -euo pipefail
here=$(realpath "$(dirname "$0")") source=$(realpath "$(dirname "$0")/../..")
build=$(realpath "$1") script=${2:-machine.sh}
cache=$(realpath "$build/..")/package-test
export LC_ALL=C.UTF-8

skip() { echo "SKIPPED: $*"; exit 77; }
fail() { echo "FAILED: $*"; exit 1; }
step() { echo "== $* ($SECONDS s)"; }

[[ $EUID -eq 0 ]] || skip "a Debian system can be made by root only"
unshare --mount --pid --fork --mount-proc chroot / /bin/true 2>/dev/null ||
  skip "this system allows neither namespaces nor chroot"
"$source/scripts/install-packages.sh" package

mkdir -p "$cache"
work=$(mktemp -d "$cache/run.XXXXXX")
trap 'rm -rf "$work"' EXIT

# in_root FOLDER COMMAND...: in that system, whose processes end with the command.
in_root() {
  local root=$1
  shift
  # shellcheck disable=SC2016  # the inner shell's
  unshare --mount --pid --fork --kill-child bash -c '
    mount -t proc proc "$0/proc" && mount -t tmpfs tmpfs "$0/run" &&
      exec chroot "$0" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C.UTF-8 \
        DEBIAN_FRONTEND=noninteractive http_proxy="${http_proxy:-}" "$@"' "$root" "$@"
}

# quietly COMMAND...: shows what it said when it failed.
quietly() { "$@" >"$work/said" 2>&1 || { cat "$work/said"; fail "$*"; }; }

# Everything in the system but what apt, dpkg and a boot write for themselves.
files_of() {
  (cd "$1" && find . -xdev \( -path ./proc -o -path ./run -o -path ./tmp -o -path ./var/tmp \
      -o -path ./var/cache -o -path ./var/lib/dpkg -o -path ./var/lib/apt -o -path ./var/lib/systemd \
      -o -path ./var/log/journal -o -path ./package-test -o -path ./var/lib/nfs \) -prune -o -print |
    grep -vE '^\./var/log/(apt|dpkg\.log|alternatives\.log|wtmp|btmp|lastlog|private)|/ld\.so\.cache$|/\.updated$|^\./etc/\.pwd\.lock$' |
    sort)
}

# What the machine has besides the package and its libraries.
machine_packages=(systemd-sysv nfs-common kmod netbase)
if [[ ! -e "$cache/root.tar" ]]; then
  step "making a Debian system"
  # The archives that this machine has Debian from; without its lists, Debian's own.
  # shellcheck disable=SC2016  # apt's
  mapfile -t archives < <(apt-get indextargets 'Created-By: Packages' 'Origin: Debian' --format \
    'deb $(REPO_URI) $(RELEASE) $(COMPONENT)' 2>/dev/null | grep bookworm |
    sort -u)
  quietly mmdebstrap --mode=root --variant=minbase --skip=cleanup/apt bookworm "$work/root.tar" \
    "${archives[@]}"
  mkdir "$work/new"
  tar -C "$work/new" -xf "$work/root.tar"
  cp /etc/resolv.conf "$work/new/etc/resolv.conf"
  # Downloaded once; installed in each run.
  quietly in_root "$work/new" apt-get install -q -y --no-install-recommends --download-only \
    "${machine_packages[@]}"
  tar -C "$work/new" -cf "$work/root.tar" .
  mv "$work/root.tar" "$cache/root.tar"
  rm -rf "$work/new"
fi

step "making the package"
quietly env OXEL_BUILD_DIR="$build" DEB_BUILD_OPTIONS=noautodbgsym \
  "$source/scripts/package.sh" "$work/package"
first=$(echo "$work"/package/oxelnfsd_*.deb)
# The next revision: another version, and another wording of a file that people edit.
dpkg-deb -R "$first" "$work/next"
sed -i 's/^\(Version: .*\)+1$/\1+2/' "$work/next/DEBIAN/control"
echo "# Of the next revision." >>"$work/next/etc/oxelnfsd/Instance001.conf"
quietly dpkg-deb --root-owner-group -b "$work/next" "$work/next.deb"

step "installing it, and nothing that it does not depend on"
root=$work/root
mkdir "$root"
tar -C "$root" -xf "$cache/root.tar"
files_of "$root" >"$work/before"
cp "$first" "$root/tmp/first.deb"
cp "$work/next.deb" "$root/tmp/next.deb"
quietly in_root "$root" apt-get install -q -y --no-install-recommends /tmp/first.deb
said=$(in_root "$root" oxelctl check) || fail "oxelctl check: $said"
[[ "$said" == "ok: 0 shares in /etc/oxelnfsd/Instance001.exports, "* ]] || fail "check: $said"
said=$(in_root "$root" oxelnfsd 2>&1) && fail "oxelnfsd without arguments succeeds"
[[ "$said" == *"Usage: oxelnfsd"* ]] || fail "the daemon does not run: $said"
quietly in_root "$root" apt-get purge -q -y --autoremove oxelnfsd
files_of "$root" | diff "$work/before" - || fail "the package leaves something behind"

step "starting a machine"
# The libraries that it needs belong to the machine: a purge of the package alone leaves them.
mapfile -t libraries < <(dpkg-deb -f "$first" Depends | tr ',' '\n' | sed 's/(.*//; s/|.*//; s/ //g')
quietly in_root "$root" apt-get install -q -y --no-install-recommends "${machine_packages[@]}" \
  "${libraries[@]}"
files_of "$root" >"$work/before"
quietly in_root "$root" apt-get install -q -y --no-install-recommends /tmp/first.deb
mkdir "$root/package-test" "$work/uml"
cp "$here/$script" "$here/lib.sh" "$root/package-test/"
mv "$root/tmp/next.deb" "$root/package-test/next.deb"
cat >"$root/etc/systemd/system/package-test.service" <<UNIT
[Unit]
After=multi-user.target
[Service]
Type=oneshot
ExecStart=/bin/bash /package-test/$script
StandardOutput=file:/package-test/output
StandardError=inherit
ExecStopPost=/bin/sh -c 'echo o >/proc/sysrq-trigger'
UNIT
TMPDIR=$work timeout -k 10 600 unshare --pid --fork --kill-child --mount-proc \
  linux.uml mem=768M root=/dev/root rootfstype=hostfs rootflags="$root" rw \
  init=/lib/systemd/systemd systemd.unit=package-test.service con=null con0=null,fd:1 \
  umid=machine uml_dir="$work/uml" quiet >"$work/kernel.log" 2>&1 </dev/null || true
[[ -e "$root/package-test/output" ]] || { tail -n 50 "$work/kernel.log"; fail "no machine"; }
cat "$root/package-test/output"
[[ -e "$root/package-test/done" ]] || { tail -n 50 "$work/kernel.log"; fail "in the machine"; }

[[ "$script" == machine.sh ]] || exit 0
step "looking for what is left"
rm "$root/etc/systemd/system/package-test.service"
files_of "$root" | diff "$work/before" - || fail "the purged package leaves something behind"
left=$(find "$root"/{etc,usr,lib,var/lib/oxelnfsd,var/log/oxelnfsd} -name "*oxelnfsd*" 2>/dev/null || true)
[[ -z "$left" ]] || fail "left: $left"
step "done"

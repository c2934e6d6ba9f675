# SPDX-License-Identifier: Apache-2.0
# The life of the package in a machine whose service manager is systemd, as an administrator has it.
. /package-test/lib.sh

load_nfs_client
mount -t tmpfs tmpfs /srv
mkdir -m 1777 /srv/projects
mkdir -p /run/client

step "the package as it comes starts nothing and shares nothing"
expect "" "$(systemctl --no-legend list-units 'oxelnfsd@*')" "units"
expect "" "$(find /etc/systemd/system -name 'oxelnfsd*')" "enabled instances"
! listens || fail "somebody listens"

step "the unit is sound"
systemd-analyze verify --man=no "$unit.service" 2>/run/said || { cat /run/said; fail "verify"; }
expect "" "$(grep oxelnfsd /run/said || true)" "systemd-analyze verify"
systemd-analyze security --no-pager "$unit.service" | tail -n 1
systemd-analyze security --no-pager --threshold=40 "$unit.service" >/dev/null

step "started with nothing to share, it says so"
systemctl enable --now "$unit"
expect "serving no share on port 2049: $exports has none" "$(property StatusText)" "status"
said=$(mount_share /srv/projects /run/client/projects 2>&1) && fail "nothing is shared, and was mounted"
echo "   mount said: $said"

step "a reload serves what the exports file says now"
echo '/srv/projects 127.0.0.1(rw,no_root_squash)' >>"$exports"
oxelctl check
systemctl reload "$unit"
mount_share /srv/projects /run/client/projects
cd /run/client/projects || exit
echo "some words" >words
expect "some words" "$(cat /srv/projects/words)" "what was written"

step "what is mounted after the start is served as well"
mkdir /srv/later
mount -t tmpfs tmpfs /srv/later
echo '/srv/later 127.0.0.1(rw,no_root_squash)' >>"$exports"
systemctl reload "$unit"
mount_share /srv/later /run/client/later
echo later >/run/client/later/words
expect later "$(cat /srv/later/words)" "what was written to the later share"
umount /run/client/later
sed -i '/later/d' "$exports"
systemctl reload "$unit"
umount_later() { umount /srv/later 2>/run/said; }
until_true 100 umount_later

step "a reload with a mistake fails, says where, and changes nothing"
cp "$exports" /run/exports
echo 'relative *(rw)' >>"$exports"
! systemctl reload "$unit" 2>/run/said || fail "the mistake was taken"
journalctl --sync
has "$(journalctl --no-pager -o cat -u "$unit")" "$exports:" "the journal"
cp /run/exports "$exports"
expect active "$(property ActiveState)" "state"
expect "some words" "$(cat words)" "the mount"

step "users work with their own rights, root with root's"
mkdir -m 0770 ours
chown 1000:1000 ours
as 1000 mkdir -m 2770 ours/set
expect "2770 1000" "$(stat -c '%a %u' /srv/projects/ours/set)" "a directory with the bit of its group"
as 1000 sh -c 'umask 077 && echo secret >ours/secret'
! as 1001 cat ours/secret 2>/dev/null || fail "a stranger reads a secret"
as 1000 chmod 0 ours/secret
expect secret "$(cat ours/secret)" "root reads"
chown 1001:1001 ours/secret
chmod 0644 ours/secret
touch -d 2001-02-03 ours/secret
mv ours/secret ours/moved
ln ours/moved ours/second
rm ours/second

step "systemd is told that it lives"
expect 0 "$(property NRestarts)" "restarts"
[[ "$(property WatchdogTimestampMonotonic)" -gt 0 ]] || fail "no sign of life"
has "$(property StatusText)" "serving 1 share on port 2049: " "status"

# now: microseconds
now() { echo $(($(date +%s%N) / 1000)); }

step "killed, it is back, and the client goes on"
exec 6>>open
killed=$(property MainPID)
begun=$(now)
kill -KILL "$killed"
echo "after the kill" >&6
sync -d open
echo "   a write waited $((($(now) - begun) / 1000)) ms"
expect "after the kill" "$(cat /srv/projects/open)" "what was written over a kill"
expect 1 "$(property NRestarts)" "restarts"

step "restarted, the client goes on"
begun=$(now)
systemctl restart "$unit"
echo "   systemctl restart took $((($(now) - begun) / 1000)) ms"
echo "after the restart" >&6
sync -d open
echo "   with a write $((($(now) - begun) / 1000)) ms"

step "an upgrade keeps what people wrote, the key and the clients' handles"
echo "# An administrator's word." >>/etc/oxelnfsd/Instance001.conf
key=$(sha256sum </var/lib/oxelnfsd/Instance001/handle.key)
before=$(property MainPID)
DEBIAN_FRONTEND=noninteractive dpkg --force-confdef --force-confold -i /package-test/next.deb >/run/said 2>&1 ||
  { cat /run/said; fail "dpkg -i"; }
[[ "$(dpkg-query -W -f '${Version}' oxelnfsd)" == *+2 ]] || fail "the version is the old one"
has "$(cat /etc/oxelnfsd/Instance001.conf)" "An administrator's word." "the settings"
[[ -e /etc/oxelnfsd/Instance001.conf.dpkg-dist ]] || fail "the new settings are not beside the old ones"
expect "$key" "$(sha256sum </var/lib/oxelnfsd/Instance001/handle.key)" "the key"
[[ "$(property MainPID)" != "$before" ]] || fail "the old program still runs"
expect active "$(property ActiveState)" "state"
echo "after the upgrade" >&6
sync -d open
expect "after the upgrade" "$(tail -n 1 /srv/projects/open)" "what was written to an open file"
expect "some words" "$(cat words)" "the mount"
exec 6>&-

step "removed, it has stopped, and left what is the administrator's"
cd /
umount /run/client/projects
dpkg -r oxelnfsd >/run/said 2>&1 || { cat /run/said; fail "dpkg -r"; }
! listens || fail "somebody still listens"
for kept in /etc/oxelnfsd/Instance001.conf "$exports" /etc/default/oxelnfsd \
    /var/lib/oxelnfsd/Instance001/handle.key /var/log/oxelnfsd/Instance001.log; do
  [[ -e "$kept" ]] || fail "$kept is gone"
done

step "installed again, it goes on where it was"
dpkg --force-confold -i /package-test/next.deb >/run/said 2>&1 || { cat /run/said; fail "dpkg -i"; }
systemctl start "$unit"
mount_share /srv/projects /run/client/projects
expect "some words" "$(cat /run/client/projects/words)" "the mount"
umount /run/client/projects
expect "$key" "$(sha256sum </var/lib/oxelnfsd/Instance001/handle.key)" "the key"

step "purged, nothing of it is left"
dpkg -P oxelnfsd >/run/said 2>&1 || { cat /run/said; fail "dpkg -P"; }
! listens || fail "somebody still listens"
[[ ! -e /run/oxelnfsd ]] || fail "/run/oxelnfsd is left"
expect "" "$(systemctl --no-legend list-unit-files 'oxelnfsd@*')" "unit files"
expect "some words" "$(cat /srv/projects/words)" "the shared directory"
touch /package-test/done

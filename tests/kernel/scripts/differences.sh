# SPDX-License-Identifier: Apache-2.0
# What a user of this server sees differently from a local directory, and how to live with it:
# the places of docs/behaviour.md, each held here.

# An owner or a group alone is not changed; both together are.
touch file
chown 1000 file
chgrp 1000 file
expect 0:0 "$(stat -c %u:%g file)" "after chown and chgrp alone"
chown 1000:1000 file
expect 1000:1000 "$(stat -c %u:%g file)" "after both together"

# The sticky bit is kept and holds, and is not shown.
mkdir sticky
chmod 1777 sticky
expect 777 "$(stat -c %a sticky)" "the mode that is shown"
expect 1777 "$(stat -c %a "$served/sticky")" "the mode at the server"
as 1000 touch sticky/of1000
fails "not permitted" as 1001 rm -f sticky/of1000

# One time alone: the other one becomes now, and it stays. Both together are set.
touch -d '2001-01-01 UTC' times
touch -m -d '2002-01-01 UTC' times
expect 978307200 "$(stat -c %Y times)" "the modification time after touch -m"
(($(stat -c %X times) > 1700000000)) || fail "touch -m left the access time"
touch -d '2001-01-01 UTC' times
touch -a -d '2002-01-01 UTC' times
expect 978307200 "$(stat -c %X times)" "the access time after touch -a"
(($(stat -c %Y times) > 1700000000)) || fail "touch -a left the modification time"
# So tar, which sets one of them, loses modification times; in its incremental mode it sets both.
mkdir /tmp/tree
touch -d '2001-01-01 UTC' /tmp/tree/member
tar -C /tmp/tree -cf /tmp/tree.tar member
tar -xf /tmp/tree.tar
(($(stat -c %Y member) > 1700000000)) || fail "tar set the modification time"
tar -xf /tmp/tree.tar --incremental
expect 978307200 "$(stat -c %Y member)" "the modification time after tar --incremental"
cp -p /tmp/tree/member copied
expect 978307200 "$(stat -c %Y copied)" "the modification time after cp -p"
# An empty file that is emptied again keeps its time; touch gives it a new one.
touch -d '2001-01-01 UTC' stamp
: >stamp
expect 978307200 "$(stat -c %Y stamp)" "the time after emptying"
touch stamp
(($(stat -c %Y stamp) > 1700000000)) || fail "touch left the time"

# Times are whole seconds.
touch -d '2020-01-01 00:00:00.75 UTC' fraction
forget
expect .000000000 "$(stat -c %y fraction | grep -o '\.[0-9]*')" "the fraction of a second"

# The space that a file uses is shown eight times as large (on 4 KiB blocks); its size is right.
dd if=/dev/zero of=space bs=1M count=1 status=none
forget
expect 1048576 "$(stat -c %s space)" "the size"
expect "$(($(du -k "$served/space" | cut -f 1) * 8))" "$(du -k space | cut -f 1)" "what du says"
expect "$(du -b "$served/space" | cut -f 1)" "$(du -b space | cut -f 1)" "what du -b says"
mkdir directory
expect 4096 "$(stat -c %s directory)" "the size of a directory"

# All shares are one file system for the client, unless they are mounted with nosharecache.
expect "$(stat -c %d /mnt/memory)" "$(stat -c %d /mnt/disk)" "the number of the file system"
mount_share disk /tmp/apart nosharecache
[[ "$(stat -c %d /tmp/apart)" != "$(stat -c %d /mnt/disk)" ]] || fail "nosharecache changes nothing"
umount /tmp/apart

# A directory that another client has made meanwhile: mkdir succeeds.
mkdir -m 755 "$served/behind"
mkdir behind || fail "mkdir of what another client made"
fails "File exists" mkdir behind  # now this client knows it
# Whatever has the name, a file too.
echo content >"$served/taken"
mkdir taken || fail "mkdir of a name that a file has"
forget
expect "content" "$(cat taken)" "what mkdir has left of the file"
# A name that another client has removed meanwhile: rm succeeds.
touch gone
rm "$served/gone"
rm gone || fail "rm of what another client removed"

# Groups beyond the user's own come from the server's databases, with manage_gids, or not at all.
touch grouped
chown 0:3000 grouped
chmod 660 grouped
fails "Permission denied" setpriv --reuid 1000 --regid 1000 --groups 3000 cat grouped

# Devices, pipes and sockets are not made; the Linux client has a number of its own for that.
fails "error 524" mkfifo pipe
fails "error 524" mknod device c 1 3
fails "error 524" perl -MIO::Socket::UNIX -e 'IO::Socket::UNIX->new(Local => "socket", Listen => 1) or die $!'

# What must not exist yet has the mode that was asked for in the end, although the verifier of its
# making is in the way of the mode at first.
perl -MFcntl -e 'umask 0; sysopen(my $file, "exclusive", O_CREAT|O_EXCL|O_WRONLY, 0640) or die $!'
forget
expect 640 "$(stat -c %a exclusive)" "the mode of an exclusively made file"

# Nothing lies deeper than 4,095 bytes of path at the server; what lies above can be removed.
for _ in $(seq 40); do
  name=$(printf 'd%.0s' $(seq 120))
  mkdir "$name" 2>/tmp/said || break
  cd "$name"
done
[[ "$(cat /tmp/said)" == *"File name too long"* ]] || fail "mkdir said '$(cat /tmp/said)'"
cd "$mounted"
rm -r "$name"
rm -r /tmp/tree /tmp/tree.tar

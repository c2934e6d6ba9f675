# SPDX-License-Identifier: Apache-2.0
# Several users: who may read, write, search, remove; umask; groups; ownership.
chmod 755 .
mkdir shared private
chmod 777 shared
chmod 700 private
echo root >private/file
as 1000 bash -c 'umask 022; echo one >shared/of1000; mkdir shared/dir1000'
as 1001 bash -c 'umask 077; echo two >shared/of1001'
expect "1000:1000 644" "$(stat -c '%u:%g %a' shared/of1000)" "what user 1000 made"
expect "1001:1001 600" "$(stat -c '%u:%g %a' shared/of1001)" "what user 1001 made"
expect "1000:1000 755" "$(stat -c '%u:%g %a' shared/dir1000)" "the directory of user 1000"
expect "1000:1000" "$(stat -c %u:%g "$served/shared/of1000")" "its owner at the server"
fails "Permission denied" as 1000 cat shared/of1001
fails "Permission denied" as 1001 bash -c 'echo no >>shared/of1000'
fails "Permission denied" as 1000 ls private
fails "Permission denied" as 1000 cat private/file
fails "Permission denied" as 1001 touch shared/dir1000/no
fails "Operation not permitted" as 1001 chmod 777 shared/of1000
fails "Operation not permitted" as 1000 chown 1001:1001 shared/of1000
expect one "$(as 1001 cat shared/of1000)" "what others may read"
as 1000 chmod 664 shared/of1000
chown 1000:2000 shared/of1000
setpriv --reuid 1001 --regid 2000 --clear-groups -- bash -c 'echo group >>shared/of1000'
expect 2 "$(wc -l <shared/of1000)" "lines after the group wrote"
as 1001 rm -f shared/of1000  # the directory decides
[[ ! -e shared/of1000 ]] || fail "of1000 is still there"
# A file without any right for its owner: what is open stays open.
as 1000 bash -c 'exec 5<>shared/own; chmod 000 shared/own; echo kept >&5; exec 5>&-'
expect "0" "$(stat -c %a shared/own)" "its mode"
expect kept "$(cat shared/own)" "what root reads"
as 1000 bash -c 'cp /bin/true shared/program; chmod 711 shared/program'
as 1001 shared/program
fails "Permission denied" as 1001 cat shared/program
# Directories that hand down their group.
mkdir team
chown 0:2000 team
chmod 2775 team
setpriv --reuid 1000 --regid 2000 --clear-groups -- bash -c 'umask 002; mkdir team/sub; touch team/file'
expect "1000:2000 2775" "$(stat -c '%u:%g %a' team/sub)" "a directory in it"
expect "1000:2000 664" "$(stat -c '%u:%g %a' team/file)" "a file in it"

# SPDX-License-Identifier: Apache-2.0
# df, df -i, stat -f and quota-like questions tell what the server's file system has.
read -r blocks used available _ < <(df -k --output=size,used,avail,pcent . | tail -n 1)
read -r served_blocks _ < <(df -k --output=size,used "$served" | tail -n 1)
((blocks > 0 && used >= 0 && available > 0)) || fail "df says $blocks $used $available"
expect "nfs" "$(stat -f -c %T .)" "the kind of file system"
expect 255 "$(stat -f -c %l .)" "the longest name"
expect 255 "$(getconf NAME_MAX .)" "NAME_MAX"
before=$(df -k --output=used . | tail -n 1)
dd if=/dev/zero of=file bs=1M count=64 status=none
sync
after=$(df -k --output=used . | tail -n 1)
((after - before >= 60000)) || fail "64 MiB more are $((after - before)) KiB more for df"
inodes=$(df --output=itotal . | tail -n 1)
((inodes > 0)) || fail "df -i says $inodes"
echo "$blocks KiB here, $served_blocks there, $inodes inodes"

# SPDX-License-Identifier: Apache-2.0
# Holes read as zeros; the server's file has them too; copies are equal.
truncate -s 64M holes
echo middle | dd of=holes bs=1 seek=33554432 conv=notrunc status=none
forget
expect 67108864 "$(stat -c %s holes)" "the size"
expect "middle" "$(dd if=holes bs=1 skip=33554432 count=6 status=none)" "the middle"
expect 0 "$(head -c 33554432 holes | tr -d '\0' | wc -c)" "bytes that are not zero before it"
blocks=$(stat -c %b "$served/holes")
((blocks < 1000)) || fail "the server's file has $blocks blocks"
cp --sparse=always holes copy
cmp holes copy
fails "not supported" fallocate -l 1M allocated
fails "unsupported" fallocate -p -o 0 -l 4096 holes

# SPDX-License-Identifier: Apache-2.0
# Files over 4 GiB: written at their ends and across 4 GiB, read back, cut and copied.
truncate -s 5G file
for at in 0 2147483647 4294967290 4294967296 5368709000; do
  printf 'mark at %d' "$at" | dd of=file bs=1 seek="$at" conv=notrunc status=none
done
forget
for at in 2147483647 4294967296 5368709000; do
  expect "mark at $at" "$(dd if=file bs=1 skip="$at" count=18 status=none | tr -d '\0')" "the mark at $at"
done
expect "mark amark at 4294967296" "$(dd if=file bs=1 skip=4294967290 count=24 status=none)" "across 4 GiB"
expect 5368709120 "$(stat -c %s "$served/file")" "the size at the server"
truncate -s 4294967300 file
expect 4294967300 "$(stat -c %s file)" "the size after cutting"
expect "mark" "$(tail -c 4 file)" "its end"
dd if=/dev/zero of=file bs=1M count=16 seek=6000 conv=notrunc status=none
expect $((6016 << 20)) "$(stat -c %s file)" "the size after appending behind a hole"
expect "" "$(tail -c 1048576 file | tr -d '\0')" "what was written behind it"
fails "File too large" truncate -s 200T file

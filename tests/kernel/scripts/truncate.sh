# SPDX-License-Identifier: Apache-2.0
# Truncation: shorter, longer, while open, by opening; what is cut off does not come back.
seq 100000 >file
truncate -s 1000 file
forget
expect 1000 "$(wc -c <file)" "after cutting"
cmp -n 1000 file <(seq 100000)
truncate -s 5000 file
expect 0 "$(tail -c 4000 file | tr -d '\0' | wc -c)" "bytes that are not zero in the new part"
expect 5000 "$(stat -c %s "$served/file")" "the size at the server"
exec 5>>file
: >file
expect 0 "$(stat -c %s file)" "the size of an open file"
echo again >&5
exec 5>&-
expect again "$(cat file)" "appended after it"
forget
expect again "$(cat "$served/file")" "at the server"
chmod 400 file
as 1000 bash -c 'mkdir -m 700 /tmp/own 2>/dev/null || true'
fails "Permission denied" as 1000 truncate -s 0 file
truncate -s 0 file

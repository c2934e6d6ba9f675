# SPDX-License-Identifier: Apache-2.0
# Pages written through a mapping, direct input and output, and locks between local processes.
probe mapped file
forget
cmp file "$served/file"
expect 5242880 "$(stat -c %s "$served/file")" "the size at the server"
probe direct straight
forget
expect 8388608 "$(tr -d -c d <"$served/straight" | wc -c)" "bytes written directly"
probe locks locked

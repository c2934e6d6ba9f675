# SPDX-License-Identifier: Apache-2.0
# Appending: by shells, and by several processes at once.
for i in $(seq 100); do echo "line $i" >>log; done
expect 100 "$(wc -l <log)" "lines"
forget
expect "line 100" "$(tail -n 1 log)" "the last line"
cmp log "$served/log"
probe append many
forget
cmp many "$served/many"

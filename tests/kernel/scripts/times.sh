# SPDX-License-Identifier: Apache-2.0
# The forms of touch: both times together, whole seconds, forwards and backwards in time.
touch now
age=$(($(date +%s) - $(stat -c %Y now)))
((age >= -2 && age < 60)) || fail "a new file is $age s old"
touch -d '2001-02-03 04:05:06 UTC' old
expect "981173106 981173106" "$(stat -c '%X %Y' old)" "both times"
touch -r old reference
expect "981173106 981173106" "$(stat -c '%X %Y' reference)" "both times of another file"
touch -d '1970-01-01 00:00:01 UTC' first
expect 1 "$(stat -c %Y first)" "the first second"
touch -d '2038-01-19 03:14:08 UTC' later
expect 2147483648 "$(stat -c %Y later)" "beyond 31 bits"
touch -d '2106-02-07 06:28:15 UTC' last
expect 4294967295 "$(stat -c %Y last)" "the last second that NFS version 3 has"
touch -d '2020-01-01 00:00:00.75 UTC' fraction
forget
expect "2020-01-01 00:00:00.000000000" "$(TZ=UTC stat -c %y fraction | cut -c 1-29)" "a fraction of a second"
touch -c absent
[[ ! -e absent ]] || fail "touch -c made a file"
mkdir directory
touch -d '2010-01-01 UTC' directory
expect 1262304000 "$(stat -c %Y directory)" "the time of a directory"
touch directory/file
(($(stat -c %Y directory) > 1262304000)) || fail "a new name did not change the directory's time"
ln -s old link
touch -h -d '2011-01-01 UTC' link
expect 1293840000 "$(stat -c %Y link)" "the time of a link"
expect 981173106 "$(stat -c %Y old)" "the time of its target"
before=$(stat -c %Z old)
sleep 1.1
chmod 600 old
(($(stat -c %Z old) > before)) || fail "chmod did not change the time of the last change"
[[ now -nt old ]] || fail "now is not newer than old"
expect "./old ./reference" "$(find . -maxdepth 1 -type f ! -newermt '2005-01-01' -newermt '1990-01-01' | sort | tr '\n' ' ' | sed 's/ $//')" "find by time"

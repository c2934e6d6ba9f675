# SPDX-License-Identifier: Apache-2.0
# 20,000 files in one directory and some in 40: all are found once.
seq -w 0 39 | xargs -I{} mkdir dir{}
for d in dir*; do (cd "$d" && seq -f 'file-%g' 1 50 | xargs touch); done
mkdir flat
(cd flat && seq -f 'a-name-of-some-length-%g' 1 20000 | xargs touch)
forget
find dir* -type f | sort >/tmp/found
for d in dir*; do seq -f "$d/file-%g" 1 50; done | sort | diff - /tmp/found
find flat -type f -printf '%f\n' | sort | diff <(seq -f 'a-name-of-some-length-%g' 1 20000 | sort) -
expect 20000 "$(ls -U flat | sort -u | wc -l)" "names listed"
forget
expect 20000 "$(ls -l flat | grep -c '^-')" "files listed with attributes"
(cd flat && seq -f 'a-name-of-some-length-%g' 1 2 20000 | xargs rm)
expect 10000 "$(ls -U flat | wc -l)" "names after removing every other one"
rm -rf flat
[[ ! -e flat ]] || fail "flat is still there"

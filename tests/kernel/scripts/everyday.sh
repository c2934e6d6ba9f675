# SPDX-License-Identifier: Apache-2.0
# What is left: editors' and package tools' ways of writing, patches, archives, searches, watchers.
for i in $(seq 200); do echo "line $i"; done >text
cp text text.orig
sed -i.bak 's/line 1\b/first/; s/line 100/middle/; $d' text
diff -u text.orig text >change.patch || true
cp text.orig again
patch -s again <change.patch
cmp text again
patch -s -R again <change.patch
cmp text.orig again
sort -r -o text.orig text.orig
perl -pi -e 's/line/row/' again
expect 200 "$(grep -c '^row' again)" "rows"
gzip -k text
gunzip -c text.gz | cmp - text
split -l 50 text part.
cat part.* | cmp - text
dd if=text of=synced conv=fsync,notrunc status=none
cmp text synced
touch followed
tail -f -n 0 followed >/tmp/seen &
follower=$!
until [[ -s /tmp/seen ]]; do
  echo more >>followed
  sleep 0.1
done
kill $follower
wait $follower || true
paste -d: <(seq 3) <(seq 4 6) >pasted
expect "1:4 2:5 3:6" "$(tr '\n' ' ' <pasted | sed 's/ $//')" "pasted"
cat >script <<'END'
#!/bin/bash
echo "run from $(dirname "$0")"
END
chmod +x script
expect "run from ." "$(./script)" "a script"
cp "$(command -v ls)" tool
expect "$(ls text)" "$(./tool text)" "a program"
sync -f text
(flock 9 && echo locked) 9>lock >got
expect locked "$(cat got)" "flock"
cp --reflink=auto text copied
cmp text copied
mkdir -p a/b/c && rmdir -p a/b/c

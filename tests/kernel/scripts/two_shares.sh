# SPDX-License-Identifier: Apache-2.0
# Two mounts of two shares: same names and numbers side by side, copies and moves across.
other=/mnt/disk/two_shares
mkdir "$other"
for i in 1 2 3; do
  echo "here $i" >file$i
  echo "there $i" >"$other/file$i"
done
forget
for i in 1 2 3; do
  expect "here $i" "$(cat file$i)" "a file of this share"
  expect "there $i" "$(cat "$other/file$i")" "a file of the other share"
done
source_files | tar -xf - -C "$other" ./docs ./nfs3
cp -a "$other/docs" "$other/nfs3" .
diff -r nfs3 "$other/nfs3"
mv docs "$other/moved"
diff -r "$other/docs" "$other/moved"
[[ ! -e docs ]] || fail "docs is still here"
fails "cross-device" ln file1 "$other/linked"
expect "$(find nfs3 -type f | wc -l)" "$(find "$other/nfs3" -type f | wc -l)" "files"
# The same share twice.
mount_share memory /tmp/again nosharecache
echo new >"/tmp/again/${mounted##*/}/through"
expect new "$(cat through)" "what was written through the other mount"
umount /tmp/again
rm -rf "$other"

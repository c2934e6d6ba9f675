# SPDX-License-Identifier: Apache-2.0
# 100 directories below each other: made, written to, walked through, packed and removed.
for i in $(seq 100); do
  mkdir "directory-$i"
  cd "directory-$i"
done
echo bottom >file
cd "$mounted"
forget
expect 101 "$(find . -type d | wc -l)" "directories"
expect bottom "$(find . -name file -exec cat {} +)" "the file at the bottom"
tar -cf /tmp/deep.tar directory-1
mkdir copy
tar -xf /tmp/deep.tar -C copy
diff -r directory-1 copy/directory-1
long=$(printf 'x%.0s' $(seq 250))
path=$long
for _ in $(seq 14); do path=$path/$long; done
mkdir -p "$path"  # 3764 bytes
echo deep >"$path/file"
expect deep "$(cat "$path/file")" "a file at a long path"
fails "File name too long" mkdir -p "$path/$long/$long"
rm /tmp/deep.tar

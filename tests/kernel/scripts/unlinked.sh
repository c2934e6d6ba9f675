# SPDX-License-Identifier: Apache-2.0
# Files that are removed while open (the client renames them meanwhile), by one and by many.
mkdir folder
probe unlinked "$mounted/folder"
echo content >file
exec 5<file
rm file
[[ ! -e file ]] || fail "file is still there"
expect 1 "$(find . -name '.nfs*' | wc -l)" "the name under which the client keeps it"
expect content "$(cat <&5)" "what is read from it"
exec 5<&-
expect "" "$(find . -name '.nfs*')" "what is left"
cp /bin/sleep program
./program 2 &
sleep 0.2
rm program
wait $!
expect "" "$(find . -name '.nfs*')" "what is left of the program"

# SPDX-License-Identifier: Apache-2.0
# A directory is renamed while it is someone's working directory and files in it are open.
mkdir -p one/two
echo content >one/two/file
cd one/two
exec 5<>file
mv ../../one ../../moved
expect "$mounted/moved/two" "$(/bin/pwd)" "the working directory"
expect content "$(cat file)" "a file in it"
echo more >>file
cat <&5 >/dev/null
echo last >&5
exec 5>&-
expect "content more last" "$(tr '\n' ' ' <file | sed 's/ $//')" "what was written through both"
touch new
cd "$mounted"
forget
expect "file new " "$(ls "$served/moved/two" | tr '\n' ' ')" "at the server"
fails "subdirectory of itself" mv moved moved/two/inside
fails "Directory not empty" rmdir moved
fails "No such file" mv one nowhere
mkdir cwd
(cd cwd && rmdir "$mounted/cwd" && fails "No such file" touch here)

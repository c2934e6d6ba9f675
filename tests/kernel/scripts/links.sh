# SPDX-License-Identifier: Apache-2.0
# Hard links and symbolic links.
echo content >file
ln file second
ln second third
expect 3 "$(stat -c %h file)" "links"
expect "$(stat -c %i file)" "$(stat -c %i third)" "inode numbers"
echo more >>third
expect 2 "$(wc -l <file)" "lines through the first name"
rm file
expect 2 "$(stat -c %h second)" "links after a removal"
mkdir directory
fails "not allowed" ln directory linked
ln -s second soft
expect second "$(readlink soft)" "where the link leads"
expect "content more" "$(tr '\n' ' ' <soft | sed 's/ $//')" "what it leads to"
ln -s nowhere dangling
fails "No such file" cat dangling
ln -s loop loop
fails "Too many levels" cat loop
ln -s directory to_directory
touch to_directory/through
[[ -e directory/through ]] || fail "a file made through a link to a directory"
long=$(printf '/x%.0s' $(seq 2000))  # 4000 bytes
ln -s "$long" long
expect "$long" "$(readlink long)" "a long target"
ln -s $'\xff\n target' strange
expect $'\xff\n target' "$(readlink strange)" "a strange target"
ln soft soft2
expect "$(stat -c %i soft)" "$(stat -c %i soft2)" "a hard link to a link"
ln -sfn elsewhere to_directory
expect elsewhere "$(readlink to_directory)" "a link replaced"
chown -h 1000:1000 soft
expect "1000:1000" "$(stat -c %u:%g soft)" "the owner of a link"
expect "0:0" "$(stat -c %u:%g second)" "the owner of its target"

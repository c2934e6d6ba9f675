# SPDX-License-Identifier: Apache-2.0
# Elsewhere root is nobody, and what is read only stays as it is.
mkdir -p /mnt/disk/for_nobody /mnt/disk/for_root
chmod 777 /mnt/disk/for_nobody
chmod 755 /mnt/disk/for_root
touch /mnt/squashed/for_nobody/file
expect "65534:65534" "$(stat -c %u:%g /mnt/squashed/for_nobody/file)" "the owner of what root made"
fails "Permission denied" touch /mnt/squashed/for_root/file
fails "Operation not permitted" chown 1000:1000 /mnt/squashed/for_nobody/file
as 1000 touch /mnt/squashed/for_nobody/other
expect "1000:1000" "$(stat -c %u:%g /mnt/squashed/for_nobody/other)" "the owner of what a user made"
echo seen >/mnt/disk/for_nobody/seen
expect seen "$(cat /mnt/readonly/for_nobody/seen)" "what is read from the read-only share"
# Read only for everybody, and read only for this client, while others may write.
unchanged() {
  local folder=$1 text=$2
  fails "$text" touch "$folder/file2"
  fails "$text" rm "$folder/seen"
  fails "$text" mkdir "$folder/directory"
  fails "Permission denied" bash -c "echo more >>$folder/seen"  # the client asks by ACCESS first
  fails "$text" mv "$folder/seen" "$folder/unseen"
  fails "$text" chmod 600 "$folder/seen"
}
unchanged /mnt/readonly/for_nobody "Permission denied"
mount_share read_by_us /tmp/read_by_us nosharecache
unchanged /tmp/read_by_us/for_nobody "Read-only file system"
umount /tmp/read_by_us
expect seen "$(cat /mnt/disk/for_nobody/seen)" "what is still there"
rm -r /mnt/disk/for_nobody /mnt/disk/for_root

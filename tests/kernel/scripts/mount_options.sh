# SPDX-License-Identifier: Apache-2.0
# The same work under the options that people mount with: small transfers, without caches, in step,
# over several connections, without READDIRPLUS.
seq -f 'name-%g' 300 | xargs touch
for options in rsize=4096,wsize=4096 rsize=65536,wsize=131072 sync noac actimeo=0,lookupcache=none \
    nordirplus soft,timeo=100 nconnect=4 noatime,nodiratime ro; do
  mount_share memory /tmp/way "$options,nosharecache"
  here=/tmp/way/${mounted##*/}
  expect 300 "$(ls "$here" | grep -c '^name-')" "names with $options"
  if [[ $options == ro ]]; then
    fails "Read-only file system" touch "$here/file"
  else
    probe random "$here/file" 7 250
    expect "" "$(find "$here" -newer "$here/file" -name 'name-*')" "names newer than the file with $options"
    sync
    cmp "$here/file" "$served/file"
    rm "$here/file"
  fi
  umount /tmp/way
done

# SPDX-License-Identifier: Apache-2.0
# Each capability of the unit is needed, and what for: the server runs with all of them, and then
# without each. Prints a table of what fails.
. /package-test/lib.sh

load_nfs_client
mount -t tmpfs tmpfs /srv

capabilities=(CAP_SETUID CAP_SETGID CAP_DAC_READ_SEARCH CAP_DAC_OVERRIDE CAP_FOWNER CAP_FSETID
  CAP_CHOWN CAP_NET_BIND_SERVICE)
served=/srv/rights mounted=/run/client/rights
mkdir -p "$served" "$mounted" "/run/systemd/system/$unit.service.d"
groupadd -g 2000 server_group
useradd -M -u 1000 -G server_group caller
echo "$served 127.0.0.1(rw,no_root_squash,manage_gids)" >"$exports"

# start PORT CAPABILITY...: has the server run with these.
start() {
  sed -i "s/^nNfs3Port = .*/nNfs3Port = $1/" /etc/oxelnfsd/Instance001.conf
  shift
  printf '[Service]\nCapabilityBoundingSet=\nCapabilityBoundingSet=%s\n' "$*" \
    >"/run/systemd/system/$unit.service.d/capabilities.conf"
  systemctl daemon-reload
  systemctl restart "$unit"
}

# What callers do, one function for each right. All begin in the mounted share.
mine() { as 1000 touch made && [[ "$(stat -c %u:%g $served/made)" == 1000:1000 ]]; }
groups_of_the_server() { as 1000 touch grouped/made; }
held_file() { echo more >&7; }
root_reads() { cat private >/dev/null; }
root_writes() { echo root >>private; }
owner_writes_in_spite_of_the_mode() { as 1000 sh -c 'exec 8>>own && chmod 0 own && echo more >&8'; }
root_changes_owners() { chown 1001:1001 owned && [[ "$(stat -c %u $served/owned)" == 1001 ]]; }
root_changes_modes() { chmod 0640 foreign && touch -d 2001-02-03 foreign; }
root_sets_the_group_bit() { chmod 2755 foreign && [[ "$(stat -c %a $served/foreign)" == 2755 ]]; }
port_below_1024() {
  start 1023 "${without[@]}"
  grep -qi ':03FF ' /proc/net/tcp /proc/net/tcp6
}
rights=(mine groups_of_the_server held_file root_reads root_writes owner_writes_in_spite_of_the_mode
  root_changes_owners root_changes_modes root_sets_the_group_bit port_below_1024)

# What fails with the capabilities in `without`.
failing() {
  rm -rf "${served:?}"/*
  mkdir -m 0777 "$served/open"
  mkdir -m 0070 "$served/grouped"
  chgrp 2000 "$served/grouped"
  local file
  for file in held private own owned foreign; do echo "$file" >"$served/$file"; done
  chown 1000:1000 "$served"/{private,own,foreign}
  chmod 0600 "$served/private"
  chmod 0777 "$served"
  start 2049 "${without[@]}"
  mount_share "$served" "$mounted" soft,timeo=20,retrans=1,noac >/dev/null 2>&1 || { echo everything; return; }
  cd "$mounted" || exit
  exec 7>>held
  systemctl restart "$unit"  # nothing is known of a handle but what stands in it
  local right
  for right in "${rights[@]}"; do (set +e; "$right") >/dev/null 2>&1 || echo "$right"; done
  exec 7>&-
  cd /
  umount -f -l "$mounted"
}

without=("${capabilities[@]}")
echo "with all of them:       $(failing | tr '\n' ' ')"
for one in "${capabilities[@]}"; do
  without=()
  for other in "${capabilities[@]}"; do [[ "$other" == "$one" ]] || without+=("$other"); done
  printf 'without %-21s %s\n' "$one:" "$(failing | tr '\n' ' ')"
done
touch /package-test/done

#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# A folder is a layer: it may include itself and what its arrows point to, never back. Includes are
# written from the root. The call record's header, which the procedures' layers share with bin/, sees
# the two *types.h and what lies below them, so that no two files include each other.
source "$(dirname "$0")/sources.sh"

# layer: the folders, or single headers, that its files may include
declare -A arrows=(
  [base]="base/"
  [net]="net/ base/"
  [backend]="backend/ net/ base/"
  [companion]="companion/ base/"
  [ctl]="ctl/ companion/ base/"
  [modules]="backend/ net/ base/"
  [nfs3]="nfs3/ backend/ net/ base/ bin/oxelService_callinfo.h"
  [mount3]="mount3/ backend/ net/ base/ bin/oxelService_callinfo.h nfs3/nfs3xdr.h nfs3/nfs3proc.h"
  [bin]="bin/ nfs3/ mount3/ companion/ backend/ net/ base/"
)
# file: its own arrows, in place of its folder's
declare -A exceptions=(
  [bin/modules.cpp]="${arrows[bin]} modules/"
  [bin/oxelService_callinfo.h]="mount3/mount3types.h nfs3/nfs3types.h backend/ base/"
  [bin/oxelService_callinfo.cpp]="bin/oxelService_callinfo.h backend/ base/"
  [nfs3/nfs3types.h]="backend/"
  [mount3/mount3types.h]="backend/"
  [ctl/check.cpp]="ctl/ companion/ base/ backend/exports_file.h"
  [ctl/why.cpp]="ctl/ companion/ base/ backend/exports_file.h backend/access_explanation.h"
)
unbound="tests fuzz bench"  # programs about the layers rather than layers

bad=0
complain() {
  echo "$1" >&2
  bad=1
}

while read -r file; do
  layer=${file%%/*}
  [[ " $unbound " != *" $layer "* ]] || continue
  if [[ -z "${arrows[$layer]:-}" ]]; then
    complain "$file: the folder $layer/ has no arrows in $(basename "$0")"
    continue
  fi
  allowed=${exceptions[$file]:-${arrows[$layer]}}
  # A module is a layer of its own; no module includes another.
  [[ "$layer" != modules ]] || allowed+=" $(dirname "$file")/"
  number=0
  while IFS= read -r line; do
    number=$((number + 1))
    [[ "$line" =~ ^[[:space:]]*#[[:space:]]*include[[:space:]]*\"([^\"]*)\" ]] || continue
    header=${BASH_REMATCH[1]}
    ok=
    for target in $allowed; do
      if [[ "$target" == */ ]]; then
        [[ "$header" != "$target"* ]] || ok=1
      else
        [[ "$header" != "$target" ]] || ok=1
      fi
    done
    [[ -n "$ok" ]] || complain "$file:$number: must not include \"$header\" (it may include: $allowed)"
  done <"$file"
done < <(sources '*.h' '*.cpp')
exit $bad

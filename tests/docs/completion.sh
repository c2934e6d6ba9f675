#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# What bash offers behind "oxelctl": every verb and flag that the program knows, and what they take.
source "$(dirname "$0")/docs.sh"

source completions/oxelctl
root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
mkdir -p "$root/etc/oxelnfsd"
touch "$root/etc/oxelnfsd/Instance001.conf" "$root/etc/oxelnfsd/Second one.conf" \
  "$root/etc/oxelnfsd/\$(touch made).conf"
cat >"$root/etc/oxelnfsd/Instance001.exports" <<'EXPORTS'
# /comment
/srv/projects  -dir=/elsewhere  10.0.0.0/8(rw)
/srv/media
"/srv/with blank"
/srv/$(touch${IFS}made) *
/srv/`touch${IFS}made` *
EXPORTS
echo "/lab/share *(rw)" >"$root/etc/oxelnfsd/Lab.exports"
echo "/other/share" >"$root/other"
export OXEL_ROOT=$root

# offered LINE: what is offered at the end of the line, in one line.
offered() {
  COMP_LINE=$1 COMP_POINT=${#1}
  read -ra COMP_WORDS <<<"$1"
  [[ $1 != *' ' ]] || COMP_WORDS+=('')
  COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
  COMPREPLY=()
  _oxelctl
  printf '%s\n' "${COMPREPLY[@]+"${COMPREPLY[@]}"}" | sort | paste -sd ' '
}
offers() { same "$2" "$(offered "$1")" "behind '$1'"; }
# Whether the word is among what is offered.
offers_word() {
  [[ " $(offered "$1") " == *" $2 "* ]] || complain "behind '$1' there is no '$2'"
}

[[ "$(complete -p oxelctl)" == "complete -F _oxelctl oxelctl" ]] || complain "oxelctl is not completed"
for verb in $(verbs_of_the_program); do
  offers_word "oxelctl " "$verb"
  for flag in $(flags_of_the_program "$verb"); do
    offers_word "oxelctl $verb -" "$flag"
  done
done
for flag in $(flags_of_the_program); do offers_word "oxelctl -" "$flag"; done
# Nothing is offered that the program would refuse.
for verb in $(offered "oxelctl "); do
  known_verb "$verb" || complain "the verb '$verb' is offered and there is none"
  in_list "$verb" "$(verbs_of_the_program)" || continue
  for flag in $(offered "oxelctl $verb -"); do
    in_list "$flag" "$(flags_of_the_program) $(flags_of_the_program "$verb")" ||
      complain "the flag '$flag' of '$verb' is offered and there is none"
  done
done

offers "oxelctl sta" "$(words_with sta)"
offers "oxelctl -vm L" "Lab"
offers "oxelctl -vm " "Instance001 Lab"
offers "oxelctl -vm Lab sto" "stop"
offers "oxelctl log-level " "0 1 2 3 4"
offers "oxelctl log-level 2 " ""
offers "oxelctl start-network --r" "--register"
offers "oxelctl why 10.1.2.3 " "/srv/media /srv/projects"
offers "oxelctl why 2001:db8::7 /srv/m" "/srv/media"
offers "oxelctl -vm Lab why 10.1.2.3 " "/lab/share"
offers "oxelctl why --port 999 10.1.2.3 /srv/p" "/srv/projects"
offers "oxelctl why --file $root/other 10.1.2.3 " "/other/share"
offers "oxelctl why 10.1.2.3 --file $root/oth" "$root/other"
offers "oxelctl why " ""
offers "oxelctl why 10.1.2.3 /srv/media " ""
offers "oxelctl stats --by s" "share"
offers "oxelctl --json ch" "check"
[[ ! -e made ]] || complain "a name of a file was run as a command"
exit "$bad"

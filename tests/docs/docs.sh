# shellcheck shell=bash
# SPDX-License-Identifier: Apache-2.0
# For the other scripts of this folder, which hold what is told to people to what the programs know.
# Each is given the source tree, and has $OXELCTL and $OXELNFSD.
set -euo pipefail
cd "${1:?usage: $0 SOURCE_ROOT}"

: "${OXELCTL:?the oxelctl of the build}" "${OXELNFSD:?the oxelnfsd of the build}"

bad=0
complain() {
  echo "$1" >&2
  bad=1
}
same() {  # expected, got, what
  [[ "$1" == "$2" ]] || complain "$3: expected '$1', got '$2'"
}
in_list() {  # word, list
  [[ " ${2//$'\n'/ } " == *" $1 "* ]]
}

known_verb() { in_list "$1" "$(verbs_of_the_program)"; }
words_with() { verbs_of_the_program | grep "^$1" | sort | paste -sd ' '; }  # verbs with a beginning

program_verbs=$("$OXELCTL" --help | sed -n '/^Verbs:/,/^$/s/^  \([a-z-]*\) .*/\1/p')
[[ -n $program_verbs ]] || complain "oxelctl --help shows no verbs"
verbs_of_the_program() { printf '%s\n' "$program_verbs"; }
# The flags of a verb, or of the program, one each line, in the long form.
flags_of_the_program() {
  "$OXELCTL" "$@" --help | sed -n '/^Options:/,/^$/s/^  \(-[^ =]*\).*/\1/p' | sed 's/.*,//'
}

#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Links of the documentation lead somewhere, and the commands that it names exist.
# shellcheck disable=SC2016  # backquotes are what is looked for
source "$(dirname "$0")/docs.sh"

documents=(*.md docs/*.md)

# The place of a heading, as it is made from its words.
anchors() {
  sed '/^```/,/^```/d' "$1" | sed -n 's/^##* //p' | tr '[:upper:]' '[:lower:]' |
    sed 's/\[\([^]]*\)\]([^)]*)/\1/g; s/[^a-z0-9 _-]//g; s/ /-/g'
}
for document in "${documents[@]}"; do
  folder=$(dirname "$document")
  while read -r link; do
    case $link in
      '' | http://* | https://*) continue ;;
    esac
    target=${link%%#*}
    [[ -z $target || -e $folder/$target ]] || complain "$document: there is no $link"
    [[ $link == *'#'* && -e $folder/${target:-/} ]] || continue
    page=$document
    [[ -z $target ]] || page=$folder/$target
    in_list "${link#*#}" "$(anchors "$page")" || complain "$document: $page has no place '${link#*#}'"
  done < <(sed '/^```/,/^```/d' "$document" | grep -oE '\]\([^) ]+\)' | sed 's/^](//; s/)$//')
  # No page is without a link to it.
  case $document in README.md) continue ;; esac
  grep -qF "(${document#docs/})" docs/*.md || grep -qF "($document)" ./*.md ||
    complain "nothing leads to $document"
done

# In code, between backquotes and in blocks, names of programs begin lines or pieces.
code() {
  { grep -ohE '`[^`]+`' "$@" | tr -d '`'
    grep -hE '^(    |[$#] )' "$@"
    awk '/^```/ {on = !on; next} on' "$@"; } | sed 's/^ *//; s/^[$#] //'
}
while read -r target; do
  grep -qE "^$target:" Makefile || complain "there is no 'make $target'"
done < <(code "${documents[@]}" | grep -oE '(^|&& )make [a-z][a-z-]*' | sed 's/.*make //' | sort -u)
while read -r verb; do
  known_verb "$verb" || complain "there is no 'oxelctl $verb'"
done < <(code "${documents[@]}" | grep -oE '(^|[/ ])oxelctl( -vm [A-Za-z0-9]+| --json)* [a-z][a-z-]*' |
  sed 's/.* //' | sort -u)
while read -r script; do
  [[ -e $script ]] || complain "there is no script $script"
done < <(code "${documents[@]}" | grep -oE '^(scripts|tests)/[A-Za-z0-9_/-]+\.sh' | sort -u)
# Settings that are written as "key = value" are settings.
while read -r key; do
  grep -qE "^\.It Cm $key " man/oxelnfsd.conf.5 || complain "there is no setting $key"
done < <(code "${documents[@]}" | grep -oE '\b(n[A-Z][A-Za-z0-9]*|oxelFdCacheSize)( =|$)' |
  sed 's/ =//' | sort -u)
exit "$bad"

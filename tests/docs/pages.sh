#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The man pages say what the programs know, all of it and nothing else; they have no mistakes of form;
# and their examples work.
source "$(dirname "$0")/docs.sh"

pages=(man/oxelnfsd.8 man/oxelctl.8 man/oxelnfsd.conf.5 man/oxelnfsd.exports.5)
same "${pages[*]}" "$(echo man/oxelnfsd.8 man/oxelctl.8 man/oxelnfsd.*.5)" "the pages"

# named PAGE PATTERN: first words of the items (.It) of a page that the pattern takes out of them.
named() {
  sed -n "s/^\.It $2.*/\1/p" "$1" | sort
}
both_ways() {  # what, of the program, of the page
  local word
  while read -r word; do
    [[ -z $word ]] || complain "$1 '$word' has no place in its page"
  done < <(comm -23 <(sort -u <<<"$2") <(sort -u <<<"$3"))
  while read -r word; do
    [[ -z $word ]] || complain "$1 '$word' stands in its page, and the program does not know it"
  done < <(comm -13 <(sort -u <<<"$2") <(sort -u <<<"$3"))
}

# Verbs and flags of oxelctl: between .Ss Verbs and the next section each item is a verb.
verbs=$(sed -n '/^\.Ss Verbs/,/^\.Sh/p' man/oxelctl.8 |
  sed -n '/^\.It Xo$/{n;s/^\.Cm/.It Cm/;};s/^\.It Cm \([a-z-]*\).*/\1/p')
both_ways "the verb" "$(verbs_of_the_program)" "$verbs"
for verb in $(verbs_of_the_program); do
  # What stands from the verb's item to the next verb's, .Bl items of other kinds included.
  item=$(awk -v verb="$verb" '/^\.Ss Verbs/ {on = 1} /^\.Sh/ {on = 0}
    on && /^\.It Cm / {mine = ($3 == verb)} on && /^\.It Xo/ {mine = 0; open = 1; next}
    on && open && /^\.Cm / {mine = ($2 == verb); open = 0} on && mine' man/oxelctl.8)
  own=$(comm -23 <(flags_of_the_program "$verb" | sort) <(flags_of_the_program | sort))
  said=$(grep -o 'Fl -[a-z-]*' <<<"$item" | sed 's/Fl /-/' || true)
  both_ways "the flag of '$verb'" "$own" "$said"
done
flags=$(sed -n '/^\.Sh DESCRIPTION/,/^\.Ss Verbs/p' man/oxelctl.8 |
  sed -n 's/^\.It \(Fl .*\)/\1/p' | grep -o 'Fl [a-z-]*' | sed 's/Fl /-/' | grep -vx -- '-h')
both_ways "the flag" "$(flags_of_the_program)" "$flags"

# Options of the daemon: what its source compares arguments with.
both_ways "the option" \
  "$(grep -o 'strcasecmp(argv\[i\], "[^"]*"' bin/main.cpp | grep -o '"[^"]*"' | tr -d '"')" \
  "$(named man/oxelnfsd.8 'Fl \([a-z_]*\)' | sed 's/^/-/')"
environment=$(grep -rhoE 'getenv\("[A-Z_]+"' base bin backend companion ctl modules net nfs3 mount3 |
  grep -o '"[^"]*"' | tr -d '"'; echo NOTIFY_SOCKET)
both_ways "the environment variable" "$environment" "$(named man/oxelnfsd.8 'Ev \([A-Z_]*\)')"

# Settings, by section. The table of settings is held to the sources by a test of its own; without
# the table the sources are looked through.
settings() {  # section
  if [[ -e base/known_settings.cpp ]]; then
    grep -oE "\{\"$1\", \"[A-Za-z0-9]+\"" base/known_settings.cpp | cut -d '"' -f 4
    return
  fi
  grep -rhoE "getNumber\(\"$1\", \"[A-Za-z0-9]+\"" --include='*.cpp' base bin backend modules |
    cut -d '"' -f 4
  if [[ $1 == Oxel ]]; then
    grep -ohE '(read\(|kKey = )"[A-Za-z0-9]+"' bin/main.cpp bin/oxelService_limits.cpp | cut -d '"' -f 2
  fi
}
for section in Log Oxel; do
  said=$(awk -v section="$section" '
    /^\.Ss Section/ {on = index($0, "\\(lq" section "\\(rq") > 0}
    /^\.Sh/ {on = 0}
    on && /^\.It Cm / {print $3}' man/oxelnfsd.conf.5)
  both_ways "the key of section $section" "$(settings "$section")" "$said"
  # Each says what holds without it, unless nothing does.
  for key in $said; do
    item=$(awk -v key="$key" '/^\.It Cm / {mine = ($3 == key)} /^\.(Ss|Sh)/ {mine = 0} mine' \
      man/oxelnfsd.conf.5)
    [[ $key == nMount3Program ]] || grep -qE 'default is|Without the key' <<<"$item" ||
      complain "the page does not say what holds without $key"
  done
done

# Options of shares and of clients.
share_options=$(sed -n '/ShareOptionNames() {/,/^}/p' backend/exports_client.cpp |
  grep -o '"[a-z]*"' | tr -d '"')
client_options=$(sed -n '/^static const OptionRow kOptions/,/^};/p' backend/exports_client.cpp |
  sed -n 's/^    {"\([a-z_]*\)".*/\1/p')
[[ -n $share_options && -n $client_options ]] || complain "the options are not where they were"
items() {  # the words behind Cm in the items of a subsection
  sed -n "/^\.Ss $1/,/^\.S[sh]/p" man/oxelnfsd.exports.5 | sed -n 's/^\.It //p' |
    grep -oE '(Cm |, )[a-z_]+' | sed 's/.* //'
}
both_ways "the option of a share" "$share_options" "$(items 'Options of the share')"
both_ways "the option of a client" "$client_options" "$(items 'Options of a client')"

# Every example of an exports file is one.
root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
export OXEL_ROOT=$root
mkdir -p "$root/etc/oxelnfsd"
first_example() {
  sed -n '/^\.Sh EXAMPLES/,/^\.Ed/p' "$1" | sed '1,/^\.Bd/d' | grep -v '^\.'
}
first_example man/oxelnfsd.exports.5 \
  >"$root/etc/oxelnfsd/Instance001.exports"
# The directories of the example need not exist where the test runs.
said=$("$OXELCTL" check 2>/dev/null | grep -v -e "directory '[^']*' does not exist" -e '^No daemon runs' || true)
[[ -z $said || $said == ok:* ]] || complain "the example of oxelnfsd.exports(5): $said"
same 4 "$(grep -c '^[/"]' "$root/etc/oxelnfsd/Instance001.exports")" "shares in the example"
rm "$root/etc/oxelnfsd/Instance001.exports"
first_example man/oxelnfsd.conf.5 \
  >"$root/etc/oxelnfsd/Instance001.conf"
said=$("$OXELCTL" check) || complain "the example of oxelnfsd.conf(5): $said"
[[ $said == *", 5 settings in "* ]] || complain "the example of oxelnfsd.conf(5) has not 5 settings: $said"

# Messages that are explained are still said: their longest run without a place-holder stands in the
# sources, where a text may be in several pieces.
cat base/*.cpp bin/*.cpp backend/*.cpp companion/*.cpp ctl/*.cpp modules/local/*.cpp mount3/*.cpp \
  nfs3/*.cpp | tr '\n' ' ' | sed 's/"  *"//g' >"$root/sources"
while read -r message; do
  message=${message#\"} message=${message%\"} message=${message%: Fatal}
  text=$(sed 's/%[a-z]*/\n/g; s/100/\n/g; s/1024 KB/\n/g; s/256 KB/\n/g' <<<"$message" |
    sed "s/^[]': ]*//; s/['[ ]*\$//; s/\. The line is ignored\.//; s/^oxelnfsd: //" |
    awk 'length > length(best) {best = $0} END {print best}')
  grep -qF -- "$text" "$root/sources" || complain "nothing says '$text' any more"
done < <(awk '/^\.Bl -diag/ {on = 1} /^\.El/ {on = 0} on' "${pages[@]}" | sed -n 's/^\.It //p')

if command -v mandoc >/dev/null; then
  for page in "${pages[@]}"; do
    # Whether other packages' pages are installed is no fault of the page.
    said=$(mandoc -Tlint -Wwarning "$page" 2>&1 | grep -v 'makewhatis' || true)
    [[ -z $said ]] || complain "$said"
  done
else
  complain "mandoc is not installed"
fi
for page in "${pages[@]}"; do
  said=$(LC_ALL=C.UTF-8 groff -mdoc -ww -z -Tutf8 "$page" 2>&1 || true)
  [[ -z $said ]] || complain "$page: $said"
done
exit "$bad"

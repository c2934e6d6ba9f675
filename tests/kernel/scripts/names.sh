# SPDX-License-Identifier: Apache-2.0
# Names: 255 bytes, UTF-8, other bytes, blanks, line feeds, quotes, signs of the shell.
longest=$(printf 'n%.0s' $(seq 255))
names=("$longest" $'\xc3\xa4\xc3\xb6\xc3\xbc' "日本語の名前" $'\xff\xfe\x80latin' $'line\nfeed' ' blank ' '-dash'
  '*?[]' "quote'\"" 'back\slash' $'\x01\x1b[31m' '...' '~' '#' 'con.txt:stream' $'\xed\xa0\x80')
for name in "${names[@]}"; do printf '%s' "$name" >"./$name"; done
forget
for name in "${names[@]}"; do
  expect "$name" "$(cat "./$name")" "the content of a name"
  [[ -e "$served/$name" ]] || fail "the server has no such name: $name"
done
printf '%s\0' "${names[@]}" | sort -z >/tmp/wanted
find . -type f -printf '%f\0' | sort -z | cmp - /tmp/wanted
for name in "${names[@]}"; do mv "./$name" "./$name.moved" 2>/dev/null || mv "./$name" ./short; done
expect "$longest" "$(cat short)" "the longest name, moved"
fails "File name too long" touch "n$longest"
fails "File name too long" mkdir "n$longest"
fails "File name too long" ln -s target "n$longest"
fails "File name too long" cat "n$longest"
touch Name name
expect 2 "$(find . -iname name | wc -l)" "names that differ in case"

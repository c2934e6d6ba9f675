# SPDX-License-Identifier: Apache-2.0
# A database in one file, with its journal: two processes at once, an interrupted change, its check.
sql() { sqlite3 -cmd '.timeout 60000' "$@"; }
sql base 'create table words (id integer primary key, word text, writer integer); create index by_word on words (word);'
write() {
  for i in $(seq 15); do
    echo "begin immediate; insert into words (word, writer) with recursive n(i) as (select 1 union all select i + 1 from n where i < 40) select 'word' || ($i * 1000 + i), $1 from n; commit;"
  done | sql base
}
write 1 &
first=$!
write 2 &
second=$!
wait $first
wait $second
expect "1|600 2|600" "$(sql base 'select writer, count(*) from words group by writer' | tr '\n' ' ' | sed 's/ $//')" "rows"
echo "begin; delete from words; select count(*) from words; rollback;" | sql base >said
expect 0 "$(cat said)" "rows inside the change that was taken back"
forget
expect 1200 "$(sql base 'select count(*) from words')" "rows after it"
expect ok "$(sql base 'pragma integrity_check')" "the check"
sql base 'vacuum; pragma journal_mode = truncate;' >/dev/null
expect ok "$(sqlite3 "file:$served/base?mode=ro&immutable=1" 'pragma integrity_check')" "the check at the server"

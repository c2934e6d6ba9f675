# SPDX-License-Identifier: Apache-2.0
# mv over existing files, directories and links, also over one that is open; install and sed -i.
echo old >target
exec 5<target
echo new >source
mv source target
expect new "$(cat target)" "what the name leads to"
expect old "$(cat <&5)" "what was open"
exec 5<&-
ln -s target link
echo third >other
mv -T other link
expect third "$(cat link)" "a link replaced by a file"
[[ ! -L link ]] || fail "link is still a link"
mkdir empty full
touch full/file
mkdir another
mv -T another empty
fails "Directory not empty" mv -T empty full
fails "cannot overwrite" mv -T target full
ln target second
mv target second || true  # two names of one file: rename does nothing, mv removes the source
expect new "$(cat second)" "the other name"
for i in $(seq 50); do
  echo "$i" >temporary
  mv temporary final
done
expect 50 "$(cat final)" "after many replacements"
expect 50 "$(cat "$served/final")" "at the server"
sed -i 's/50/fifty/' final
expect fifty "$(cat final)" "after sed -i"
install -m 751 final installed
expect 751 "$(stat -c %a installed)" "the mode of what was installed"
mv final ../final_elsewhere
mv ../final_elsewhere final
expect "" "$(find . -name '.nfs*')" "what is left of open files"

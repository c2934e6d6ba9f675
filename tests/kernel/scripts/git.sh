# SPDX-License-Identifier: Apache-2.0
# A repository is made, cloned inside the share, changed, packed and checked.
git() { command git -c user.name=Tester -c user.email=tester@example.org -c protocol.file.allow=always \
  -c safe.directory='*' "$@"; }
mkdir origin
source_files | tar -x -C origin
cd origin
git init -q -b main .
git add -A
git commit -q -m "All of it"
cd ..
git clone -q --no-hardlinks origin clone
diff -r --exclude=.git origin clone
cd clone
for change in 1 2 3 4 5; do
  echo "line $change" >>README.md
  git commit -q -a -m "Change $change"
done
expect "" "$(git status --porcelain)" "git status after the commits"
git checkout -q -b other HEAD~3
echo other >other.txt
git add other.txt
git commit -q -m "Another branch"
git merge -q -m "Merge" main
git gc -q --prune=now
forget
git fsck --strict --no-dangling
expect "" "$(git status --porcelain)" "git status after gc"
git push -q origin other
cd ../origin
git fsck --no-dangling
expect 8 "$(git rev-list --all --count)" "commits of all branches"

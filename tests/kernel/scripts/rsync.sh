# SPDX-License-Identifier: Apache-2.0
# rsync -a twice: the second run finds nothing to do; after a change exactly that is brought over.
mkdir /tmp/tree
source_files | tar -x -C /tmp/tree
(cd /tmp/tree && ln -s README.md link && chmod 750 docs && chmod 4755 scripts/run.sh)
rsync -aH /tmp/tree/ in/
forget
expect "" "$(rsync -aHi /tmp/tree/ in/)" "the second rsync"
expect "" "$(rsync -aHic /tmp/tree/ in/)" "rsync with checksums"
sleep 1
echo changed >>/tmp/tree/README.md
rm /tmp/tree/LICENSE
expect "*deleting   LICENSE|.d..t...... ./|>f.st...... README.md|" \
  "$(rsync -aHi --delete /tmp/tree/ in/ | sort | tr '\n' '|')" "rsync after the change"
rsync -a in/ "$mounted/out/"
rsync -a out/ /tmp/back/
diff -r --no-dereference /tmp/tree /tmp/back
rm -rf /tmp/tree /tmp/back

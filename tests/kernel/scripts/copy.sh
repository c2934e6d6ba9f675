# SPDX-License-Identifier: Apache-2.0
# cp -a of a tree into the share and inside it: contents, modes, times, owners, links.
mkdir /tmp/tree
(cd /tmp/tree && source_files | tar -x && mkdir empty && ln -s ../README.md link && ln README.md hard &&
  echo secret >private && chmod 600 private && chmod 6755 scripts/run.sh && touch -d '2001-02-03 04:05:06' private &&
  chown 1000:1001 private && mkfifo unused && rm unused)
cp -a /tmp/tree in
forget
diff -r --no-dereference /tmp/tree in
about() { (cd "$1" && find . ! -type d -printf '%P %y %m %n %U:%G %l %s %Ts\n' | sort); }
diff <(about /tmp/tree) <(about in)
diff <(about /tmp/tree) <(about "$served/in")
cp -a in again
diff <(about /tmp/tree) <(about again)
directories() { (cd "$1" && find . -type d -printf '%P %m %U:%G %Ts\n' | sort); }
diff <(directories /tmp/tree) <(directories again)
rm -rf /tmp/tree

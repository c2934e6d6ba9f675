# SPDX-License-Identifier: Apache-2.0
# A source tree is unpacked into the share and packed again: the same names, contents and modes.
source_files >/tmp/in.tar
tar -xf /tmp/in.tar
forget
mkdir /tmp/local
tar -xf /tmp/in.tar -C /tmp/local
diff -r --no-dereference /tmp/local "$mounted"
diff -r --no-dereference /tmp/local "$served"
tar -cf /tmp/out.tar .
mkdir /tmp/again
tar -xf /tmp/out.tar -C /tmp/again
diff -r --no-dereference /tmp/local /tmp/again
modes() { (cd "$1" && find . -printf '%P %y %m %s\n' | grep -v ' d ' | sort); }
diff <(modes /tmp/local) <(modes "$mounted")
echo "$(find . -type f | wc -l) files, $(stat -c %s /tmp/in.tar) bytes"
rm -rf /tmp/local /tmp/again /tmp/in.tar /tmp/out.tar

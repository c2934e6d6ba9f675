# SPDX-License-Identifier: Apache-2.0
# O_EXCL: one wins, the mode is the one that was asked for; noclobber; lock files; mktemp.
probe exclusive file
(umask 027 && set -C && echo one >lock)
expect 640 "$(stat -c %a lock)" "the mode"
fails "cannot overwrite existing file" bash -c 'set -C; echo two >lock'
expect one "$(cat lock)" "what the first one wrote"
name=$(mktemp -p . XXXXXX)
expect 600 "$(stat -c %a "$name")" "the mode of a temporary file"
directory=$(mktemp -d -p . XXXXXX)
expect 700 "$(stat -c %a "$directory")" "the mode of a temporary directory"
fails "File exists" mkdir "$directory"
fails "File exists" ln -s anywhere lock
fails "File exists" ln lock "$name"

# SPDX-License-Identifier: Apache-2.0
# For the other scripts of this folder: `sources PATTERN...` lists the project's own files, one per
# line, relative to the root that the script was given (and is in).
set -euo pipefail
cd "${1:?usage: $0 SOURCE_ROOT}"

sources() {
  if git rev-parse --git-dir >/dev/null 2>&1; then
    # A file that is gone from the tree is still tracked until the next commit.
    git ls-files --cached -- "$@" | while read -r file; do
      [[ ! -e "$file" ]] || printf '%s\n' "$file"
    done
  else  # an unpacked archive
    local pattern
    for pattern in "$@"; do
      find . -path ./build -prune -o -type f -name "$pattern" -print | sed 's|^\./||'
    done | sort
  fi
}

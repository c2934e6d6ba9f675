#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Makes the Debian package from the release build, in a copy of the tracked sources. With
# $OXEL_BUILD_DIR that folder has the programs, and nothing is built.
#   scripts/package.sh [FOLDER [REVISION]]
#     FOLDER: where it is made, build/package by default; REVISION: the packaging's, 1 by default
# Prints the package's path. The version is that of CMakeLists.txt.
set -euo pipefail
cd "$(dirname "$0")/.."
folder=${1:-build/package} revision=${2:-1}

version=$(sed -n 's/^project(oxelnfsd VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
mkdir -p "$folder"
folder=$(realpath "$folder")
rm -rf "$folder/source" "$folder"/oxelnfsd*
mkdir "$folder/source"
git -c safe.directory='*' ls-files -z --cached --others --exclude-standard |
  tar -c --null --files-from=- --ignore-failed-read 2>/dev/null | tar -x -C "$folder/source"
cp -r packaging/debian "$folder/source/debian"
cat >"$folder/source/debian/changelog" <<CHANGELOG
oxelnfsd ($version+$revision) bookworm; urgency=medium

  * Version $version.

 -- $(sed -n 's/^Maintainer: //p' packaging/debian/control)  $(git -c safe.directory='*' log -1 --format=%aD 2>/dev/null || date -R)
CHANGELOG

if [[ -z "${OXEL_BUILD_DIR:-}" ]]; then
  export OXEL_BUILD_DIR=$PWD/build/release
  cmake --preset release >"$folder/build.log"
  cmake --build --preset release --target oxelnfsd oxelctl >>"$folder/build.log"
fi
(cd "$folder/source" && dpkg-buildpackage -b -us -uc) \
  >>"$folder/build.log" 2>&1 || { tail -n 30 "$folder/build.log" >&2; exit 1; }
ls "$folder"/oxelnfsd_*.deb

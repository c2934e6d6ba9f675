#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The sources are as clang-format writes them (`make format`).
source "$(dirname "$0")/sources.sh"

if ! command -v clang-format >/dev/null; then
  echo "SKIPPED: clang-format is not installed; the format of the sources was not checked"
  exit 77
fi
sources '*.h' '*.cpp' | xargs -r clang-format --dry-run -Werror

#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs the Debian packages that building, testing and running need; does nothing when they are
# there. As root, or through sudo.
#   scripts/install-packages.sh [bench|check|fuzz|package]
#     bench: only the peer and the plotter of the benchmarks; check: only the static checks' programs;
#     fuzz: only the compiler for fuzzing; package: only what makes and tries the Debian package
set -euo pipefail
cd "$(dirname "$0")/.."
mkdir -p build

packages=(
  build-essential g++ cmake ninja-build pkg-config git
  libtirpc-dev libtirpc-common libboost-dev libsystemd-dev nlohmann-json3-dev libcli11-dev
  libsodium-dev liblmdb-dev libmicrohttpd-dev prometheus-cpp-dev
  # tests and benchmarks: the last two lines are for the kernel as a client, and for the dashboard
  libgtest-dev libgmock-dev libbenchmark-dev libnfs-dev rpcbind util-linux clang-format
  mandoc groff-base
  user-mode-linux nfs-common iproute2 kmod rsync sqlite3
  prometheus curl jq
)
# Compared with and plotted with; nobody else needs them.
[[ "${1:-}" != bench ]] || packages=(nfs-ganesha nfs-ganesha-vfs rpcbind gnuplot-nox pngquant)
[[ "${1:-}" != check ]] || packages=(clang clang-tidy clang-format cppcheck shellcheck)
[[ "${1:-}" != fuzz ]] || packages=(clang libclang-rt-14-dev)
[[ "${1:-}" != package ]] || packages=(debhelper dpkg-dev fakeroot lintian mmdebstrap user-mode-linux systemd)

missing=()
for package in "${packages[@]}"; do
  [[ "$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null || true)" == installed ]] ||
    missing+=("$package")
done
[[ ${#missing[@]} -eq 0 ]] && exit 0

as_root=()
if [[ $EUID -ne 0 ]]; then
  command -v sudo >/dev/null || {
    echo "These packages are missing: ${missing[*]}" >&2
    echo "Install them as root, or install sudo." >&2
    exit 1
  }
  as_root=(sudo)
fi
echo "Installing: ${missing[*]}"
# A freshly installed rpcbind or prometheus must not be started on the machine of somebody who only
# builds.
policy=/usr/sbin/policy-rc.d
made_policy=
if ! "${as_root[@]}" test -e "$policy"; then
  printf '#!/bin/sh\nexit 101\n' | "${as_root[@]}" tee "$policy" >/dev/null
  "${as_root[@]}" chmod 755 "$policy"
  made_policy=yes
fi
trap '[[ -z "$made_policy" ]] || "${as_root[@]}" rm -f "$policy"' EXIT
if ! { "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update -q &&
       "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
         apt-get install -y -q --no-install-recommends "${missing[@]}"; } >build/packages.log 2>&1; then
  tail -n 20 build/packages.log >&2
  exit 1
fi

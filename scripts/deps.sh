#!/usr/bin/env bash
# Installs everything yulotifyd needs to build, test and run its demo on
# Debian 12. Safe to run again.
set -euo pipefail
export DEBIAN_FRONTEND=noninteractive
packages=(
  build-essential cmake pkg-config
  clang libclang-rt-14-dev
  libjsoncpp-dev libsystemd-dev libinih-dev
  googletest libgtest-dev libgmock-dev
  python3 python3-pytest
  util-linux procps inotify-tools
  git rsync tar linux-perf strace
  btrfs-progs xfsprogs e2fsprogs
  systemd
  nats-server libnats-dev openssl python3-cryptography
)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if ((${#missing[@]})); then
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

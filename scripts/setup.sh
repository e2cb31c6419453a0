#!/usr/bin/env bash
# Installs every Debian package the project needs. Safe to run again: only
# what is missing is installed.
set -euo pipefail

PACKAGES=(
  # build
  build-essential cmake pkg-config clang libclang-rt-14-dev
  libevent-dev libnl-3-dev libnl-route-3-dev libsnmp-dev libiniparser-dev libreadline-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  # running and testing
  iproute2 procps psmisc
)

missing=()
for p in "${PACKAGES[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done

if [ ${#missing[@]} -eq 0 ]; then
  echo "setup: all packages present"
  exit 0
fi

if [ "$(id -u)" -ne 0 ]; then
  echo "setup: run as root to install: ${missing[*]}" >&2
  exit 1
fi
echo "setup: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}"

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
  iproute2 procps psmisc util-linux iputils-ping tcpdump tcpreplay
  # real DHCP peers of the lab and the end-to-end tests
  isc-dhcp-server isc-dhcp-client isc-dhcp-relay busybox dnsmasq-base
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
# The servers are run by the lab in namespaces, never as system services: keep
# their packages from starting one at install time.
policy=/usr/sbin/policy-rc.d
own_policy=0
if [ ! -e "$policy" ]; then
  printf '#!/bin/sh\nexit 101\n' >"$policy"
  chmod 755 "$policy"
  own_policy=1
fi
trap '[ "$own_policy" = 1 ] && rm -f "$policy"' EXIT
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}"

#!/usr/bin/env bash
# Installs the Debian packages the build and tests need; quiet and quick when
# everything is there already.
set -euo pipefail
packages=(
  build-essential cmake clang libclang-rt-14-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  libpcap-dev nlohmann-json3-dev libcli11-dev liburing-dev pkg-config
  libusb-1.0-0-dev qemu-system-x86 busybox-static
  iproute2 iperf3
  mingw-w64-common tshark python3 cloc
  g++-mingw-w64-x86-64 binutils-mingw-w64-x86-64
)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "ok installed" || missing+=("$p")
done
if [ "${#missing[@]}" -gt 0 ]; then
  echo "installing: ${missing[*]}"
  sudo_cmd=""
  [ "$(id -u)" -ne 0 ] && sudo_cmd="sudo"
  export DEBIAN_FRONTEND=noninteractive
  $sudo_cmd apt-get update -qq
  $sudo_cmd apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

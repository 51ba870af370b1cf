#!/usr/bin/env bash
# Installs what building and testing drv_vane needs on a Debian 12 machine.
# Idempotent: installs only what is missing. Run as root.
set -euo pipefail

packages=(cmake ninja-build g++ make binutils libgtest-dev libgmock-dev libbenchmark-dev
          clang clang-format clang-tidy python3
          sparse libclang-rt-14-dev  # sparse.sh; libFuzzer's runtime for fuzz.sh
          liburcu-dev)  # the user backend's RCU

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ "${#missing[@]}" -gt 0 ]; then
  echo "installing: ${missing[*]}"
  apt-get update -qq
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${missing[@]}" >/dev/null
fi

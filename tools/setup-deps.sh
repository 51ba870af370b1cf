#!/usr/bin/env bash
# Installs what building and testing drv_vane needs on a Debian 12 machine.
# Idempotent: installs only what is missing. Run as root.
set -euo pipefail

packages=(cmake ninja-build g++ make binutils libgtest-dev libgmock-dev libbenchmark-dev
          clang clang-format clang-tidy python3
          sparse libclang-rt-14-dev  # sparse.sh; libFuzzer's runtime for fuzz.sh
          liburcu-dev  # the user backend's RCU
          # libvane, vaned and vanectl; tshark and scapy for the sample capture
          libmnl-dev libpcap-dev libyaml-cpp-dev libfmt-dev nlohmann-json3-dev libcli11-dev
          tshark python3-scapy python3-yaml
          ccache)  # shared by the presets, clones and worktrees

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ "${#missing[@]}" -gt 0 ]; then
  echo "installing: ${missing[*]}"
  apt-get update -qq
  # tshark asks whether non-root users may capture; the answer does not matter here.
  echo "wireshark-common wireshark-common/install-setuid boolean false" | debconf-set-selections
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${missing[@]}" >/dev/null
fi

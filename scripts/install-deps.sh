#!/usr/bin/env bash
# Installs the Debian packages the project needs, and nothing when all of them are there.
set -euo pipefail

packages=(
  build-essential    # the C++ compiler
  cmake ninja-build  # the build
  python3            # the declaration generator
  libssl-dev         # OpenSSL: libcrypto for every cryptographic primitive, libssl for EAP-TLS
  openssl            # the command that makes the daemon's and the VM's test certificates
  libgtest-dev libgmock-dev googletest  # tests
  libbenchmark-dev   # benchmarks
  clang-format       # the format check
  clang libclang-rt-14-dev  # the fuzzer of the MKPDU decoder (libFuzzer)
  tshark             # an independent dissector that checks our MKPDU bytes
  python3-cryptography  # an independent check of ICVs and key wrap
  libtomlplusplus-dev  # the daemon's configuration file (TOML)
  nlohmann-json3-dev   # JSON for the control socket and mkactl
  libcli11-dev         # the programs' command lines
  libsystemd-dev       # sd_notify for the systemd unit
  libnl-3-dev libnl-route-3-dev libnl-genl-3-dev  # netlink: links and the kernel's MACsec
  iproute2             # network namespaces and veth pairs for the daemon's tests
  scdoc man-db         # the manual pages, and their check
  python3-prometheus-client  # a real parser of the metrics in the daemon's tests
  freeradius         # a real RADIUS server, started by the daemon's tests as the authenticator's peer
)

missing=()
for package in "${packages[@]}"; do
  [[ "$package" == \#* ]] && continue
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$package")
  fi
done
[[ ${#missing[@]} -eq 0 ]] && exit 0

echo "Installing missing packages: ${missing[*]}"
sudo=""
[[ "$(id -u)" -ne 0 ]] && sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"

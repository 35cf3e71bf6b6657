#!/usr/bin/env bash
# Installs every Debian package the project needs, only those that are missing.
# Run as root on Debian 12. Nothing is fetched from anywhere but Debian.
set -euo pipefail

PACKAGES=(
  g++ make cmake ninja-build pkg-config
  libyaml-cpp-dev
  googletest libgtest-dev libgmock-dev
  libbenchmark-dev
  libcli11-dev nlohmann-json3-dev
  clang libclang-rt-14-dev
  procps util-linux python3
  dpkg-dev file groff-base
)

missing=()
for package in "${PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$package")
  fi
done

if [ "${#missing[@]}" -eq 0 ]; then
  echo "bootstrap: all packages present"
  exit 0
fi

if [ "$(id -u)" -ne 0 ]; then
  echo "bootstrap: missing packages (${missing[*]}); run as root to install them" >&2
  exit 1
fi

echo "bootstrap: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}"

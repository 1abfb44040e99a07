#!/usr/bin/env bash
# Installs every Debian package that building and testing the library needs.
# Idempotent and non-interactive; returns at once when everything is present.
set -euo pipefail

packages=(
  build-essential cmake pkg-config file curl
  libcurl4-openssl-dev libssl-dev openssl libpugixml-dev nlohmann-json3-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  libcpp-httplib-dev tinyproxy python3
  debootstrap valgrind clang libclang-rt-14-dev
)

missing=()
for package in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "ok installed"; then
    missing+=("$package")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

sudo=""
if [ "$(id -u)" -ne 0 ]; then
  sudo="sudo"
fi
echo "Installing: ${missing[*]}"
$sudo env DEBIAN_FRONTEND=noninteractive apt-get update -qq
$sudo env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}"

#!/usr/bin/env bash
# Installs the Debian packages the project needs: by default only what building the library
# takes, more on request. Idempotent and non-interactive; as root directly, otherwise with sudo.
#   scripts/install-deps.sh [GROUP...]        install
#   scripts/install-deps.sh --list [GROUP...] print the package names only
# Groups: build (always), tools (simulator and command-line host), tests, memcheck, bench, fuzz,
# i386 (the 32-bit build), i386-emulation (the same where this machine cannot run 32-bit code), package (Debian packages and their clean-system check), all.
set -euo pipefail

declare -A group=(
  [build]="build-essential cmake pkg-config libcurl4-openssl-dev libssl-dev libpugixml-dev nlohmann-json3-dev libsqlite3-dev libqrencode-dev libpng-dev libcairo2-dev libfontconfig-dev fonts-dejavu-core"
  [tools]="libcpp-httplib-dev"
  [tests]="libcpp-httplib-dev zbar-tools poppler-utils libgtest-dev openssl tinyproxy coreutils python3 python3-lxml fp-compiler fp-units-fcl default-jdk-headless libjna-java"
  [memcheck]="valgrind"
  [bench]="libcpp-httplib-dev libbenchmark-dev openssl curl"
  [fuzz]="clang libclang-rt-14-dev"
  [i386]="debootstrap file arch-test"
  [i386-emulation]="qemu-user-static g++-i686-linux-gnu"
  [package]="dpkg-dev file lintian debootstrap fp-compiler fp-units-fcl default-jdk-headless libjna-java"
)

list=false
if [ "${1:-}" = --list ]; then
  list=true
  shift
fi
wanted=(build)
for name in "$@"; do
  if [ "$name" = all ]; then
    # Emulation only where the 32-bit scripts find it needed.
    for each in "${!group[@]}"; do [ "$each" = i386-emulation ] || wanted+=("$each"); done
  elif [ -n "${group[$name]:-}" ]; then
    wanted+=("$name")
  else
    echo "install-deps.sh: unknown group '$name' (build tools tests memcheck bench fuzz i386 i386-emulation package all)" >&2
    exit 2
  fi
done

packages=()
for name in "${wanted[@]}"; do
  for package in ${group[$name]}; do
    case " ${packages[*]} " in *" $package "*) ;; *) packages+=("$package") ;; esac
  done
done
if $list; then
  printf '%s\n' "${packages[@]}"
  exit 0
fi

missing=()
for package in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "ok installed" || missing+=("$package")
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
echo "Installing: ${missing[*]}"
$sudo env DEBIAN_FRONTEND=noninteractive apt-get update -qq
$sudo env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}"

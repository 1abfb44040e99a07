#!/usr/bin/env bash
# Builds the library and its tests as 32-bit x86 code and runs the whole suite there.
#
# i386 packages cannot sit reliably next to the amd64 ones on the host, so the
# build happens in a Debian i386 root made by debootstrap and cached outside the
# checkout. The checkout is bind-mounted read-only at /src; the build directory
# is /build inside the root, so later runs from the same checkout build incrementally.
#
# Result: build-i386/libtarvoafipdriver.so in the checkout. With --package it builds the i386
# Debian packages instead (Release, in /build-package inside the root) and copies them to
# $TARVO_I386_PACKAGE_OUT (default <checkout>/packages).
#
# Environment:
#   TARVO_I386_ROOT    the cached root (default /var/cache/tarvoafip/i386-bookworm)
#   TARVO_I386_MIRROR  Debian mirror (default http://deb.debian.org/debian)
#   TARVO_I386_OUT     where the built library is copied (default <checkout>/build-i386)
#   TARVO_I386_CLEAN=1 start the build directory afresh
#   TARVO_JOBS         parallel build jobs (default 2)
set -euo pipefail

source_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
# shellcheck source=scripts/debian-root.sh
. "$source_dir/scripts/debian-root.sh"
root=${TARVO_I386_ROOT:-/var/cache/tarvoafip/i386-bookworm}
mirror=${TARVO_I386_MIRROR:-http://deb.debian.org/debian}
out_dir=${TARVO_I386_OUT:-$source_dir/build-i386}
jobs=${TARVO_JOBS:-2}
suite=bookworm
marker=$root/.tarvo-root-complete

require_root
case $root in
  /|"") die "refusing root directory '$root'" ;;
  "$source_dir"|"$source_dir"/*) die "the root must live outside the checkout" ;;
esac

enter_private_mounts "$@"

# What building and testing need, from the install script so that the two stay in step.
mapfile -t packages < <("$source_dir/scripts/install-deps.sh" --list tests)
package_mode=false
if [ "${1:-}" = --package ]; then
  package_mode=true
  packages+=(dpkg-dev file)
fi
[ ${#packages[@]} -gt 0 ] || die "no package list from scripts/install-deps.sh"

command -v debootstrap >/dev/null || "$source_dir/scripts/install-deps.sh" i386

mkdir -p "$(dirname "$root")"
exec 9>"$root.lock"
flock 9 || die "cannot lock $root.lock"

# Anything still mounted below the root (a killed run without a namespace).
unmount_stale() {
  local target
  while read -r target; do
    umount "$target" 2>/dev/null || umount -l "$target" || die "cannot unmount $target"
  done < <(awk -v r="$root/" 'index($2, r) == 1 { print $2 }' /proc/self/mounts | sort -r)
}

root_env=(TARVO_AFIP_REFERENCE=/afip-reference ${CI:+CI=$CI} ${TZ:+TZ=$TZ})

unmount_stale

if [ ! -f "$marker" ]; then
  if [ -e "$root" ]; then
    log "removing incomplete root $root"
    rm -rf --one-file-system "$root"
  fi
  log "bootstrapping Debian $suite i386 into $root"
  debootstrap --arch=i386 --variant=minbase "$suite" "$root" "$mirror"
fi

prepare_root
mount_system

missing=()
for package in "${packages[@]}"; do
  in_root dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "ok installed" || missing+=("$package")
done
if [ ${#missing[@]} -gt 0 ]; then
  log "installing into the root: ${missing[*]}"
  in_root dpkg --configure -a
  in_root apt-get update -qq
  in_root apt-get install -y -qq --no-install-recommends "${missing[@]}"
  in_root apt-get clean
fi
touch "$marker"

bind "$source_dir" "$root/src" ro
# AFIP's published WSDLs, which the simulator's tests hold its answers to.
for reference in "${TARVO_AFIP_REFERENCE:-}" "$source_dir/../shared/reference/afip" /work/shared/reference/afip; do
  if [ -n "$reference" ] && [ -f "$reference/wsfev1-service.wsdl" ]; then
    bind "$reference" "$root/afip-reference" ro
    break
  fi
done

if $package_mode; then
  package_out=${TARVO_I386_PACKAGE_OUT:-$source_dir/packages}
  log "building the i386 packages"
  rm -rf --one-file-system "$root/build-package"
  in_root cmake -S /src -B /build-package -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
    -DTARVO_BUILD_TESTS=OFF >/dev/null
  in_root cmake --build /build-package -j "$jobs"
  in_root sh -c 'cd /build-package && cpack -G DEB'
  mkdir -p "$package_out"
  cp "$root"/build-package/*.deb "$package_out"/
  exit 0
fi

# make trusts timestamps: objects built from another checkout could look newer than these sources.
if [ "${TARVO_I386_CLEAN:-}" = 1 ] || [ "$(cat "$root/build/.tarvo-source" 2>/dev/null)" != "$source_dir" ]; then
  rm -rf --one-file-system "$root/build"
fi
mkdir -p "$root/build"
printf '%s\n' "$source_dir" >"$root/build/.tarvo-source"

log "configuring and building for i386"
in_root cmake -S /src -B /build -DCMAKE_BUILD_TYPE=RelWithDebInfo
in_root cmake --build /build -j "$jobs"

library=$root/build/libtarvoafipdriver.so
[ -f "$library" ] || die "no library built at /build/libtarvoafipdriver.so"
description=$(file -L "$library")
echo "$description"
case $description in
  *"ELF 32-bit LSB shared object, Intel 80386"*) ;;
  *) die "the built library is not 32-bit x86" ;;
esac
mkdir -p "$out_dir"
cp -L "$library" "$out_dir/libtarvoafipdriver.so.tmp"
mv -f "$out_dir/libtarvoafipdriver.so.tmp" "$out_dir/libtarvoafipdriver.so"
log "library copied to $out_dir/libtarvoafipdriver.so"

log "running the test suite for i386"
in_root sh -c 'cd /build && ctest --output-on-failure -j "$1" --timeout 300' sh "$jobs"

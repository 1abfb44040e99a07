#!/usr/bin/env bash
# Builds the library and its tests as 32-bit x86 code and runs the whole suite there.
#
# i386 packages cannot sit reliably next to the amd64 ones on the host, so the suite runs in a
# Debian i386 root made by debootstrap and cached outside the checkout.
#
# Where this machine runs 32-bit x86 code, everything happens in the root: the checkout is
# bind-mounted read-only at /src and the build directory is /build inside the root. Where it does
# not, the code runs through user-mode emulation (qemu-i386-static), which makes compiling several
# times slower: the build is then cross-compiled on the host against the root's libraries and
# only the tests run in the root, with the checkout and the build directory mounted at the same
# paths as on the host. Tests that cannot run under emulation say so and why.
#
# Result: build-i386/libtarvoafipdriver.so in the checkout, checked to import no 32-bit time
# function. With --package it builds the i386 Debian packages instead (Release) and copies them
# to $TARVO_I386_PACKAGE_OUT (default <checkout>/packages).
#
# Environment:
#   TARVO_I386_ROOT    the cached root (default /var/cache/tarvoafip/i386-bookworm)
#   TARVO_I386_MIRROR  Debian mirror (default: the archive in this machine's apt sources)
#   TARVO_I386_OUT     where the built library is copied (default <checkout>/build-i386)
#   TARVO_I386_CLEAN=1 start the build directory afresh
#   TARVO_JOBS         parallel build jobs (default 2)
set -euo pipefail

source_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
# shellcheck source=scripts/debian-root.sh
. "$source_dir/scripts/debian-root.sh"
root=${TARVO_I386_ROOT:-/var/cache/tarvoafip/i386-bookworm}
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
ensure_i386_runs

# What building and testing need, from the install script so that the two stay in step. The
# Java VM aborts under emulation, so it is left out there (its test says why it does not run).
mapfile -t packages < <("$source_dir/scripts/install-deps.sh" --list tests)
if $i386_emulated; then
  mapfile -t packages < <(printf '%s\n' "${packages[@]}" | grep -vxE 'default-jdk-headless|libjna-java')
fi
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
if $i386_emulated; then
  root_env+=(TARVO_I386_EMULATION=qemu-i386-static)
fi

unmount_stale

if [ ! -f "$marker" ]; then
  if [ -e "$root" ]; then
    log "removing incomplete root $root"
    rm -rf --one-file-system "$root"
  fi
  mirror=$(debian_mirror)
  log "bootstrapping Debian $suite i386 into $root from $mirror"
  debootstrap --arch=i386 --variant=minbase "$suite" "$root" "$mirror" >/dev/null
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
  in_root apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
  in_root apt-get clean
fi
touch "$marker"

# AFIP's published WSDLs, which the simulator's tests hold its answers to.
for reference in "${TARVO_AFIP_REFERENCE:-}" "$source_dir/../shared/reference/afip" /work/shared/reference/afip; do
  if [ -n "$reference" ] && [ -f "$reference/wsfev1-service.wsdl" ]; then
    bind "$reference" "$root/afip-reference" ro
    break
  fi
done

# configure BUILD_DIRECTORY CMAKE_OPTION...: on the host with the cross compiler (the directory
# then appears at the same path in the root) or in the root itself.
configure_and_build() {
  local build=$1
  shift
  if $i386_emulated; then
    mkdir -p "$build"
    bind "$build" "$root$build"
    # No cross compiler for Pascal: the root's own fpc compiles the units, under emulation.
    printf '#!/bin/sh\nexec chroot %q /usr/bin/env -i PATH=/usr/bin:/bin HOME=/root LANG=C.UTF-8 fpc "$@"\n' \
      "$root" >"$build/fpc-in-root"
    chmod 755 "$build/fpc-in-root"
    TARVO_I386_SYSROOT=$root cmake -S "$source_dir" -B "$build" \
      -DCMAKE_TOOLCHAIN_FILE="$source_dir/cmake/i386-cross.cmake" -DTARVO_FPC="$build/fpc-in-root" "$@" >/dev/null
    cmake --build "$build" -j "$jobs"
  else
    in_root cmake -S /src -B "$build" "$@" >/dev/null
    in_root cmake --build "$build" -j "$jobs"
  fi
}

if $i386_emulated; then
  # Link names that point at absolute paths resolve on the host, outside the root: the cross linker
  # would then miss libz.so and take libz.a. Relative, they name the same file in the root.
  while read -r link; do
    ln -sfn "$(realpath -s --relative-to="$(dirname "$link")" "$root$(readlink "$link")")" "$link"
  done < <(find "$root/usr/lib/i386-linux-gnu" -maxdepth 1 -name '*.so' -lname '/*')
  bind "$source_dir" "$root$source_dir" ro
  # Beside the root, not in it: the host builds there. Not named with the root's path as a prefix,
  # which CMake would strip from the programs' run paths as if it lay inside the root.
  build_base=$(dirname "$root")/build-$(basename "$root")
else
  bind "$source_dir" "$root/src" ro
  build_base=""
fi

if $package_mode; then
  package_out=${TARVO_I386_PACKAGE_OUT:-$source_dir/packages}
  build=$build_base/build-package
  log "building the i386 packages"
  rm -rf --one-file-system "${build_base:-$root}/build-package"
  configure_and_build "$build" -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr -DTARVO_BUILD_TESTS=OFF
  # dpkg-shlibdeps reads the root's package database: cpack runs there. Before it installs, make
  # checks that the build is up to date: a cross build's headers (the cross compiler's and the
  # root's own, by their host paths) must be found where the host build recorded them.
  if $i386_emulated; then
    for directory in /usr/i686-linux-gnu /usr/lib/gcc-cross; do bind "$directory" "$root$directory" ro; done
    bind "$root" "$root$root" ro
  fi
  in_root sh -c 'cd "$1" && cpack -G DEB >/dev/null' sh "$build"
  mkdir -p "$package_out"
  cp "${build_base:-$root}"/build-package/*.deb "$package_out"/
  exit 0
fi

# make trusts timestamps: objects built from another checkout could look newer than these sources.
build=$build_base/build
host_build=${build_base:-$root}/build
if [ "${TARVO_I386_CLEAN:-}" = 1 ] || [ "$(cat "$host_build/.tarvo-source" 2>/dev/null)" != "$source_dir" ]; then
  rm -rf --one-file-system "$host_build"
fi
mkdir -p "$host_build"
printf '%s\n' "$source_dir" >"$host_build/.tarvo-source"

log "configuring and building for i386$($i386_emulated && echo " with the cross compiler")"
configure_and_build "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo

library=$host_build/libtarvoafipdriver.so
[ -f "$library" ] || die "no library built at $library"
description=$(file -L "$library")
echo "$description"
case $description in
  *"ELF 32-bit LSB shared object, Intel 80386"*) ;;
  *) die "the built library is not 32-bit x86" ;;
esac
"$source_dir/scripts/check-time64.sh" "$library"
"$source_dir/scripts/check-time64.sh" "$host_build/libtarvoafipinvoicing.so"
mkdir -p "$out_dir"
cp -L "$library" "$out_dir/libtarvoafipdriver.so.tmp"
mv -f "$out_dir/libtarvoafipdriver.so.tmp" "$out_dir/libtarvoafipdriver.so"
log "library copied to $out_dir/libtarvoafipdriver.so"

log "running the test suite for i386$($i386_emulated && echo " under emulation")"
status=0
in_root sh -c 'cd "$1" && ctest --output-on-failure -j "$2" --timeout 600' sh "$build" "$jobs" || status=$?
# What did not run, and why: Python's unittest names each skipped case with its reason.
grep -h "skipped '" "$host_build/Testing/Temporary/LastTest.log" 2>/dev/null | sed 's/^/not run: /' || true
exit "$status"

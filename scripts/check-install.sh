#!/usr/bin/env bash
# Installs a build to a prefix named only at install time, moves the tree elsewhere, and builds the
# C examples against the moved copy with pkg-config and with CMake's find_package; every host must
# load its library from there and run (without settings the libraries answer result 7).
#   scripts/check-install.sh [BUILD_DIR]      (default build; TARVO_PRELOAD: a sanitizer runtime)
set -euo pipefail
cd "$(dirname "$0")/.."
build=$(cd "${1:-build}" && pwd)
export TARVO_REQUEST=$(pwd)/tools/cli/samples/fe_dummy.xml TARVO_SAMPLES=$(pwd)/tools/cli/samples
example=$(pwd)/examples/c
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

for component in runtime development invoicing_runtime invoicing_development; do
  cmake --install "$build" --prefix "$scratch/installed" --component "$component" >/dev/null
done
mv "$scratch/installed" "$scratch/moved"
prefix=$scratch/moved
pc_directory=$(dirname "$(find "$prefix" -name tarvoafipdriver.pc)")
libdir=$(dirname "$pc_directory")

cc -std=c99 -Wall -o "$scratch/host-pkg-config" "$example/minimal_host.c" \
  $(PKG_CONFIG_PATH=$pc_directory pkg-config --cflags --libs tarvoafipdriver)
cc -std=c99 -Wall -o "$scratch/invoice-pkg-config" "$example/invoice.c" \
  $(PKG_CONFIG_PATH=$pc_directory pkg-config --cflags --libs tarvoafipinvoicing)
cmake -S "$example" -B "$scratch/build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$scratch/build" >/dev/null

# The pkg-config hosts find their library through the loader's path, the others through their run path.
status=0
cd "$scratch"
for host in host-pkg-config:$libdir:libtarvoafipdriver build/minimal_host::libtarvoafipdriver \
  invoice-pkg-config:$libdir:libtarvoafipinvoicing build/invoice::libtarvoafipinvoicing; do
  IFS=: read -r name path library <<<"$host"
  host=$scratch/$name
  export LD_LIBRARY_PATH=$path
  if [[ $(ldd "$host") != *" => $libdir/$library.so.1 "* ]]; then
    echo "check-install: $host does not load $library from $libdir" >&2
    status=1
  fi
  result=0
  LD_PRELOAD=${TARVO_PRELOAD:-} ASAN_OPTIONS=detect_leaks=0 "$host" >/dev/null 2>&1 || result=$?
  if [ "$result" -ne 7 ]; then
    echo "check-install: $host ended with $result, not the library's result 7" >&2
    status=1
  fi
done
[ "$status" -eq 0 ] && echo "check-install: pkg-config and find_package work for both libraries from $prefix"
exit $status

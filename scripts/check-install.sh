#!/usr/bin/env bash
# Installs a build to a prefix named only at install time, moves the tree elsewhere, and builds the
# C example against the moved copy with pkg-config and with CMake's find_package; both hosts must
# load the library from there and run (without settings it answers result 7).
#   scripts/check-install.sh [BUILD_DIR]      (default build; TARVO_PRELOAD: a sanitizer runtime)
set -euo pipefail
cd "$(dirname "$0")/.."
build=$(cd "${1:-build}" && pwd)
export TARVO_REQUEST=$(pwd)/tools/cli/samples/fe_dummy.xml
example=$(pwd)/examples/c
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

for component in runtime development; do
  cmake --install "$build" --prefix "$scratch/installed" --component "$component" >/dev/null
done
mv "$scratch/installed" "$scratch/moved"
prefix=$scratch/moved
pc_directory=$(dirname "$(find "$prefix" -name tarvoafipdriver.pc)")
libdir=$(dirname "$pc_directory")

cc -std=c99 -Wall -o "$scratch/host-pkg-config" "$example/minimal_host.c" \
  $(PKG_CONFIG_PATH=$pc_directory pkg-config --cflags --libs tarvoafipdriver)
cmake -S "$example" -B "$scratch/build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$scratch/build" >/dev/null

# The pkg-config host finds the library through the loader's path, the other through its run path.
status=0
for pair in "host-pkg-config:$libdir" "build/minimal_host:"; do
  host=$scratch/${pair%%:*}
  export LD_LIBRARY_PATH=${pair#*:}
  if [[ $(ldd "$host") != *" => $libdir/libtarvoafipdriver.so.1 "* ]]; then
    echo "check-install: $host does not load the library from $libdir" >&2
    status=1
  fi
  result=0
  LD_PRELOAD=${TARVO_PRELOAD:-} ASAN_OPTIONS=detect_leaks=0 "$host" >/dev/null 2>&1 || result=$?
  if [ "$result" -ne 7 ]; then
    echo "check-install: $host ended with $result, not the library's result 7" >&2
    status=1
  fi
done
[ "$status" -eq 0 ] && echo "check-install: pkg-config and find_package both work from $prefix"
exit $status

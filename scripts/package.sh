#!/usr/bin/env bash
# Makes the Debian packages libtarvoafipdriver1, libtarvoafipdriver-dev, tarvoafip-tools and the
# bindings' python3-tarvoafip, libtarvoafip-java (where a JDK runs) and fp-units-tarvoafip in
# packages/ (or $TARVO_PACKAGE_OUT): a Release build for /usr, stripped, with dependencies
# computed from the binaries by dpkg-shlibdeps, then checked by lintian.
#   scripts/package.sh          for this machine (amd64)
#   scripts/package.sh --i386   for i386, built inside the root of scripts/build-i386.sh (as root)
set -euo pipefail
cd "$(dirname "$0")/.."
out=${TARVO_PACKAGE_OUT:-$(pwd)/packages}
mkdir -p "$out"
scripts/install-deps.sh tools package

case "${1:-}" in
  "")
    arch=$(dpkg --print-architecture)
    cmake -S . -B build-package -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr -DTARVO_BUILD_TESTS=OFF >/dev/null
    cmake --build build-package -j2
    rm -f build-package/*.deb
    (cd build-package && cpack -G DEB)
    cp build-package/*.deb "$out"/
    ;;
  --i386)
    arch=i386
    TARVO_I386_PACKAGE_OUT=$out scripts/build-i386.sh --package
    ;;
  *) echo "usage: $0 [--i386]" >&2; exit 2 ;;
esac

# Errors fail the packaging; the rest of lintian's findings are shown.
all=$(ls "$out"/*_all.deb 2>/dev/null || true)
# shellcheck disable=SC2086
lintian --fail-on error --suppress-tags-from-file /dev/null "$out"/*_"$arch".deb $all
# shellcheck disable=SC2086
ls -l "$out"/*_"$arch".deb $all

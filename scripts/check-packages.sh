#!/usr/bin/env bash
# Proves the packages on a clean system: installs them into a fresh minimal Debian root of their
# architecture, builds the example host there against the installed library twice (pkg-config, and
# CMake's find_package), and runs both against the simulator from the tools package: a login and
# one request must give result 0.
#   scripts/check-packages.sh amd64|i386 [PACKAGE_DIRECTORY]        (as root)
# The pristine root (debootstrap minbase plus compiler, cmake and pkg-config) is made once and kept
# as a tarball in $TARVO_CLEAN_ROOT_CACHE (default /var/cache/tarvoafip); every run unpacks a fresh
# copy of it and removes that copy at the end.
set -euo pipefail
source_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
# shellcheck source=scripts/debian-root.sh
. "$source_dir/scripts/debian-root.sh"
arch=${1:?usage: check-packages.sh amd64|i386 [PACKAGE_DIRECTORY]}
packages=$(cd "${2:-$source_dir/packages}" && pwd)
cache=${TARVO_CLEAN_ROOT_CACHE:-/var/cache/tarvoafip}
mirror=${TARVO_I386_MIRROR:-http://deb.debian.org/debian}
pristine=$cache/clean-$arch.tar

require_root
ls "$packages"/*_"$arch".deb >/dev/null 2>&1 || die "no $arch packages in $packages (scripts/package.sh makes them)"

enter_private_mounts "$@"
command -v debootstrap >/dev/null || "$source_dir/scripts/install-deps.sh" package

root=$(mktemp -d /tmp/tarvo-clean-"$arch".XXXXXX)
trap 'unmount_all; rm -rf --one-file-system "$root"' EXIT
root_env=(TZ='<-03>3')

mkdir -p "$cache"
exec 9>"$pristine.lock"
flock 9
if [ ! -f "$pristine" ]; then
  log "making the pristine $arch root once"
  debootstrap --arch="$arch" --variant=minbase bookworm "$root" "$mirror" >/dev/null
  prepare_root
  mount_system
  in_root apt-get update -qq
  in_root apt-get install -y -qq --no-install-recommends gcc libc6-dev cmake make pkg-config >/dev/null
  in_root apt-get clean
  unmount_all
  tar -C "$root" -cf "$pristine.partial" . && mv "$pristine.partial" "$pristine"
  rm -rf --one-file-system "$root" && mkdir "$root"
fi
flock -u 9
log "a fresh $arch root from $pristine"
tar -C "$root" -xf "$pristine"
prepare_root
mount_system

log "installing the packages: $(cd "$packages" && echo *_"$arch".deb)"
mkdir -p "$root/tmp/packages" "$root/tmp/host"
cp "$packages"/*_"$arch".deb "$root/tmp/packages/"
in_root apt-get update -qq
in_root sh -c 'apt-get install -y -qq --no-install-recommends /tmp/packages/*.deb >/dev/null'

log "building the example host against the installed library"
cp "$source_dir/examples/c/minimal_host.c" "$source_dir/examples/c/CMakeLists.txt" "$root/tmp/host/"
in_root sh -c 'cd /tmp/host && cc -std=c99 -Wall -o host-pkg-config minimal_host.c $(pkg-config --cflags --libs tarvoafipdriver)'
in_root sh -c 'cd /tmp/host && cmake -S . -B build >/dev/null && cmake --build build >/dev/null'

log "running both against the simulator of the tools package"
in_root sh -c '
  set -e
  cd /tmp/host
  afip_simulator --make-certificate host.p12 --password pw >/dev/null
  afip_simulator --tls --port-file port --max-seconds 120 --refuse-relogin-seconds 0 >simulator.log 2>&1 &
  simulator=$!
  for i in $(seq 100); do [ -s port ] && break; sleep 0.1; done
  port=$(cat port)
  for host in ./host-pkg-config build/minimal_host; do
    mkdir -p "run-$(basename $host)" && cd "run-$(basename $host)"
    TARVO_SOAP_ACTION=http://ar.gov.afip.dif.FEV1/FEDummy ../$host "https://127.0.0.1:$port/ws/services/LoginCms" \
      ../host.p12 pw wsfe "https://127.0.0.1:$port/wsfev1/service.asmx" /usr/share/tarvoafip/samples/fe_dummy.xml >answer
    grep -q FEDummyResponse answer
    echo "$host: result 0, $(grep -o "<AppServer>[^<]*</AppServer>" answer)"
    cd ..
  done
  kill $simulator
'
log "the $arch packages install, build a host and run on a clean system"

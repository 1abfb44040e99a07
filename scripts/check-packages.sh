#!/usr/bin/env bash
# Proves the packages on a clean system: installs them into a fresh minimal Debian root of their
# architecture, builds the example host there against the installed library twice (pkg-config, and
# CMake's find_package), and runs both against the simulator from the tools package: a login and
# one request must give result 0. Then every invoice example authorises a voucher through what the
# packages installed: tarvoafip_cli invoice, the C example, the Python module (python3-tarvoafip),
# the Pascal units (fp-units-tarvoafip) and, where a Java VM runs, the jar (libtarvoafip-java).
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
pristine=$cache/clean-$arch.tar

require_root
ls "$packages"/*_"$arch".deb >/dev/null 2>&1 || die "no $arch packages in $packages (scripts/package.sh makes them)"

enter_private_mounts "$@"
command -v debootstrap >/dev/null || "$source_dir/scripts/install-deps.sh" package
if [ "$arch" = i386 ]; then
  ensure_i386_runs
fi

# The bindings' packages are built for all architectures; the Java VM does not run under emulation.
debs=("$packages"/*_"$arch".deb)
for deb in "$packages"/*_all.deb; do
  [ -e "$deb" ] || continue
  case $(basename "$deb") in
    libtarvoafip-java_*)
      if [ "$arch" = i386 ] && $i386_emulated; then
        log "not run: the Java invoice example on i386, since the 32-bit Java VM aborts (SIGABRT) under user-mode emulation; it runs on amd64"
        continue
      fi ;;
  esac
  debs+=("$deb")
done

root=$(mktemp -d /tmp/tarvo-clean-"$arch".XXXXXX)
trap 'unmount_all; rm -rf --one-file-system "$root"' EXIT
root_env=(TZ='<-03>3')

mkdir -p "$cache"
exec 9>"$pristine.lock"
flock 9
if [ ! -f "$pristine" ]; then
  log "making the pristine $arch root once"
  debootstrap --arch="$arch" --variant=minbase bookworm "$root" "$(debian_mirror)" >/dev/null
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

log "installing the packages: $(for deb in "${debs[@]}"; do basename "$deb"; done | tr '\n' ' ')"
mkdir -p "$root/tmp/packages" "$root/tmp/host"
cp "${debs[@]}" "$root/tmp/packages/"
in_root apt-get update -qq
in_root sh -c 'apt-get install -y -qq --no-install-recommends /tmp/packages/*.deb >/dev/null'
# The jar's package needs only a Java runtime; the example is compiled here.
if ls "$root"/tmp/packages/libtarvoafip-java_*.deb >/dev/null 2>&1; then
  in_root apt-get install -y -qq --no-install-recommends default-jdk-headless >/dev/null
fi

log "building the example host against the installed library"
cp "$source_dir/examples/c/minimal_host.c" "$source_dir/examples/c/invoice.c" "$source_dir/examples/c/CMakeLists.txt" \
  "$source_dir/examples/python/invoice.py" "$source_dir/examples/pascal/invoice.pas" \
  "$source_dir/examples/java/Invoice.java" "$root/tmp/host/"
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

  # Each invoice example authorises the next Factura B of the installed samples: numbers 1, 2, ...
  wsaa="https://127.0.0.1:$port/ws/services/LoginCms"
  wsfe="https://127.0.0.1:$port/wsfev1/service.asmx"
  cc -std=c99 -Wall -o invoice-c invoice.c $(pkg-config --cflags --libs tarvoafipinvoicing)
  fpc -v0 -oinvoice-pascal invoice.pas >/dev/null
  set -- "./invoice-c" "python3 invoice.py" "./invoice-pascal"
  if [ -f /usr/share/java/tarvoafip.jar ]; then
    javac -cp /usr/share/java/tarvoafip.jar -d java Invoice.java
    set -- "$@" "java -cp /usr/share/java/tarvoafip.jar:java Invoice"
  fi
  number=0
  for example in "$@"; do
    number=$((number + 1))
    $example "$wsaa" host.p12 pw wsfe "$wsfe" /usr/share/tarvoafip/samples >invoice-answer
    grep -qx "CbteNro $number" invoice-answer
    grep -q "^CAE [0-9]\{14\} due " invoice-answer
    grep -q "^QR https://www.afip.gob.ar/fe/qr/?p=" invoice-answer
    echo "$example: voucher $number, $(grep "^CAE" invoice-answer)"
  done
  for run in first again; do
    tarvoafip_cli invoice --wsaa-url "$wsaa" --certificate host.p12 --password pw --service wsfe --url "$wsfe" \
      --cuit 20111111112 --invoice /usr/share/tarvoafip/samples/factura_b.json --sale-id till-1/1 --qr-png qr.png \
      >invoice-answer
    grep -q "\"Resultado\":\"A\",\"PtoVta\":1,\"CbteTipo\":6,\"CbteNro\":$((number + 1))," invoice-answer
  done
  grep -q "\"from_ledger\":true" invoice-answer
  [ -s qr.png ]
  tarvoafip_cli ledger list --format csv | grep -q "^till-1/1,approved,1,6,$((number + 1)),"
  echo "tarvoafip_cli invoice: voucher $((number + 1)) once for a sale run twice, its QR image, the ledger"
  # Printing needs the font the package depends on.
  tarvoafip_cli receipt --sale-id till-1/1 --issuer /usr/share/tarvoafip/samples/issuer.json --format pdf-a4 \
    --out voucher.pdf
  [ "$(head -c 5 voucher.pdf)" = "%PDF-" ]
  echo "tarvoafip_cli receipt: $(stat -c %s voucher.pdf) bytes of PDF"
  kill $simulator
'
log "the $arch packages install, build a host, invoice and run on a clean system"

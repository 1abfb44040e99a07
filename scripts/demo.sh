#!/usr/bin/env bash
# End to end without AFIP: installs what is missing, builds, makes a test certificate, starts the
# local AFIP simulator on 127.0.0.1 over HTTPS, sends a sample invoicing request through the
# library with the command-line host, shows the answer and stops the simulator.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)

scripts/install-deps.sh tools
cmake -S . -B build >/dev/null
cmake --build build -j2 --target tarvoafipdriver afip_simulator tarvoafip_cli

work=$(mktemp -d /tmp/tarvoafip-demo.XXXXXX)
simulator_pid=""
cleanup() {
  if [ -n "$simulator_pid" ]; then kill "$simulator_pid" 2>/dev/null || true; wait "$simulator_pid" 2>/dev/null || true; fi
  rm -rf "$work"
}
trap cleanup EXIT

# WSAA reads the login ticket request's times as Argentina's local time.
export TZ='<-03>3'

simulator="$root/build/tools/simulator/afip_simulator"
cli="$root/build/tools/cli/tarvoafip_cli"

"$simulator" --make-certificate "$work/demo.p12" --password demo --cn "demo host"
"$simulator" --tls --port 0 --port-file "$work/port" --services wsfe --max-seconds 120 >"$work/simulator.log" 2>&1 &
simulator_pid=$!
for _ in $(seq 1 100); do [ -s "$work/port" ] && break; sleep 0.1; done
port=$(cat "$work/port")
echo "simulator listening on https://127.0.0.1:$port"

cd "$work"
export TARVO_PASSWORD=demo
send() { # OPERATION SAMPLE
  "$cli" --wsaa-url "https://127.0.0.1:$port/ws/services/LoginCms" \
         --certificate "$work/demo.p12" --service wsfe \
         --url "https://127.0.0.1:$port/wsfev1/service.asmx" \
         --operation "$1" --request "$root/tools/cli/samples/$2"
}
echo "== first request: logs in to WSAA, caches the ticket, asks for the last authorised voucher"
send FECompUltimoAutorizado fe_comp_ultimo_autorizado.xml
echo
echo "== second request: reuses the cached ticket"
send FECompUltimoAutorizado fe_comp_ultimo_autorizado.xml
echo
echo "== a Factura B, number 1, with IVA 21 %: authorised with a CAE"
send FECAESolicitar fe_cae_solicitar.xml
echo
echo "== the next Factura B from a JSON voucher, without XML: number, CAE and AFIP's QR address"
"$cli" invoice --wsaa-url "https://127.0.0.1:$port/ws/services/LoginCms" \
       --certificate "$work/demo.p12" --service wsfe \
       --url "https://127.0.0.1:$port/wsfev1/service.asmx" \
       --cuit 20111111112 --invoice "$root/tools/cli/samples/factura_b.json" --qr-png "$work/qr.png"
echo
echo "== credentials.json"
cat credentials.json
echo "== what the simulator served"
cat "$work/simulator.log"

#!/usr/bin/env bash
# End to end without AFIP: installs what is missing, builds, makes a test certificate, starts the
# local AFIP simulator on 127.0.0.1 over HTTPS, sends sample requests through the library with the
# command-line host, then a shop's first day through the invoicing core: a sale authorised once
# however often it is sent, a customer's VAT condition from AFIP's registry, the ledger, a printed
# voucher. Shows every answer and stops the simulator.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)

scripts/install-deps.sh tools
cmake -S . -B build >/dev/null
cmake --build build -j2 --target tarvoafipdriver tarvoafipinvoicing afip_simulator tarvoafip_cli

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
"$simulator" --tls --port 0 --port-file "$work/port" --services wsfe,ws_sr_constancia_inscripcion --max-seconds 120 >"$work/simulator.log" 2>&1 &
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
connection=(--wsaa-url "https://127.0.0.1:$port/ws/services/LoginCms" --certificate "$work/demo.p12"
            --cuit 20111111112)
invoice() { "$cli" invoice "${connection[@]}" --url "https://127.0.0.1:$port/wsfev1/service.asmx" "$@"; }
echo "== the next Factura B from a JSON voucher, without XML: number, CAE and AFIP's QR address,"
echo "   recorded in the ledger (ledger.sqlite) under the sale id demo-b-1"
invoice --invoice "$root/tools/cli/samples/factura_b.json" --sale-id demo-b-1 --qr-png "$work/qr.png"
echo
echo "== the same sale sent again (a retry, a crash): its recorded outcome, nothing sent (from_ledger)"
invoice --invoice "$root/tools/cli/samples/factura_b.json" --sale-id demo-b-1
echo
echo "== a customer's VAT condition, from AFIP's registry"
"$cli" padron 30500010912 "${connection[@]}" --url "https://127.0.0.1:$port/sr-padron/webservices/personaServiceA5"
echo
echo "== a Factura A to that customer: the condition looked up (\"padron\") and checked before sending"
invoice --invoice "$root/tools/cli/samples/factura_a.json" \
        --registry-url "https://127.0.0.1:$port/sr-padron/webservices/personaServiceA5"
echo
echo "== the ledger, for the accountant"
"$cli" ledger list --format csv
echo
echo "== the Factura A printed as an 80 mm ticket (also pdf-a4 and escpos)"
"$cli" receipt --sale-id demo-a-1 --issuer "$root/tools/cli/samples/issuer.json" --format pdf-80mm \
       --out "$work/factura_a.pdf"
if command -v pdftotext >/dev/null; then pdftotext -layout "$work/factura_a.pdf" -; else ls -l "$work/factura_a.pdf"; fi
echo
echo "== credentials.json"
cat credentials.json
echo "== what the simulator served"
cat "$work/simulator.log"

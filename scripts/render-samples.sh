#!/usr/bin/env bash
# Renders the README's sample vouchers: a Factura B with items authorised against the simulator,
# printed on A4 and as an 80 mm ticket, each page made a PNG in docs/.
#   scripts/render-samples.sh [BUILD_DIR]      (default build)
set -euo pipefail
cd "$(dirname "$0")/.."
build=$(cd "${1:-build}" && pwd)
out=$(pwd)/docs
scratch=$(mktemp -d)
trap 'kill "$simulator" 2>/dev/null || true; rm -rf "$scratch"' EXIT
cd "$scratch"
export TZ='<-03>3'

"$build/tools/simulator/afip_simulator" --make-certificate host.p12 --password pw >/dev/null
"$build/tools/simulator/afip_simulator" --port-file port --max-seconds 120 >simulator.log 2>&1 &
simulator=$!
for _ in $(seq 100); do [ -s port ] && break; sleep 0.1; done
url="http://127.0.0.1:$(cat port)"

cat >issuer.json <<'PROFILE'
{"name": "Panadería La Señora S.R.L.", "address": "Av. Corrientes 1234, Ciudad Autónoma de Buenos Aires",
 "cuit": "20-11111111-2", "iibb": "901-123456-7", "activities_start": "2020-03-01", "vat_condition": 1,
 "footer": "Gracias por su compra."}
PROFILE
cat >sale.json <<'SALE'
{"PtoVta": 1, "CbteTipo": 6, "Concepto": 1, "DocTipo": 99, "DocNro": 0, "CondicionIVAReceptorId": 5,
 "ImpTotal": 121, "ImpNeto": 100, "ImpIVA": 21, "Iva": [{"Id": 5, "BaseImp": 100, "Importe": 21}],
 "receptor": {"name": "Consumidor Final"},
 "items": [{"description": "Medialunas de manteca", "quantity": 12, "unit_price": 8.25, "vat_rate_id": 5},
           {"description": "Café con leche", "quantity": 1, "unit_price": 22, "vat_rate_id": 5}]}
SALE
cli="$build/tools/cli/tarvoafip_cli"
"$cli" invoice --wsaa-url "$url/ws/services/LoginCms" --certificate host.p12 --password pw \
  --url "$url/wsfev1/service.asmx" --cuit 20111111112 --invoice sale.json --sale-id sample-1 >/dev/null
for format in pdf-a4:60 pdf-80mm:110; do
  "$cli" receipt --sale-id sample-1 --issuer issuer.json --format "${format%%:*}" --out voucher.pdf
  pdftoppm -r "${format##*:}" -png -singlefile voucher.pdf "$out/receipt-${format%%:*}"
done
mv "$out/receipt-pdf-a4.png" "$out/receipt-a4.png"
mv "$out/receipt-pdf-80mm.png" "$out/receipt-80mm.png"
echo "render-samples: $out/receipt-a4.png and $out/receipt-80mm.png"

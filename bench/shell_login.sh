#!/bin/sh
# The classic shell login that the library replaces: write a login ticket request, sign it with
# the openssl command, post the envelope with curl.
#   shell_login.sh WSAA_URL SERVICE KEY.pem CERT.pem DIRECTORY   (the answer lands in DIRECTORY/answer.xml)
set -eu
url=$1 service=$2 key=$3 cert=$4 dir=$5

now=$(date +%s)
generation=$(date -d "@$((now - 3600))" +%Y-%m-%dT%H:%M:%S)
expiration=$(date -d "@$((now + 43200))" +%Y-%m-%dT%H:%M:%S)
printf '<?xml version="1.0" encoding="utf-8"?><loginTicketRequest version="1.0"><header><uniqueId>%s</uniqueId><generationTime>%s</generationTime><expirationTime>%s</expirationTime></header><service>%s</service></loginTicketRequest>' \
  "$now" "$generation" "$expiration" "$service" >"$dir/tra.xml"

cms=$(openssl cms -sign -nodetach -outform PEM -signer "$cert" -inkey "$key" -in "$dir/tra.xml" | sed '/-----/d' | tr -d '\n')
printf '<soapenv:Envelope xmlns:soapenv="http://schemas.xmlsoap.org/soap/envelope/" xmlns:wsaa="http://wsaa.view.sua.dvadac.desein.afip.gov"><soapenv:Header/><soapenv:Body><wsaa:loginCms><wsaa:in0>%s</wsaa:in0></wsaa:loginCms></soapenv:Body></soapenv:Envelope>' \
  "$cms" >"$dir/login.xml"

curl -s -X POST -H 'Content-Type: text/xml;charset=UTF-8' -H 'SOAPAction: urn:LoginCms' \
  --data-binary "@$dir/login.xml" -o "$dir/answer.xml" "$url"

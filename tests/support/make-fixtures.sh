#!/bin/sh
# The certificates the tests sign with, made afresh for each run by the simulator and openssl.
#   make-fixtures.sh SIMULATOR OUTPUT_DIRECTORY
set -eu
simulator=$1
mkdir -p "$2"
cd "$2"
rm -f ./*.p12 ./*.pem

make() { "$simulator" --make-certificate "$@" >/dev/null; }
make signer.p12 --password pw --cn signer --cuit 20111111112
make expired.p12 --password pw --cn expired --cuit 20111111112 --expired
make ca.p12 --password pw --cn extra-ca

openssl pkcs12 -in signer.p12 -passin pass:pw -nodes -out signer.pem
openssl pkcs12 -in ca.p12 -passin pass:pw -nokeys -out ca.pem
# Packed as old tools do (RC2 and 3DES, SHA-1 MAC), with an extra CA, without a password.
openssl pkcs12 -export -legacy -in signer.pem -passout pass:pw -out legacy.p12
openssl pkcs12 -export -in signer.pem -certfile ca.pem -passout pass:pw -out with-ca.p12
openssl pkcs12 -export -in signer.pem -passout pass: -out nopass.p12
# Files that are no PKCS#12 bundle.
: >empty.p12
head -c 700 /dev/zero | tr '\0' Z >garbage.p12
head -c 900 signer.p12 >truncated.p12
cp signer.pem pem.p12

#!/usr/bin/env bash
# Makes the certificates of the TLS tests, benchmarks and tool runs into DIR.
# Nothing made here is ever committed: every run makes fresh keys.
#
# DIR/                 ca.crt and ca_bundle.crt (the CA), ca.key,
#                      server.crt/.key (CN localhost, DNS:localhost, IP:127.0.0.1),
#                      client.crt/.key, inter1.crt, inter2.crt, corrupt.pem
# DIR/one/             leaves under one intermediate; its ca.crt and
#                      ca_bundle.crt hold the CA and that intermediate
# DIR/two/             leaves under two intermediates; trust files hold all three
# DIR/othertype/       RSA leaf certificates with EC private keys
# DIR/rogue/           a self-signed CA of its own and leaves under it
# Every directory holds the file names a StreamSocket looks for, so each one
# can serve as a certificate directory on its own.
set -euo pipefail

if [ $# -ne 1 ]; then
  echo "usage: $0 DIR" >&2
  exit 2
fi
dir=$1
mkdir -p "$dir"
cd "$dir"

days=30
quiet() { "$@" >/dev/null 2>&1 || { echo "failed: $*" >&2; exit 1; }; }
rsa_key() { quiet openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out "$1"; }
ec_key() { quiet openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out "$1"; }

# ca NAME KEY SUBJECT [ISSUER_CRT ISSUER_KEY]: a CA certificate, self-signed
# without an issuer.
ca() {
  local name=$1 key=$2 subject=$3
  local ext="basicConstraints=critical,CA:TRUE
keyUsage=critical,keyCertSign,cRLSign
subjectKeyIdentifier=hash"
  if [ $# -eq 3 ]; then
    quiet openssl req -x509 -new -key "$key" -subj "$subject" -days "$days" -sha256 \
      -addext "basicConstraints=critical,CA:TRUE" -addext "keyUsage=critical,keyCertSign,cRLSign" \
      -out "$name"
  else
    quiet openssl req -new -key "$key" -subj "$subject" -out "$name.csr"
    printf '%s\nauthorityKeyIdentifier=keyid\n' "$ext" >"$name.ext"
    quiet openssl x509 -req -in "$name.csr" -CA "$4" -CAkey "$5" -CAcreateserial -days "$days" \
      -sha256 -extfile "$name.ext" -out "$name"
    rm -f "$name.csr" "$name.ext"
  fi
}

# leaf CRT KEY CN ISSUER_CRT ISSUER_KEY SERVER|CLIENT
leaf() {
  local crt=$1 key=$2 cn=$3
  local ext="basicConstraints=CA:FALSE
keyUsage=critical,digitalSignature,keyEncipherment
authorityKeyIdentifier=keyid"
  if [ "$6" = SERVER ]; then
    ext="$ext
extendedKeyUsage=serverAuth
subjectAltName=DNS:localhost,IP:127.0.0.1"
  else
    ext="$ext
extendedKeyUsage=clientAuth"
  fi
  printf '%s\n' "$ext" >"$crt.ext"
  quiet openssl req -new -key "$key" -subj "/CN=$cn" -out "$crt.csr"
  quiet openssl x509 -req -in "$crt.csr" -CA "$4" -CAkey "$5" -CAcreateserial -days "$days" \
    -sha256 -extfile "$crt.ext" -out "$crt"
  rm -f "$crt.csr" "$crt.ext"
}

# leaves DIR ISSUER_CRT ISSUER_KEY: server and client pairs in DIR
leaves() {
  mkdir -p "$1"
  rsa_key "$1/server.key"
  rsa_key "$1/client.key"
  leaf "$1/server.crt" "$1/server.key" localhost "$2" "$3" SERVER
  leaf "$1/client.crt" "$1/client.key" "corvanth test client" "$2" "$3" CLIENT
}

rsa_key ca.key
ca ca.crt ca.key "/CN=Corvanth Test CA"
cp ca.crt ca_bundle.crt
leaves . ca.crt ca.key

rsa_key inter1.key
ca inter1.crt inter1.key "/CN=Corvanth Test Intermediate 1" ca.crt ca.key
rsa_key inter2.key
ca inter2.crt inter2.key "/CN=Corvanth Test Intermediate 2" inter1.crt inter1.key

leaves one inter1.crt inter1.key
cat ca.crt inter1.crt >one/ca.crt
cp one/ca.crt one/ca_bundle.crt

leaves two inter2.crt inter2.key
cat ca.crt inter1.crt inter2.crt >two/ca.crt
cp two/ca.crt two/ca_bundle.crt

# An EC key beside an RSA certificate loads, and only the match check refuses it.
mkdir -p othertype
cp server.crt client.crt ca.crt ca_bundle.crt othertype/
ec_key othertype/server.key
ec_key othertype/client.key

mkdir -p rogue
rsa_key rogue/ca.key
ca rogue/ca.crt rogue/ca.key "/CN=Corvanth Rogue CA"
cp rogue/ca.crt rogue/ca_bundle.crt
leaves rogue rogue/ca.crt rogue/ca.key

# Armour that holds no certificate.
printf -- '-----BEGIN CERTIFICATE-----\nbm90IGEgY2VydGlmaWNhdGU=\n-----END CERTIFICATE-----\n' >corrupt.pem

rm -f ./*.srl one/*.srl two/*.srl rogue/*.srl
chmod 600 ./*.key one/*.key two/*.key othertype/*.key rogue/*.key

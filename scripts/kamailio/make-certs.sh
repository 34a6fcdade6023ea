#!/bin/bash
# Makes a throw-away CA and a server certificate for the test and demo SIP server.
#   make-certs.sh DIR [NAME...]
# DIR receives ca.pem, ca.key, server.pem (certificate + chain), server.key, and, for
# sofia-sip clients, cafile.pem (a copy of ca.pem). Each NAME is put in the server
# certificate's subjectAltName; an IPv4 address is added both as IP and as DNS entry,
# because some stacks compare names only. Default NAME: 127.0.0.1 and localhost.
set -eu
DIR=${1:?usage: make-certs.sh DIR [NAME...]}
shift
[ $# -gt 0 ] || set -- 127.0.0.1 localhost
command -v openssl >/dev/null || { echo "openssl is not installed (Debian package: openssl)" >&2; exit 1; }
mkdir -p "$DIR"
cd "$DIR"

san=""
for n in "$@"; do
    if [[ $n =~ ^[0-9.]+$ || $n == *:* ]]; then san="$san,IP:$n,DNS:$n"; else san="$san,DNS:$n"; fi
done
san=${san#,}

openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2 \
    -subj "/CN=ZarnRtc test CA" -keyout ca.key -out ca.pem \
    -addext "basicConstraints=critical,CA:TRUE" -addext "keyUsage=critical,keyCertSign,cRLSign" \
    2>/dev/null
openssl req -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -subj "/CN=$1" \
    -keyout server.key -out server.csr 2>/dev/null
printf 'subjectAltName=%s\nbasicConstraints=CA:FALSE\nextendedKeyUsage=serverAuth\n' "$san" >server.ext
openssl x509 -req -in server.csr -CA ca.pem -CAkey ca.key -CAcreateserial -days 2 \
    -extfile server.ext -out server.pem 2>/dev/null
rm -f server.csr server.ext ca.srl
cp ca.pem cafile.pem
chmod 600 ca.key server.key

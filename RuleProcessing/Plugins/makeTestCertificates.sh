#!/bin/sh
# Makes the test code-signing material in the build folder: a test root
# certificate authority and a code-signing certificate it issued. Never
# committed; the tests install the root into the test prefix's machine Root
# store, so that signature checks would hold on Windows as well.
#   makeTestCertificates.sh OUTDIR
set -eu
mkdir -p "$1"
cd "$1"
openssl req -x509 -newkey rsa:2048 -nodes -sha256 -days 3650 -keyout root.key -out root.crt \
    -subj "/CN=Orlemark Test Root/O=Varn Inc. Test" -addext "basicConstraints=critical,CA:true" \
    -addext "keyUsage=critical,keyCertSign,cRLSign" 2>/dev/null
openssl req -new -newkey rsa:2048 -nodes -sha256 -keyout signer.key -out signer.csr \
    -subj "/CN=Orlemark Test Plugin Signing/O=Varn Inc. Test" 2>/dev/null
printf '%s\n' "basicConstraints=critical,CA:false" "keyUsage=critical,digitalSignature" \
    "extendedKeyUsage=codeSigning" "subjectKeyIdentifier=hash" "authorityKeyIdentifier=keyid" > signer.ext
openssl x509 -req -in signer.csr -CA root.crt -CAkey root.key -CAcreateserial -sha256 -days 3650 \
    -extfile signer.ext -out signer.crt 2>/dev/null
cat signer.crt root.crt > chain.pem
openssl x509 -in root.crt -outform DER -out root.cer

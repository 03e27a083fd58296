#!/bin/sh
# Makes the test code-signing material in the build folder: a test root
# certificate authority and a code-signing certificate it issued. Never
# committed; the root is installed into the test prefix's machine Root store by
# the tests, so that signature checks would hold on Windows as well.
#   makeTestCertificates.sh OUTDIR
set -eu
out=$1
mkdir -p "$out"
cd "$out"

cat > root.cnf <<'CNF'
[req]
distinguished_name = dn
prompt = no
x509_extensions = v3_root
[dn]
CN = Orlemark Test Root
O = Varn Inc. Test
[v3_root]
basicConstraints = critical, CA:true
keyUsage = critical, keyCertSign, cRLSign
subjectKeyIdentifier = hash
CNF

cat > signer.cnf <<'CNF'
[req]
distinguished_name = dn
prompt = no
[dn]
CN = Orlemark Test Plugin Signing
O = Varn Inc. Test
[v3_signer]
basicConstraints = critical, CA:false
keyUsage = critical, digitalSignature
extendedKeyUsage = codeSigning
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid
CNF

openssl req -x509 -newkey rsa:2048 -nodes -sha256 -days 3650 \
    -keyout root.key -out root.crt -config root.cnf 2>/dev/null
openssl req -new -newkey rsa:2048 -nodes -sha256 \
    -keyout signer.key -out signer.csr -config signer.cnf 2>/dev/null
openssl x509 -req -in signer.csr -CA root.crt -CAkey root.key -CAcreateserial \
    -sha256 -days 3650 -extfile signer.cnf -extensions v3_signer -out signer.crt 2>/dev/null
cat signer.crt root.crt > chain.pem
openssl x509 -in root.crt -outform DER -out root.cer

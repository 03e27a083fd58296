#!/bin/sh
# Signs a freshly linked test plugin in place with the test signing
# certificate. With "copies" it first keeps an unsigned copy (NAME-unsigned.dll)
# and adds a signed copy with one changed byte (NAME-tampered.dll).
#   signTestPlugin.sh DLL SIGNINGDIR [copies]
set -eu
base=${1%.dll}
rm -f "$1.signed"
osslsigncode sign -certs "$2/chain.pem" -key "$2/signer.key" -h sha256 -n "Orlemark test plugin" \
    -in "$1" -out "$1.signed" >/dev/null
if [ "${3:-}" = copies ]; then
    cp "$1" "$base-unsigned.dll"
    cp "$1.signed" "$base-tampered.dll"
    # A letter of the DOS stub's text: covered by the signed hash, ignored by the loader.
    printf 'X' | dd of="$base-tampered.dll" bs=1 seek=80 conv=notrunc 2>/dev/null
fi
mv -f "$1.signed" "$1"

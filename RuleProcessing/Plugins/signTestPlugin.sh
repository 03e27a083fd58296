#!/bin/sh
# Signs a freshly linked test plugin in place with the test signing
# certificate. With "copies" it first keeps an unsigned copy (NAME-unsigned.dll)
# and adds a signed copy with one changed byte (NAME-tampered.dll).
#   signTestPlugin.sh DLL SIGNINGDIR [copies]
set -eu
dll=$1
dir=$2
copies=${3:-}
base=${dll%.dll}
signed=$dll.signed
rm -f "$signed"
osslsigncode sign -certs "$dir/chain.pem" -key "$dir/signer.key" -h sha256 \
    -n "Orlemark test plugin" -in "$dll" -out "$signed" >/dev/null
if [ "$copies" = copies ]; then
    cp "$dll" "$base-unsigned.dll"
    cp "$signed" "$base-tampered.dll"
    # A letter of the DOS stub's text: covered by the signed hash, ignored by the loader.
    printf 'X' | dd of="$base-tampered.dll" bs=1 seek=80 conv=notrunc 2>/dev/null
fi
mv -f "$signed" "$dll"

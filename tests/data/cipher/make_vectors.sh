#!/usr/bin/env bash
# Regenerates the cipher known-answer vectors with the openssl command line, which shares no code
# with bundlerun's cipher. Key "bravocharlie4207", IV "1357924680135792".
set -euo pipefail
cd "$(dirname "$0")"
KEY=627261766f636861726c696534323037
IV=31333537393234363830313335373932
printf '' > plain0.bin
printf '0123456789abcdef' > plain16.bin
printf '{"a":"b","c":"d"}' > plain17.bin
printf '{"LatestRom":{"version":"V2.0"},"n":"carrier"}\n' > plain47.bin
for n in 0 16 17 47; do
  # Standard PKCS#7 padding: what the device sends and what the server expects.
  openssl enc -aes-128-cbc -K "$KEY" -iv "$IV" -in "plain$n.bin" -out "cipher$n.bin"
  # What the device's decipher produces: the ciphertext plus one block of sixteen 0x10 bytes,
  # deciphered without removing any padding.
  { cat "cipher$n.bin"; printf '\x10%.0s' $(seq 16); } |
    openssl enc -d -aes-128-cbc -nopad -K "$KEY" -iv "$IV" -out "decipher$n.bin"
done

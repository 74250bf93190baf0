#!/usr/bin/env bash
# Makes the real BER test data: every certificate of the ca-certificates
# bundle converted to DER. Usage: scripts/ber-fixtures.sh OUTDIR
# Writes OUTDIR/certs/<name>.der and prints the number of certificates.
set -euo pipefail
out=${1:?usage: ber-fixtures.sh OUTDIR}
mkdir -p "$out/certs"

# The individual certificates of the package, or the hashed links of the
# system store when the package's own directory is absent.
shopt -s nullglob globstar
sources=(/usr/share/ca-certificates/**/*.crt)
[ ${#sources[@]} -eq 0 ] && sources=(/etc/ssl/certs/*.pem)
if [ ${#sources[@]} -eq 0 ]; then
  echo "ber-fixtures: no certificates found (is ca-certificates installed?)" >&2
  exit 1
fi

n=0
for src in "${sources[@]}"; do
  name=$(basename "$src")
  name=${name%.*}
  openssl x509 -in "$src" -outform DER -out "$out/certs/$name.der"
  n=$((n + 1))
done
echo "$n"

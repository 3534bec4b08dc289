#!/usr/bin/env bash
# The service's package as the tests install it, made at test time with the
# build's own script: signed by the throwaway test signer (fixtures_init made
# it), and an older build of it for the upgrade, whose executable differs.
#
#   make-packages.sh FIXTURES EXE VERSION
#
# Makes in FIXTURES/packaging: KorvantaCloudUS.msi (VERSION, signed),
# older/KorvantaCloudUS.exe and KorvantaCloudUS-older.msi (1.0.0, signed).
set -euo pipefail
fixtures="$1" exe="$2" version="$3"
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)"
out="$fixtures/packaging"
mkdir -p "$out/older"
cat "$fixtures/signer-korvanta.crt" "$fixtures/ca.crt" >"$out/chain.pem"
signer=("$out/chain.pem" "$fixtures/signer-korvanta.key")

bash "$root/packaging/build-msi.sh" "$exe" "$version" "$out/KorvantaCloudUS.msi" "${signer[@]}"
osslsigncode verify -CAfile "$fixtures/ca.crt" "$out/KorvantaCloudUS.msi" >"$out/verify.log" 2>&1 || {
    cat "$out/verify.log" >&2
    exit 1
}
# Bytes behind the image change the file, not what it does.
cp "$exe" "$out/older/KorvantaCloudUS.exe"
printf 'older build' >>"$out/older/KorvantaCloudUS.exe"
bash "$root/packaging/build-msi.sh" "$out/older/KorvantaCloudUS.exe" 1.0.0 \
    "$out/KorvantaCloudUS-older.msi" "${signer[@]}"

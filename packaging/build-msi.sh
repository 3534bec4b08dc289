#!/usr/bin/env bash
# Builds KorvantaCloudUS.msi from KorvantaCloudUS.wxs with wixl, signed when a
# certificate chain and key are given. Run by the build; the tests run it too.
#
#   build-msi.sh EXE VERSION OUTFILE [CHAIN.pem KEY.pem]
#
# EXE is the 64-bit service executable (packaged as KorvantaCloudUS.exe whatever
# its name here); VERSION the product version (the service's own, 24.7.0.57).
# CHAIN.pem: the signing certificate first, then the certificates that lead to
# the root; KEY.pem: the signing certificate's private key.
set -euo pipefail
die() {
    echo "build-msi.sh: $*" >&2
    exit 1
}
[[ $# -eq 3 || $# -eq 5 ]] || die "usage: build-msi.sh EXE VERSION OUTFILE [CHAIN.pem KEY.pem]"
exe="$1" version="$2" out="$3" chain="${4:-}" key="${5:-}"
wxs="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)/KorvantaCloudUS.wxs"
[[ -f $exe ]] || die "no executable $exe"
[[ $version =~ ^[0-9]+\.[0-9]+\.[0-9]+(\.[0-9]+)?$ ]] || die "bad version '$version'"

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
# The package takes the file by its own name, from a directory of plain ASCII.
cp "$exe" "$work/KorvantaCloudUS.exe"
(cd "$work" && wixl -a x64 -D "Version=$version" -o package.msi "$wxs") >"$work/wixl.log" 2>&1 ||
    die "wixl failed: $(<"$work/wixl.log")"

# wixl drops IncludeMaximum: set "maximum inclusive" (512) on the row that finds
# older builds, so that another build of the same version is replaced too, not
# installed beside it.
msiinfo export "$work/package.msi" Upgrade >"$work/Upgrade.idt"
fixed=0
while IFS= read -r line; do
    line="${line%$'\r'}" # msiinfo ends its lines with CR LF
    # Fields split at tabs with empty ones kept: code, min, max, language, attributes, remove, property.
    IFS=$'\x1f' read -r -a f <<<"${line//$'\t'/$'\x1f'}"
    if [[ ${#f[@]} -eq 7 && ${f[6]} == KVT_OLDER_BUILD && ${f[4]} =~ ^[0-9]+$ ]]; then
        f[4]=$((f[4] | 512)) fixed=1
        line="$(IFS=$'\t' && echo "${f[*]}")"
    fi
    printf '%s\r\n' "$line"
done <"$work/Upgrade.idt" >"$work/Upgrade.fixed"
((fixed)) || die "no row for older builds in the Upgrade table"
mv "$work/Upgrade.fixed" "$work/Upgrade.idt"
(cd "$work" && msibuild package.msi -i Upgrade.idt) || die "msibuild could not fix the Upgrade table"

if [[ -n $chain ]]; then
    [[ -f $chain && -f $key ]] || die "signing needs both the chain ($chain) and the key ($key)"
    osslsigncode sign -h sha256 -certs "$chain" -key "$key" \
        -n "Korvanta Cloud Client Update Service" -in "$work/package.msi" \
        -out "$work/signed.msi" >"$work/sign.log" 2>&1 || die "osslsigncode failed: $(<"$work/sign.log")"
    mv "$work/signed.msi" "$work/package.msi"
fi
# Complete or not at all.
mkdir -p "$(dirname "$out")"
cp "$work/package.msi" "$out.part.$$"
mv -f "$out.part.$$" "$out"

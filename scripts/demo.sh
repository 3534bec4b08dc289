#!/usr/bin/env bash
# The service end to end on a fresh Wine prefix: build, make a throwaway test CA
# and a signed sample package, install and start the service, push the package
# with the client tool, and show the result, the payload and the events.
#   scripts/demo.sh        registers the service with "KorvantaCloudUS.exe install"
#   scripts/demo.sh --msi  deploys it from its own package, KorvantaCloudUS.msi
set -euo pipefail
from_package=0
case "${1:-}" in
"") ;;
--msi) from_package=1 ;;
*)
    echo "usage: scripts/demo.sh [--msi]" >&2
    exit 2
    ;;
esac
root=$(cd "$(dirname "$0")/.." && pwd)
build="${KVT_BUILD:-$root/build}"
demo="$build/demo"

step() { printf '\n== %s\n' "$*"; }
winpath() { printf 'Z:%s' "${1//\//\\}"; }

step "Installing the Debian packages the project needs"
"$root/scripts/setup.sh"

step "Building"
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_TOOLCHAIN_FILE="$root/cmake/mingw-w64-x86_64.cmake" \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo > /dev/null
ninja -C "$build" KorvantaCloudUS KorvantaCloudUS_msi pushupdate tracetail kvt_svcctl kvt_trustca | tail -n 1
service_exe="$build/clients/services/winupdate/KorvantaCloudUS.exe"
service_msi="$build/packaging/KorvantaCloudUS.msi"
push_exe="$build/clients/tools/pushupdate/pushupdate.exe"
svcctl="$build/tools/kvt_svcctl.exe"

export WINEPREFIX="$demo/prefix" WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
if [ -d "$WINEPREFIX" ]; then wineserver -k 2> /dev/null || true; fi
rm -rf "$demo"
mkdir -p "$demo"

step "Creating a fresh Wine prefix ($WINEPREFIX)"
wine wineboot --init > /dev/null 2>&1
wineserver -w # let the first boot settle before services are started

step "Making a throwaway test CA and a signed sample package"
bash "$root/tests/fixtures/make-fixtures.sh" "$demo/fixtures"
bash "$root/tests/fixtures/make-fixtures.sh" "$demo/fixtures" package "Demo" korvanta \
    "$demo/KorvantaDemo.msi"
openssl x509 -in "$demo/fixtures/signer-korvanta.crt" -noout -subject

# Wine ends services when the prefix's last ordinary process exits: keep one
# waiting for the whole demonstration. Started first, it also starts the
# service manager, whose services inherit its debug channels: Wine prints every
# ReportEventW string on the eventlog channel, which goes to events.log.
mkfifo "$demo/keepalive"
WINEDEBUG=-all,err+eventlog,warn+eventlog,trace+eventlog \
    wine cmd /c pause < "$demo/keepalive" > /dev/null 2> "$demo/events.log" &
exec 7> "$demo/keepalive"
cleanup() {
    exec 7>&- || true
    wineserver -k 2> /dev/null || true
}
trap cleanup EXIT
sleep 1

step "Watching the report lines with the trace viewer: tracetail.exe --pid --module"
wine "$build/clients/tools/tracetail/tracetail.exe" --pid --module > "$demo/trace.log" 2>&1 &

step "Trusting the test CA in the prefix's machine root store"
wine "$build/tools/kvt_trustca.exe" "$(winpath "$demo/fixtures/ca.der")"

if ((from_package)); then
    step "Deploying the service from its package: msiexec /qn /i KorvantaCloudUS.msi"
    wine msiexec /qn /l*v "$(winpath "$demo/msiexec.log")" /i "$(winpath "$service_msi")"
    echo "msiexec log: $demo/msiexec.log"
    ls -l "$WINEPREFIX/drive_c/Program Files/Korvanta/Cloud/"
else
    step "Installing the service: KorvantaCloudUS.exe install"
    WINEDEBUG=-all,trace+eventlog wine "$service_exe" install 2>> "$demo/events.log" | od -c | head -n 5
fi
wine reg query 'HKLM\System\CurrentControlSet\Services\KORVANTACLOUDUS'

step "Starting, pausing and continuing the service"
wine "$svcctl" start KORVANTACLOUDUS
wine "$svcctl" pause KORVANTACLOUDUS
wine "$svcctl" continue KORVANTACLOUDUS

step "Pushing the signed package with the client tool"
set +e
wine "$push_exe" "$(winpath "$demo/KorvantaDemo.msi")" --timeout 60
code=$?
set -e
echo "pushupdate exit code: $code"

step "The package in the update directory and the installer record"
ls -l "$WINEPREFIX/drive_c/Program Files/Korvanta/Update/"
wine reg query 'HKLM\SOFTWARE\Korvanta\WebClient\Setups\Cloud' /v UpdateInstaller

step "The payload that msiexec installed"
payload="$WINEPREFIX/drive_c/Program Files (x86)/KorvantaTest/Demo/payload.txt"
for _ in $(seq 1 100); do [ -f "$payload" ] && break; sleep 0.1; done
echo "$payload:"
cat "$payload"

step "Stopping the service"
wine "$svcctl" stop KORVANTACLOUDUS

step "The report lines the trace viewer received"
cat "$demo/trace.log"

step "The service's events (ReportEventW, as Wine prints them)"
sleep 0.5
grep -a 'eventlog:ReportEventW' "$demo/events.log" | sed 's/^[0-9a-f]*:[a-z]*:eventlog:ReportEventW /  /'
exit "$code"

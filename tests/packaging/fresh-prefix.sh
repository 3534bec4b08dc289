#!/bin/sh
# Runs a Windows program under Wine in a prefix made fresh for this run: the
# package must install where nothing of the service was ever registered.
#   fresh-prefix.sh PREFIX WINE-RUN PROGRAM [ARGUMENTS...]
set -eu
WINEPREFIX="$1"
export WINEPREFIX
wine_run="$2"
shift 2
wineserver -k 2>/dev/null || true
wineserver -w 2>/dev/null || true
rm -rf "$WINEPREFIX"
"$wine_run" wineboot --init
# Until the first boot has settled the service manager refuses other starts.
wineserver -w
exec "$wine_run" "$@"

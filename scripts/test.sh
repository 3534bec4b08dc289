#!/usr/bin/env bash
# Builds everything and runs every test under Wine. Usage: scripts/test.sh [ctest options]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build="${KVT_BUILD:-$root/build}"

"$root/scripts/setup.sh"
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_TOOLCHAIN_FILE="$root/cmake/mingw-w64-x86_64.cmake" \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo > /dev/null
ninja -C "$build"
cd "$build"
ctest --output-on-failure -j2 "$@"

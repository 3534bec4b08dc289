#!/usr/bin/env bash
# Fetches and builds the references the benchmarks compare against, for the
# target, at bench time; nothing of them is committed:
#   mimalloc  - Debian's source package, fetched through a private deb-src list
#               made from the machine's own apt sources, cross-built static;
#   RapidJSON - Debian's rapidjson-dev (headers only);
#   nlohmann-json comes with the test setup already.
# Then reconfigures the build so that the benchmarks link them.
# Usage: bench/references.sh [builddir]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$(mkdir -p "${1:-$root/build}" && cd "${1:-$root/build}" && pwd)
refs="$build/benchrefs"
apt="$refs/apt"

if ! dpkg-query -W -f='${Status}' rapidjson-dev 2>/dev/null | grep -q "install ok installed"; then
    sudo_cmd=""
    [ "$(id -u)" -eq 0 ] || sudo_cmd="sudo"
    $sudo_cmd apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -qq rapidjson-dev dpkg-dev >/dev/null
fi

if [ ! -f "$refs/mimalloc/lib/libmimalloc-static.a" ]; then
    mkdir -p "$apt/sources.list.d" "$apt/lists/partial" "$apt/archives/partial" "$refs/src"
    # The machine's own Debian sources, as source entries.
    for f in /etc/apt/sources.list.d/*.sources; do
        [ -f "$f" ] && sed 's/^Types:.*/Types: deb-src/' "$f"
        echo
    done > "$apt/sources.list.d/references.sources"
    options=(-o "Dir::Etc::SourceList=/dev/null" -o "Dir::Etc::SourceParts=$apt/sources.list.d"
             -o "Dir::State::Lists=$apt/lists" -o "Dir::Cache::Archives=$apt/archives"
             -o "Debug::NoLocking=1")
    apt-get "${options[@]}" update -qq
    (cd "$refs/src" && rm -rf mimalloc-* && apt-get "${options[@]}" source -qq mimalloc)
    source_dir=$(find "$refs/src" -maxdepth 1 -type d -name 'mimalloc-*' | head -n1)
    cmake -S "$source_dir" -B "$refs/mimalloc-build" -G Ninja \
        -DCMAKE_TOOLCHAIN_FILE="$root/cmake/mingw-w64-x86_64.cmake" -DCMAKE_BUILD_TYPE=Release \
        -DMI_BUILD_SHARED=OFF -DMI_BUILD_OBJECT=OFF -DMI_BUILD_TESTS=OFF -DMI_OVERRIDE=OFF \
        -DCMAKE_INSTALL_PREFIX="$refs/mimalloc" -DMI_INSTALL_TOPLEVEL=ON > "$refs/mimalloc-build.log"
    ninja -C "$refs/mimalloc-build" install >> "$refs/mimalloc-build.log"
fi

configure=()
[ -f "$build/CMakeCache.txt" ] || configure=(-G Ninja
    -DCMAKE_TOOLCHAIN_FILE="$root/cmake/mingw-w64-x86_64.cmake" -DCMAKE_BUILD_TYPE=RelWithDebInfo)
cmake -S "$root" -B "$build" "${configure[@]}" -DKVT_BENCH_REFERENCES="$refs" > /dev/null
echo "references ready in $refs; build the benchmarks with: ninja -C $build alloc_bench utf_bench json_bench"

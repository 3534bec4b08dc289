#!/usr/bin/env bash
# Installs every Debian package the project needs. Idempotent: safe to run before each build.
set -euo pipefail
packages=(
    cmake ninja-build clang-format
    g++-mingw-w64-x86-64-posix binutils-mingw-w64-x86-64
    wine wine64
    googletest nlohmann-json3-dev
    wixl msitools osslsigncode openssl
)
missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
    sudo_cmd=""
    [ "$(id -u)" -eq 0 ] || sudo_cmd="sudo"
    echo "setup: installing ${missing[*]}"
    $sudo_cmd apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -qq "${missing[@]}" >/dev/null
fi

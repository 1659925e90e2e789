#!/usr/bin/env bash
# Installs the Debian 12 packages that building and testing Tessera need, and
# only those that are missing: on a machine that has them all it does nothing.
#
#   scripts/deps.sh            compilers, CMake, Ninja, Boost, GoogleTest,
#                              Expat, the mingw-w64 cross compiler and Wine
#   scripts/deps.sh --bench    the same plus the peer libraries the
#                              benchmarks compare against
set -euo pipefail

packages=(
    build-essential cmake ninja-build pkg-config
    libboost1.81-dev libboost-stacktrace1.81-dev
    libgtest-dev googletest libbenchmark-dev libexpat1-dev
    g++-mingw-w64-x86-64-posix wine64
)
for arg in "$@"; do
    case "$arg" in
        --bench) packages+=(libpoco-dev libspdlog-dev libfmt-dev libsqlite3-dev) ;;
        *) echo "deps.sh: unknown option $arg" >&2; exit 2 ;;
    esac
done

missing=()
for p in "${packages[@]}"; do
    status=$(dpkg-query -W -f='${db:Status-Status}' "$p" 2>/dev/null || true)
    [[ "$status" == installed ]] || missing+=("$p")
done

if [[ ${#missing[@]} -eq 0 ]]; then
    echo "deps: all ${#packages[@]} packages present"
    exit 0
fi

sudo=()
if [[ $(id -u) -ne 0 ]]; then
    command -v sudo >/dev/null || { echo "deps: need root (or sudo) to install: ${missing[*]}" >&2; exit 1; }
    sudo=(sudo)
fi

echo "deps: installing ${missing[*]}"
log=$(mktemp)
export DEBIAN_FRONTEND=noninteractive
if ! { "${sudo[@]}" apt-get update -qq &&
       "${sudo[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"; } >"$log" 2>&1 </dev/null; then
    tail -n 40 "$log" >&2
    rm -f "$log"
    echo "deps: installation failed" >&2
    exit 1
fi
rm -f "$log"
echo "deps: installed ${#missing[@]} package(s)"

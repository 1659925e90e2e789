#!/usr/bin/env bash
# Installs the Debian 12 packages that building and testing Tessera need, and
# only those that are missing: on a machine that has them all it does nothing.
#
#   scripts/deps.sh            compilers, CMake, Ninja, Boost, GoogleTest,
#                              Expat, the mingw-w64 cross compiler and Wine,
#                              clang and libFuzzer for the fuzz targets,
#                              promtool (package prometheus: the tests check
#                              the counters' exposition with it), and the
#                              HTTP peers the server is tested against
#                              (curl, Python's http.client, wrk)
#   scripts/deps.sh --bench    the same plus the peer libraries the
#                              benchmarks compare against
set -euo pipefail

packages=(
    build-essential cmake ninja-build pkg-config
    libboost1.81-dev libboost-stacktrace1.81-dev
    libgtest-dev googletest libbenchmark-dev libexpat1-dev
    g++-mingw-w64-x86-64-posix wine64
    clang-14 libclang-rt-14-dev dpkg-dev clang-format
    prometheus
    curl python3 wrk
)
for arg in "$@"; do
    case "$arg" in
        --bench) packages+=(libpoco-dev libspdlog-dev libfmt-dev libboost-filesystem1.81-dev libsqlite3-dev nginx-light) ;;
        *) echo "deps.sh: unknown option $arg" >&2; exit 2 ;;
    esac
done

# The Windows leg builds Expat from Debian's own source package (apt-get
# source), which needs deb-src entries for the archive the machine already
# uses: they are added, once, beside its deb entries.
source_list=/etc/apt/sources.list.d/tessera-deb-src.sources
need_sources=0
if ! grep -Eqs '^(deb-src|Types:.*deb-src)' /etc/apt/sources.list /etc/apt/sources.list.d/*; then
    need_sources=1
fi

missing=()
for p in "${packages[@]}"; do
    status=$(dpkg-query -W -f='${db:Status-Status}' "$p" 2>/dev/null || true)
    [[ "$status" == installed ]] || missing+=("$p")
done

if [[ ${#missing[@]} -eq 0 && $need_sources -eq 0 ]]; then
    echo "deps: all ${#packages[@]} packages present"
    exit 0
fi

sudo=()
if [[ $(id -u) -ne 0 ]]; then
    command -v sudo >/dev/null || { echo "deps: need root (or sudo) to install: ${missing[*]} (and deb-src entries)" >&2; exit 1; }
    sudo=(sudo)
fi

if [[ $need_sources -eq 1 ]]; then
    if [[ -f /etc/apt/sources.list.d/debian.sources ]]; then
        sed -E 's/^Types:.*/Types: deb-src/' /etc/apt/sources.list.d/debian.sources |
            "${sudo[@]}" tee "$source_list" >/dev/null
    else
        grep -Es '^deb ' /etc/apt/sources.list | sed -E 's/^deb /deb-src /' |
            "${sudo[@]}" tee "$source_list" >/dev/null
    fi
    echo "deps: added deb-src entries ($source_list)"
fi
if [[ ${#missing[@]} -eq 0 ]]; then
    "${sudo[@]}" apt-get update -qq </dev/null >/dev/null 2>&1 || { echo "deps: apt-get update failed" >&2; exit 1; }
    exit 0
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

#!/usr/bin/env bash
# Builds Expat for the Windows leg from Debian's own source package, with the
# mingw-w64 cross toolchain, into <dir>/install (a static library and its
# headers). Run by CMake when it configures the windows-x64 preset, once per
# build tree: it does nothing when <dir>/install is complete.
#
#   scripts/expat-mingw.sh <dir> <toolchain file>
#
# `apt-get source` needs deb-src entries, which scripts/deps.sh adds.
set -euo pipefail

dir=$1
toolchain=$2
install="$dir/install"
[[ -f "$install/lib/libexpat.a" && -f "$install/include/expat.h" ]] && exit 0

rm -rf "$dir/source" "$dir/build"
mkdir -p "$dir/source"
cd "$dir/source"
# The archive's current source package; where the mirror lacks it (a security
# update listed before it is mirrored), the release's own.
if ! apt-get source -qq expat >fetch.log 2>&1 </dev/null; then
    codename=$(. /etc/os-release && echo "${VERSION_CODENAME:-bookworm}")
    rm -rf -- expat-* expat_*
    if ! apt-get source -qq "expat/$codename" >>fetch.log 2>&1 </dev/null; then
        cat fetch.log >&2
        echo "expat-mingw: apt-get source expat failed; scripts/deps.sh adds the deb-src entries it needs" >&2
        exit 1
    fi
fi
source_dir=$(find "$dir/source" -mindepth 2 -maxdepth 2 -type d -name expat -path '*/expat-*/expat' | head -n 1)
[[ -n $source_dir ]] || { echo "expat-mingw: no expat source tree in $dir/source" >&2; exit 1; }

# Debian's patches test "XML_DTD == 1", as its autotools build defines it;
# the CMake template (the tarball has no configure script) defines it empty.
sed -i 's/^#cmakedefine XML_DTD$/#cmakedefine XML_DTD 1/' "$source_dir/expat_config.h.cmake"
cmake -S "$source_dir" -B "$dir/build" -G Ninja \
    -DCMAKE_TOOLCHAIN_FILE="$toolchain" -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_INSTALL_PREFIX="$install" -DCMAKE_INSTALL_LIBDIR=lib \
    -DEXPAT_SHARED_LIBS=OFF -DEXPAT_BUILD_TOOLS=OFF -DEXPAT_BUILD_EXAMPLES=OFF \
    -DEXPAT_BUILD_TESTS=OFF -DEXPAT_BUILD_DOCS=OFF -DEXPAT_BUILD_PKGCONFIG=OFF \
    >"$dir/configure.log" 2>&1 </dev/null || { tail -n 30 "$dir/configure.log" >&2; exit 1; }
cmake --build "$dir/build" -j 2 >"$dir/build.log" 2>&1 </dev/null ||
    { tail -n 30 "$dir/build.log" >&2; exit 1; }
cmake --install "$dir/build" >"$dir/install.log" 2>&1 </dev/null ||
    { tail -n 30 "$dir/install.log" >&2; exit 1; }
# The library's name varies with the build's options; one name for the caller.
if [[ ! -f "$install/lib/libexpat.a" ]]; then
    built=$(find "$install/lib" -maxdepth 1 -name 'libexpat*.a' | head -n 1)
    [[ -n $built ]] || { echo "expat-mingw: no static library installed" >&2; exit 1; }
    cp "$built" "$install/lib/libexpat.a"
fi
echo "expat-mingw: built $(basename "$(dirname "$source_dir")") into $install"

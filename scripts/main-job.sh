#!/usr/bin/env bash
# Builds the release library, installs it into build/install-linux-release,
# then builds and runs the example programs against the installed package
# (the logging one leaves its rolled files in build/linux-examples/example-logs):
# the object-model one once through CMake's find_package(Tessera CONFIG), once through pkg-config.
# Installs missing Debian packages first.
set -euo pipefail

cd "$(dirname "$0")/.."
root=$(pwd)
prefix="$root/build/install-linux-release"
examples="$root/build/linux-examples"

scripts/deps.sh

echo "==== build linux-release"
cmake --preset linux-release -DTESSERA_BUILD_TESTS=OFF >/dev/null
cmake --build --preset linux-release

echo "==== install into $prefix"
rm -rf "$prefix"
cmake --install build/linux-release --prefix "$prefix" | tail -n 3

echo "==== example through find_package(Tessera CONFIG)"
cmake -S examples -B "$examples" -G Ninja -DCMAKE_BUILD_TYPE=Release \
      -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$examples" -j2
"$examples/object_model"

echo "==== logging configured from service.xml (run in $examples)"
(cd "$examples" && ./logging_service service.xml)
ls -l "$examples/example-logs"

echo "==== a journaled file operation left unfinished by a crash, then recovered"
demo="$examples/journal-demo"
rm -rf "$demo" && mkdir -p "$demo"
status=0
(cd "$demo" && "$examples/journal_service" start) || status=$?
[[ $status -eq 3 ]] || { echo "journal_service start: expected its crash (exit 3), got $status"; exit 1; }
(cd "$demo" && { "$prefix/bin/tessera-journal" list journals || [[ $? -eq 1 ]]; })
(cd "$demo" && "$examples/journal_service" recover && "$examples/journal_service" run &&
 "$prefix/bin/tessera-journal" list journals && find work | sort)

echo "==== work items, a timer and TCP through the thread pool"
"$examples/async_service"

echo "==== an HTTP service answering a request"
"$examples/http_service"

echo "==== example through pkg-config"
libdir=$(PKG_CONFIG_PATH="$prefix/lib/pkgconfig" pkg-config --variable=libdir tessera)
# shellcheck disable=SC2046  # the flags are meant to split
g++ -std=c++17 -Wall -Wextra -Werror -o "$examples/object_model_pc" examples/objectModel.cpp \
    $(PKG_CONFIG_PATH="$prefix/lib/pkgconfig" pkg-config --cflags --libs tessera) \
    -pthread -Wl,-rpath,"$libdir"
"$examples/object_model_pc" >/dev/null
echo "pkg-config build: ok (tessera $(PKG_CONFIG_PATH="$prefix/lib/pkgconfig" pkg-config --modversion tessera))"

echo "main-job: done"

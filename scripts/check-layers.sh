#!/usr/bin/env bash
# Checks the include rules of the layers (README, "Layers"), printing each
# violation as "layers: <file>:<line>: <include> (<rule>)":
#
#   posix/, win32/     include only "system/platform/...", their own
#                      directory's headers ("win32/support.h"),
#                      <tessera/...> and the standard and system headers;
#                      never another directory of the project ("asio/...",
#                      "system/..." outside system/platform, "main/...",
#                      "http/...", "journal/...", "perfCounter/...").
#   system/platform/*.h
#                      include only "system/platform/...", <tessera/...>
#                      and standard headers: no Boost, nothing above.
#
# Exit status 1 when a violation is not in the list of known ones below.
set -uo pipefail
cd "$(dirname "$0")/.."

# Known violations, still to be moved, as "<file>:<included header>"; none
# now. A line that no longer matches fails the check too, so the list only
# shrinks.
known=()

declare -A seen=()
bad=0
known_hits=0

is_known() {
    local entry
    for entry in "${known[@]}"; do
        [[ $entry == "$1" ]] && return 0
    done
    return 1
}

report() { # file line header rule
    if is_known "$1:$3"; then
        seen["$1:$3"]=1
        known_hits=$((known_hits + 1))
        return
    fi
    echo "layers: $1:$2: $3 ($4)"
    bad=$((bad + 1))
}

# Each include of `file` as "<line> <quote-or-angle> <header>".
includes() {
    grep -n -E '^[[:space:]]*#[[:space:]]*include' "$1" |
        sed -E 's/^([0-9]+):[[:space:]]*#[[:space:]]*include[[:space:]]*([<"])([^">]+)[">].*/\1 \2 \3/'
}

mapfile -t backends < <(git ls-files 'posix/*.cpp' 'posix/*.h' 'win32/*.cpp' 'win32/*.h')
for f in "${backends[@]}"; do
    dir=${f%%/*}
    while read -r line kind header; do
        if [[ $kind == '"' ]]; then
            case $header in
            system/platform/*) ;;
            "$dir"/*.h) ;;
            *) report "$f" "$line" "$header" "a back end includes only system/platform/ and its own directory's headers" ;;
            esac
        fi
    done < <(includes "$f")
done

mapfile -t interfaces < <(git ls-files 'system/platform/*.h')
for f in "${interfaces[@]}"; do
    while read -r line kind header; do
        if [[ $kind == '"' ]]; then
            case $header in
            system/platform/*) ;;
            *) report "$f" "$line" "$header" "a platform interface includes only system/platform/ and public headers" ;;
            esac
        else
            case $header in
            boost/*) report "$f" "$line" "$header" "a platform interface includes no Boost" ;;
            esac
        fi
    done < <(includes "$f")
done

# A known violation that is gone is taken off the list.
stale=0
for entry in "${known[@]}"; do
    if [[ -z ${seen[$entry]:-} ]]; then
        echo "layers: known violation '$entry' no longer occurs: remove it from scripts/check-layers.sh"
        stale=$((stale + 1))
    fi
done

echo "layers: ${#backends[@]} back-end files and ${#interfaces[@]} platform headers checked," \
    "$bad new violations, $known_hits known (being moved)"
[[ $bad -eq 0 && $stale -eq 0 ]]

#!/usr/bin/env bash
# Checks that every C++ file git tracks is formatted as .clang-format says;
# lists the files that are not. With --fix, formats them in place. Then checks
# the include rules of the layers (scripts/check-layers.sh).
#
#   scripts/check-format.sh          check (exit 1 when a file differs)
#   scripts/check-format.sh --fix    format every file
set -uo pipefail
cd "$(dirname "$0")/.."

fix=0
[[ ${1:-} == --fix ]] && fix=1

mapfile -t files < <(git ls-files '*.h' '*.cpp')
if [[ $fix -eq 1 ]]; then
    clang-format -i "${files[@]}"
    exit 0
fi
bad=0
for f in "${files[@]}"; do
    if ! clang-format --dry-run --Werror "$f" >/dev/null 2>&1; then
        echo "format: $f differs from .clang-format (scripts/check-format.sh --fix)"
        bad=$((bad + 1))
    fi
done
echo "format: ${#files[@]} files checked, $bad to format"
layers=0
scripts/check-layers.sh || layers=1
[[ $bad -eq 0 && $layers -eq 0 ]]

#!/usr/bin/env bash
# Builds the libFuzzer targets of fuzz/ (the linux-fuzz preset: clang 14,
# AddressSanitizer and UndefinedBehaviorSanitizer) and runs one or all of them.
#
#   scripts/fuzz.sh                      every target for 60 s
#   scripts/fuzz.sh xmlConfig 1800       one target for half an hour
#   scripts/fuzz.sh --jobs 2 all 30      two targets at a time (what CI runs)
#   nice -n 19 scripts/fuzz.sh ...       a long run that leaves the machine usable
#
# Each target starts from its seed corpus in fuzz/corpus/<target>/ (never
# written to) and from the inputs earlier runs found, kept out of the tree in
# build/fuzz/corpus/<target>/. Inputs that crash, time out (over 1 s) or run
# out of memory go to build/fuzz/crashes/<target>/; their paths are printed.
# Replay one with: build/linux-fuzz/fuzz/tessera_fuzz_<target> <file>
# Logs are in build/logs/fuzz-<target>.log. Exits non-zero when a target fails.
set -uo pipefail

cd "$(dirname "$0")/.."
root=$(pwd)

jobs=1
args=()
while [[ $# -gt 0 ]]; do
    case "$1" in
        --jobs) jobs=$2; shift 2 ;;
        -h|--help) sed -n '2,16p' "$0"; exit 0 ;;
        *) args+=("$1"); shift ;;
    esac
done
target=${args[0]:-all}
seconds=${args[1]:-60}

scripts/deps.sh >/dev/null || { echo "fuzz: installing dependencies failed"; exit 1; }

logs="$root/build/logs"
mkdir -p "$logs"
if ! { cmake --preset linux-fuzz && cmake --build --preset linux-fuzz; } >"$logs/fuzz-build.log" 2>&1 </dev/null; then
    tail -n 40 "$logs/fuzz-build.log"
    echo "fuzz: build failed (build/logs/fuzz-build.log)"
    exit 1
fi

targets=()
for source in fuzz/*.cpp; do
    name=$(basename "$source" .cpp)
    [[ $target == all || $target == "$name" ]] && targets+=("$name")
done
if [[ ${#targets[@]} -eq 0 ]]; then
    echo "fuzz: no target named $target (there are: $(cd fuzz && ls ./*.cpp | sed 's|./||; s|\.cpp||' | tr '\n' ' '))"
    exit 2
fi

# Runs one target; prints one line of results and returns non-zero on a finding.
run() {
    local name=$1
    local program="$root/build/linux-fuzz/fuzz/tessera_fuzz_$name"
    local corpus="$root/build/fuzz/corpus/$name" crashes="$root/build/fuzz/crashes/$name/"
    local log="$logs/fuzz-$name.log"
    mkdir -p "$corpus" "$crashes"
    local options=(-max_total_time="$seconds" -timeout=1 -rss_limit_mb=2048 -max_len=4096
                   -print_final_stats=1 -artifact_prefix="$crashes")
    [[ -f fuzz/$name.dict ]] && options+=(-dict="fuzz/$name.dict")
    local seeds=()
    [[ -d fuzz/corpus/$name ]] && seeds+=("fuzz/corpus/$name")
    # New inputs go to the first directory only: the one outside the tree.
    ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1}" UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1}" \
        "$program" "${options[@]}" "$corpus" "${seeds[@]}" >"$log" 2>&1 </dev/null
    local status=$?
    local runs
    runs=$(sed -nE 's/^stat::number_of_executed_units: *([0-9]+).*/\1/p' "$log" | tail -n 1)
    if [[ $status -eq 0 ]]; then
        printf 'fuzz: %-18s PASS  %s runs in %ss, corpus %s\n' "$name" "${runs:-?}" "$seconds" \
            "$(find "$corpus" -type f | wc -l)"
        return 0
    fi
    printf 'fuzz: %-18s FAIL  (exit %d) after %s runs; log build/logs/fuzz-%s.log\n' "$name" "$status" \
        "${runs:-?}" "$name"
    grep -E 'ERROR: |FUZZ CHECK FAILED|runtime error|SUMMARY' "$log" | head -n 5 | sed 's/^/    /'
    sed -nE 's/.*Test unit written to (.*)$/    input: \1/p' "$log"
    return 1
}

passed=0
failed=0
pids=()
wait_one() {
    if wait "${pids[0]}"; then passed=$((passed + 1)); else failed=$((failed + 1)); fi
    pids=("${pids[@]:1}")
}
for name in "${targets[@]}"; do
    [[ ${#pids[@]} -ge $jobs ]] && wait_one
    run "$name" &
    pids+=($!)
done
while [[ ${#pids[@]} -gt 0 ]]; do wait_one; done

echo "fuzz: $passed passed, $failed failed"
[[ $failed -eq 0 ]]

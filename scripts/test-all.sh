#!/usr/bin/env bash
# Checks the sources' format (scripts/check-format.sh), then builds and tests
# every leg: Linux debug, Linux with ASan+UBSan, Linux with
# TSan, Windows x64 (cross-built with mingw-w64, run under Wine), and the
# fuzz targets for 30 s each (scripts/fuzz.sh; a crash fails the leg).
# Installs missing Debian packages first. Exits non-zero when any leg fails.
#
#   scripts/test-all.sh                 all legs
#   scripts/test-all.sh linux-debug     only the legs named
#   scripts/test-all.sh --under-load [legs...]
#                                       the same legs with two busy processes
#                                       per core (nproc) running beside them,
#                                       at the tests' own priority, for the
#                                       whole run: a test's verdict must not
#                                       depend on the machine's speed
#
# Logs of each step go to build/logs/<leg>-<step>.log.
set -uo pipefail

cd "$(dirname "$0")/.."
root=$(pwd)

scripts/deps.sh || { echo "test-all: installing dependencies failed"; exit 1; }

under_load=0
legs=()
for arg in "$@"; do
    if [[ $arg == --under-load ]]; then under_load=1; else legs+=("$arg"); fi
done
[[ ${#legs[@]} -gt 0 ]] || legs=(format linux-debug linux-asan linux-tsan windows-x64 fuzz)

# With --under-load: two busy loops per core, stopped when the run ends (the
# EXIT trap; INT and TERM take effect once the running step is over); each
# also ends by itself within a moment of the script's end, whatever ended it.
busy_pids=()
stop_load() {
    local pid
    for pid in "${busy_pids[@]}"; do kill "$pid" 2>/dev/null; done
    for pid in "${busy_pids[@]}"; do wait "$pid" 2>/dev/null; done
    busy_pids=()
}
if [[ $under_load -eq 1 ]]; then
    trap stop_load EXIT
    trap 'exit 130' INT
    trap 'exit 143' TERM
    for ((i = 0; i < 2 * $(nproc); i++)); do
        nice -n 0 sh -c 'while kill -0 "$1" 2>/dev/null; do
                             i=0; while [ $i -lt 100000 ]; do i=$((i + 1)); done
                         done' busy-loop $$ </dev/null >/dev/null 2>&1 &
        busy_pids+=($!)
    done
    echo "test-all: under load: ${#busy_pids[@]} busy processes on $(nproc) cores"
fi

logs="$root/build/logs"
mkdir -p "$logs"

# Runs one step of a leg with its output in a log; shows the log's end when
# the step fails.
step() {
    local leg=$1 name=$2
    shift 2
    local log="$logs/$leg-$name.log"
    if "$@" >"$log" 2>&1 </dev/null; then
        return 0
    fi
    echo "---- $leg: $name failed; last lines of $log:"
    tail -n 60 "$log"
    return 1
}

wine_prefix() { echo "$root/build/windows-x64/wineprefix"; }

# Creates the leg's own Wine prefix once, before tests run in parallel, and
# starts its server and services for the whole run, detached from every
# output. Otherwise the test that happens to start them (the first one, or
# one after the server ended between two tests on a loaded machine) lends
# them its output, which then stays open after the test, and ctest waits for
# it until the test's time-out.
prepare_wine() {
    local prefix
    prefix=$(wine_prefix)
    if [[ ! -f "$prefix/system.reg" ]]; then
        WINEPREFIX="$prefix" WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml=" \
            /usr/lib/wine/wine64 wineboot --init &&
            WINEPREFIX="$prefix" /usr/lib/wine/wineserver -w || return 1
    fi
    # (A server already running for the prefix is as good: its status is
    # not the step's.)
    WINEPREFIX="$prefix" setsid /usr/lib/wine/wineserver -p </dev/null >/dev/null 2>&1 || true
    WINEPREFIX="$prefix" WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml=" \
        setsid /usr/lib/wine/wine64 wineboot </dev/null >/dev/null 2>&1
}

# Stops the prefix's server so that nothing of the run stays behind.
stop_wine() {
    WINEPREFIX="$(wine_prefix)" /usr/lib/wine/wineserver -k >/dev/null 2>&1 || true
}

summary=()
total_passed=0
total_failed=0
failed_legs=0
run_start=$(date +%s)

for leg in "${legs[@]}"; do
    echo "==== $leg"
    start=$(date +%s)
    result=PASS
    detail=""
    if [[ $leg == format ]]; then
        # The sources as .clang-format says; counted as one test.
        if step format check scripts/check-format.sh; then
            total_passed=$((total_passed + 1))
            detail="every C++ file formatted"
        else
            total_failed=$((total_failed + 1))
            result=FAIL; detail="files differ from .clang-format"
        fi
    elif [[ $leg == fuzz ]]; then
        # Each target counts as one test: "fuzz: 3 passed, 0 failed".
        log="$logs/fuzz-run.log"
        scripts/fuzz.sh --jobs 2 all 30 </dev/null 2>&1 | tee "$log"
        status=${PIPESTATUS[0]}
        line=$(grep -E '^fuzz: [0-9]+ passed, [0-9]+ failed' "$log" | tail -n 1)
        if [[ -n $line ]]; then
            fpassed=$(sed -E 's/^fuzz: ([0-9]+) passed.*/\1/' <<<"$line")
            ffailed=$(sed -E 's/.* ([0-9]+) failed.*/\1/' <<<"$line")
            total_passed=$((total_passed + fpassed))
            total_failed=$((total_failed + ffailed))
            detail="$fpassed of $((fpassed + ffailed)) fuzz targets passed"
        else
            detail="fuzz targets did not run"
        fi
        [[ $status -eq 0 && -n $line ]] || result=FAIL
    elif ! step "$leg" configure cmake --preset "$leg"; then
        result=FAIL; detail="configure failed"
    elif ! step "$leg" build cmake --build --preset "$leg"; then
        result=FAIL; detail="build failed"
    else
        if [[ $leg == windows-x64 ]] && ! step "$leg" wine-prefix prepare_wine; then
            result=FAIL; detail="Wine prefix could not be created"
        else
            log="$logs/$leg-test.log"
            ctest --preset "$leg" </dev/null 2>&1 | tee "$log"
            status=${PIPESTATUS[0]}
            # "100% tests passed, 0 tests failed out of 57"
            line=$(grep -E '^[0-9]+% tests passed, [0-9]+ tests? failed out of [0-9]+' "$log" | tail -n 1)
            if [[ -n $line ]]; then
                failed=$(sed -E 's/.* ([0-9]+) tests? failed out of.*/\1/' <<<"$line")
                count=$(sed -E 's/.*out of ([0-9]+).*/\1/' <<<"$line")
                total_passed=$((total_passed + count - failed))
                total_failed=$((total_failed + failed))
                detail="$((count - failed)) of $count tests passed"
            else
                detail="ctest reported no results"
            fi
            [[ $status -eq 0 && -n $line ]] || result=FAIL
        fi
        [[ $leg == windows-x64 ]] && stop_wine
    fi
    seconds=$(($(date +%s) - start))
    [[ $result == PASS ]] || failed_legs=$((failed_legs + 1))
    summary+=("$(printf '%-12s %s  %s (%ds)' "$leg" "$result" "$detail" "$seconds")")
done

echo
echo "==== summary ($(($(date +%s) - run_start))s)"
for s in "${summary[@]}"; do echo "$s"; done
echo "tests: $total_passed passed, $total_failed failed"
[[ $failed_legs -eq 0 ]]

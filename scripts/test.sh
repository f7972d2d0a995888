#!/usr/bin/env bash
# Build everything and pass every test: the "default" preset, then the
# "asan" preset (AddressSanitizer, LeakSanitizer and UBSan), each twice: with
# Python's shared interpreter and with isolated interpreters (the thread and stress
# tests only, under the sanitizers); then the fuzz
# targets for a bounded number of inputs each ("fuzz" preset: libFuzzer with
# ASan and UBSan), then the thread and stress tests under ThreadSanitizer
# ("tsan" preset), also twice. Prints how long each stage took.
# Installs missing Debian packages with apt-get and finds CPython 3.13 under
# the pyenv root or the system. Prints "N passed, 0 failed" when all pass.
# TALA_TEST_JOBS sets the number of tests ctest runs at once (default 2).
set -euo pipefail

# shellcheck source=scripts/lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

TALA_TEST_JOBS="${TALA_TEST_JOBS:-2}"
[[ "$TALA_TEST_JOBS" =~ ^[1-9][0-9]*$ ]] ||
    tala_die "TALA_TEST_JOBS must be a positive whole number, not '$TALA_TEST_JOBS'."

total_passed=0

# run_ctest PRESET BUILD_DIR [LAYOUT [CTEST_ARGS...]]: run the preset's tests, stop on
# failure, and add the number of passed tests to total_passed. LAYOUT "isolated" runs them
# again with Python's isolated interpreters forced by TALA_PYTHON_INTERPRETERS (all but
# the soak, whose minute the first run gives; left out by its label, so that a name filter
# of the preset still holds). CTEST_ARGS narrow the run further.
run_ctest() {
    local preset="$1" build_dir="$2" layout="${3:-shared}"
    local log="$build_dir/ctest-$preset-$layout.log"
    local extra=("${@:4}")
    [[ "$layout" == "isolated" ]] && extra+=(-LE '^soak$')
    tala_log "running tests of preset $preset ($layout interpreters)"
    local rc=0
    TALA_PYTHON_INTERPRETERS="$layout" ctest --preset "$preset" -j "$TALA_TEST_JOBS" "${extra[@]}" </dev/null 2>&1 |
        tee "$log" || rc=$?
    if [[ $rc -ne 0 ]]; then
        tala_die "tests of the preset '$preset' failed (log: $log)."
    fi
    # ctest's summary: "100% tests passed, 0 tests failed out of 42"
    local line failed total
    line="$(grep -E '^[0-9]+% tests passed, [0-9]+ tests? failed out of [0-9]+' "$log" | tail -n 1)" ||
        tala_die "ctest ran no tests for the preset '$preset' (log: $log)."
    failed="$(sed -E 's/.* ([0-9]+) tests? failed out of ([0-9]+).*/\1/' <<<"$line")"
    total="$(sed -E 's/.* ([0-9]+) tests? failed out of ([0-9]+).*/\2/' <<<"$line")"
    if [[ "$failed" -ne 0 ]]; then
        tala_die "$failed of $total tests of the preset '$preset' failed (log: $log)."
    fi
    total_passed=$((total_passed + total - failed))
}

# stage NAME COMMAND...: runs one stage and notes how long it took.
stage_times=()
stage() {
    local name="$1" started
    shift
    started=$(date +%s)
    "$@"
    stage_times+=("$(printf '%-24s %5d s' "$name" $(( $(date +%s) - started )))")
}

started_all=$(date +%s)
tala_ensure_packages
tala_find_python

stage "build default" tala_configure default
stage "test default" run_ctest default build
stage "test default isolated" run_ctest default build isolated

stage "build asan" tala_configure asan
# The sanitizers' options and PYTHONMALLOC=malloc (so that LeakSanitizer scans Python objects)
# come from the test preset.
stage "test asan" run_ctest asan build-asan
# With isolated interpreters the sanitizers take the thread and stress tests, where objects,
# states and errors cross between interpreters; every other test runs in that layout in the
# default build above (the whole run stays near a quarter of an hour on two cores).
stage "test asan isolated" run_ctest asan build-asan isolated -L '^(threads|stress)$'

# Each fuzz target runs for a bounded number of inputs (tests/fuzz/CMakeLists.txt); its test
# prints the input it failed on.
stage "build fuzz" tala_configure fuzz
stage "fuzz" run_ctest fuzz build-fuzz

# The thread and stress tests under ThreadSanitizer (tests/tsan.supp names what is suppressed).
stage "build tsan" tala_configure tsan
stage "test tsan" run_ctest tsan build-tsan
stage "test tsan isolated" run_ctest tsan build-tsan isolated

echo "Time per stage:"
printf '  %s\n' "${stage_times[@]}"
printf '  %-24s %5d s\n' "all" $(( $(date +%s) - started_all ))
echo "$total_passed passed, 0 failed"

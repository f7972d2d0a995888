#!/usr/bin/env bash
# tests/fuzz/run_target.sh TARGET SEEDS WORK RUNS SECONDS LSAN_SUPPRESSIONS
#
# Runs one libFuzzer target for at most RUNS inputs and SECONDS seconds, starting from the seed
# corpus SEEDS (read only) and the inputs it found before in WORK/corpus, under ASan, UBSan and
# LeakSanitizer. A crash, a leak, a hang, a UBSan report or a Python error left pending (the
# target aborts on it) fails the run: the input libFuzzer kept is printed with its path and a
# hex dump, with the end of the log.
set -uo pipefail

target="$1" seeds="$2" work="$3" runs="$4" seconds="$5" suppressions="$6"
name="$(basename "$target")"
mkdir -p "$work/corpus" "$work/artifacts"
rm -f "$work"/artifacts/*
log="$work/fuzz.log"

# Python objects from the system allocator, so that LeakSanitizer sees through them. A huge
# allocation that fuzzed code asks for fails (MemoryError) instead of taking the machine's memory.
export PYTHONMALLOC=malloc
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=0:strict_string_checks=1:allocator_may_return_null=1:max_allocation_size_mb=1024:${ASAN_OPTIONS_EXTRA:-}"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
export LSAN_OPTIONS="suppressions=$suppressions:print_suppressions=0"

# Inputs grow from the small seeds. Long inputs from the start (-len_control=0) reach further in
# a short run, but also build values whose comparison takes exponential time in Python itself
# (tuples of one shared part at every level), which end a run as a timeout now and then.
start=$(date +%s)
"$target" -runs="$runs" -max_total_time="$seconds" -timeout=25 -max_len=4096 -len_control=20 -rss_limit_mb=6144 \
    -malloc_limit_mb=2048 -detect_leaks=1 -print_final_stats=1 -artifact_prefix="$work/artifacts/" \
    "$work/corpus" "$seeds" >"$log" 2>&1
status=$?
elapsed=$(( $(date +%s) - start ))

executed="$(grep -Eo 'stat::number_of_executed_units: [0-9]+' "$log" | grep -Eo '[0-9]+$' | tail -n 1)"
corpus="$(find "$work/corpus" -type f | wc -l)"
if [[ $status -eq 0 ]]; then
    echo "$name: ${executed:-?} inputs in ${elapsed} s (new corpus inputs kept: $corpus), no failure."
    exit 0
fi

echo "$name FAILED (exit status $status) after ${elapsed} s. The end of its log ($log):"
tail -n 120 "$log"
found=0
for input in "$work"/artifacts/*; do
    [[ -f "$input" ]] || continue
    found=1
    echo
    echo "Input kept by libFuzzer: $input ($(wc -c <"$input") bytes). Reproduce with: $target $input"
    od -A x -t x1z -v "$input" | head -n 64
done
[[ $found -eq 1 ]] || echo "libFuzzer kept no input (the failure came before or after the inputs ran)."
exit 1

#!/usr/bin/env bash
# bench/compare.sh: runs the bridge's benchmarks next to their CPython floors, pinned to one core
# with repetitions, and prints one table of ratios (the medians) with the goal of each.
#
#     bench/compare.sh [BUILD_DIR] [CORE]      (defaults: build, the last core)
set -euo pipefail

build="${1:-build}"
core="${2:-$(( $(nproc) - 1 ))}"
repetitions="${TALA_BENCH_REPETITIONS:-5}"
for program in tala_bench_python_evaluate tala_bench_python_bridge tala_bench_python_calls; do
    [[ -x "$build/bin/$program" ]] || { echo "error: $build/bin/$program was not built (cmake --build --preset default)." >&2; exit 1; }
done

run() {
    local program="$1" filter="$2"
    taskset -c "$core" "$build/bin/$program" --benchmark_filter="$filter" \
        --benchmark_repetitions="$repetitions" --benchmark_report_aggregates_only=true 2>/dev/null
}

evaluate="$(run tala_bench_python_evaluate 'XPlusOne|TwoLines')"
# Once: the benchmark makes 100 tries itself and reports their median and maximum.
latency="$(taskset -c "$core" "$build/bin/tala_bench_python_evaluate" --benchmark_filter=InterruptionLatency 2>/dev/null)"
bridge="$(run tala_bench_python_bridge 'FunctionPythonCall|BarePyObjectCall|Calls|LongList')"
calls="$(taskset -c "$core" "$build/bin/tala_bench_python_calls" --benchmark_filter=none 2>/dev/null || true)"

# ratio LINES MEASURED FLOOR: the ratio the program printed for that pair.
ratio() {
    grep -F -- "$2" <<<"$1" | grep -F -- "$3" | grep '=' | sed -E 's/.*= *([0-9.]+)$/\1/' | head -n 1
}
# summary LINE-START: the "N.NNx the ..." figures of the calls program's summary line.
summary() {
    grep -F -- "$1" <<<"$calls" | grep -oE '[0-9]+\.[0-9]+x the [a-zA-Z ]+' | tr '\n' ';' | sed 's/;$//'
}
# counter NAME: a counter of the interruption benchmark (its first row), found by its column.
counter() {
    awk -v name="$1" '
        /^Benchmark/ { for (i = 1; i <= NF; i++) if ($i == name) column = i }
        /^BM_InterruptionLatency/ && column { print $(column + 2); exit }' <<<"$latency"
}

printf '%-64s %10s   %s\n' "measure (pinned to core $core, median of $repetitions)" "ratio" "goal"
printf '%-64s %10s   %s\n' "evaluate_expr('x + 1'), repeated / compiled once" \
    "$(ratio "$evaluate" BM_EvaluateExpr_XPlusOne BM_Raw_CompiledOnce_XPlusOne)" "<= 3"
printf '%-64s %10s   %s\n' "evaluate(two lines, one out-local), repeated / compiled once" \
    "$(ratio "$evaluate" BM_Evaluate_TwoLinesOneOutLocal BM_Raw_CompiledOnce_TwoLines)" "<= 3"
printf '%-64s %10s   %s\n' "evaluate, first time / compile and exec" \
    "$(ratio "$evaluate" BM_Evaluate_FirstTime_TwoLinesOneOutLocal BM_Raw_FirstTime_CompileExec_TwoLines)" "<= 2.85 (before)"
printf '%-64s %10s   %s\n' "calls from a new host thread / a thread with a state" \
    "$(ratio "$bridge" BM_CallsFromANewHostThread/ BM_CallsFromAThreadWithAState/)" "<= 1.2"
printf '%-64s %10s   %s\n' "FunctionPython call / PyObject_CallOneArg" \
    "$(ratio "$bridge" BM_FunctionPythonCall BM_BarePyObjectCallOneArg)" "<= 1.3"
printf '%-64s %10s   %s\n' "proxy iteration of a list / PyIter_Next" \
    "$(ratio "$bridge" BM_LongListThroughProxyIterNext BM_LongListBarePyIterNext)" "<= 3"
printf '%-64s %10s   %s\n' "proxy at(i) / PyList_GetItem and the conversion" \
    "$(ratio "$bridge" BM_LongListThroughProxyAt BM_LongListBarePyListGetItem)" "<= 5"
printf '%-64s %10s   %s\n' "host function f(i, 1) from Python" "$(summary 'host function')" "<= 1.5x the fast call"
printf '%-64s %10s   %s\n' "host property o.size from Python" "$(summary 'host property')" "<= 2x the C getter"
printf '%-64s %10s   %s\n' "interruption latency over 100 tries: median ms, max ms" \
    "$(counter median_ms) $(counter max_ms)" "max < 100"

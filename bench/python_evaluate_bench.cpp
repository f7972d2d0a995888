// bench/python_evaluate_bench.cpp: the cost of evaluating Python from the host, each next to the
// same work done with the C API directly, the cost of the host namespace per evaluation, and the
// resident memory over many evaluations.
//
// Evaluations run from a thread that holds no interpreter lock, as host calls do; the raw
// counterparts take the lock per iteration too, make fresh dictionaries, and compile and run the
// same text. After the run the program prints each evaluation's time as a multiple of its raw
// counterpart. The resident-memory run comes before the namespace runs, which register modules
// that every later evaluation would convert.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <map>
#include <string>

#include "extension/gil.hpp"
#include "extension/interpreter.hpp"
#include "language/evaluate.hpp"
#include "language/namespace.hpp"
#include "tala/tala.hpp"

namespace {

using tala::Any;
using tala::HashMap;
using tala::Integer;
using tala::String;
using tala::python::GilGuard;
using tala::python::PyObjectPtr;

using MapArgument = tala::Union<tala::I_Map<String, Any>, tala::None>;
using MutableMapArgument = tala::Union<tala::I_MutableMap<String, Any>, tala::None>;

void startPython() {
    static const bool started = tala::python::ensurePythonOnce();
    (void)started;
}

// ---- One expression with one local -------------------------------------------------------------

void BM_EvaluateExpr_XPlusOne(benchmark::State& state) {
    startPython();
    const HashMap<String, Any> locals{{String("x"), Integer(41)}};
    const MapArgument localsArgument(tala::internal::unchecked, locals);
    const String code("x + 1");
    for (auto _ : state) {
        Any result = tala::python::evaluate_expr(code, localsArgument, MapArgument(tala::None()));
        benchmark::DoNotOptimize(result);
        if (result.kind() != tala::Kind::Integer) state.SkipWithError("the evaluation failed");
    }
}
BENCHMARK(BM_EvaluateExpr_XPlusOne);

// The same with the C API: fresh globals and locals, x put in, the builtin eval called on the
// text, the int read back.
void BM_Raw_EvalBuiltin_XPlusOne(benchmark::State& state) {
    startPython();
    for (auto _ : state) {
        GilGuard gil;
        PyObjectPtr globals = PyObjectPtr::steal(PyDict_New());
        PyObjectPtr locals = PyObjectPtr::steal(PyDict_New());
        PyObjectPtr x = PyObjectPtr::steal(PyLong_FromLongLong(41));
        PyDict_SetItemString(globals.get(), "x", x.get());
        PyObject* eval = PyDict_GetItemString(PyEval_GetBuiltins(), "eval");  // borrowed
        PyObjectPtr arguments = PyObjectPtr::steal(Py_BuildValue("(sOO)", "x + 1", globals.get(), locals.get()));
        PyObjectPtr result = PyObjectPtr::steal(PyObject_CallObject(eval, arguments.get()));
        const long long value = result ? PyLong_AsLongLong(result.get()) : -1;
        benchmark::DoNotOptimize(value);
        if (value != 42) state.SkipWithError("the evaluation failed");
    }
}
BENCHMARK(BM_Raw_EvalBuiltin_XPlusOne);

// The floor of a repeated evaluation: the expression compiled once, run with a fresh dictionary.
void BM_Raw_CompiledOnce_XPlusOne(benchmark::State& state) {
    startPython();
    PyObjectPtr code;
    {
        GilGuard gil;
        code = PyObjectPtr::steal(Py_CompileString("x + 1", "<string>", Py_eval_input));
    }
    for (auto _ : state) {
        GilGuard gil;
        PyObjectPtr globals = PyObjectPtr::steal(PyDict_New());
        PyObjectPtr x = PyObjectPtr::steal(PyLong_FromLongLong(41));
        PyDict_SetItemString(globals.get(), "x", x.get());
        PyObjectPtr result = PyObjectPtr::steal(PyEval_EvalCode(code.get(), globals.get(), globals.get()));
        const long long value = result ? PyLong_AsLongLong(result.get()) : -1;
        benchmark::DoNotOptimize(value);
        if (value != 42) state.SkipWithError("the evaluation failed");
    }
    GilGuard gil;
    code.reset();
}
BENCHMARK(BM_Raw_CompiledOnce_XPlusOne);

// The cheapest raw form: PyRun_String with one dictionary.
void BM_Raw_PyRunString_XPlusOne(benchmark::State& state) {
    startPython();
    for (auto _ : state) {
        GilGuard gil;
        PyObjectPtr globals = PyObjectPtr::steal(PyDict_New());
        PyObjectPtr x = PyObjectPtr::steal(PyLong_FromLongLong(41));
        PyDict_SetItemString(globals.get(), "x", x.get());
        PyObjectPtr result = PyObjectPtr::steal(PyRun_String("x + 1", Py_eval_input, globals.get(), globals.get()));
        const long long value = result ? PyLong_AsLongLong(result.get()) : -1;
        benchmark::DoNotOptimize(value);
        if (value != 42) state.SkipWithError("the evaluation failed");
    }
}
BENCHMARK(BM_Raw_PyRunString_XPlusOne);

// ---- A two-line body with one out-local --------------------------------------------------------

void BM_Evaluate_TwoLinesOneOutLocal(benchmark::State& state) {
    startPython();
    const HashMap<String, Any> locals{{String("x"), Integer(20)}};
    const HashMap<String, Any> out{{String("y"), Any()}};
    const MapArgument localsArgument(tala::internal::unchecked, locals);
    const MutableMapArgument outArgument(tala::internal::unchecked, out);
    const String code("y = x + 1\nreturn y * 2");
    for (auto _ : state) {
        Any result = tala::python::evaluate(code, localsArgument, MapArgument(tala::None()), outArgument);
        benchmark::DoNotOptimize(result);
        if (result.kind() != tala::Kind::Integer || result.rawInteger() != 42) state.SkipWithError("the evaluation failed");
    }
}
BENCHMARK(BM_Evaluate_TwoLinesOneOutLocal);

// The same with the C API: fresh dictionaries, x put in, the two lines compiled and executed, the
// result and y read back.
void BM_Raw_CompileExec_TwoLines(benchmark::State& state) {
    startPython();
    for (auto _ : state) {
        GilGuard gil;
        PyObjectPtr globals = PyObjectPtr::steal(PyDict_New());
        PyObjectPtr x = PyObjectPtr::steal(PyLong_FromLongLong(20));
        PyDict_SetItemString(globals.get(), "x", x.get());
        PyObjectPtr code = PyObjectPtr::steal(Py_CompileString("y = x + 1\nresult = y * 2\n", "<string>", Py_file_input));
        PyObjectPtr ran = PyObjectPtr::steal(code ? PyEval_EvalCode(code.get(), globals.get(), globals.get()) : nullptr);
        PyObject* result = PyDict_GetItemString(globals.get(), "result");  // borrowed
        PyObject* y = PyDict_GetItemString(globals.get(), "y");            // borrowed
        const long long value = result && y ? PyLong_AsLongLong(result) + PyLong_AsLongLong(y) : -1;
        benchmark::DoNotOptimize(value);
        if (value != 63) state.SkipWithError("the execution failed");
    }
}
BENCHMARK(BM_Raw_CompileExec_TwoLines);

// The floor of a repeated code evaluation: the two lines compiled once, run with a fresh
// dictionary, the result and y read back.
void BM_Raw_CompiledOnce_TwoLines(benchmark::State& state) {
    startPython();
    PyObjectPtr code;
    {
        GilGuard gil;
        code = PyObjectPtr::steal(Py_CompileString("y = x + 1\nresult = y * 2\n", "<string>", Py_file_input));
    }
    for (auto _ : state) {
        GilGuard gil;
        PyObjectPtr globals = PyObjectPtr::steal(PyDict_New());
        PyObjectPtr x = PyObjectPtr::steal(PyLong_FromLongLong(20));
        PyDict_SetItemString(globals.get(), "x", x.get());
        PyObjectPtr ran = PyObjectPtr::steal(PyEval_EvalCode(code.get(), globals.get(), globals.get()));
        PyObject* result = PyDict_GetItemString(globals.get(), "result");  // borrowed
        PyObject* y = PyDict_GetItemString(globals.get(), "y");            // borrowed
        const long long value = result && y ? PyLong_AsLongLong(result) + PyLong_AsLongLong(y) : -1;
        benchmark::DoNotOptimize(value);
        if (value != 63) state.SkipWithError("the execution failed");
    }
    GilGuard gil;
    code.reset();
}
BENCHMARK(BM_Raw_CompiledOnce_TwoLines);

// A text evaluated for the first time: each iteration evaluates a text never seen before, next
// to compiling and running the same text with the C API.
void BM_Evaluate_FirstTime_TwoLinesOneOutLocal(benchmark::State& state) {
    startPython();
    const HashMap<String, Any> locals{{String("x"), Integer(20)}};
    const HashMap<String, Any> out{{String("y"), Any()}};
    const MapArgument localsArgument(tala::internal::unchecked, locals);
    const MutableMapArgument outArgument(tala::internal::unchecked, out);
    std::int64_t round = 0;
    for (auto _ : state) {
        const String code("y = x + 1\nreturn y * 2 + " + std::to_string(++round) + " * 0");
        Any result = tala::python::evaluate(code, localsArgument, MapArgument(tala::None()), outArgument);
        benchmark::DoNotOptimize(result);
        if (result.kind() != tala::Kind::Integer || result.rawInteger() != 42) state.SkipWithError("the evaluation failed");
    }
}
BENCHMARK(BM_Evaluate_FirstTime_TwoLinesOneOutLocal);

void BM_Raw_FirstTime_CompileExec_TwoLines(benchmark::State& state) {
    startPython();
    std::int64_t round = 0;
    for (auto _ : state) {
        const std::string text = "y = x + 1\nresult = y * 2 + " + std::to_string(++round) + " * 0\n";
        GilGuard gil;
        PyObjectPtr globals = PyObjectPtr::steal(PyDict_New());
        PyObjectPtr x = PyObjectPtr::steal(PyLong_FromLongLong(20));
        PyDict_SetItemString(globals.get(), "x", x.get());
        PyObjectPtr code = PyObjectPtr::steal(Py_CompileString(text.c_str(), "<string>", Py_file_input));
        PyObjectPtr ran = PyObjectPtr::steal(code ? PyEval_EvalCode(code.get(), globals.get(), globals.get()) : nullptr);
        PyObject* result = PyDict_GetItemString(globals.get(), "result");  // borrowed
        const long long value = result ? PyLong_AsLongLong(result) : -1;
        benchmark::DoNotOptimize(value);
        if (value != 42) state.SkipWithError("the execution failed");
    }
}
BENCHMARK(BM_Raw_FirstTime_CompileExec_TwoLines);

// ---- Resident memory over many evaluations -----------------------------------------------------

// Resident set size in KiB, from /proc/self/statm (its second field counts pages).
double residentKiB() {
    std::ifstream statm("/proc/self/statm");
    long long size = 0;
    long long resident = 0;
    statm >> size >> resident;
    return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE)) / 1024.0;
}

double allocatedBlocks() {
    GilGuard gil;
    PyObjectPtr count = PyObjectPtr::steal(PyObject_CallMethod(PyImport_AddModule("sys"), "getallocatedblocks", nullptr));
    return count ? static_cast<double>(PyLong_AsLongLong(count.get())) : -1.0;
}

// 100,000 evaluations (expressions and code bodies, alternately) in one iteration; the counters
// give the resident memory and Python's allocated blocks after the first 1,000 and after all.
void BM_ResidentMemory_100kEvaluations(benchmark::State& state) {
    startPython();
    const HashMap<String, Any> locals{{String("x"), Integer(1)}};
    const HashMap<String, Any> out{{String("y"), Any()}};
    const MapArgument localsArgument(tala::internal::unchecked, locals);
    const MutableMapArgument outArgument(tala::internal::unchecked, out);
    const String expression("x + 1");
    const String code("y = x + 1\nreturn y * 2");
    auto evaluateOnce = [&](int index) {
        Any result = index % 2 == 0 ? tala::python::evaluate_expr(expression, localsArgument, MapArgument(tala::None()))
                                    : tala::python::evaluate(code, localsArgument, MapArgument(tala::None()), outArgument);
        benchmark::DoNotOptimize(result);
    };
    for (auto _ : state) {
        for (int index = 0; index < 1000; ++index) evaluateOnce(index);
        const double residentAfter1k = residentKiB();
        const double blocksAfter1k = allocatedBlocks();
        for (int index = 1000; index < 100000; ++index) evaluateOnce(index);
        const double residentAfter100k = residentKiB();
        const double blocksAfter100k = allocatedBlocks();
        state.counters["rss_1k_KiB"] = residentAfter1k;
        state.counters["rss_100k_KiB"] = residentAfter100k;
        state.counters["rss_growth_KiB"] = residentAfter100k - residentAfter1k;
        state.counters["blocks_1k"] = blocksAfter1k;
        state.counters["blocks_100k"] = blocksAfter100k;
    }
}
BENCHMARK(BM_ResidentMemory_100kEvaluations)->Iterations(1)->Unit(benchmark::kMillisecond);

// ---- The host namespace ------------------------------------------------------------------------

// Registers plain top-level modules until the registry holds `count` modules.
void registerModulesUpTo(std::size_t count) {
    for (std::size_t next = tala::modules().size(); next < count; ++next) {
        (void)tala::Module::create("bench_module_" + std::to_string(next));
    }
}

// buildHostNamespace with the registry holding range(0) modules (run in ascending order: modules
// cannot be removed). Held lock, as during an evaluation.
void BM_BuildHostNamespace(benchmark::State& state) {
    startPython();
    registerModulesUpTo(static_cast<std::size_t>(state.range(0)));
    state.counters["modules"] = static_cast<double>(tala::modules().size());
    GilGuard gil;
    for (auto _ : state) {
        PyObjectPtr names = PyObjectPtr::steal(tala::python::buildHostNamespace());
        benchmark::DoNotOptimize(names.get());
    }
}
BENCHMARK(BM_BuildHostNamespace)->Arg(10)->Arg(100);

// Keeps the CPU time per iteration of every run, to print the ratios after the run (CPU time,
// since a busy machine stretches the real time of both sides unevenly).
class RatioReporter : public benchmark::ConsoleReporter {
public:
    // Colours only on a terminal, so that saved output stays plain text.
    RatioReporter() : ConsoleReporter(isatty(STDOUT_FILENO) != 0 ? OO_Defaults : OO_Tabular) {}

    void ReportRuns(const std::vector<Run>& runs) override {
        // With repetitions, the median stands for the benchmark; otherwise its one run does.
        for (const Run& run : runs) {
            if (run.error_occurred) continue;
            const std::string name = run.run_name.str();
            if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "median") {
                medians_[name] = run.GetAdjustedCPUTime();
            } else if (run.run_type == Run::RT_Iteration) {
                times_[name] = run.GetAdjustedCPUTime();
            }
        }
        ConsoleReporter::ReportRuns(runs);
    }
    void printRatio(const char* evaluation, const char* raw) {
        const double time = timeOf(evaluation);
        const double baseline = timeOf(raw);
        if (time <= 0 || baseline <= 0) return;
        if (!headerPrinted_) std::printf("\nCPU time of an evaluation as a multiple of the raw C API doing the same:\n");
        headerPrinted_ = true;
        std::printf("%-36s / %-32s = %6.2f\n", evaluation, raw, time / baseline);
    }

private:
    double timeOf(const std::string& name) const {
        if (const auto median = medians_.find(name); median != medians_.end()) return median->second;
        const auto time = times_.find(name);
        return time == times_.end() ? 0.0 : time->second;
    }

    std::map<std::string, double> times_;
    std::map<std::string, double> medians_;
    bool headerPrinted_ = false;
};

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.printRatio("BM_EvaluateExpr_XPlusOne", "BM_Raw_EvalBuiltin_XPlusOne");
    reporter.printRatio("BM_EvaluateExpr_XPlusOne", "BM_Raw_PyRunString_XPlusOne");
    reporter.printRatio("BM_EvaluateExpr_XPlusOne", "BM_Raw_CompiledOnce_XPlusOne");
    reporter.printRatio("BM_Evaluate_TwoLinesOneOutLocal", "BM_Raw_CompileExec_TwoLines");
    reporter.printRatio("BM_Evaluate_TwoLinesOneOutLocal", "BM_Raw_CompiledOnce_TwoLines");
    reporter.printRatio("BM_Evaluate_FirstTime_TwoLinesOneOutLocal", "BM_Raw_FirstTime_CompileExec_TwoLines");
    benchmark::Shutdown();
    return 0;
}

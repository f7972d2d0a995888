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
#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>
#include <vector>
#include <string>

#include "extension/gil.hpp"
#include "extension/interpreter.hpp"
#include "language/evaluate.hpp"
#include "language/interruption.hpp"
#include "language/namespace.hpp"
#include "ratio_reporter.hpp"
#include "resident_memory.hpp"
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
    // Counted across the runs the library makes, so that no text comes twice.
    static std::int64_t round = 0;
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

using tala_bench::residentKiB;

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

// 1,000,000 evaluations of range(0) distinct texts: 1,000, which the cache of compiled texts
// keeps, and 5,000, which it cannot keep, so that it evicts all along. Resident memory after the
// first 100,000 and after all must stay flat.
void BM_ResidentMemory_1MEvaluationsOfDistinctTexts(benchmark::State& state) {
    startPython();
    const HashMap<String, Any> locals{{String("x"), Integer(1)}};
    const MapArgument localsArgument(tala::internal::unchecked, locals);
    std::vector<String> texts;
    for (std::int64_t index = 0; index < state.range(0); ++index) texts.emplace_back("x + " + std::to_string(index));
    for (auto _ : state) {
        double residentAfter100k = 0;
        for (int index = 0; index < 1000000; ++index) {
            Any result = tala::python::evaluate_expr(texts[static_cast<std::size_t>(index) % texts.size()], localsArgument,
                                                     MapArgument(tala::None()));
            benchmark::DoNotOptimize(result);
            if (index == 100000) residentAfter100k = residentKiB();
        }
        const double residentAfter1M = residentKiB();
        state.counters["rss_100k_KiB"] = residentAfter100k;
        state.counters["rss_1M_KiB"] = residentAfter1M;
        state.counters["rss_growth_KiB"] = residentAfter1M - residentAfter100k;
    }
}
BENCHMARK(BM_ResidentMemory_1MEvaluationsOfDistinctTexts)->Arg(1000)->Arg(5000)->Iterations(1)->Unit(benchmark::kMillisecond);

// 100,000 evaluations from 1,000 threads that each make 100 and end: every thread makes its
// interpreter state and drops it when it ends, so memory and the number of states stay flat.
void BM_ResidentMemory_100kEvaluationsFrom1000Threads(benchmark::State& state) {
    startPython();
    const HashMap<String, Any> locals{{String("x"), Integer(1)}};
    const MapArgument localsArgument(tala::internal::unchecked, locals);
    const String code("x + 1");
    auto threadStates = [] {
        GilGuard gil;
        int count = 0;
        for (PyThreadState* thread = PyInterpreterState_ThreadHead(PyInterpreterState_Main()); thread != nullptr;
             thread = PyThreadState_Next(thread)) {
            ++count;
        }
        return count;
    };
    auto runThreads = [&](int threads) {
        for (int thread = 0; thread < threads; ++thread) {
            std::thread([&] {
                for (int evaluation = 0; evaluation < 100; ++evaluation) {
                    Any result = tala::python::evaluate_expr(code, localsArgument, MapArgument(tala::None()));
                    benchmark::DoNotOptimize(result);
                }
            }).join();
        }
    };
    for (auto _ : state) {
        const int statesBefore = threadStates();
        runThreads(100);
        const double residentAfter100 = residentKiB();
        runThreads(900);
        const double residentAfter1000 = residentKiB();
        state.counters["rss_100_threads_KiB"] = residentAfter100;
        state.counters["rss_1000_threads_KiB"] = residentAfter1000;
        state.counters["rss_growth_KiB"] = residentAfter1000 - residentAfter100;
        state.counters["thread_states_left"] = threadStates() - statesBefore;
    }
}
BENCHMARK(BM_ResidentMemory_100kEvaluationsFrom1000Threads)->Iterations(1)->Unit(benchmark::kMillisecond);

// ---- Stopping an evaluation --------------------------------------------------------------------

// 100 tries: a thread runs `while True: pass`, another stops it; the time from the call of
// interruptEvaluation to the end of the evaluation, median and maximum.
void BM_InterruptionLatency(benchmark::State& state) {
    startPython();
    std::vector<double> latencies;
    for (auto _ : state) {
        latencies.clear();
        for (int attempt = 0; attempt < 100; ++attempt) {
            std::atomic<bool> started{false};
            std::atomic<bool> finished{false};
            std::atomic<std::int64_t> threadId{0};
            std::chrono::steady_clock::time_point ended;
            const HashMap<String, Any> locals{{String("started"), tala::native_function([&started] { started = true; }, "started")}};
            std::thread runner([&] {
                threadId = tala::python::currentThreadId();
                Any result = tala::python::evaluate(String("started()\nwhile True:\n    pass"),
                                                    MapArgument(tala::internal::unchecked, locals), MapArgument(tala::None()),
                                                    MutableMapArgument(tala::None()));
                ended = std::chrono::steady_clock::now();
                finished = true;
                benchmark::DoNotOptimize(result);
            });
            while (!started.load() && !finished.load()) std::this_thread::sleep_for(std::chrono::microseconds(200));
            if (!started.load()) {
                runner.join();
                state.SkipWithError("the evaluation ended before it ran");
                return;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
            const auto asked = std::chrono::steady_clock::now();
            (void)tala::python::interruptEvaluation(threadId);
            runner.join();
            latencies.push_back(std::chrono::duration<double, std::milli>(ended - asked).count());
        }
    }
    std::sort(latencies.begin(), latencies.end());
    state.counters["median_ms"] = latencies[latencies.size() / 2];
    state.counters["max_ms"] = latencies.back();
    if (latencies.back() >= 100.0) state.SkipWithError("an interruption took 100 ms or more");
}
BENCHMARK(BM_InterruptionLatency)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

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

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    tala_bench::RatioReporter reporter("CPU time of an evaluation as a multiple of the raw C API doing the same:");
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

// bench/interpreters_bench.cpp: Python's throughput from one host thread and from two, in the
// interpreter layout given, next to raw CPython doing the same with its own lock(s).
//
//     tala_bench_interpreters --layout=shared     one interpreter for every thread (the default)
//     tala_bench_interpreters --layout=isolated   an interpreter of its own lock per thread
//
// Each benchmark runs on 1 and on 2 threads (real time, items per second over all threads); after
// the run the program prints, for each, the throughput of two threads as a multiple of one. The
// work: the per-row rule evaluate_expr("price * qty", row) with a row of two columns, and a call
// of a FunctionPython (each thread calls one made in its own interpreter, as a worker compiles its
// rules). The raw floors: PyGILState_Ensure and the compiled rule in the main interpreter (shared),
// and a sub-interpreter of its own GIL per thread (isolated, PEP 684). With --memory the program
// instead reports the resident memory that each interpreter adds, and the memory over 100,000
// evaluations spread over 8 threads.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "extension/gil.hpp"
#include "extension/interpreter.hpp"
#include "extension/interpreters.hpp"
#include "language/evaluate.hpp"
#include "resident_memory.hpp"
#include "tala/tala.hpp"

namespace {

using tala::Any;
using tala::Float;
using tala::HashMap;
using tala::Integer;
using tala::String;
using tala::python::GilGuard;
using tala::python::PyObjectPtr;

using MapArgument = tala::Union<tala::I_Map<String, Any>, tala::None>;

void startPython() {
    static const bool started = tala::python::ensurePythonOnce();
    (void)started;
}

bool isolated() { return tala::python::interpreterLayout() == tala::python::InterpreterLayout::Isolated; }

// ---- The per-row rule ------------------------------------------------------------------------

void BM_RowRule(benchmark::State& state) {
    startPython();
    const String code("price * qty");
    std::int64_t row = 0;
    for (auto _ : state) {
        const HashMap<String, Any> locals{{String("price"), Float(2.5)}, {String("qty"), Integer(++row % 100)}};
        Any result = tala::python::evaluate_expr(code, MapArgument(tala::internal::unchecked, locals), MapArgument(tala::None()));
        benchmark::DoNotOptimize(result);
        if (tala::is_error_result(result)) state.SkipWithError("the rule failed");
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_RowRule)->Threads(1)->Threads(2)->UseRealTime()->MinTime(1.0);

// ---- A FunctionPython call --------------------------------------------------------------------

void BM_FunctionPythonCall(benchmark::State& state) {
    startPython();
    // Made on this thread, so in its interpreter: one per worker, as each compiles its own rules.
    const Any made = tala::python::evaluate_expr(String("lambda price, qty: price * qty"), MapArgument(tala::None()),
                                                 MapArgument(tala::None()));
    if (!tala::I_Invokable_Generic::matches(made)) {
        state.SkipWithError("the function could not be made");
        return;
    }
    const tala::I_Invokable_Generic function(tala::internal::unchecked, made);
    std::int64_t row = 0;
    for (auto _ : state) {
        Any result = function(Float(2.5), Integer(++row % 100));
        benchmark::DoNotOptimize(result);
        if (tala::is_error_result(result)) state.SkipWithError("the call failed");
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FunctionPythonCall)->Threads(1)->Threads(2)->UseRealTime()->MinTime(1.0);

// ---- Raw CPython ------------------------------------------------------------------------------

// The compiled rule, run with fresh globals holding the row's two values.
bool runRawRule(PyObject* code, std::int64_t qty) {
    PyObjectPtr globals = PyObjectPtr::steal(PyDict_New());
    PyObjectPtr price = PyObjectPtr::steal(PyFloat_FromDouble(2.5));
    PyObjectPtr quantity = PyObjectPtr::steal(PyLong_FromLongLong(qty));
    PyDict_SetItemString(globals.get(), "__builtins__", PyEval_GetBuiltins());
    PyDict_SetItemString(globals.get(), "price", price.get());
    PyDict_SetItemString(globals.get(), "qty", quantity.get());
    PyObjectPtr result = PyObjectPtr::steal(PyEval_EvalCode(code, globals.get(), globals.get()));
    return static_cast<bool>(result);
}

// One interpreter, its lock taken per row with PyGILState_Ensure, as an embedder without the
// extension would.
void BM_Raw_SharedLock(benchmark::State& state) {
    startPython();
    PyObject* code = nullptr;
    {
        const PyGILState_STATE gil = PyGILState_Ensure();
        code = Py_CompileString("price * qty", "<rule>", Py_eval_input);
        PyGILState_Release(gil);
    }
    std::int64_t row = 0;
    for (auto _ : state) {
        const PyGILState_STATE gil = PyGILState_Ensure();
        const bool done = runRawRule(code, ++row % 100);
        PyGILState_Release(gil);
        if (!done) state.SkipWithError("the rule failed");
    }
    const PyGILState_STATE gil = PyGILState_Ensure();
    Py_XDECREF(code);
    PyGILState_Release(gil);
    state.SetItemsProcessed(state.iterations());
}

// A sub-interpreter of its own GIL per thread (made once per thread and kept), its lock taken
// per row: the floor of the isolated layout.
struct RawInterpreter {
    PyThreadState* state = nullptr;
    PyObject* code = nullptr;
};
thread_local RawInterpreter t_raw;

void BM_Raw_IsolatedInterpreters(benchmark::State& state) {
    startPython();
    if (t_raw.state == nullptr) {
        PyInterpreterConfig config{};
        config.use_main_obmalloc = 0;
        config.allow_threads = 1;
        config.check_multi_interp_extensions = 1;
        config.gil = PyInterpreterConfig_OWN_GIL;
        PyThreadState* made = nullptr;
        const PyStatus status = Py_NewInterpreterFromConfig(&made, &config);
        if (PyStatus_Exception(status) || made == nullptr) {
            state.SkipWithError("CPython could not make an interpreter");
            return;
        }
        t_raw.state = made;
        t_raw.code = Py_CompileString("price * qty", "<rule>", Py_eval_input);
        (void)PyEval_SaveThread();
    }
    std::int64_t row = 0;
    for (auto _ : state) {
        PyEval_RestoreThread(t_raw.state);
        const bool done = runRawRule(t_raw.code, ++row % 100);
        (void)PyEval_SaveThread();
        if (!done) state.SkipWithError("the rule failed");
    }
    state.SetItemsProcessed(state.iterations());
}

// ---- Memory ----------------------------------------------------------------------------------

using tala_bench::residentMiB;

// Prints the memory one more interpreter adds (isolated layout: threads enter, each making one),
// then the memory over 100,000 evaluations spread over 8 threads, sampled after each tenth.
int reportMemory() {
    startPython();
    const String code("price * qty");
    auto evaluateRows = [&](int rows) {
        for (int row = 0; row < rows; ++row) {
            const HashMap<String, Any> locals{{String("price"), Float(2.5)}, {String("qty"), Integer(row)}};
            (void)tala::python::evaluate_expr(code, MapArgument(tala::internal::unchecked, locals), MapArgument(tala::None()));
        }
    };
    evaluateRows(100);
    const double before = residentMiB();
    const std::size_t interpretersBefore = tala::python::allInterpreters().size();
    std::vector<std::thread> threads;
    std::atomic<int> entered{0};
    std::atomic<bool> leave{false};
    for (int index = 0; index < 3; ++index) {
        threads.emplace_back([&] {
            evaluateRows(100);
            ++entered;
            while (!leave.load()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        });
    }
    while (entered.load() < 3) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    const double after = residentMiB();
    const std::size_t made = tala::python::allInterpreters().size() - interpretersBefore;
    leave = true;
    for (std::thread& thread : threads) thread.join();
    threads.clear();
    std::printf("interpreters made: %zu, resident memory added: %.1f MiB (%.1f MiB each)\n", made, after - before,
                made > 0 ? (after - before) / static_cast<double>(made) : 0.0);

    constexpr int kThreads = 8;
    constexpr int kEvaluations = 100000;
    std::printf("%12s %14s\n", "evaluations", "resident MiB");
    for (int tenth = 1; tenth <= 10; ++tenth) {
        for (int index = 0; index < kThreads; ++index) threads.emplace_back([&] { evaluateRows(kEvaluations / 10 / kThreads); });
        for (std::thread& thread : threads) thread.join();
        threads.clear();
        tala::python::releasePendingEverywhere();
        std::printf("%12d %14.1f\n", tenth * kEvaluations / 10, residentMiB());
    }
    return 0;
}

// Keeps each benchmark's items per second, to print two threads against one after the run.
class ScalingReporter : public benchmark::ConsoleReporter {
public:
    ScalingReporter() : ConsoleReporter(isatty(STDOUT_FILENO) != 0 ? OO_Defaults : OO_Tabular) {}
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (run.error_occurred || run.run_type != Run::RT_Iteration) continue;
            const auto rate = run.counters.find("items_per_second");
            if (rate != run.counters.end()) rates_[run.run_name.function_name][run.threads] = rate->second.value;
        }
        ConsoleReporter::ReportRuns(runs);
    }
    void printScaling() const {
        std::printf("\nThroughput of two threads as a multiple of one (%s layout):\n", isolated() ? "isolated" : "shared");
        for (const auto& [name, byThreads] : rates_) {
            const auto one = byThreads.find(1);
            const auto two = byThreads.find(2);
            if (one == byThreads.end() || two == byThreads.end() || one->second <= 0) continue;
            std::printf("%-32s %10.0f/s %10.0f/s  x %.2f\n", name.c_str(), one->second, two->second, two->second / one->second);
        }
    }

private:
    std::map<std::string, std::map<int, double>> rates_;
};

}  // namespace

int main(int argc, char** argv) {
    // --layout=... and --memory are ours; everything else is Google Benchmark's.
    bool memory = false;
    std::vector<char*> rest;
    for (int index = 0; index < argc; ++index) {
        if (std::strncmp(argv[index], "--layout=", 9) == 0) {
            tala::set_language_option("python.interpreters", String(argv[index] + 9));
        } else if (std::strcmp(argv[index], "--memory") == 0) {
            memory = true;
        } else {
            rest.push_back(argv[index]);
        }
    }
    int count = static_cast<int>(rest.size());
    benchmark::Initialize(&count, rest.data());
    if (benchmark::ReportUnrecognizedArguments(count, rest.data())) return 1;
    startPython();
    if (memory) return reportMemory();
    // The raw floor of the layout being measured.
    if (isolated()) {
        benchmark::RegisterBenchmark("BM_Raw_IsolatedInterpreters", BM_Raw_IsolatedInterpreters)
            ->Threads(1)->Threads(2)->UseRealTime()->MinTime(1.0);
    } else {
        benchmark::RegisterBenchmark("BM_Raw_SharedLock", BM_Raw_SharedLock)->Threads(1)->Threads(2)->UseRealTime()->MinTime(1.0);
    }
    ScalingReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.printScaling();
    benchmark::Shutdown();
    return 0;
}

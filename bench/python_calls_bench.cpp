// bench/python_calls_bench.cpp: the cost of calling host functions and reading host properties
// from Python loops, next to the same loop calling a C function made with the C API.
//
// Every benchmark runs one compiled loop of kLoopLength rounds per iteration, with the interpreter
// lock held:
//   for i in range(n): pass          the empty loop, subtracted from the others
//   for i in range(n): c_add(i, 1)   a C function (METH_VARARGS, PyArg_ParseTuple "LL")
//   for i in range(n): c_add_fast(i, 1)   the same as a METH_FASTCALL function
//   for i in range(n): f(i, 1)       a host function with two integer parameters
//   for i in range(n): o.size        a host property of an instance of a module class
//   for i in range(n): d.day         an attribute of a Python date: a C getter (getset descriptor)
// After the benchmarks a summary gives each in CPU ns per operation net of the empty loop (best of
// several loops) and the host figures as a ratio to the C function.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <ctime>
#include <cstdint>
#include <cstdio>
#include <vector>

#include "bridge/to_python.hpp"
#include "extension/gil.hpp"
#include "extension/interpreter.hpp"
#include "tala/tala.hpp"

namespace {

using tala::python::GilGuard;
using tala::python::PyObjectPtr;

constexpr long kLoopLength = 100000;

// The C function of the comparison: the same work as the host function, by the C API.
PyObject* cAdd(PyObject*, PyObject* arguments) {
    long long a = 0;
    long long b = 0;
    if (!PyArg_ParseTuple(arguments, "LL", &a, &b)) return nullptr;
    return PyLong_FromLongLong(a + b);
}

PyMethodDef kCAdd = {"c_add", cAdd, METH_VARARGS, "Adds two integers."};

// The same as a fast-call function: the arguments as an array, no tuple.
PyObject* cAddFast(PyObject*, PyObject* const* arguments, Py_ssize_t count) {
    if (count != 2) {
        PyErr_SetString(PyExc_TypeError, "c_add_fast takes two arguments");
        return nullptr;
    }
    const long long a = PyLong_AsLongLong(arguments[0]);
    const long long b = PyLong_AsLongLong(arguments[1]);
    if (PyErr_Occurred() != nullptr) return nullptr;
    return PyLong_FromLongLong(a + b);
}

PyMethodDef kCAddFast = {"c_add_fast", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(cAddFast)), METH_FASTCALL,
                         "Adds two integers."};

const tala::Identifier kSizeField{"$_size"};
const tala::Identifier kSize{"$$size"};

tala::Class_Generic gaugeClass() {
    static const tala::ClassRegistration registration("Gauge", [] {
        return tala::ClassBuilder("Gauge")
            .doc("Something with a size.")
            .declaringContext(tala::Module::create("bench"))
            .field(kSizeField, tala::Integer::getType())
            .property(kSize, [](const tala::Any& self) { return self.fieldValue(kSizeField); }, "The size.")
            .build();
    });
    return registration.get();
}

// The globals every loop runs in: n, c_add, c_add_fast, f, o and d.
PyObject* loopGlobals() {
    static PyObject* globals = [] {
        (void)tala::python::ensurePythonOnce();
        GilGuard gil;
        PyObject* made = PyDict_New();
        PyDict_SetItemString(made, "__builtins__", PyEval_GetBuiltins());
        PyObjectPtr n = PyObjectPtr::steal(PyLong_FromLong(kLoopLength));
        PyDict_SetItemString(made, "n", n.get());
        PyObjectPtr cFunction = PyObjectPtr::steal(PyCFunction_New(&kCAdd, nullptr));
        PyDict_SetItemString(made, "c_add", cFunction.get());
        PyObjectPtr cFastFunction = PyObjectPtr::steal(PyCFunction_New(&kCAddFast, nullptr));
        PyDict_SetItemString(made, "c_add_fast", cFastFunction.get());
        const tala::I_Invokable_Generic add = tala::native_function(
            [](std::int64_t a, std::int64_t b) { return a + b; }, "add", {"a", "b"}, "Adds two integers.");
        PyObjectPtr hostFunction = PyObjectPtr::steal(tala::python::to_python(add));
        PyDict_SetItemString(made, "f", hostFunction.get());
        const tala::Any gauge = tala::make_instance(gaugeClass());
        gauge.setFieldValue(kSizeField, tala::Integer(42));
        PyObjectPtr hostObject = PyObjectPtr::steal(tala::python::to_python(gauge));
        PyDict_SetItemString(made, "o", hostObject.get());
        PyObjectPtr datetimeModule = PyObjectPtr::steal(PyImport_ImportModule("datetime"));
        PyObjectPtr date = datetimeModule ? PyObjectPtr::steal(PyObject_CallMethod(datetimeModule.get(), "date", "iii", 2024, 1, 5))
                                          : PyObjectPtr();
        if (date) PyDict_SetItemString(made, "d", date.get());
        if (PyErr_Occurred() != nullptr) PyErr_Print();
        return made;  // kept for the life of the process
    }();
    return globals;
}

PyObjectPtr compileLoop(const char* body) {
    (void)loopGlobals();
    GilGuard gil;
    const std::string source = std::string("for i in range(n): ") + body + "\n";
    PyObjectPtr code = PyObjectPtr::steal(Py_CompileString(source.c_str(), "<bench>", Py_file_input));
    if (!code) PyErr_Print();
    return code;
}

// Runs a compiled loop once; false (with the error printed) when it raised.
bool runLoop(PyObject* code) {
    PyObjectPtr result = PyObjectPtr::steal(PyEval_EvalCode(code, loopGlobals(), loopGlobals()));
    if (!result) {
        PyErr_Print();
        return false;
    }
    return true;
}

void runBenchmark(benchmark::State& state, const char* body) {
    (void)loopGlobals();  // starts the interpreter before the lock is taken
    GilGuard gil;         // before the code object, which must go while it is held
    PyObjectPtr code = compileLoop(body);
    if (!code) {
        state.SkipWithError("the loop does not compile");
        return;
    }
    for (auto _ : state) {
        if (!runLoop(code.get())) {
            state.SkipWithError("the loop raised");
            return;
        }
    }
    state.SetItemsProcessed(state.iterations() * kLoopLength);
    state.counters["ns/op"] = benchmark::Counter(static_cast<double>(state.iterations() * kLoopLength),
                                                 benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void BM_EmptyLoop(benchmark::State& state) { runBenchmark(state, "pass"); }
BENCHMARK(BM_EmptyLoop)->Unit(benchmark::kMillisecond);

void BM_CFunctionCall(benchmark::State& state) { runBenchmark(state, "c_add(i, 1)"); }
BENCHMARK(BM_CFunctionCall)->Unit(benchmark::kMillisecond);

void BM_CFastFunctionCall(benchmark::State& state) { runBenchmark(state, "c_add_fast(i, 1)"); }
BENCHMARK(BM_CFastFunctionCall)->Unit(benchmark::kMillisecond);

void BM_HostFunctionCall(benchmark::State& state) { runBenchmark(state, "f(i, 1)"); }
BENCHMARK(BM_HostFunctionCall)->Unit(benchmark::kMillisecond);

void BM_HostPropertyRead(benchmark::State& state) { runBenchmark(state, "o.size"); }
BENCHMARK(BM_HostPropertyRead)->Unit(benchmark::kMillisecond);

void BM_PythonAttributeRead(benchmark::State& state) { runBenchmark(state, "d.day"); }
BENCHMARK(BM_PythonAttributeRead)->Unit(benchmark::kMillisecond);

// CPU time of this thread: other processes on a busy machine do not count.
double threadCpuNanoseconds() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}

// CPU ns per round of the loop, the best of `runs` loops.
double bestNanosecondsPerRound(const char* body, int runs) {
    (void)loopGlobals();
    GilGuard gil;
    PyObjectPtr code = compileLoop(body);
    if (!code) return 0.0;
    double best = 1e300;
    for (int run = 0; run < runs; ++run) {
        const double start = threadCpuNanoseconds();
        if (!runLoop(code.get())) return 0.0;
        best = std::min(best, (threadCpuNanoseconds() - start) / kLoopLength);
    }
    return best;
}

void printSummary() {
    constexpr int kRuns = 15;
    const double empty = bestNanosecondsPerRound("pass", kRuns);
    const double cCall = bestNanosecondsPerRound("c_add(i, 1)", kRuns) - empty;
    const double cFastCall = bestNanosecondsPerRound("c_add_fast(i, 1)", kRuns) - empty;
    const double hostCall = bestNanosecondsPerRound("f(i, 1)", kRuns) - empty;
    const double hostProperty = bestNanosecondsPerRound("o.size", kRuns) - empty;
    const double pythonAttribute = bestNanosecondsPerRound("d.day", kRuns) - empty;
    std::printf("\nCPU time per operation, net of the empty loop (best of %d loops of %ld rounds):\n", kRuns,
                kLoopLength);
    std::printf("  empty loop (gross)        %8.1f ns\n", empty);
    std::printf("  C function  c_add(i, 1)   %8.1f ns\n", cCall);
    std::printf("  C fast call c_add_fast    %8.1f ns\n", cFastCall);
    std::printf("  host function  f(i, 1)    %8.1f ns   %5.2fx the C function, %5.2fx the fast call\n", hostCall,
                hostCall / cCall, hostCall / cFastCall);
    std::printf("  C getter  d.day           %8.1f ns\n", pythonAttribute);
    std::printf("  host property  o.size     %8.1f ns   %5.2fx the C getter\n", hostProperty, hostProperty / pythonAttribute);
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    printSummary();
    return 0;
}

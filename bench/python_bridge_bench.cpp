// bench/python_bridge_bench.cpp: the cost of bringing Python objects into the host, each next to
// the bare CPython calls that do the same work: numbers, text, a list proxy made and dropped, a
// Python function called from the host, and walking a long Python list through its proxy.
//
// Every benchmark holds the interpreter lock for its whole loop, as a caller already inside
// Python would; the extension's own lock taking then nests. BM_FromPythonIntTakingTheLock shows
// the price of taking the lock on each call, as a host thread outside Python pays it.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <thread>

#include "bridge/from_python.hpp"
#include "extension/gil.hpp"
#include "extension/interpreter.hpp"
#include "functions/function_python.hpp"
#include "ratio_reporter.hpp"
#include "tala/tala.hpp"

namespace {

using tala::Any;
using tala::python::GilGuard;
using tala::python::PyObjectPtr;

// The value of an expression; aborts the benchmark program when it raises.
PyObjectPtr evaluate(const char* expression) {
    GilGuard gil;
    PyObjectPtr globals = PyObjectPtr::steal(PyDict_New());
    PyObjectPtr result = PyObjectPtr::steal(PyRun_String(expression, Py_eval_input, globals.get(), globals.get()));
    if (!result) {
        PyErr_Print();
        std::abort();
    }
    return result;
}

// ---- int ---------------------------------------------------------------------------------------

void BM_FromPythonInt(benchmark::State& state) {
    GilGuard gil;
    PyObjectPtr number = evaluate("123456789");
    for (auto _ : state) {
        Any value = tala::python::from_python(number.get());
        benchmark::DoNotOptimize(value);
    }
}
BENCHMARK(BM_FromPythonInt);

void BM_FromPythonIntTakingTheLock(benchmark::State& state) {
    PyObjectPtr number = evaluate("123456789");
    for (auto _ : state) {
        Any value = tala::python::from_python(number.get());
        benchmark::DoNotOptimize(value);
    }
    GilGuard gil;
    number.reset();
}
BENCHMARK(BM_FromPythonIntTakingTheLock);

void BM_BarePyLongAsLongLong(benchmark::State& state) {
    GilGuard gil;
    PyObjectPtr number = evaluate("123456789");
    for (auto _ : state) {
        long long value = PyLong_AsLongLong(number.get());
        benchmark::DoNotOptimize(value);
    }
}
BENCHMARK(BM_BarePyLongAsLongLong);

// ---- str of 100 characters ----------------------------------------------------------------------

void BM_FromPythonStr100(benchmark::State& state) {
    GilGuard gil;
    PyObjectPtr text = evaluate("'x' * 100");
    for (auto _ : state) {
        Any value = tala::python::from_python(text.get());
        benchmark::DoNotOptimize(value);
    }
}
BENCHMARK(BM_FromPythonStr100);

void BM_BareUtf8AndSizeCopy(benchmark::State& state) {
    GilGuard gil;
    PyObjectPtr text = evaluate("'x' * 100");
    for (auto _ : state) {
        Py_ssize_t size = 0;
        const char* utf8 = PyUnicode_AsUTF8AndSize(text.get(), &size);
        std::string copy(utf8, static_cast<std::size_t>(size));
        benchmark::DoNotOptimize(copy);
    }
}
BENCHMARK(BM_BareUtf8AndSizeCopy);

// ---- float --------------------------------------------------------------------------------------

void BM_FromPythonFloat(benchmark::State& state) {
    GilGuard gil;
    PyObjectPtr number = evaluate("2.5");
    for (auto _ : state) {
        Any value = tala::python::from_python(number.get());
        benchmark::DoNotOptimize(value);
    }
}
BENCHMARK(BM_FromPythonFloat);

void BM_BarePyFloatAsDouble(benchmark::State& state) {
    GilGuard gil;
    PyObjectPtr number = evaluate("2.5");
    for (auto _ : state) {
        double value = PyFloat_AsDouble(number.get());
        benchmark::DoNotOptimize(value);
    }
}
BENCHMARK(BM_BarePyFloatAsDouble);

// ---- list: a proxy made and dropped ------------------------------------------------------------

void BM_FromPythonListProxy(benchmark::State& state) {
    GilGuard gil;
    PyObjectPtr list = evaluate("[1, 2, 3]");
    for (auto _ : state) {
        Any proxy = tala::python::from_python(list.get());
        benchmark::DoNotOptimize(proxy);
    }
}
BENCHMARK(BM_FromPythonListProxy);

void BM_BareIncRefDecRef(benchmark::State& state) {
    GilGuard gil;
    PyObjectPtr list = evaluate("[1, 2, 3]");
    for (auto _ : state) {
        Py_IncRef(list.get());
        benchmark::ClobberMemory();
        Py_DecRef(list.get());
    }
}
BENCHMARK(BM_BareIncRefDecRef);

// ---- calling a Python function ----------------------------------------------------------------

void BM_FunctionPythonCall(benchmark::State& state) {
    auto made = tala::FunctionPython::fromSource(tala::String("lambda x: x + 1"));
    if (!made.is<tala::FunctionPython>()) std::abort();
    const tala::I_Invokable_Generic function(tala::internal::unchecked, made);
    const Any arguments[] = {tala::Integer(2)};
    GilGuard gil;
    for (auto _ : state) {
        Any result = function.invokeWith(std::span<const Any>(arguments));
        benchmark::DoNotOptimize(result);
    }
}
BENCHMARK(BM_FunctionPythonCall);

void BM_BarePyObjectCallOneArg(benchmark::State& state) {
    GilGuard gil;
    PyObjectPtr function = evaluate("lambda x: x + 1");
    for (auto _ : state) {
        PyObjectPtr argument = PyObjectPtr::steal(PyLong_FromLongLong(2));
        PyObjectPtr result = PyObjectPtr::steal(PyObject_CallOneArg(function.get(), argument.get()));
        long long value = PyLong_AsLongLong(result.get());
        benchmark::DoNotOptimize(value);
    }
}
BENCHMARK(BM_BarePyObjectCallOneArg);

// ---- calls from host threads ------------------------------------------------------------------
//
// Each iteration starts a thread that makes kCallsPerThread calls of a Python function and ends.
// A host thread that Python has never seen makes its interpreter state on its first call and
// keeps it until it ends; the floor is the same thread giving itself a state before the calls,
// as a thread that Python already knows has one.

constexpr int kCallsPerThread = 1000;

const tala::I_Invokable_Generic& incrementFunction() {
    static const tala::I_Invokable_Generic* function = [] {
        auto made = tala::FunctionPython::fromSource(tala::String("lambda x: x + 1"));
        if (!made.is<tala::FunctionPython>()) std::abort();
        return new tala::I_Invokable_Generic(tala::internal::unchecked, made);
    }();
    return *function;
}

void callsOnAThread(benchmark::State& state, bool stateFirst) {
    const tala::I_Invokable_Generic& function = incrementFunction();
    const Any arguments[] = {tala::Integer(2)};
    for (auto _ : state) {
        std::thread caller([&] {
            PyThreadState* own = nullptr;
            if (stateFirst) {
                own = PyThreadState_New(PyInterpreterState_Main());
                PyEval_RestoreThread(own);
                (void)PyEval_SaveThread();
            }
            for (int call = 0; call < kCallsPerThread; ++call) {
                Any result = function.invokeWith(std::span<const Any>(arguments));
                benchmark::DoNotOptimize(result);
            }
            if (own != nullptr) {
                PyEval_RestoreThread(own);
                PyThreadState_Clear(own);
                PyThreadState_DeleteCurrent();
            }
        });
        caller.join();
    }
    state.SetItemsProcessed(state.iterations() * kCallsPerThread);
}

void BM_CallsFromANewHostThread(benchmark::State& state) { callsOnAThread(state, false); }
BENCHMARK(BM_CallsFromANewHostThread)->UseRealTime();

void BM_CallsFromAThreadWithAState(benchmark::State& state) { callsOnAThread(state, true); }
BENCHMARK(BM_CallsFromAThreadWithAState)->UseRealTime();

// ---- walking a list of 1,000,000 elements -------------------------------------------------------

constexpr std::int64_t kLongListSize = 1'000'000;

PyObjectPtr longList() { return evaluate("list(range(1000000))"); }

void BM_LongListThroughProxyAt(benchmark::State& state) {
    GilGuard gil;
    PyObjectPtr list = longList();
    const Any proxy = tala::python::from_python(list.get());
    const tala::I_Sequence_Generic sequence(tala::internal::unchecked, proxy);
    for (auto _ : state) {
        std::int64_t sum = 0;
        for (std::int64_t index = 0; index < kLongListSize; ++index) {
            const Any item = sequence.at(index);
            if (item.kind() != tala::Kind::Integer) {
                state.SkipWithError("an item was no integer");
                return;
            }
            sum += item.rawInteger();
        }
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * kLongListSize);
}
BENCHMARK(BM_LongListThroughProxyAt)->Unit(benchmark::kMillisecond);

void BM_LongListThroughProxyIterNext(benchmark::State& state) {
    GilGuard gil;
    PyObjectPtr list = longList();
    const Any proxy = tala::python::from_python(list.get());
    const tala::I_Iterable_Generic iterable(tala::internal::unchecked, proxy);
    for (auto _ : state) {
        std::int64_t sum = 0;
        std::int64_t count = 0;
        const tala::I_Iterator_Generic iterator(tala::internal::unchecked, iterable.iter());
        for (Any item = iterator.next(); item.kind() == tala::Kind::Integer; item = iterator.next(), ++count) sum += item.rawInteger();
        if (count != kLongListSize) {
            state.SkipWithError("the iteration ended early");
            return;
        }
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * kLongListSize);
}
BENCHMARK(BM_LongListThroughProxyIterNext)->Unit(benchmark::kMillisecond);

void BM_LongListBarePyListGetItem(benchmark::State& state) {
    GilGuard gil;
    PyObjectPtr list = longList();
    for (auto _ : state) {
        std::int64_t sum = 0;
        const Py_ssize_t size = PyList_Size(list.get());
        for (Py_ssize_t index = 0; index < size; ++index) sum += PyLong_AsLongLong(PyList_GetItem(list.get(), index));
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * kLongListSize);
}
BENCHMARK(BM_LongListBarePyListGetItem)->Unit(benchmark::kMillisecond);

void BM_LongListBarePyIterNext(benchmark::State& state) {
    GilGuard gil;
    PyObjectPtr list = longList();
    for (auto _ : state) {
        std::int64_t sum = 0;
        PyObjectPtr iterator = PyObjectPtr::steal(PyObject_GetIter(list.get()));
        while (PyObjectPtr item = PyObjectPtr::steal(PyIter_Next(iterator.get()))) sum += PyLong_AsLongLong(item.get());
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * kLongListSize);
}
BENCHMARK(BM_LongListBarePyIterNext)->Unit(benchmark::kMillisecond);

}  // namespace

// The interpreter is started before any benchmark takes the lock.
int main(int argc, char** argv) {
    tala::python::ensurePythonOnce();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    tala_bench::RatioReporter reporter("Time of the bridge as a multiple of CPython doing the same:");
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.printRatio("BM_FromPythonInt", "BM_BarePyLongAsLongLong");
    reporter.printRatio("BM_FromPythonStr100", "BM_BareUtf8AndSizeCopy");
    reporter.printRatio("BM_FunctionPythonCall", "BM_BarePyObjectCallOneArg");
    reporter.printRatio("BM_CallsFromANewHostThread/real_time", "BM_CallsFromAThreadWithAState/real_time", true);
    reporter.printRatio("BM_LongListThroughProxyIterNext", "BM_LongListBarePyIterNext");
    reporter.printRatio("BM_LongListThroughProxyAt", "BM_LongListBarePyListGetItem");
    benchmark::Shutdown();
    return 0;
}

// bench/python_bench.cpp: the cost of handing host values to Python (to_python), each next to the
// cheapest way of making the same Python object with the C API directly.
//
// Every pair is measured the same way: one conversion and the release of its result per
// iteration, with the interpreter lock held across the loop (to_python takes it again inside,
// which nests). The "Unlocked" variant leaves the taking of the lock to each call.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>
#include <vector>

#include "bridge/to_python.hpp"
#include "extension/gil.hpp"
#include "extension/interpreter.hpp"
#include "tala/tala.hpp"

namespace {

using tala::python::GilGuard;
using tala::python::to_python;

// Beyond the interpreter's cache of small ints, so that both sides really make an object.
constexpr std::int64_t kNumber = 1'234'567'890'123;
constexpr int kTupleSize = 10;

void startPython() {
    static const bool started = tala::python::ensurePythonOnce();
    (void)started;
}

std::string hundredCharacters() { return std::string(100, 'x'); }

// ---- Integer ------------------------------------------------------------------------------------

void BM_ToPython_Integer(benchmark::State& state) {
    startPython();
    const tala::Any value = tala::Integer(kNumber);
    GilGuard gil;
    for (auto _ : state) {
        PyObject* object = to_python(value);
        benchmark::DoNotOptimize(object);
        Py_DecRef(object);
    }
}
BENCHMARK(BM_ToPython_Integer);

void BM_CApi_PyLong_FromLongLong(benchmark::State& state) {
    startPython();
    GilGuard gil;
    std::int64_t number = kNumber;
    for (auto _ : state) {
        benchmark::DoNotOptimize(number);
        PyObject* object = PyLong_FromLongLong(number);
        benchmark::DoNotOptimize(object);
        Py_DecRef(object);
    }
}
BENCHMARK(BM_CApi_PyLong_FromLongLong);

// The same conversion from a thread that holds no lock: each call takes and gives it back.
void BM_ToPython_Integer_Unlocked(benchmark::State& state) {
    startPython();
    const tala::Any value = tala::Integer(kNumber);
    for (auto _ : state) {
        PyObject* object = to_python(value);
        benchmark::DoNotOptimize(object);
        GilGuard gil;
        Py_DecRef(object);
    }
}
BENCHMARK(BM_ToPython_Integer_Unlocked);

// ---- String of 100 characters -------------------------------------------------------------------

void BM_ToPython_String100(benchmark::State& state) {
    startPython();
    const tala::Any value = tala::String(hundredCharacters());
    GilGuard gil;
    for (auto _ : state) {
        PyObject* object = to_python(value);
        benchmark::DoNotOptimize(object);
        Py_DecRef(object);
    }
}
BENCHMARK(BM_ToPython_String100);

void BM_CApi_PyUnicode_FromStringAndSize100(benchmark::State& state) {
    startPython();
    const std::string text = hundredCharacters();
    GilGuard gil;
    for (auto _ : state) {
        PyObject* object = PyUnicode_FromStringAndSize(text.data(), static_cast<Py_ssize_t>(text.size()));
        benchmark::DoNotOptimize(object);
        Py_DecRef(object);
    }
}
BENCHMARK(BM_CApi_PyUnicode_FromStringAndSize100);

// ---- Tuple of 10 integers -----------------------------------------------------------------------

void BM_ToPython_Tuple10Integers(benchmark::State& state) {
    startPython();
    std::vector<tala::Any> items;
    for (int i = 0; i < kTupleSize; ++i) items.push_back(tala::Integer(kNumber + i));
    const tala::Any value = tala::Tuple(std::move(items));
    GilGuard gil;
    for (auto _ : state) {
        PyObject* object = to_python(value);
        benchmark::DoNotOptimize(object);
        Py_DecRef(object);
    }
}
BENCHMARK(BM_ToPython_Tuple10Integers);

void BM_CApi_PyTuple_New10Integers(benchmark::State& state) {
    startPython();
    std::int64_t numbers[kTupleSize];
    for (int i = 0; i < kTupleSize; ++i) numbers[i] = kNumber + i;
    GilGuard gil;
    for (auto _ : state) {
        benchmark::DoNotOptimize(numbers);
        PyObject* tuple = PyTuple_New(kTupleSize);
        for (int i = 0; i < kTupleSize; ++i) PyTuple_SET_ITEM(tuple, i, PyLong_FromLongLong(numbers[i]));
        benchmark::DoNotOptimize(tuple);
        Py_DecRef(tuple);
    }
}
BENCHMARK(BM_CApi_PyTuple_New10Integers);

// ---- Host object: a wrapper made and destroyed --------------------------------------------------

void BM_ToPython_ListWrapper(benchmark::State& state) {
    startPython();
    const tala::Any value = tala::List<tala::Integer>{1, 2, 3};
    GilGuard gil;
    for (auto _ : state) {
        PyObject* object = to_python(value);
        benchmark::DoNotOptimize(object);
        Py_DecRef(object);
    }
}
BENCHMARK(BM_ToPython_ListWrapper);

// A bare instance of `object`, the simplest Python object there is.
void BM_CApi_BareObject(benchmark::State& state) {
    startPython();
    GilGuard gil;
    PyObject* objectType = reinterpret_cast<PyObject*>(&PyBaseObject_Type);
    for (auto _ : state) {
        PyObject* object = PyObject_CallNoArgs(objectType);
        benchmark::DoNotOptimize(object);
        Py_DecRef(object);
    }
}
BENCHMARK(BM_CApi_BareObject);

}  // namespace

BENCHMARK_MAIN();

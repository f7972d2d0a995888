// bench/gc_bench.cpp: the cost of a full gc.collect() with many wrappers of host values alive, next to the same
// number of Python's own containers.
//
// The wrappers come in threes: a host list holding two integers and a Python dict (walked by the
// collector: the wrapper alone holds the list), a host object whose field holds a Python list
// (walked too), and a host map that the host also holds (not walked). The Python side holds the
// same shapes made of Python lists and objects. Each iteration is one gc.collect().
#include <benchmark/benchmark.h>

#include <string>

#include "bridge/to_python.hpp"
#include "extension/gil.hpp"
#include "extension/interpreter.hpp"
#include "tala/tala.hpp"

namespace {

using tala::Any;
using tala::python::GilGuard;
using tala::python::PyObjectPtr;

tala::Class_Generic holderClass() {
    static const tala::ClassRegistration registration("GcBenchHolder", [] {
        return tala::ClassBuilder("GcBenchHolder").doc("A host object with a field.").field(tala::Identifier("$tag")).build();
    });
    return registration.get();
}

void put(PyObject* globals, const char* name, const Any& value) {
    PyObjectPtr converted = PyObjectPtr::steal(tala::python::to_python(value));
    if (!converted || PyDict_SetItemString(globals, name, converted.get()) < 0) PyErr_Print();
}

// A globals dictionary with the host's factories and `count` objects of the given set-up kept alive.
PyObjectPtr prepare(const char* setup, std::int64_t count) {
    static const bool started = tala::python::ensurePythonOnce();
    (void)started;
    static const tala::HashMap<tala::String, Any> shared;
    GilGuard gil;
    PyObjectPtr globals = PyObjectPtr::steal(PyDict_New());
    put(globals.get(), "new_list", tala::native_function([] { return tala::List<Any>(); }, "new_list"));
    put(globals.get(), "new_holder", tala::native_function([] { return tala::make_instance(holderClass()); }, "new_holder"));
    put(globals.get(), "shared", tala::native_function([] { return shared; }, "shared"));
    put(globals.get(), "count", tala::Integer(count));
    PyObjectPtr ran = PyObjectPtr::steal(PyRun_String(setup, Py_file_input, globals.get(), globals.get()));
    if (!ran) PyErr_Print();
    return globals;
}

const char* const kHostWrappers = R"PY(
import gc
keep = []
for i in range(count // 3):
    host_list = new_list()
    host_list.append(1)
    host_list.append(2)
    host_list.append({"k": i})
    holder = new_holder()
    holder.tag = [i]
    keep.append(host_list)
    keep.append(holder)
    keep.append(shared())
del host_list, holder
gc.collect()
)PY";

const char* const kPythonObjects = R"PY(
import gc
class Holder:
    __slots__ = ("tag",)
shared_dict = {}
keep = []
for i in range(count // 3):
    python_list = [1, 2, {"k": i}]
    holder = Holder()
    holder.tag = [i]
    keep.append(python_list)
    keep.append(holder)
    keep.append(shared_dict)
del python_list, holder
gc.collect()
)PY";

void collectWith(benchmark::State& state, const char* setup) {
    PyObjectPtr globals = prepare(setup, state.range(0));
    GilGuard gil;
    for (auto _ : state) benchmark::DoNotOptimize(PyGC_Collect());
    state.counters["objects"] = static_cast<double>(state.range(0));
    PyDict_Clear(globals.get());
    (void)PyGC_Collect();
}

void BM_GcCollect_HostWrappers(benchmark::State& state) { collectWith(state, kHostWrappers); }
BENCHMARK(BM_GcCollect_HostWrappers)->Arg(30000)->Arg(300000)->Unit(benchmark::kMillisecond);

void BM_GcCollect_PythonObjects(benchmark::State& state) { collectWith(state, kPythonObjects); }
BENCHMARK(BM_GcCollect_PythonObjects)->Arg(30000)->Arg(300000)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();

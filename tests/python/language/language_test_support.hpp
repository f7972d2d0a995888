// tests/python/language/language_test_support.hpp: the fixture and helpers of the evaluation and
// logging-bridge tests.
#pragma once

#include <Python.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "bridge/errors.hpp"
#include "language/evaluate.hpp"
#include "python_test_support.hpp"
#include "tala/tala.hpp"

namespace tala_language_test {

using MapArgument = tala::Union<tala::I_Map<tala::String, tala::Any>, tala::None>;
using MutableMapArgument = tala::Union<tala::I_MutableMap<tala::String, tala::Any>, tala::None>;

// A host map as the map argument of an evaluation.
inline MapArgument mapArgument(const tala::HashMap<tala::String, tala::Any>& map) {
    return MapArgument(tala::internal::unchecked, map);
}
inline MutableMapArgument mutableMapArgument(const tala::HashMap<tala::String, tala::Any>& map) {
    return MutableMapArgument(tala::internal::unchecked, map);
}
inline MapArgument noMap() { return MapArgument(tala::None()); }
inline MutableMapArgument noMutableMap() { return MutableMapArgument(tala::None()); }

// Every suite here runs the host's init handlers first, the way the host starts the extension
// (the logging bridge starts the interpreter), and ends each test with no Python error pending.
class LanguageTest : public tala_python_test::PythonTest {
protected:
    static void SetUpTestSuite() {
        const tala::Any handlers = tala::run_init_handlers();
        ASSERT_TRUE(handlers.isEmpty()) << tala::display(handlers).toStdString();
        ASSERT_TRUE(tala::python::ensurePythonOnce());
    }
};

// True when the calling thread has a Python error pending (cleared, and reported, if so).
inline bool pythonErrorPending() {
    tala::python::GilGuard gil;
    if (PyErr_Occurred() == nullptr) return false;
    ADD_FAILURE() << "a Python error is pending: " << tala_python_test::takePendingError();
    return true;
}

inline std::string text(const tala::Any& value) { return tala::display(value).toStdString(); }

// The message of an error value, or a marker that says what the value was instead.
inline std::string errorMessage(const tala::Any& value) {
    if (!tala::Error::matches(value)) return "<not an error: " + text(value) + ">";
    return tala::Error(tala::internal::unchecked, value).message().toStdString();
}

// A property of an error value (exceptionType, traceback) as text, or a marker that says what
// there was instead.
inline std::string errorProperty(const tala::Any& error, const char* name) {
    auto found = tala::property_of(error, std::string_view(name));
    if (found.isEmpty()) return "<no property " + std::string(name) + ">";
    const tala::Any value = tala::resolve(found.as<tala::Property>().get(error));
    auto asString = tala::String::cast(value);
    return asString ? asString->toStdString() : "<not text: " + text(value) + ">";
}

// sys.getallocatedblocks(): the number of memory blocks the interpreter's own allocator holds
// (0 when Python allocates with the system's malloc).
inline std::int64_t allocatedBlocks() {
    tala::python::GilGuard gil;
    PyObject* sys = PyImport_AddModule("sys");  // borrowed
    if (sys == nullptr) {
        PyErr_Clear();
        return -1;
    }
    tala::python::PyObjectPtr count = tala::python::PyObjectPtr::steal(PyObject_CallMethod(sys, "getallocatedblocks", nullptr));
    if (!count) {
        PyErr_Clear();
        return -1;
    }
    return PyLong_AsLongLong(count.get());
}

// Counts what the interpreter keeps allocated, to see that a loop leaves nothing behind: the
// blocks of Python's own allocator, or, when Python uses the system's malloc (PYTHONMALLOC=malloc,
// as in the sanitizer runs, where that count is always 0), the bytes that tracemalloc traces from
// the probe's making on.
class PythonAllocations {
public:
    PythonAllocations() : tracing_(allocatedBlocks() <= 0) {
        if (tracing_) call("start");
    }
    ~PythonAllocations() {
        if (tracing_) call("stop");
    }
    PythonAllocations(const PythonAllocations&) = delete;
    PythonAllocations& operator=(const PythonAllocations&) = delete;

    // Blocks, or traced bytes.
    std::int64_t count() const {
        if (!tracing_) return allocatedBlocks();
        tala::python::GilGuard gil;
        tala::python::PyObjectPtr traced = call("get_traced_memory");  // (current, peak)
        if (!traced || !PyTuple_Check(traced.get())) return -1;
        return PyLong_AsLongLong(PyTuple_GetItem(traced.get(), 0));
    }
    // The growth a loop may show without leaking: a few hundred blocks, or 64 KiB.
    std::int64_t allowedGrowth() const { return tracing_ ? 64 * 1024 : 500; }
    const char* unit() const { return tracing_ ? "traced bytes" : "allocated blocks"; }

private:
    static tala::python::PyObjectPtr call(const char* function) {
        tala::python::GilGuard gil;
        tala::python::PyObjectPtr module = tala::python::PyObjectPtr::steal(PyImport_ImportModule("tracemalloc"));
        tala::python::PyObjectPtr result;
        if (module) result = tala::python::PyObjectPtr::steal(PyObject_CallMethod(module.get(), function, nullptr));
        if (!result) ADD_FAILURE() << "tracemalloc." << function << " failed: " << tala_python_test::takePendingError();
        return result;
    }

    bool tracing_;
};

// The text that Python's traceback module formats for the SyntaxError of compiling `source` (as
// the builtin eval and exec compile it: file "<string>", mode "eval" or "exec"), without any
// frames. An evaluation's syntax error carries exactly this text.
inline std::string formattedSyntaxError(const std::string& source, const char* mode) {
    tala::python::GilGuard gil;
    tala::python::PyObjectPtr globals = tala_python_test::newGlobals();
    tala::python::PyObjectPtr sourceText = tala::python::PyObjectPtr::steal(
        PyUnicode_FromStringAndSize(source.data(), static_cast<Py_ssize_t>(source.size())));
    tala::python::PyObjectPtr modeText = tala::python::PyObjectPtr::steal(PyUnicode_FromString(mode));
    if (!sourceText || !modeText || PyDict_SetItemString(globals.get(), "source", sourceText.get()) < 0 ||
        PyDict_SetItemString(globals.get(), "mode", modeText.get()) < 0) {
        PyErr_Clear();
        return "<cannot prepare>";
    }
    if (!tala_python_test::runPython("import traceback\n"
                                     "text = '<no syntax error>'\n"
                                     "try:\n"
                                     "    compile(source, '<string>', mode)\n"
                                     "except SyntaxError as caught:\n"
                                     "    text = ''.join(traceback.format_exception(caught.with_traceback(None)))\n",
                                     globals.get())) {
        return "<formatting failed>";
    }
    return tala_python_test::textOf(PyDict_GetItemString(globals.get(), "text"));
}

// The host error that the bridge makes of the OverflowError which Python raises for an int
// beyond 64 bits.
inline tala::Error overflowHostError() {
    tala::python::GilGuard gil;
    tala::python::PyObjectPtr big = tala_python_test::evalPython("2 ** 70");
    (void)PyLong_AsLongLong(big.get());
    return tala::python::fetch_python_error_or("no OverflowError was raised");
}

}  // namespace tala_language_test

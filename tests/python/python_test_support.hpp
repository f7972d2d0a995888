// tests/python/python_test_support.hpp: helpers shared by the tests of the Python extension.
#pragma once

#include <Python.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "extension/gil.hpp"
#include "extension/interpreter.hpp"
#include "extension/interpreters.hpp"
#include "tala/tala.hpp"

namespace tala_python_test {

using tala::python::GilGuard;
using tala::python::PyObjectPtr;

// Every suite that needs the interpreter derives from this: it is started once per process, the
// way the extension starts it, and every test ends with no Python error pending.
class PythonTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { ASSERT_TRUE(tala::python::ensurePythonOnce()); }

    void TearDown() override {
        GilGuard gil;
        EXPECT_EQ(PyErr_Occurred(), nullptr) << "a Python error was left pending";
        PyErr_Clear();
    }
};

// Whether the tests run in the isolated interpreter layout (TALA_PYTHON_INTERPRETERS=isolated):
// each host thread then runs in an interpreter of its own, with its own types and modules.
inline bool isolatedLayout() {
    return tala::python::interpreterLayout() == tala::python::InterpreterLayout::Isolated;
}

// Python code that runs `churn()` three times, collecting after each pass, and leaves in `grown`
// the least growth of Python's allocated blocks over one pass: a one-time growth (a table of the
// interpreter's that grows once, at a moment that differs from run to run) shows in one pass, a
// leak in each. Needs `gc` and `sys` imported.
inline constexpr const char* kLeastBlockGrowthOfThreeChurns = "grown = []\n"
                                                              "for _ in range(3):\n"
                                                              "    blocks = sys.getallocatedblocks()\n"
                                                              "    churn()\n"
                                                              "    gc.collect()\n"
                                                              "    grown.append(sys.getallocatedblocks() - blocks)\n"
                                                              "grown = min(grown)\n";

// Keeps a class made by a test for the rest of the process. Published classes are never freed by
// the object model; kept here, they stay reachable, as the classes of real modules do.
inline tala::Class_Generic kept(const tala::Class_Generic& cls) {
    static auto* classes = new std::vector<tala::Class_Generic>();
    static std::mutex mutex;
    std::lock_guard lock(mutex);
    classes->push_back(cls);
    return cls;
}

// The reference count of a host value's cell (0 for values without a cell).
inline std::uint32_t hostRefCount(const tala::Any& value) {
    return value.cell() == nullptr ? 0 : value.cell()->refCount();
}

// The text of a Python str object.
inline std::string textOf(PyObject* text) {
    GilGuard gil;
    Py_ssize_t size = 0;
    const char* utf8 = PyUnicode_AsUTF8AndSize(text, &size);
    if (utf8 == nullptr) {
        PyErr_Clear();
        return "<not text>";
    }
    return std::string(utf8, static_cast<std::size_t>(size));
}

// repr(object), or a marker when it fails (the failure is cleared).
inline std::string reprOf(PyObject* object) {
    GilGuard gil;
    if (object == nullptr) return "<null>";
    PyObjectPtr text = PyObjectPtr::steal(PyObject_Repr(object));
    if (!text) {
        PyErr_Clear();
        return "<repr failed>";
    }
    return textOf(text.get());
}

// The full name of a type the way Python shows it: "module.qualname" (only "qualname" for
// builtins).
inline std::string fullTypeName(PyObject* type) {
    GilGuard gil;
    PyObjectPtr module = PyObjectPtr::steal(PyObject_GetAttrString(type, "__module__"));
    PyObjectPtr qualname = PyObjectPtr::steal(PyObject_GetAttrString(type, "__qualname__"));
    if (!module || !qualname) {
        PyErr_Clear();
        return "<no name>";
    }
    const std::string moduleName = PyUnicode_Check(module.get()) ? textOf(module.get()) : std::string();
    const std::string name = textOf(qualname.get());
    return moduleName.empty() || moduleName == "builtins" ? name : moduleName + "." + name;
}

// Takes the pending Python error as "TypeName: message" and clears it; empty when none is
// pending.
inline std::string takePendingError() {
    GilGuard gil;
    PyObject* raised = PyErr_GetRaisedException();
    if (raised == nullptr) return std::string();
    PyObjectPtr exception = PyObjectPtr::steal(raised);
    std::string text = Py_TYPE(raised)->tp_name;
    PyObjectPtr message = PyObjectPtr::steal(PyObject_Str(raised));
    if (message) {
        text += ": " + textOf(message.get());
    } else {
        PyErr_Clear();
    }
    return text;
}

// A fresh globals dictionary (the interpreter adds __builtins__ on first use).
inline PyObjectPtr newGlobals() {
    GilGuard gil;
    return PyObjectPtr::steal(PyDict_New());
}

// Runs statements in `globals`; true when they ran without an exception. A failure is added to
// the test's output and cleared.
inline bool runPython(const char* code, PyObject* globals) {
    GilGuard gil;
    PyObjectPtr result = PyObjectPtr::steal(PyRun_String(code, Py_file_input, globals, globals));
    if (!result) {
        ADD_FAILURE() << "Python raised " << takePendingError() << " running:\n" << code;
        return false;
    }
    return true;
}

// The value of an expression evaluated in `globals` (a fresh dictionary when null); null when it
// raised, with the failure added to the test's output.
inline PyObjectPtr evalPython(const char* expression, PyObject* globals = nullptr) {
    GilGuard gil;
    PyObjectPtr own;
    if (globals == nullptr) {
        own = newGlobals();
        globals = own.get();
    }
    PyObjectPtr result = PyObjectPtr::steal(PyRun_String(expression, Py_eval_input, globals, globals));
    if (!result) ADD_FAILURE() << "Python raised " << takePendingError() << " evaluating " << expression;
    return result;
}

// Whether `a == b` in Python.
inline bool pythonEqual(PyObject* a, PyObject* b) {
    GilGuard gil;
    const int equal = PyObject_RichCompareBool(a, b, Py_EQ);
    if (equal < 0) {
        ADD_FAILURE() << "comparison raised " << takePendingError();
        return false;
    }
    return equal == 1;
}

// Ends the process when the threads are not through in time: a deadlock would otherwise hang the
// test until the runner kills it, without saying why.
class Watchdog {
public:
    explicit Watchdog(std::chrono::seconds limit,
                      const char* message = "The threads did not finish: they wait for each other.")
        : thread_([this, limit, message] {
              const auto deadline = std::chrono::steady_clock::now() + limit;
              while (!done_.load()) {
                  if (std::chrono::steady_clock::now() > deadline) {
                      std::fprintf(stderr, "%s\n", message);
                      std::_Exit(1);
                  }
                  std::this_thread::sleep_for(std::chrono::milliseconds(20));
              }
          }) {}
    ~Watchdog() {
        done_ = true;
        thread_.join();
    }

private:
    std::atomic<bool> done_{false};
    std::thread thread_;
};

}  // namespace tala_python_test

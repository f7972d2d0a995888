// tests/python/extension/loader_test.cpp: the built extension loaded the way the host loads it:
// through the object model's load_extension, which calls quarto_extension_init and runs the init
// handlers. This program does not link the extension's code; it only sees what the library
// registers with the object model.
//
// Built twice: with TALA_PYTHON_LOAD_RELATIVE the library is opened by a path relative to the
// working directory, which changes right after loading.
#include <Python.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

#include "tala/tala.hpp"
#include "lock_check.hpp"

#ifndef TALA_PYTHON_EXTENSION_PATH
#error "TALA_PYTHON_EXTENSION_PATH must name the built extension library"
#endif

namespace {

const std::string kExtension = TALA_PYTHON_EXTENSION_PATH;

// How many times `path` is in sys.path (taking the lock the way any host thread must).
int countInSysPath(const std::string& path) {
    const PyGILState_STATE state = PyGILState_Ensure();
    int count = -1;
    PyObject* sysPath = PySys_GetObject("path");  // borrowed
    PyObject* text = PyUnicode_FromString(path.c_str());
    if (sysPath != nullptr && text != nullptr) count = static_cast<int>(PySequence_Count(sysPath, text));
    Py_DecRef(text);
    PyErr_Clear();
    PyGILState_Release(state);
    return count;
}

// "lib/libtala_python.so" for ".../build/lib/libtala_python.so".
std::filesystem::path relativeName() {
    const std::filesystem::path library(kExtension);
    return library.parent_path().filename() / library.filename();
}

class LoaderTest : public ::testing::Test {
protected:
    // Loaded once per process: a second load would only run no new handlers.
    static void SetUpTestSuite() {
        ASSERT_FALSE(Py_IsInitialized());
#if defined(__SANITIZE_ADDRESS__)
        // Python's small-object allocator keeps its objects in arenas that LeakSanitizer does not
        // scan, so a host value held by a Python object that lives to the end of the process (the
        // wrapper of module "tala" that the logging handler keeps) would look leaked. With the C
        // allocator the interpreter's objects are ordinary heap blocks, reachable from its state.
        setenv("PYTHONMALLOC", "malloc", 0);
#endif
#if defined(TALA_PYTHON_LOAD_RELATIVE)
        const std::filesystem::path library(kExtension);
        std::filesystem::current_path(library.parent_path().parent_path());
        const tala::Any result = tala::load_extension(relativeName().string());
        std::filesystem::current_path("/");
#else
        const tala::Any result = tala::load_extension(kExtension);
#endif
        ASSERT_TRUE(result.isEmpty()) << tala::display(result).toStdString();
    }
};

TEST_F(LoaderTest, LoadingStartsPythonWithTheSearchPathsBesideTheLibrary) {
    EXPECT_TRUE(Py_IsInitialized());
    // The interpreter started during the init handlers, which gave the lock up again.
    EXPECT_EQ(tala_python_test::holdsAnInterpreterLock(), 0);
    const std::string directory = std::filesystem::path(kExtension).parent_path().string();
    EXPECT_EQ(countInSysPath(directory + "/site-packages"), 1);
    EXPECT_EQ(countInSysPath(directory + "/python3/lib"), 0) << "only the archives in python3/lib are added";
    // Never relative to the working directory of the moment of loading.
    EXPECT_EQ(countInSysPath((relativeName().parent_path() / "site-packages").string()), 0);
}

TEST_F(LoaderTest, ModuleFunctionAddsToSysPathThroughTheObjectModel) {
    const auto module = tala::Module::find("tala.python");
    ASSERT_TRUE(module.has_value()) << "the module tala.python was not registered";
    const auto property = tala::property_of(*module, "python_add_sys_path");
    ASSERT_TRUE(property.is<tala::Property>()) << "tala.python has no python_add_sys_path";
    const tala::Any function = property.as<tala::Property>().get(*module);
    ASSERT_TRUE(tala::I_Invokable_Generic::matches(function)) << tala::display(function).toStdString();
    const tala::I_Invokable_Generic invokable(tala::internal::unchecked, function);

    const std::string path = "/tala-loader-test/added";
    const tala::Any first = invokable(tala::String(path));
    EXPECT_TRUE(first.isEmpty()) << tala::display(first).toStdString();
    const tala::Any second = invokable(tala::String(path));
    EXPECT_TRUE(second.isEmpty()) << tala::display(second).toStdString();
    EXPECT_EQ(countInSysPath(path), 1);

    // A wrong argument is the object model's error, not a crash.
    const tala::Any wrong = invokable(tala::Integer(1));
    EXPECT_TRUE(tala::is_error_result(wrong));
}

TEST_F(LoaderTest, InterpreterIsUsableFromAnotherThread) {
    long answer = 0;
    std::thread([&answer] {
        const PyGILState_STATE state = PyGILState_Ensure();
        PyObject* globals = PyDict_New();
        PyObject* value = PyRun_String("sum(range(10))", Py_eval_input, globals, globals);
        answer = value != nullptr ? PyLong_AsLong(value) : -1;
        Py_DecRef(value);
        Py_DecRef(globals);
        PyErr_Clear();
        PyGILState_Release(state);
    }).join();
    EXPECT_EQ(answer, 45);
}

}  // namespace

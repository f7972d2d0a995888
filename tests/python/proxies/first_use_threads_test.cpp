// tests/python/proxies/first_use_threads_test.cpp: several threads converting Python objects and
// asking for class views for the very first time in the process, while the standard module the
// conversion looks up is still being imported. The import gives the interpreter lock up (here: a
// finder that sleeps), so another thread gets the lock and needs the same one-time look-up; it
// must not wait for it while holding the lock the importing thread needs to finish.
//
// Each test needs a process in which the look-ups have not been made yet: ctest runs every test
// of this program in a process of its own.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <thread>
#include <vector>

#include "bridge/from_python.hpp"
#include "functions/function_python.hpp"
#include "proxies/python_type.hpp"
#include "python_test_support.hpp"

namespace {

using tala::python::GilGuard;
using tala::python::PyObjectPtr;
using tala_python_test::PythonTest;
using tala_python_test::runPython;

class FirstUseThreadsTest : public PythonTest {
protected:
    // Makes the first import of `module` slow: a finder in front of the others sleeps (giving the
    // interpreter lock up) before letting the usual finders find it. False when the module was
    // imported already, which leaves nothing to test in this process.
    static bool slowDownFirstImportOf(const char* module) {
        GilGuard gil;
        PyObjectPtr name = PyObjectPtr::steal(PyUnicode_FromString(module));
        PyObjectPtr imported = PyObjectPtr::steal(PyImport_GetModule(name.get()));
        if (imported) return false;
        PyErr_Clear();
        PyObjectPtr globals = tala_python_test::newGlobals();
        PyDict_SetItemString(globals.get(), "slow_name", name.get());
        return runPython("import sys, time\n"
                         "class SlowFinder:\n"
                         "    @staticmethod\n"
                         "    def find_spec(name, path=None, target=None):\n"
                         "        if name == slow_name:\n"
                         "            time.sleep(0.3)\n"
                         "        return None\n"
                         "sys.meta_path.insert(0, SlowFinder)\n",
                         globals.get());
    }

    // Runs `work` on several threads at once, none of which holds the lock at the start; fails
    // the program when they do not all finish in time (deadlocked threads cannot be joined).
    template <class Work>
    static void runOnThreads(Work work) {
        constexpr int kThreads = 4;
        std::vector<std::future<void>> done;
        for (int index = 0; index < kThreads; ++index) {
            done.push_back(std::async(std::launch::async, work));
            std::this_thread::sleep_for(std::chrono::milliseconds(50));  // the first one starts the import
        }
        for (auto& each : done) {
            if (each.wait_for(std::chrono::seconds(30)) != std::future_status::ready) {
                std::fprintf(stderr, "The threads did not finish: they wait for each other.\n");
                std::fflush(stderr);
                std::_Exit(1);
            }
            each.get();
        }
    }
};

TEST_F(FirstUseThreadsTest, FirstConversionsOnManyThreadsDoNotWaitForEachOtherForEver) {
    if (!slowDownFirstImportOf("decimal")) GTEST_SKIP() << "decimal was imported before the test";
    runOnThreads([] {
        GilGuard gil;
        PyObjectPtr number = PyObjectPtr::steal(PyLong_FromLong(7));
        const tala::Any value = tala::python::from_python(number.get());
        EXPECT_EQ(value.rawInteger(), 7);
    });
}

TEST_F(FirstUseThreadsTest, FirstClassViewsOnManyThreadsDoNotWaitForEachOtherForEver) {
    if (!slowDownFirstImportOf("datetime")) GTEST_SKIP() << "datetime was imported before the test";
    runOnThreads([] {
        GilGuard gil;
        auto cls = tala::python::classOfPythonType(reinterpret_cast<PyObject*>(&PyFloat_Type));
        ASSERT_TRUE(cls.is<tala::Class_Generic>());
        EXPECT_EQ(cls.as<tala::Class_Generic>(), tala::Float::getClass());
    });
}

// The signature of a Python function is read once, with inspect, which is imported the first time.
TEST_F(FirstUseThreadsTest, FirstSignatureOnManyThreadsDoesNotWaitForEachOtherForEver) {
    if (!slowDownFirstImportOf("inspect")) GTEST_SKIP() << "inspect was imported before the test";
    tala::Any function;
    {
        GilGuard gil;
        PyObjectPtr globals = tala_python_test::newGlobals();
        PyObjectPtr callable = tala_python_test::evalPython("lambda a, b: a", globals.get());
        function = tala::FunctionPython::fromCallable(callable.get());
    }
    ASSERT_TRUE(tala::FunctionPython::matches(function));
    runOnThreads([&function] {
        GilGuard gil;
        const tala::Signature signature = tala::I_Invokable_Generic(tala::internal::unchecked, function).signature();
        EXPECT_EQ(signature.parameterCount(), 2u);
    });
}

}  // namespace

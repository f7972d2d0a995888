// tests/python/pyside/wrapper_types_threads_test.cpp: building a per-class wrapper type may run
// Python code (reading the signature of a method that is a Python function), and Python switches
// threads while it runs. Threads that wrap values of other module classes meanwhile must not wait
// for that build while they hold the interpreter lock.
//
// A program of its own: it makes Python switch threads as often as it can.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <latch>
#include <thread>

#include "bridge/to_python.hpp"
#include "functions/function_python.hpp"
#include "pyside/tala_object.hpp"
#include "python_test_support.hpp"

namespace {

using tala::python::GilGuard;
using tala::python::PyObjectPtr;
using tala::python::wrapHostValue;
using tala_python_test::kept;

TEST(WrapperTypesThreads, TypeBuiltWhilePythonRunsDoesNotBlockOtherThreads) {
    ASSERT_TRUE(tala::python::ensurePythonOnce());
    tala::Any method;
    {
        GilGuard gil;
        PyObjectPtr globals = tala_python_test::newGlobals();
        ASSERT_TRUE(tala_python_test::runPython("import sys\n"
                                                "sys.setswitchinterval(1e-6)\n"
                                                "import inspect\n"
                                                "class Probe:\n"
                                                "    # Working out the signature takes Python a while.\n"
                                                "    @property\n"
                                                "    def __signature__(self):\n"
                                                "        sum(i * i for i in range(200000))\n"
                                                "        return inspect.signature(lambda self, first: first)\n"
                                                "    def __call__(self, first):\n"
                                                "        return first\n"
                                                "probe = Probe()\n",
                                                globals.get()));
        const auto function = tala::FunctionPython::fromCallable(PyDict_GetItemString(globals.get(), "probe"));
        ASSERT_TRUE(function.is<tala::FunctionPython>()) << tala::display(function).toStdString();
        method = function;
        PyDict_Clear(globals.get());
    }
    const tala::Module module = tala::Module::create("threads.types");
    // Its wrapper type lists `probe` with its signature, which Python works out (inspect).
    const tala::Class_Generic slow =
        kept(tala::ClassBuilder("SlowToDescribe")
                 .declaringContext(module)
                 .method(tala::Identifier::intern("probe"), tala::I_Invokable_Generic(tala::internal::unchecked, method))
                 .build());
    const tala::Class_Generic busy = kept(tala::ClassBuilder("Busy").declaringContext(module).build());
    {
        GilGuard gil;
        PyObjectPtr first = PyObjectPtr::steal(wrapHostValue(tala::make_instance(busy)));  // its type is built
        ASSERT_TRUE(first);
    }

    std::latch go(2);
    std::atomic<bool> slowWrapped{false};
    std::atomic<int> busyWrapped{0};
    {
        tala_python_test::Watchdog watchdog(std::chrono::seconds(60));
        std::thread describing([&] {
            go.arrive_and_wait();
            GilGuard gil;
            PyObjectPtr wrapper = PyObjectPtr::steal(wrapHostValue(tala::make_instance(slow)));
            EXPECT_TRUE(wrapper);
            slowWrapped = true;
        });
        std::thread wrapping([&] {
            go.arrive_and_wait();
            // Until the other thread is through, so that the two overlap.
            while (!slowWrapped.load()) {
                GilGuard gil;
                PyObjectPtr wrapper = PyObjectPtr::steal(wrapHostValue(tala::make_instance(busy)));
                if (wrapper) ++busyWrapped;
            }
        });
        describing.join();
        wrapping.join();
    }
    EXPECT_TRUE(slowWrapped);
    EXPECT_GT(busyWrapped.load(), 0);
    GilGuard gil;
    EXPECT_STREQ(tala::python::wrapperTypeFor(slow)->tp_name, "tala~threads`types`SlowToDescribe");
    PyObjectPtr globals = tala_python_test::newGlobals();
    EXPECT_TRUE(tala_python_test::runPython("import sys\nsys.setswitchinterval(0.005)\n", globals.get()));
}

}  // namespace

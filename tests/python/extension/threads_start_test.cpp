// tests/python/extension/threads_start_test.cpp: many threads asking for the interpreter at once
// start it exactly once, and none of them goes on before it is ready.
#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <string>
#include <thread>
#include <vector>

#include "extension/gil.hpp"
#include "extension/interpreter.hpp"
#include "lock_check.hpp"

namespace {

using tala::python::GilGuard;
using tala::python::PyObjectPtr;

struct ThreadOutcome {
    bool started = false;
    bool initialisedOnReturn = false;
    int startsOnReturn = -1;
    long answer = 0;
};

TEST(ThreadsStart, InterpreterStartsExactlyOnceForConcurrentCallers) {
    ASSERT_FALSE(Py_IsInitialized());
    ASSERT_EQ(tala::python::testing::interpreterStarts(), 0);

    constexpr int kThreads = 8;
    std::latch go(kThreads);
    std::vector<ThreadOutcome> outcomes(kThreads);
    std::vector<std::thread> threads;
    for (int index = 0; index < kThreads; ++index) {
        threads.emplace_back([&go, &outcomes, index] {
            ThreadOutcome& outcome = outcomes[index];
            go.arrive_and_wait();
            outcome.started = tala::python::ensurePythonOnce();
            // Read before anything else: the interpreter must be complete when the call returns.
            outcome.initialisedOnReturn = Py_IsInitialized() != 0;
            outcome.startsOnReturn = tala::python::testing::interpreterStarts();

            GilGuard gil;
            PyObjectPtr globals = PyObjectPtr::steal(PyDict_New());
            const std::string code = std::to_string(index) + " * 6 + 1";
            PyObjectPtr value =
                PyObjectPtr::steal(PyRun_String(code.c_str(), Py_eval_input, globals.get(), globals.get()));
            outcome.answer = value ? PyLong_AsLong(value.get()) : -1;
            PyErr_Clear();
        });
    }
    for (std::thread& thread : threads) thread.join();

    EXPECT_EQ(tala::python::testing::interpreterStarts(), 1);
    for (int index = 0; index < kThreads; ++index) {
        SCOPED_TRACE(index);
        EXPECT_TRUE(outcomes[index].started);
        EXPECT_TRUE(outcomes[index].initialisedOnReturn);
        EXPECT_EQ(outcomes[index].startsOnReturn, 1);
        EXPECT_EQ(outcomes[index].answer, index * 6 + 1);
    }

    // No thread kept the lock: this one, which never entered Python, takes it at once.
    EXPECT_EQ(tala_python_test::holdsAnInterpreterLock(), 0);
    EXPECT_TRUE(tala::python::ensurePythonOnce());
    EXPECT_EQ(tala::python::testing::interpreterStarts(), 1);
    GilGuard gil;
    EXPECT_EQ(tala_python_test::holdsAnInterpreterLock(), 1);
}

}  // namespace

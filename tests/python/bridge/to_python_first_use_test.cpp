// tests/python/bridge/to_python_first_use_test.cpp: the first conversions of dates, times and
// decimals in a process, from many threads at once. The first one imports the standard module
// that holds the Python type, and an import gives the interpreter lock up now and then (it reads
// files, and Python switches threads); the threads that ask meanwhile must not wait for that
// import while they hold the lock.
//
// A program of its own: the type caches are filled once per process.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <latch>
#include <string>
#include <thread>
#include <vector>

#include "bridge/to_python.hpp"
#include "python_test_support.hpp"

namespace {

using tala::python::GilGuard;
using tala::python::PyObjectPtr;
using tala::python::to_python;

TEST(ToPythonFirstUse, ThreadsConvertingAtOnceDoNotDeadlock) {
    ASSERT_TRUE(tala::python::ensurePythonOnce());
    {
        // Switch threads as often as the interpreter can, so that the importing thread gives the
        // lock up in the middle of its import.
        GilGuard gil;
        PyObjectPtr globals = tala_python_test::newGlobals();
        ASSERT_TRUE(tala_python_test::runPython("import sys\nsys.setswitchinterval(1e-6)\n", globals.get()));
    }
    auto decimal = tala::Decimal::fromString("1.10");
    ASSERT_TRUE(decimal.is<tala::Decimal>());
    const tala::Tuple values{decimal.as<tala::Decimal>(), tala::Date(2024, 2, 29), tala::Time(12, 30, 15, 999'999'999),
                             tala::DateTime(tala::Date(2024, 2, 29), tala::Time(23, 59, 58))};

    constexpr int kThreads = 8;
    std::latch go(kThreads);
    std::vector<std::string> shown(kThreads);
    {
        tala_python_test::Watchdog watchdog(std::chrono::seconds(60));
        std::vector<std::thread> threads;
        for (int index = 0; index < kThreads; ++index) {
            threads.emplace_back([&go, &shown, &values, index] {
                go.arrive_and_wait();
                GilGuard gil;
                PyObjectPtr converted = PyObjectPtr::steal(to_python(values));
                shown[index] = converted ? tala_python_test::reprOf(converted.get()) : tala_python_test::takePendingError();
            });
        }
        for (std::thread& thread : threads) thread.join();
    }
    for (int index = 0; index < kThreads; ++index) {
        EXPECT_EQ(shown[index],
                  "(Decimal('1.10'), datetime.date(2024, 2, 29), datetime.time(12, 30, 15, 999999), "
                  "datetime.datetime(2024, 2, 29, 23, 59, 58))")
            << "thread " << index;
    }
}

}  // namespace

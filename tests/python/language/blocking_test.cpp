// tests/python/language/blocking_test.cpp: host functions marked blocking run without the
// interpreter lock, so that one which waits for another thread running Python does not wait
// forever; the others keep the lock.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "language/evaluate.hpp"
#include "language_test_support.hpp"
#include "lock_check.hpp"

namespace {

using tala::Any;
using tala::HashMap;
using tala::String;
using tala_language_test::LanguageTest;
using tala_language_test::mapArgument;
using tala_language_test::noMap;
using tala_language_test::noMutableMap;
using tala_language_test::text;
using tala_python_test::Watchdog;

class BlockingTest : public LanguageTest {};

// Evaluates `code` with `name` bound to `function`.
Any runWith(const char* code, const char* name, const Any& function) {
    const HashMap<String, Any> locals{{String(name), function}};
    return tala::python::evaluate(String(code), mapArgument(locals), noMap(), noMutableMap());
}

// Starts a thread that evaluates Python and waits for its answer, the way a host function hands
// work to a pool of its own and waits: with the interpreter lock held meanwhile, neither thread
// could go on.
Any evaluateOnAnotherThread(std::int64_t n) {
    Any answer;
    std::thread worker([&] { answer = tala::python::evaluate_expr(String("n * 2"), mapArgument({{String("n"), tala::Integer(n)}}), noMap()); });
    worker.join();
    return answer;
}

TEST_F(BlockingTest, ABlockingFunctionThatWaitsForPythonOnAnotherThreadReturns) {
    const Watchdog watchdog(std::chrono::seconds(30));
    const tala::I_Invokable_Generic handOff = tala::blocking(tala::native_function(&evaluateOnAnotherThread, "handOff", {"n"}));
    EXPECT_TRUE(handOff.isBlocking());
    EXPECT_EQ(text(runWith("return handOff(21)", "handOff", handOff)), "42");
    // By keyword, and many times in a row.
    EXPECT_EQ(text(runWith("return handOff(n=5)", "handOff", handOff)), "10");
    EXPECT_EQ(text(runWith("return sum(handOff(i) for i in range(100))", "handOff", handOff)), "9900");
}

TEST_F(BlockingTest, ABlockingMethodCalledThroughItsObjectRunsWithoutTheLock) {
    const Watchdog watchdog(std::chrono::seconds(30));
    const tala::I_Invokable_Generic handOff = tala::blocking(tala::native_function(
        [](const Any& /*self*/, std::int64_t n) { return evaluateOnAnotherThread(n); }, "handOff", {"n"}));
    // Bound to a receiver, the function stays blocking.
    const tala::I_Invokable_Generic bound = handOff.bindArgs(tala::Integer(0));
    EXPECT_TRUE(bound.isBlocking());
    EXPECT_EQ(text(runWith("return bound(4)", "bound", bound)), "8");
}

TEST_F(BlockingTest, OtherFunctionsKeepTheLockAndBlockingOnesLetItGo) {
    const tala::I_Invokable_Generic holdsLock =
        tala::native_function([] { return tala_python_test::holdsAnInterpreterLock() == 1; }, "holdsLock");
    const tala::I_Invokable_Generic letsGo =
        tala::blocking(tala::native_function([] { return tala_python_test::holdsAnInterpreterLock() == 1; }, "letsGo"));
    EXPECT_FALSE(holdsLock.isBlocking());
    EXPECT_EQ(text(runWith("return holdsLock()", "holdsLock", holdsLock)), "True");
    EXPECT_EQ(text(runWith("return letsGo()", "letsGo", letsGo)), "False");
}

TEST_F(BlockingTest, PythonThreadsRunWhileABlockingFunctionWaits) {
    const Watchdog watchdog(std::chrono::seconds(30));
    // A Python thread ticks a host counter; the blocking function counts the ticks made during
    // its own sleep. With the lock held for the whole sleep there would be none.
    static std::atomic<std::int64_t> ticks{0};
    const tala::I_Invokable_Generic tick = tala::native_function([] { ++ticks; }, "tick");
    const tala::I_Invokable_Generic pause = tala::blocking(tala::native_function(
        [] {
            const std::int64_t before = ticks.load();
            std::this_thread::sleep_for(std::chrono::milliseconds(300));
            return ticks.load() - before;
        },
        "pause"));
    const HashMap<String, Any> locals{{String("tick"), tick}, {String("pause"), pause}};
    const Any during = tala::python::evaluate(String("import threading\n"
                                                     "stop = threading.Event()\n"
                                                     "def counter():\n"
                                                     "    while not stop.is_set():\n"
                                                     "        tick()\n"
                                                     "t = threading.Thread(target=counter)\n"
                                                     "t.start()\n"
                                                     "during = pause()\n"
                                                     "stop.set()\n"
                                                     "t.join()\n"
                                                     "return during"),
                                              mapArgument(locals), noMap(), noMutableMap());
    ASSERT_EQ(during.kind(), tala::Kind::Integer) << text(during);
    EXPECT_GT(during.rawInteger(), 100);
}

TEST_F(BlockingTest, ABlockingFunctionThatFailsGivesItsErrorToPython) {
    const tala::I_Invokable_Generic fails = tala::blocking(tala::native_function(
        []() -> Any { return tala::Error(String("The disk is gone.")); }, "fails"));
    EXPECT_EQ(tala_language_test::errorMessage(runWith("return fails()", "fails", fails)), "The disk is gone.");
}

}  // namespace

// tests/python/api/threads_test.cpp: every function of tala/python.hpp from several host threads at once, the first
// calls (and so the look-ups of the extension's functions) at the same moment; no thread ever handles Python's lock.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <latch>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "api_test_support.hpp"

namespace {

using tala::Any;
using tala::Result;
using tala_api_test::ApiTest;
namespace py = tala::py;

constexpr int kThreads = 8;
constexpr int kRounds = 100;

// How many calls of each function gave the expected answer.
struct Tally {
    std::atomic<int> evaluateExpr{0};
    std::atomic<int> evaluate{0};
    std::atomic<int> evaluateMethod{0};
    std::atomic<int> importPath{0};
    std::atomic<int> addSysPath{0};
    std::atomic<int> generateStubs{0};
    std::atomic<int> threadId{0};
    std::atomic<int> interrupt{0};
    std::atomic<int> errors{0};
};

void oneRound(int thread, int round, std::int64_t ownId, const tala::Module& module, Tally& tally) {
    const int expected = thread * 1000 + round;
    if (py::evaluate_expr("a + b", {{"a", thread * 1000}}, {{"b", round}}).to<int>().value_or(-1) == expected) {
        ++tally.evaluateExpr;
    }
    py::OutLocals out{"doubled"};
    const Result<Any> returned = py::evaluate("doubled = n * 2\nreturn n", {{"n", expected}}, {}, out);
    if (returned.to<int>().value_or(-1) == expected && out.get<int>("doubled").value_or(-1) == 2 * expected) {
        ++tally.evaluate;
    }
    if (py::evaluate_method(expected, "return self + 1").to<int>().value_or(-1) == expected + 1) ++tally.evaluateMethod;
    if (tala::I_Invokable_Generic::matches(py::import_path("json.dumps").value_or(Any()))) ++tally.importPath;
    if (py::add_sys_path("/tala-api-threads-test").ok()) ++tally.addSysPath;
    if (py::generate_stubs(module).value_or("").starts_with("from typing import")) ++tally.generateStubs;
    if (py::thread_id().value_or(0) == ownId) ++tally.threadId;
    // Between evaluations the thread runs none: it has nothing of its own to stop.
    if (py::interrupt(ownId).value_or(true) == false) ++tally.interrupt;
    const Result<Any> failed = py::evaluate_expr("1 / 0");
    if (!failed.ok() && py::exception_type(failed.error()) == "ZeroDivisionError" &&
        py::traceback(failed.error()).value_or("").ends_with("ZeroDivisionError: division by zero\n")) {
        ++tally.errors;
    }
}

using Threads = ApiTest;

TEST_F(Threads, EveryFunctionFromEightThreadsAtOnce) {
    const tala::Module module = tala::Module::create("tala.python");
    Tally tally;
    std::mutex idsMutex;
    std::set<std::int64_t> ids;
    std::latch start(kThreads);
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([&, thread] {
            start.arrive_and_wait();
            const std::int64_t ownId = py::thread_id().value_or(0);
            {
                std::lock_guard lock(idsMutex);
                ids.insert(ownId);
            }
            for (int round = 0; round < kRounds; ++round) oneRound(thread, round, ownId, module, tally);
        });
    }
    for (std::thread& thread : threads) thread.join();

    constexpr int calls = kThreads * kRounds;
    EXPECT_EQ(tally.evaluateExpr, calls);
    EXPECT_EQ(tally.evaluate, calls);
    EXPECT_EQ(tally.evaluateMethod, calls);
    EXPECT_EQ(tally.importPath, calls);
    EXPECT_EQ(tally.addSysPath, calls);
    EXPECT_EQ(tally.generateStubs, calls);
    EXPECT_EQ(tally.threadId, calls);
    EXPECT_EQ(tally.interrupt, calls);
    EXPECT_EQ(tally.errors, calls);
    EXPECT_EQ(ids.size(), static_cast<std::size_t>(kThreads));
    EXPECT_EQ(ids.count(0), 0u);
    // The path that every thread added is there once.
    EXPECT_EQ(py::evaluate_expr("__import__('sys').path.count('/tala-api-threads-test')").to<int>().value_or(-1), 1);
}

}  // namespace

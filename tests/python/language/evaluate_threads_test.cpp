// tests/python/language/evaluate_threads_test.cpp: host threads evaluating at the same time.
#include <gtest/gtest.h>

#include <cstdint>
#include <latch>
#include <string>
#include <thread>
#include <vector>

#include "language_test_support.hpp"

namespace {

using tala::Any;
using tala::HashMap;
using tala::Integer;
using tala::String;
using tala_language_test::LanguageTest;
using tala_language_test::mapArgument;
using tala_language_test::noMap;
using tala_language_test::text;

// Fewer rounds under the sanitizers, which make each evaluation many times slower.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kRounds = 1000;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr int kRounds = 1000;
#else
constexpr int kRounds = 10000;
#endif
#else
constexpr int kRounds = 10000;
#endif

class EvaluateThreadsTest : public LanguageTest {};

TEST_F(EvaluateThreadsTest, FourThreadsEvaluateAtOnceWithCorrectResults) {
    constexpr int kThreads = 4;
    std::latch go(kThreads);
    std::vector<std::int64_t> wrong(kThreads, 0);
    std::vector<std::string> firstWrong(kThreads);
    std::vector<int> pending(kThreads, 0);
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([&, thread] {
            go.arrive_and_wait();
            for (int round = 0; round < kRounds; ++round) {
                const std::int64_t x = std::int64_t{thread} * 1000000 + round;
                const HashMap<String, Any> locals{{String("x"), Integer(x)}};
                const Any result = tala::python::evaluate_expr(String("x + 1"), mapArgument(locals), noMap());
                if (result.kind() != tala::Kind::Integer || result.rawInteger() != x + 1) {
                    if (wrong[thread]++ == 0) firstWrong[thread] = text(result);
                }
            }
            tala::python::GilGuard gil;
            if (PyErr_Occurred() != nullptr) {
                pending[thread] = 1;
                PyErr_Clear();
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    for (int thread = 0; thread < kThreads; ++thread) {
        SCOPED_TRACE(thread);
        EXPECT_EQ(wrong[thread], 0) << "first wrong result: " << firstWrong[thread];
        EXPECT_EQ(pending[thread], 0) << "a Python error was left pending on the thread";
    }
}

TEST_F(EvaluateThreadsTest, ThreadsRunCodeWithOutLocalsOfTheirOwn) {
    constexpr int kThreads = 4;
    constexpr int kCodeRounds = kRounds / 10;
    std::latch go(kThreads);
    std::vector<std::int64_t> wrong(kThreads, 0);
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([&, thread] {
            go.arrive_and_wait();
            for (int round = 0; round < kCodeRounds; ++round) {
                const std::int64_t x = std::int64_t{thread} * 1000000 + round;
                const HashMap<String, Any> locals{{String("x"), Integer(x)}};
                const HashMap<String, Any> out{{String("y"), Any()}};
                const Any result = tala::python::evaluate(
                    String("y = x * 2\nreturn y + 1"), mapArgument(locals), noMap(),
                    tala_language_test::mutableMapArgument(out));
                const std::optional<Any> y = out.get(String("y"));
                if (result.kind() != tala::Kind::Integer || result.rawInteger() != x * 2 + 1 || !y ||
                    y->kind() != tala::Kind::Integer || y->rawInteger() != x * 2) {
                    ++wrong[thread];
                }
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    for (int thread = 0; thread < kThreads; ++thread) EXPECT_EQ(wrong[thread], 0) << "thread " << thread;
}

}  // namespace

// tests/stress/stress_test.cpp: many threads and many evaluations in one process: exact totals,
// deep re-entry between Python and the host, short-lived threads that leave nothing behind, and
// proxies that cross threads. Each test runs in a process of its own and under a deadline.
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <latch>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "language/language_test_support.hpp"
#include "stress_support.hpp"

namespace {

using tala::Any;
using tala::HashMap;
using tala::Integer;
using tala::String;
using tala_language_test::LanguageTest;
using tala_language_test::mapArgument;
using tala_language_test::noMap;
using tala_language_test::text;
using tala_python_test::Watchdog;

class Stress : public LanguageTest {};

// ---- many evaluations ------------------------------------------------------------------------

TEST_F(Stress, EightThreadsTenThousandEvaluationsEachWithExactTotals) {
    constexpr int kThreads = 8;
    constexpr std::int64_t kRounds = 10000;
    std::atomic<std::int64_t> hostCalls{0};
    const Any count = tala::native_function([&hostCalls](std::int64_t by) { return hostCalls += by; }, String("count"),
                                            {String("by")});
    std::vector<std::int64_t> sums(kThreads, 0);
    std::vector<std::int64_t> wrong(kThreads, 0);
    std::vector<std::string> firstWrong(kThreads);
    {
        const Watchdog watchdog(std::chrono::seconds(240), "8 threads x 10,000 evaluations did not finish within 240 s.");
        std::latch go(kThreads);
        std::vector<std::thread> threads;
        for (int thread = 0; thread < kThreads; ++thread) {
            threads.emplace_back([&, thread] {
                go.arrive_and_wait();
                for (std::int64_t round = 0; round < kRounds; ++round) {
                    const std::int64_t x = thread * kRounds + round;
                    const HashMap<String, Any> locals{{String("x"), Integer(x)}, {String("count"), count}};
                    const Any result = tala::python::evaluate_expr(String("count(1) and x * 2 + 1"), mapArgument(locals), noMap());
                    if (result.kind() != tala::Kind::Integer || result.rawInteger() != x * 2 + 1) {
                        if (wrong[thread]++ == 0) firstWrong[thread] = text(result);
                        continue;
                    }
                    sums[thread] += result.rawInteger();
                }
            });
        }
        for (std::thread& thread : threads) thread.join();
    }
    std::int64_t total = 0;
    for (int thread = 0; thread < kThreads; ++thread) {
        EXPECT_EQ(wrong[thread], 0) << "thread " << thread << ", first wrong result: " << firstWrong[thread];
        total += sums[thread];
    }
    // The sum of 2x + 1 over x = 0 .. n-1 is n * n.
    const std::int64_t evaluations = kThreads * kRounds;
    EXPECT_EQ(total, evaluations * evaluations);
    EXPECT_EQ(hostCalls.load(), evaluations);
}

// ---- re-entry --------------------------------------------------------------------------------

// `descend(depth)`: a host function that evaluates Python which calls it again one level lower;
// at the bottom it evaluates `bottom`. Each level adds 1 to what the level below gave.
struct Reentry {
    std::string bottom = "0";
    std::atomic<int> deepest{0};
    std::optional<Any> descend;

    Reentry() {
        descend = tala::native_function(
            [this](std::int64_t depth) -> Any {
                int seen = deepest.load();
                while (depth > seen && !deepest.compare_exchange_weak(seen, static_cast<int>(depth))) {
                }
                const HashMap<String, Any> locals{{String("descend"), *descend}, {String("depth"), Integer(depth)}};
                const String code = depth == 0 ? String(bottom) : String("descend(depth - 1) + 1");
                return tala::python::evaluate_expr(code, mapArgument(locals), noMap());
            },
            String("descend"), {String("depth")});
    }
    ~Reentry() { descend.reset(); }

    Any run(std::int64_t depth) {
        const HashMap<String, Any> locals{{String("descend"), *descend}, {String("depth"), Integer(depth)}};
        return tala::python::evaluate_expr(String("descend(depth)"), mapArgument(locals), noMap());
    }
};

TEST_F(Stress, ReentryFiftyDeepThroughHostAndPython) {
    const Watchdog watchdog(std::chrono::seconds(60), "Re-entry 50 deep did not finish within 60 s.");
    Reentry reentry;
    const Any result = reentry.run(50);
    ASSERT_EQ(result.kind(), tala::Kind::Integer) << text(result);
    EXPECT_EQ(result.rawInteger(), 50);
    EXPECT_EQ(reentry.deepest.load(), 50);
    EXPECT_FALSE(tala_language_test::pythonErrorPending());
}

TEST_F(Stress, ReentryFiftyDeepCarriesTheBottomErrorUp) {
    const Watchdog watchdog(std::chrono::seconds(60), "Re-entry 50 deep did not finish within 60 s.");
    Reentry reentry;
    reentry.bottom = "1 // 0";
    const Any result = reentry.run(50);
    EXPECT_EQ(tala_language_test::errorMessage(result), "integer division or modulo by zero");
    EXPECT_FALSE(tala_language_test::pythonErrorPending());
}

TEST_F(Stress, ReentryFiftyDeepFromFourThreadsAtOnce) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 20;
    const Watchdog watchdog(std::chrono::seconds(120), "Re-entry from four threads did not finish within 120 s.");
    Reentry reentry;
    std::vector<std::int64_t> wrong(kThreads, 0);
    std::vector<std::string> firstWrong(kThreads);
    std::latch go(kThreads);
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([&, thread] {
            go.arrive_and_wait();
            for (int round = 0; round < kRounds; ++round) {
                const Any result = reentry.run(50);
                if (result.kind() != tala::Kind::Integer || result.rawInteger() != 50) {
                    if (wrong[thread]++ == 0) firstWrong[thread] = text(result);
                }
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    for (int thread = 0; thread < kThreads; ++thread) {
        EXPECT_EQ(wrong[thread], 0) << "thread " << thread << ", first wrong result: " << firstWrong[thread];
    }
}

// ---- short-lived threads ---------------------------------------------------------------------

TEST_F(Stress, ThousandShortLivedThreadsLeaveNoThreadStatesAndFlatMemory) {
    constexpr int kThreads = 1000;
    constexpr int kAtOnce = 8;
    const Watchdog watchdog(std::chrono::seconds(180), "1,000 short-lived threads did not finish within 180 s.");
    std::atomic<std::int64_t> total{0};
    std::atomic<int> wrong{0};
    // Each thread lives for one evaluation (which makes a proxy and drops it) and ends.
    auto runBatch = [&](int first) {
        std::vector<std::thread> threads;
        for (int index = first; index < first + kAtOnce; ++index) {
            threads.emplace_back([&, index] {
                const HashMap<String, Any> locals{{String("n"), Integer(index)}};
                const Any result = tala::python::evaluate_expr(String("[n, n + 1, str(n)]"), mapArgument(locals), noMap());
                auto items = tala::I_Sequence_Generic::cast(result);
                const Any second = items ? items->at(1) : Any();
                if (second.kind() != tala::Kind::Integer || second.rawInteger() != index + 1) {
                    ++wrong;
                    return;
                }
                total += second.rawInteger();
            });
        }
        for (std::thread& thread : threads) thread.join();
    };
    const int statesBefore = tala_stress::threadStateCount();
    // A first tenth warms the caches up; memory is measured over the other nine tenths.
    int done = 0;
    for (; done < kThreads / 10; done += kAtOnce) runBatch(done);
    const std::int64_t residentBefore = tala_stress::residentBytes();
    tala_language_test::PythonAllocations allocations;
    const std::int64_t pythonBefore = allocations.count();
    for (; done < kThreads; done += kAtOnce) runBatch(done);
    const std::int64_t pythonGrowth = allocations.count() - pythonBefore;
    const std::int64_t residentGrowth = tala_stress::residentBytes() - residentBefore;

    EXPECT_EQ(wrong.load(), 0);
    EXPECT_EQ(total.load(), std::int64_t{kThreads} * (kThreads + 1) / 2);
    EXPECT_EQ(tala_stress::threadStateCount(), statesBefore) << "thread states were left behind by ended threads";
    EXPECT_LE(pythonGrowth, allocations.allowedGrowth()) << allocations.unit();
    // Sanitizers keep freed memory in quarantine, so resident memory says nothing there.
    if (!tala_stress::kSanitized) {
        EXPECT_LE(residentGrowth, 4 * 1024 * 1024) << "resident memory grew by " << residentGrowth << " bytes";
    }
    std::printf("short-lived threads: %d, Python growth %lld %s, resident growth %lld bytes\n", kThreads,
                static_cast<long long>(pythonGrowth), allocations.unit(), static_cast<long long>(residentGrowth));
}

// ---- proxies across threads ------------------------------------------------------------------

// Python objects that count themselves, so that the test sees every one of them freed.
constexpr const char* kCountedClass = "class Counted:\n"
                                      "    live = 0\n"
                                      "    made = 0\n"
                                      "    def __init__(self, n):\n"
                                      "        Counted.live += 1\n"
                                      "        Counted.made += 1\n"
                                      "        self.n = n\n"
                                      "    def __del__(self):\n"
                                      "        Counted.live -= 1\n"
                                      "    def __len__(self):\n"
                                      "        return self.n\n"
                                      "return Counted";

std::int64_t countedField(const Any& counted, const char* field) {
    const HashMap<String, Any> locals{{String("Counted"), counted}};
    const Any value = tala::python::evaluate_expr(String("Counted." + std::string(field)), mapArgument(locals), noMap());
    return value.kind() == tala::Kind::Integer ? value.rawInteger() : -1;
}

TEST_F(Stress, ProxiesMadeOnOneThreadAreUsedAndDroppedOnOthers) {
    constexpr int kMakers = 2;
    constexpr int kDroppers = 2;
    constexpr int kPerMaker = 5000;
    const Watchdog watchdog(std::chrono::seconds(180), "Proxies across threads did not finish within 180 s.");
    const Any counted = tala::python::evaluate(String(kCountedClass), noMap(), noMap(), tala_language_test::noMutableMap());
    ASSERT_FALSE(tala::is_error_result(counted)) << text(counted);

    std::mutex mutex;
    std::condition_variable ready;
    std::deque<std::pair<int, Any>> queue;  // the kind of proxy (below), and the proxy
    int makersLeft = kMakers;
    std::atomic<std::int64_t> lengthSum{0};
    std::atomic<int> wrong{0};
    std::string firstWrong;  // under mutex
    const auto noteWrong = [&](const Any& result) {
        if (wrong++ != 0) return;
        std::lock_guard lock(mutex);
        firstWrong = text(result);
    };

    std::vector<std::thread> threads;
    for (int maker = 0; maker < kMakers; ++maker) {
        threads.emplace_back([&] {
            for (int index = 0; index < kPerMaker; ++index) {
                const HashMap<String, Any> locals{{String("Counted"), counted}, {String("n"), Integer(index % 7)}};
                // A plain proxy, a sequence proxy and a mapping proxy, each holding counted objects.
                const int kind = index % 3;
                const char* code = kind == 0 ? "Counted(n)" : kind == 1 ? "[Counted(n)]" : "{'k': Counted(n)}";
                Any proxy = tala::python::evaluate_expr(String(code), mapArgument(locals), noMap());
                if (tala::is_error_result(proxy)) {
                    noteWrong(proxy);
                    continue;
                }
                std::lock_guard lock(mutex);
                queue.emplace_back(kind, std::move(proxy));
                ready.notify_one();
            }
            std::lock_guard lock(mutex);
            if (--makersLeft == 0) ready.notify_all();
        });
    }
    for (int dropper = 0; dropper < kDroppers; ++dropper) {
        threads.emplace_back([&] {
            for (;;) {
                std::pair<int, Any> entry;
                {
                    std::unique_lock lock(mutex);
                    ready.wait(lock, [&] { return !queue.empty() || makersLeft == 0; });
                    if (queue.empty()) return;
                    entry = std::move(queue.front());
                    queue.pop_front();
                }
                // Used here, then dropped here: the last reference goes on this thread. In the
                // isolated layout the proxy may be of another interpreter, where every use goes.
                const HashMap<String, Any> locals{{String("p"), std::move(entry.second)}};
                // (An object of another interpreter that is no collection is a host object there:
                // its attributes and methods are read, but Python's len() needs a type slot.)
                const char* code = entry.first == 0 ? "p.n" : entry.first == 1 ? "p[0].n" : "p['k'].n";
                const Any length = tala::python::evaluate_expr(String(code), mapArgument(locals), noMap());
                if (length.kind() != tala::Kind::Integer) {
                    noteWrong(length);
                } else {
                    lengthSum += length.rawInteger();
                }
            }
        });
    }
    for (std::thread& thread : threads) thread.join();

    EXPECT_EQ(wrong.load(), 0) << "first wrong result: " << firstWrong;
    std::int64_t expectedLengths = 0;
    for (int index = 0; index < kPerMaker; ++index) expectedLengths += index % 7;
    EXPECT_EQ(lengthSum.load(), kMakers * expectedLengths);
    // Objects dropped outside their interpreter wait for its next entry.
    tala::python::releasePendingEverywhere();
    EXPECT_EQ(countedField(counted, "made"), std::int64_t{kMakers} * kPerMaker);
    EXPECT_EQ(countedField(counted, "live"), 0) << "Python objects of dropped proxies were not freed";
}

// A proxy whose last reference goes on a thread that never entered Python before.
TEST_F(Stress, ProxyDroppedOnAThreadThatNeverUsedPython) {
    const Watchdog watchdog(std::chrono::seconds(60), "Dropping proxies on fresh threads did not finish within 60 s.");
    const Any counted = tala::python::evaluate(String(kCountedClass), noMap(), noMap(), tala_language_test::noMutableMap());
    ASSERT_FALSE(tala::is_error_result(counted)) << text(counted);
    const int statesBefore = tala_stress::threadStateCount();
    for (int round = 0; round < 200; ++round) {
        const HashMap<String, Any> locals{{String("Counted"), counted}};
        Any proxy = tala::python::evaluate_expr(String("[Counted(3), Counted(4)]"), mapArgument(locals), noMap());
        ASSERT_FALSE(tala::is_error_result(proxy)) << text(proxy);
        std::thread([dropped = std::move(proxy)]() mutable { dropped.reset(); }).join();
    }
    EXPECT_EQ(countedField(counted, "live"), 0);
    EXPECT_EQ(countedField(counted, "made"), 400);
    EXPECT_EQ(tala_stress::threadStateCount(), statesBefore);
}

}  // namespace

// tests/tala/cancellation_test.cpp: a blocking call waiting on one thread is stopped from another:
// the wait's cancel function runs once, only while the call runs, and never reaches a later call.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "tala/tala.hpp"

namespace {

using namespace std::chrono_literals;
using tala::BlockingCall;
using tala::CancelOutcome;
using tala::CancelScope;

// A wait that a cancel function ends: `wait` returns true when it was woken, false after the
// time limit.
struct Waiter {
    std::mutex mutex;
    std::condition_variable changed;
    bool woken = false;
    std::atomic<int> cancels{0};

    void wake() {
        ++cancels;
        {
            std::lock_guard lock(mutex);
            woken = true;
        }
        changed.notify_all();
    }
    bool wait(std::chrono::milliseconds limit) {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, limit, [this] { return woken; });
    }
};

// Runs `body` on a thread of its own that tells its key once it runs.
struct Caller {
    std::atomic<std::uint64_t> key{0};
    std::thread thread;

    template <class Body>
    explicit Caller(Body body) : thread([this, body] {
        key = tala::current_thread_key();
        body();
    }) {}
    std::uint64_t waitForKey() const {
        while (key.load() == 0) std::this_thread::yield();
        return key.load();
    }
    void join() {
        if (thread.joinable()) thread.join();
    }
    ~Caller() { join(); }
};

TEST(CancellationTest, ThreadKeysAreTheirOwnAndStable) {
    const std::uint64_t mine = tala::current_thread_key();
    EXPECT_EQ(tala::current_thread_key(), mine);
    std::uint64_t other = 0;
    std::thread([&other] { other = tala::current_thread_key(); }).join();
    EXPECT_NE(other, mine);
    EXPECT_NE(other, 0u);
}

TEST(CancellationTest, AWaitingCallIsEndedByItsCancelFunction) {
    Waiter waiter;
    std::atomic<bool> waiting{false};
    bool woken = false;
    bool cancelled = false;
    Caller caller([&] {
        const BlockingCall call;
        const CancelScope scope([&waiter] { waiter.wake(); });
        waiting = true;
        woken = waiter.wait(30s);
        cancelled = call.cancelled() && scope.cancelled();
    });
    const std::uint64_t key = caller.waitForKey();
    while (!waiting.load()) std::this_thread::yield();
    EXPECT_EQ(tala::cancel_blocking_call(key), CancelOutcome::Cancelled);
    caller.join();
    EXPECT_TRUE(woken);
    EXPECT_TRUE(cancelled);
    EXPECT_EQ(waiter.cancels.load(), 1);
}

TEST(CancellationTest, ARequestBeforeTheWaitEndsItAsItBegins) {
    Waiter waiter;
    std::atomic<bool> inCall{false};
    std::atomic<bool> requested{false};
    bool woken = false;
    Caller caller([&] {
        const BlockingCall call;
        inCall = true;
        while (!requested.load()) std::this_thread::yield();
        // The request came while the call had no wait that could be ended: this one is ended at once.
        const CancelScope scope([&waiter] { waiter.wake(); });
        woken = waiter.wait(30s);
    });
    const std::uint64_t key = caller.waitForKey();
    while (!inCall.load()) std::this_thread::yield();
    EXPECT_EQ(tala::cancel_blocking_call(key), CancelOutcome::Requested);
    requested = true;
    caller.join();
    EXPECT_TRUE(woken);
    EXPECT_EQ(waiter.cancels.load(), 1);
}

TEST(CancellationTest, AThreadWithoutACallIsNotTouched) {
    EXPECT_EQ(tala::cancel_blocking_call(tala::current_thread_key()), CancelOutcome::NoCall);
    // Nor a key no thread has, nor a scope outside any call.
    EXPECT_EQ(tala::cancel_blocking_call(~std::uint64_t{0}), CancelOutcome::NoCall);
    int runs = 0;
    {
        const CancelScope scope([&runs] { ++runs; });
        EXPECT_FALSE(scope.cancelled());
        EXPECT_EQ(tala::cancel_blocking_call(tala::current_thread_key()), CancelOutcome::NoCall);
    }
    EXPECT_EQ(runs, 0);
}

TEST(CancellationTest, ARequestNeverReachesALaterCall) {
    Waiter first;
    Waiter later;
    std::atomic<int> step{0};
    bool laterWoken = true;
    bool laterCancelled = true;
    Caller caller([&] {
        {
            const BlockingCall call;
            const CancelScope scope([&first] { first.wake(); });
            step = 1;
            (void)first.wait(30s);
        }
        const BlockingCall call;
        const CancelScope scope([&later] { later.wake(); });
        laterWoken = later.wait(100ms);
        laterCancelled = call.cancelled();
    });
    const std::uint64_t key = caller.waitForKey();
    while (step.load() != 1) std::this_thread::yield();
    EXPECT_EQ(tala::cancel_blocking_call(key), CancelOutcome::Cancelled);
    caller.join();
    EXPECT_FALSE(laterWoken);
    EXPECT_FALSE(laterCancelled);
    EXPECT_EQ(later.cancels.load(), 0);
}

TEST(CancellationTest, TheInnermostCallOfNestedOnesIsAsked) {
    Waiter outer;
    Waiter inner;
    std::atomic<bool> waiting{false};
    bool outerCancelled = true;
    Caller caller([&] {
        const BlockingCall outerCall;
        const CancelScope outerScope([&outer] { outer.wake(); });
        {
            const BlockingCall innerCall;
            const CancelScope innerScope([&inner] { inner.wake(); });
            waiting = true;
            (void)inner.wait(30s);
        }
        outerCancelled = outerCall.cancelled();
    });
    const std::uint64_t key = caller.waitForKey();
    while (!waiting.load()) std::this_thread::yield();
    EXPECT_EQ(tala::cancel_blocking_call(key), CancelOutcome::Cancelled);
    caller.join();
    EXPECT_EQ(inner.cancels.load(), 1);
    EXPECT_EQ(outer.cancels.load(), 0);
    EXPECT_FALSE(outerCancelled);
}

TEST(CancellationTest, ACancellableFunctionGetsItsArguments) {
    Waiter waiter;
    std::atomic<bool> waiting{false};
    std::atomic<std::int64_t> cancelledWith{0};
    const tala::I_Invokable_Generic wait = tala::blocking(
        tala::native_function(
            [&](std::int64_t milliseconds) {
                waiting = true;
                return waiter.wait(std::chrono::milliseconds(milliseconds));
            },
            "wait", {"milliseconds"}),
        [&](std::span<const tala::Any> arguments) {
            cancelledWith = arguments[0].rawInteger();
            waiter.wake();
        });
    EXPECT_TRUE(wait.isBlocking());
    EXPECT_EQ(wait.name(), "wait");
    EXPECT_EQ(wait.signature().toString(0x11), "(milliseconds: Integer) -> Boolean");
    tala::Any result;
    Caller caller([&] {
        const BlockingCall call;
        result = wait(tala::Integer(30000));
    });
    const std::uint64_t key = caller.waitForKey();
    while (!waiting.load()) std::this_thread::yield();
    EXPECT_EQ(tala::cancel_blocking_call(key), CancelOutcome::Cancelled);
    caller.join();
    EXPECT_EQ(tala::display(result), "True");
    EXPECT_EQ(cancelledWith.load(), 30000);
    // Without a way to cancel, blocking() marks the function itself.
    const tala::I_Invokable_Generic plain = tala::native_function([] { return 1; }, "plain");
    EXPECT_EQ(tala::blocking(plain, nullptr).function(), plain.function());
    EXPECT_TRUE(plain.isBlocking());
}

}  // namespace

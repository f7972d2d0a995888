// tests/tala/threads_test.cpp: values shared between threads keep exact reference counts.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "tala/tala.hpp"
#include "value_test_support.hpp"

namespace {

using tala_test::shown;

constexpr int kIterations = 1'000'000;

// Runs `work` on two threads released at the same moment, so that their copies overlap.
template <class Work>
void runOnTwoThreads(Work work) {
    std::atomic<int> ready{0};
    auto body = [&] {
        ready.fetch_add(1);
        while (ready.load() < 2) std::this_thread::yield();
        work();
    };
    std::thread first(body);
    std::thread second(body);
    first.join();
    second.join();
}

// Each thread copies the value and drops the copy a million times, through the different ways
// a reference is taken and given back.
void copyAndDropConcurrently(const tala::Any& shared) {
    runOnTwoThreads([&shared] {
        tala::Any slot;
        for (int i = 0; i < kIterations; ++i) {
            if (i % 2 == 0) {
                tala::Any copy(shared);  // copy construction, dropped at the end of the block
            } else {
                slot = shared;  // copy assignment, dropped by the reset
                slot.reset();
            }
        }
    });
}

TEST(Threads, SharedStringCopiedAndDroppedOnTwoThreadsStaysIntact) {
    const tala::String shared("a string shared between two threads");
    const std::string before = shown(shared);
    ASSERT_EQ(shared.cell()->refCount(), 1u);
    copyAndDropConcurrently(shared);
    EXPECT_EQ(shown(shared), before);
    EXPECT_EQ(shared.cell()->refCount(), 1u);
}

TEST(Threads, SharedListCopiedAndDroppedOnTwoThreadsStaysIntact) {
    const tala::List<tala::Any> shared{tala::Integer(1), tala::String("two"), tala::Float(3.5)};
    const std::string before = shown(shared);
    ASSERT_EQ(shared.cell()->refCount(), 1u);
    copyAndDropConcurrently(shared);
    EXPECT_EQ(shown(shared), before);
    EXPECT_EQ(shared.cell()->refCount(), 1u);
    EXPECT_EQ(shared[1].cell()->refCount(), 1u);  // the items were never copied
}

std::atomic<int> g_trackedDestroyed{0};

// A payload that counts how often it is destroyed; moved-from shells do not count.
struct Tracked {
    int payload = 0;
    bool owner = true;

    Tracked() = default;
    explicit Tracked(int payload) : payload(payload) {}
    Tracked(const Tracked& other) : payload(other.payload) {}
    Tracked(Tracked&& other) noexcept : payload(other.payload), owner(other.owner) { other.owner = false; }
    Tracked& operator=(const Tracked& other) {
        payload = other.payload;
        return *this;
    }
    ~Tracked() {
        if (owner) g_trackedDestroyed.fetch_add(1);
    }
};

TEST(Threads, BoxedValueSharedByTwoThreadsIsFreedExactlyOnce) {
    g_trackedDestroyed = 0;
    {
        tala::Any last;
        {
            const tala::Boxed<Tracked> box(Tracked(7));
            ASSERT_EQ(g_trackedDestroyed.load(), 0);
            copyAndDropConcurrently(box);
            EXPECT_EQ(g_trackedDestroyed.load(), 0);
            EXPECT_EQ(box.cell()->refCount(), 1u);
            EXPECT_EQ(box.value().payload, 7);
            last = box;
        }
        EXPECT_EQ(g_trackedDestroyed.load(), 0);  // `last` still holds the box
        EXPECT_EQ(last.cell()->refCount(), 1u);
    }
    EXPECT_EQ(g_trackedDestroyed.load(), 1);
}

TEST(Threads, LastCopyDroppedOnAnotherThreadFreesOnce) {
    g_trackedDestroyed = 0;
    std::vector<tala::Any> copies;
    {
        const tala::Boxed<Tracked> box(Tracked(1));
        copies.assign(2, box);
    }
    EXPECT_EQ(g_trackedDestroyed.load(), 0);
    std::atomic<int> next{0};
    runOnTwoThreads([&] { copies[static_cast<std::size_t>(next.fetch_add(1))].reset(); });
    EXPECT_EQ(g_trackedDestroyed.load(), 1);
}

TEST(Threads, LazyResolvedConcurrentlyRunsTheProducerOnce) {
    std::atomic<int> calls{0};
    const tala::Lazy<tala::String> lazy([&calls] {
        calls.fetch_add(1);
        std::this_thread::yield();
        return tala::Any(tala::String("resolved"));
    });
    std::atomic<int> agreed{0};
    runOnTwoThreads([&] {
        for (int i = 0; i < 1000; ++i) {
            if (tala::String::cast(lazy.resolve()).value() == "resolved") agreed.fetch_add(1);
        }
    });
    EXPECT_EQ(calls.load(), 1);
    EXPECT_EQ(agreed.load(), 2000);
}

TEST(Threads, IdentifiersInternedConcurrentlyAreTheSameNode) {
    std::vector<const tala::internal::IdentifierNode*> nodes(2 * 200, nullptr);
    std::atomic<int> slot{0};
    runOnTwoThreads([&] {
        const int base = slot.fetch_add(1) * 200;
        for (int i = 0; i < 200; ++i) {
            nodes[static_cast<std::size_t>(base + i)] = tala::Identifier::intern("threaded_name_" + std::to_string(i)).node();
        }
    });
    for (int i = 0; i < 200; ++i) {
        EXPECT_EQ(nodes[static_cast<std::size_t>(i)], nodes[static_cast<std::size_t>(200 + i)]) << i;
        EXPECT_EQ(nodes[static_cast<std::size_t>(i)]->text, "threaded_name_" + std::to_string(i));
    }
}

TEST(Threads, StringHashComputedConcurrentlyAgrees) {
    const tala::String shared("a string whose hash is computed by two threads at once");
    std::uint64_t hashes[2] = {0, 0};
    std::atomic<int> slot{0};
    runOnTwoThreads([&] { hashes[slot.fetch_add(1)] = tala::hash_of(shared); });
    EXPECT_EQ(hashes[0], hashes[1]);
    EXPECT_EQ(hashes[0], tala::hash_of(tala::String(shared.view())));
}

}  // namespace

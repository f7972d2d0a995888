// tala/spinlock.hpp: a small spin lock for short critical sections over process-wide caches.
#pragma once

#include <atomic>
#include <thread>

namespace tala {

// Usable with std::lock_guard / std::unique_lock. Meant for look-ups that take nanoseconds; after
// a short burst of spinning the waiting thread yields so that an over-subscribed machine still
// makes progress.
class spinlock {
public:
    spinlock() noexcept = default;
    spinlock(const spinlock&) = delete;
    spinlock& operator=(const spinlock&) = delete;

    void lock() noexcept {
        for (unsigned spins = 0; flag_.test_and_set(std::memory_order_acquire); ++spins) {
            while (flag_.test(std::memory_order_relaxed)) {
                if (++spins > 64) {
                    std::this_thread::yield();
                } else {
#if defined(__x86_64__) || defined(__i386__)
                    __builtin_ia32_pause();
#endif
                }
            }
        }
    }
    bool try_lock() noexcept { return !flag_.test_and_set(std::memory_order_acquire); }
    void unlock() noexcept { flag_.clear(std::memory_order_release); }

private:
    std::atomic_flag flag_ = ATOMIC_FLAG_INIT;
};

}  // namespace tala

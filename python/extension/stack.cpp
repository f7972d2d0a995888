// python/extension/stack.cpp: how much of its stack a host thread has left for Python.
#include "extension/stack.hpp"

#include <algorithm>
#include <cstdint>

#if defined(__linux__)
#include <pthread.h>
#endif

#include "extension/gil.hpp"

namespace tala::python {

namespace {

// Stack used by one level of Python's C recursion, with room to spare, and what a thread keeps
// below the deepest level for the code that reports the RecursionError.
constexpr std::size_t kBytesPerLevel = 256 * kStackFactor;
constexpr std::size_t kReserve = 128 * 1024 * kStackFactor;

// The lowest usable address of this thread's stack, found once per thread (0: unknown).
struct StackBounds {
    std::uintptr_t low = 0;
    bool known = false;
};

TALA_HOT_THREAD_LOCAL StackBounds t_bounds;

std::uintptr_t stackLow() noexcept {
    if (!t_bounds.known) {
        t_bounds.known = true;
#if defined(__linux__)
        pthread_attr_t attributes;
        if (pthread_getattr_np(pthread_self(), &attributes) == 0) {
            void* address = nullptr;
            std::size_t size = 0;
            std::size_t guard = 0;
            if (pthread_attr_getstack(&attributes, &address, &size) == 0) {
                (void)pthread_attr_getguardsize(&attributes, &guard);
                t_bounds.low = reinterpret_cast<std::uintptr_t>(address) + guard;
            }
            pthread_attr_destroy(&attributes);
        }
#endif
    }
    return t_bounds.low;
}

}  // namespace

std::optional<std::size_t> remainingStack() noexcept {
    const std::uintptr_t low = stackLow();
    if (low == 0) return std::nullopt;
    const auto here = reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0));
    return here > low ? here - low : 0;
}

std::optional<Error> stackShortage() {
    const std::optional<std::size_t> left = remainingStack();
    if (!left || *left >= kMinimumStack) return std::nullopt;
    return Error(String("The thread has {} KiB of stack left, and Python needs at least {} KiB: give the host thread a "
                        "bigger stack ({} KiB is enough).")
                     .arg(Integer(static_cast<std::int64_t>(*left / 1024)), Integer(static_cast<std::int64_t>(kMinimumStack / 1024)),
                          Integer(static_cast<std::int64_t>(kRecommendedStack * kStackFactor / 1024))));
}

void fitRecursionToStack(PyThreadState* state) noexcept {
    const std::optional<std::size_t> left = remainingStack();
    if (!left) return;
    const std::size_t usable = *left > kReserve ? *left - kReserve : 0;
    const auto budget = static_cast<int>(std::min<std::size_t>(usable / kBytesPerLevel, Py_C_RECURSION_LIMIT));
    state->c_recursion_remaining = std::max(budget, 1);
}

}  // namespace tala::python

// python/extension/stack.hpp: how much of its stack a host thread has left for Python.
#pragma once

#include <Python.h>

#include <cstddef>
#include <optional>

#include "tala/tala.hpp"

namespace tala::python {

// Stack a thread needs, measured: Python's deepest C recursion (the json encoder at its limit of
// 10,000 levels, a release build) takes about 1.8 MiB. A host thread that runs Python should
// have kRecommendedStack; with less, Python's C recursion budget is cut to fit (deep data raises
// RecursionError instead of overflowing), and below kMinimumStack left no evaluation starts.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr std::size_t kStackFactor = 4;  // instrumented frames are several times larger
#else
inline constexpr std::size_t kStackFactor = 1;
#endif
inline constexpr std::size_t kRecommendedStack = 4 * 1024 * 1024;
inline constexpr std::size_t kMinimumStack = 384 * 1024 * kStackFactor;

// Bytes of stack below the caller's frame, or nothing when the thread's stack is unknown.
std::optional<std::size_t> remainingStack() noexcept;

// The error for entering Python with less than kMinimumStack left, or nothing.
std::optional<Error> stackShortage();

// Cuts the C recursion budget of the calling thread's interpreter state to what its remaining
// stack holds. The caller holds the interpreter lock and is not inside Python.
void fitRecursionToStack(PyThreadState* state) noexcept;

}  // namespace tala::python

// python/extension/interpreter.cpp: the once-only start of the embedded interpreter.
#include "extension/interpreter.hpp"

#include <atomic>

#include "extension/gil.hpp"
#include "extension/sys_path.hpp"

namespace tala::python {

namespace {
std::atomic<int> g_starts{0};
}  // namespace

bool ensurePythonInitialized() {
    if (!Py_IsInitialized()) {
        Py_InitializeEx(0);  // no signal handlers: the host owns the process's signals
        g_starts.fetch_add(1, std::memory_order_relaxed);
        for (const String& path : pendingSysPaths()) (void)python_add_sys_path(path);
        // From here on no thread holds the lock between calls: this thread gives it up for
        // good and, like every other, takes it through GilGuard.
        (void)PyEval_SaveThread();
    }
    return true;
}

bool ensurePythonOnce() {
    static const bool started = ensurePythonInitialized();
    return started;
}

int testing::interpreterStarts() { return g_starts.load(std::memory_order_relaxed); }

}  // namespace tala::python

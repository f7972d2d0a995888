// python/extension/interpreter.cpp: the once-only start of the embedded interpreter.
#include "extension/interpreter.hpp"

#include <atomic>

#if !defined(_WIN32)
#include <dlfcn.h>
#endif

#include "extension/gil.hpp"
#include "extension/sys_path.hpp"

namespace tala::python {

namespace {

std::atomic<int> g_starts{0};

// Python's own extension modules (math, _decimal, ...) expect the interpreter's symbols in the
// global scope. A host that loads this library with local symbols hides them, so make the
// interpreter library global before the first import.
void exposeInterpreterSymbols() {
#if !defined(_WIN32)
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(&Py_InitializeEx), &info) != 0 && info.dli_fname != nullptr) {
        (void)dlopen(info.dli_fname, RTLD_NOW | RTLD_GLOBAL | RTLD_NOLOAD);
    }
#endif
}

}  // namespace

bool ensurePythonInitialized() {
    if (!Py_IsInitialized()) {
        exposeInterpreterSymbols();
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

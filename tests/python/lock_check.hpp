// tests/python/lock_check.hpp: whether the calling thread holds an interpreter's lock, in either interpreter layout.
#pragma once

#include <Python.h>

namespace tala_python_test {

// 1 when the calling thread runs Python now (a thread state of its own is attached, which only
// the holder of that interpreter's lock has), else 0. PyGILState_Check cannot tell once Python
// has made a second interpreter: from then on it answers 1 to every thread.
inline int holdsAnInterpreterLock() noexcept { return PyThreadState_GetUnchecked() != nullptr ? 1 : 0; }

}  // namespace tala_python_test

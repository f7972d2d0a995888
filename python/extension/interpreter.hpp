// python/extension/interpreter.hpp: starting the interpreter once per process.
#pragma once

namespace tala::python {

// Starts the interpreter if nobody has: initialises it, drains the pending search paths into
// sys.path, gives the lock up for good, so that every thread (this one included) enters Python
// through GilGuard from then on, and fills in the language description of host module "python".
// An interpreter started by someone else is left as it is. Either way the class LanguagePython
// is registered at the end. Returns true. Call it through ensurePythonOnce().
bool ensurePythonInitialized();

// The once-only guard in front of ensurePythonInitialized: the first caller runs it, concurrent
// first callers wait for it, and a throw leaves it to be tried again by the next caller.
bool ensurePythonOnce();

namespace testing {
// How many times this library has initialised the interpreter itself (0 or 1).
int interpreterStarts();
}  // namespace testing

}  // namespace tala::python

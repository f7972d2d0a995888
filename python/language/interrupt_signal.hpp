// python/language/interrupt_signal.hpp: the signal that makes a wait in C on the interpreter's main thread return, so that Python raises the interruption there.
#pragma once

#include <Python.h>

#include <cstdint>

namespace tala::python {

// Called on each thread's first evaluation, with the interpreter lock held. On the main thread
// of the main interpreter (the only one where CPython looks for signals while it waits in C):
// keeps the host's SIGINT from being taken by Python's signal module (which installs a handler
// of its own when it is first imported and finds SIGINT at its default), then, unless the host
// chose no signal, makes `onSignal` Python's handler for the interrupt signal. On other threads
// it does nothing.
void prepareInterruptSignal(PyMethodDef* onSignal);

// From any thread, with the interpreter lock held, for a thread that runs an interrupted
// evaluation: when that thread can be reached by the signal, marks the signal as received for
// Python and sends it there, so that a wait in C returns and Python calls the handler. Answers
// whether it did. The signal is sent again every 20 ms until stopInterruptSignal.
bool sendInterruptSignal(std::int64_t threadId);

// On the thread the signal reaches, once the interruption was raised there or its evaluation
// ended: the signal is not sent again. Elsewhere it does nothing. With the interpreter lock held.
void stopInterruptSignal() noexcept;

// The signal in use: SIGRTMAX - 2 unless TALA_PYTHON_INTERRUPT_SIGNAL names another number, or
// 0 for none; 0 until the main thread's first evaluation.
int interruptSignalNumber() noexcept;

}  // namespace tala::python

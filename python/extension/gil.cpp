// python/extension/gil.cpp: entering Python from host threads, with interpreter thread states kept per thread.
#include "extension/gil.hpp"

#include "extension/interpreters.hpp"
#include "extension/stack.hpp"

namespace tala::python {

// Brings an interpreter up to date at the entry of a thread: the releases other threads left
// for it, the search paths added since (sys_path.cpp).
void catchUpOnEntry(Interpreter& interpreter) noexcept;

namespace {

// The interpreter thread state this thread made on its first entry (shared layout), kept until
// the thread ends so that every later entry only takes the lock: making and dropping a state
// costs far more than taking the lock. Its count in PyGILState's book-keeping is never given
// back while the thread lives, so PyGILState_Ensure/Release from other code on this thread nest
// inside it.
struct KeptThreadState {
    PyThreadState* state = nullptr;

    ~KeptThreadState() {
        // The thread ends: drop the state under the lock. Nothing to do when someone finalised
        // the interpreter (the state went with it) or the thread never entered.
        if (state == nullptr || !Py_IsInitialized() || Py_IsFinalizing()) return;
        PyEval_RestoreThread(state);
        PyGILState_Release(PyGILState_UNLOCKED);  // the count from the first entry: clears and deletes
    }
};

TALA_HOT_THREAD_LOCAL KeptThreadState t_kept;

}  // namespace

Interpreter* interpreterOfThisThread() noexcept { return currentInterpreter(); }

// In the shared layout every thread of ours runs in the one interpreter; a thread inside one
// that Python code made for itself stays there, as it would without a target (entering ours
// would need the state it holds given up, which is not ours to do).
bool GilGuard::runsIn(PyThreadState* current, Interpreter* target) noexcept {
    return interpreterLayout() == InterpreterLayout::Shared || PyThreadState_GetInterpreter(current) == target->handle();
}

void GilGuard::enter(Interpreter* target) noexcept {
    if (interpreterLayout() == InterpreterLayout::Isolated) {
        // A thread state per thread and interpreter, never PyGILState's book-keeping, which knows
        // one state per thread.
        Interpreter& to = target != nullptr ? *target : homeInterpreter();
        if (PyThreadState_GetUnchecked() != nullptr) previous_ = PyEval_SaveThread();
        PyThreadState* state = threadStateIn(to);
        PyEval_RestoreThread(state);
        fitRecursionToStack(state);
        catchUpOnEntry(to);
        mode_ = Mode::Entered;
        return;
    }
    if (t_kept.state != nullptr) {
        PyEval_RestoreThread(t_kept.state);
        fitRecursionToStack(t_kept.state);
        mode_ = Mode::Kept;
        return;
    }
    if (PyGILState_GetThisThreadState() == nullptr) {
        // A thread Python has never seen: the state PyGILState_Ensure makes is this thread's own,
        // and only such a state is kept (one made by Python's threading or by another embedder
        // belongs to them and goes when they say).
        (void)PyGILState_Ensure();
        t_kept.state = PyThreadState_Get();
        // A host thread's stack may be smaller than Python's C recursion limit assumes.
        fitRecursionToStack(t_kept.state);
        mode_ = Mode::Kept;
        return;
    }
    state_ = PyGILState_Ensure();
    mode_ = Mode::Borrowed;
}

void GilGuard::leave() noexcept {
    switch (mode_) {
        case Mode::Entered:
            (void)PyEval_SaveThread();
            if (previous_ != nullptr) PyEval_RestoreThread(previous_);
            break;
        case Mode::Kept: (void)PyEval_SaveThread(); break;
        case Mode::Borrowed: PyGILState_Release(state_); break;
        case Mode::Nested: break;
    }
}

}  // namespace tala::python

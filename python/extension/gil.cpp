// python/extension/gil.cpp: entering Python from host threads, with interpreter thread states kept per thread.
#include "extension/gil.hpp"

#include "extension/stack.hpp"

namespace tala::python {

namespace {

// The interpreter thread state this thread made on its first entry, kept until the thread ends
// so that every later entry only takes the lock: making and dropping a state costs far more
// than taking the lock. Its count in PyGILState's book-keeping is never given back while the
// thread lives, so PyGILState_Ensure/Release from other code on this thread nest inside it.
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

void GilGuard::enter() noexcept {
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
    if (mode_ == Mode::Kept) {
        (void)PyEval_SaveThread();
    } else {
        PyGILState_Release(state_);
    }
}

}  // namespace tala::python

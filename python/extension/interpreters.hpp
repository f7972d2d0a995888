// python/extension/interpreters.hpp: the interpreter layout, the interpreters Python code runs in, and which one a host thread enters.
#pragma once

#include <Python.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <vector>

#include "extension/interpreter_state.hpp"
#include "tala/tala.hpp"

namespace tala::python {

// How host threads run Python, chosen before Python starts and fixed from then on:
// - Shared: one interpreter for every host thread, one lock (the default).
// - Isolated: a pool of interpreters with a lock each (PEP 684); a host thread runs its Python in
//   the interpreter it was given on its first entry, so that threads in different interpreters
//   run at the same time.
enum class InterpreterLayout { Shared, Isolated };

// The layout and the pool's bound, read when Python starts: the language options
// "python.interpreters" ("shared" or "isolated") and "python.interpreterCount" (a number), else
// the environment variables TALA_PYTHON_INTERPRETERS and TALA_PYTHON_INTERPRETER_COUNT, else the
// shared layout and as many interpreters as the machine has cores.
InterpreterLayout interpreterLayout() noexcept;
int interpreterBound() noexcept;

// One interpreter of ours: CPython's interpreter and the state the extension keeps for it. Made
// when first needed and kept for the life of the process (interpreters are never finalised).
class Interpreter {
public:
    Interpreter(PyInterpreterState* handle, int index) noexcept : handle_(handle), index_(index) {}
    Interpreter(const Interpreter&) = delete;
    Interpreter& operator=(const Interpreter&) = delete;

    PyInterpreterState* handle() const noexcept { return handle_; }
    // 0 for the main interpreter, then in the order they were made.
    int index() const noexcept { return index_; }
    bool isMain() const noexcept { return index_ == 0; }
    // Whether CPython still runs it: a child of fork keeps only the main interpreter.
    bool alive() const noexcept { return alive_.load(std::memory_order_acquire); }
    // The extension's state of this interpreter; touched only under its lock.
    InterpreterState& state() noexcept { return state_; }

    // Drops one reference to an object of this interpreter: at once when the calling thread runs
    // in it, otherwise at the next entry of any thread into it, so that no count of its objects
    // ever changes without its lock.
    void release(PyObject* object) noexcept;
    // Drops what was queued; the caller runs in this interpreter.
    void drainReleases() noexcept {
        if (hasPendingReleases()) drainReleasesSlowly();
    }
    bool hasPendingReleases() const noexcept { return pendingCount_.load(std::memory_order_acquire) != 0; }

    // Host threads that have this interpreter as theirs (the pool's affinity).
    std::atomic<int> assignedThreads{0};
    // The interpreter's first thread state, never dropped: an interpreter whose last state goes
    // makes its next one in the storage of its first, which CPython 3.13 can do while that one
    // is still being taken down on another thread.
    PyThreadState* firstState = nullptr;
    // The version of the process-wide search paths that this interpreter's sys.path has.
    std::uint64_t searchPathsVersion = 0;  // under its lock

private:
    friend void forgetInterpretersAfterFork() noexcept;
    void drainReleasesSlowly() noexcept;

    PyInterpreterState* handle_;
    int index_;
    std::atomic<bool> alive_{true};
    InterpreterState state_;
    std::mutex pendingMutex_;
    std::vector<PyObject*> pending_;  // guarded by pendingMutex_
    std::atomic<std::size_t> pendingCount_{0};
};

// The main interpreter (the one Python started with), or null before Python runs.
Interpreter* mainInterpreter() noexcept;
// The interpreter of ours that the calling thread runs in now (it holds that interpreter's
// lock), or null. A thread that CPython switched to an interpreter we did not make gets null.
Interpreter* currentInterpreter() noexcept;
// The interpreter of ours that CPython's interpreter is, or null.
Interpreter* interpreterOf(PyInterpreterState* handle) noexcept;
// The calling thread's own interpreter: the one it entered first, chosen then by the pool's rule
// (see interpreters.cpp). Python must be running.
Interpreter& homeInterpreter();

// The interpreter whose Python object a host value holds (a proxy, a FunctionPython, a class
// view, a module of Python's), as it was marked when it was made; null for any other value.
Interpreter* ownerOf(const Any& value) noexcept;
// Marks a host value made here as holding an object of the interpreter the calling thread runs
// in. Done once, before the value is shared.
void markOwnedHere(const Any& value) noexcept;

// Whether the Python object a host value holds may be used by the calling thread as it runs now:
// it holds none, or it is an object of the interpreter the thread runs in. A Python object never
// goes into another interpreter; there the host value is wrapped like any other.
inline bool usableHere(const Any& value) noexcept {
    if (interpreterLayout() == InterpreterLayout::Shared) return true;
    Interpreter* owner = ownerOf(value);
    return owner == nullptr || owner == currentInterpreter();
}

// The state of the interpreter the calling thread runs in (it holds the lock).
InterpreterState& state() noexcept;

// A part of the running interpreter's state that is made the first time it is asked for there
// (`slot` is its field of the InterpreterState) and lives as long as the interpreter.
template <class Part>
Part& partHere(Part*& slot) {
    if (slot == nullptr) slot = new Part();
    return *slot;
}

// A Python object that the running interpreter keeps in `slot` (a field of its InterpreterState),
// made by `make` (a new reference, or null with no error left set) the first time it is asked for
// there; `tried` says it was, so that a failure is not tried again. Making may let other threads
// of the interpreter run and make it too: the first one kept stays.
template <class Make>
PyObject* keptHere(PyObject*& slot, bool& tried, Make&& make) {
    if (tried) return slot;
    PyObject* made = make();
    if (tried) {
        if (made != nullptr) Py_DecRef(made);
        return slot;
    }
    slot = made;
    tried = true;
    return slot;
}

// Every interpreter of ours, in the order they were made (a copy: interpreters may be made
// meanwhile).
std::vector<Interpreter*> allInterpreters();

// Drops the objects that wait for their interpreters now, entering each such interpreter in turn
// from the calling thread (which must hold no interpreter's lock), until none waits: a release
// can free a host value that holds an object of yet another interpreter. For a host that wants
// the memory back at a quiet moment rather than at each interpreter's next entry.
void releasePendingEverywhere();

// Gives back a reference to an object of `owner` (Interpreter::release), or, for an object of no
// interpreter of ours (null), under the lock the calling thread enters by default.
void releaseIn(Interpreter* owner, PyObject* object) noexcept;

// Called once Python runs: makes the record of the main interpreter and reads the layout when
// this extension started Python (`startedHere`, the calling thread then holds the lock); an
// interpreter someone else started is shared by every thread.
void adoptMainInterpreter(bool startedHere);

// In a child of fork: CPython kept only the main interpreter; the others are marked dead and no
// thread is sent to them again.
void forgetInterpretersAfterFork() noexcept;

// The thread state of the calling thread in `interpreter` (made on first use, kept until the
// thread ends), for entering it. Isolated layout only.
PyThreadState* threadStateIn(Interpreter& interpreter);

}  // namespace tala::python

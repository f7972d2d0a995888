// python/extension/gil.hpp: the interpreter-lock holder and the owning and borrowed Python references.
#pragma once

#include <Python.h>

#include <atomic>
#include <mutex>
#include <utility>

// For the thread-locals read on every entry into Python: the initial-exec model reads them with
// one instruction instead of a call into the dynamic loader. The few bytes they take come from
// the static TLS space the loader keeps for libraries opened later.
#if defined(__GNUC__) && !defined(_WIN32)
#define TALA_HOT_THREAD_LOCAL thread_local __attribute__((tls_model("initial-exec")))
#else
#define TALA_HOT_THREAD_LOCAL thread_local
#endif

namespace tala::python {

class Interpreter;

// Holds an interpreter's lock for one scope. Every operation that touches Python makes one first
// thing and keeps it to its end; taking the lock nests, so operations never tell each other
// whether it is held.
//
// Without an interpreter named, a thread that runs in one stays there (one check), and any other
// enters its own (its home: the one interpreter of the shared layout, or the one the pool gave
// it in the isolated layout). Naming the interpreter a Python object belongs to enters that
// one: a thread that runs in another gives that one's lock up for the scope and takes it back
// at the end.
//
// The first guard on a host thread that Python has never seen makes the thread's interpreter
// state and keeps it until the thread ends, so that later entries only take the lock (see
// gil.cpp).
class GilGuard {
public:
    GilGuard() noexcept {
        if (PyThreadState_GetUnchecked() != nullptr) return;  // this thread holds a lock
        enter(nullptr);
    }
    explicit GilGuard(Interpreter* target) noexcept {
        PyThreadState* current = PyThreadState_GetUnchecked();
        if (current != nullptr && (target == nullptr || runsIn(current, target))) return;
        enter(target);
    }
    ~GilGuard() {
        if (mode_ != Mode::Nested) leave();
    }
    GilGuard(const GilGuard&) = delete;
    GilGuard& operator=(const GilGuard&) = delete;
    GilGuard(GilGuard&&) = delete;
    GilGuard& operator=(GilGuard&&) = delete;

private:
    enum class Mode : unsigned char { Nested, Kept, Borrowed, Entered };
    static bool runsIn(PyThreadState* current, Interpreter* target) noexcept;
    void enter(Interpreter* target) noexcept;
    void leave() noexcept;

    Mode mode_ = Mode::Nested;
    PyGILState_STATE state_{};          // for a thread whose interpreter state someone else made
    PyThreadState* previous_ = nullptr;  // the state this thread left to enter another interpreter
};

// A reference that someone else owns, valid while they keep it. Marks in a signature that the
// receiver takes its own reference if it keeps the object.
class PyObjectPtr_Borrowed {
public:
    constexpr PyObjectPtr_Borrowed() noexcept = default;
    constexpr explicit PyObjectPtr_Borrowed(PyObject* object) noexcept : object_(object) {}
    PyObject* get() const noexcept { return object_; }
    explicit operator bool() const noexcept { return object_ != nullptr; }

private:
    PyObject* object_ = nullptr;
};

// Owns exactly one strong reference (or none, when null). Counts change only through the
// interpreter's exported Py_IncRef / Py_DecRef. Made and dropped while the lock is held: declare
// it after the operation's GilGuard.
class PyObjectPtr {
public:
    constexpr PyObjectPtr() noexcept = default;
    // Takes over a new reference (the result of a call that returns one).
    static PyObjectPtr steal(PyObject* object) noexcept { return PyObjectPtr(object); }
    // Adds a reference of our own to a borrowed one.
    static PyObjectPtr borrow(PyObject* object) noexcept {
        if (object != nullptr) Py_IncRef(object);
        return PyObjectPtr(object);
    }
    static PyObjectPtr borrow(PyObjectPtr_Borrowed object) noexcept { return borrow(object.get()); }

    PyObjectPtr(PyObjectPtr&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
    PyObjectPtr& operator=(PyObjectPtr&& other) noexcept {
        if (this != &other) reset(std::exchange(other.object_, nullptr));
        return *this;
    }
    PyObjectPtr(const PyObjectPtr&) = delete;
    PyObjectPtr& operator=(const PyObjectPtr&) = delete;
    ~PyObjectPtr() {
        if (object_ != nullptr) Py_DecRef(object_);
    }

    PyObject* get() const noexcept { return object_; }
    PyObjectPtr_Borrowed borrowed() const noexcept { return PyObjectPtr_Borrowed(object_); }
    explicit operator bool() const noexcept { return object_ != nullptr; }
    // Gives the reference to the caller (who now owns it).
    [[nodiscard]] PyObject* release() noexcept { return std::exchange(object_, nullptr); }
    void reset(PyObject* stolen = nullptr) noexcept {
        PyObject* old = std::exchange(object_, stolen);
        if (old != nullptr) Py_DecRef(old);
    }

private:
    constexpr explicit PyObjectPtr(PyObject* object) noexcept : object_(object) {}
    PyObject* object_ = nullptr;
};

// Lets go of the interpreter lock for one scope if this thread holds it, and takes it back at
// the end. For waiting on something whose holder may need the interpreter lock meanwhile
// (an import gives it up; Python code yields to other threads): waiting with it held would
// leave both threads stuck.
class GilReleased {
public:
    GilReleased() noexcept : thread_(PyThreadState_GetUnchecked() != nullptr ? PyEval_SaveThread() : nullptr) {}
    ~GilReleased() {
        if (thread_ != nullptr) PyEval_RestoreThread(thread_);
    }
    GilReleased(const GilReleased&) = delete;
    GilReleased& operator=(const GilReleased&) = delete;

private:
    PyThreadState* thread_;
};

// Takes `lock`; when it is taken already, waits for it with the interpreter lock let go.
template <class Lock>
std::unique_lock<Lock> lockReleasingGil(Lock& lock) {
    std::unique_lock<Lock> held(lock, std::try_to_lock);
    if (!held.owns_lock()) {
        const GilReleased released;
        held.lock();
    }
    return held;
}

// The interpreter of ours the calling thread runs in, or null (interpreters.hpp).
Interpreter* interpreterOfThisThread() noexcept;

// The state of a value made once (see makeOnce).
struct MadeOnce {
    std::atomic<bool> made{false};
    std::once_flag once;
};

// Runs `make` once for `state` (once per process, or once per interpreter for a state that its
// InterpreterState keeps), under the lock of the interpreter the caller runs in (or its home),
// from whichever thread asks first.
// The maker may give the lock up meanwhile (an import reads files; Python code yields to other
// threads), so a thread that must wait for it lets go of the lock while it waits, or the maker
// could never take the lock back. Callers may hold the lock or not.
template <class Make>
void makeOnce(MadeOnce& state, Make&& make) {
    if (state.made.load(std::memory_order_acquire)) return;
    Interpreter* here = interpreterOfThisThread();  // made there, whatever the waiting takes
    const GilReleased released;
    std::call_once(state.once, [&] {
        GilGuard gil(here);
        make();
        state.made.store(true, std::memory_order_release);
    });
}

// A METH_FASTCALL function in the PyCFunction slot of a PyMethodDef, as CPython wants it: cast
// through a function type that takes nothing, which converts to any other.
inline PyCFunction fastCallFunction(PyObject* (*function)(PyObject*, PyObject* const*, Py_ssize_t)) {
    return reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(function));
}

}  // namespace tala::python

// python/language/interrupt_signal.cpp: the signal that makes a wait in C on the interpreter's main thread return, so that Python raises the interruption there.
//
// Python's waits in C (time.sleep, select, socket reads, Lock.acquire, os.waitpid) retry after a
// signal breaks them, once they have asked PyErr_CheckSignals whether a Python-level handler
// wants to run. CPython runs such handlers only on the main thread of the main interpreter (the
// thread that started it); elsewhere the wait simply goes on. So on that one thread, a handler of
// ours is registered with Python for a signal of its own, and an interruption both marks that
// signal as received (PyErr_SetInterruptEx) and sends it to the thread (pthread_kill): the wait
// returns with EINTR, Python calls the handler, and the handler raises the interruption.
#include "language/interrupt_signal.hpp"

#include "extension/gil.hpp"

#if defined(_WIN32)

// Windows has no signal that ends a wait of another thread: its waits end first.
namespace tala::python {
void prepareInterruptSignal(PyMethodDef*) {}
bool sendInterruptSignal(std::int64_t) { return false; }
void stopInterruptSignal() noexcept {}
int interruptSignalNumber() noexcept { return 0; }
}  // namespace tala::python

#else

#include <pthread.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <mutex>

namespace tala::python {

namespace {

// Written once, on the main thread, under the interpreter lock; read under it.
int g_signal = 0;                      // the signal in use, 0 for none
bool g_prepared = false;               // the main thread's first evaluation has set it up
unsigned long g_signalThreadId = 0;    // that thread, as the interpreter knows it
pthread_t g_signalThread{};            // ... and as pthread_kill knows it

// The signal is sent again every 20 ms until the interruption is raised: one that lands after
// the waiting function's last look for signals and before its wait begins (the thread has let
// go of the interpreter lock, and may be preempted right there) would otherwise be missed until
// the wait ends. A timer of the kernel's sends it. The thread that asks for the interruption
// arms it and the interrupted one disarms it, each holding the lock of its own interpreter at
// most, so the timer has a lock of its own.
constexpr long kResendNanoseconds = 20'000'000;
timer_t g_resend{};
bool g_resendMade = false;
std::mutex g_resendLock;
std::atomic<bool> g_resendArmed{false};  // written under g_resendLock

void makeResendTimer() {
    sigevent event{};
    event.sigev_notify = SIGEV_THREAD_ID;
    event.sigev_signo = g_signal;
    event._sigev_un._tid = gettid();
    g_resendMade = timer_create(CLOCK_MONOTONIC, &event, &g_resend) == 0;
}

void armResend(bool on) {
    if (!g_resendMade) return;
    std::lock_guard lock(g_resendLock);
    if (g_resendArmed.load(std::memory_order_relaxed) == on) return;
    itimerspec every{};
    if (on) every.it_value.tv_nsec = every.it_interval.tv_nsec = kResendNanoseconds;
    if (timer_settime(g_resend, 0, &every, nullptr) == 0) g_resendArmed.store(on, std::memory_order_relaxed);
}

int chosenSignal() {
    const char* chosen = std::getenv("TALA_PYTHON_INTERRUPT_SIGNAL");
    if (chosen == nullptr || *chosen == '\0') return SIGRTMAX - 2;
    char* end = nullptr;
    const long number = std::strtol(chosen, &end, 10);
    if (*end != '\0' || number < 0 || number >= NSIG) return SIGRTMAX - 2;
    return static_cast<int>(number);
}

bool isMainThreadOfMainInterpreter() {
    if (PyInterpreterState_Get() != PyInterpreterState_Main()) return false;
    PyObjectPtr threads = PyObjectPtr::steal(PyImport_ImportModule("_thread"));
    PyObjectPtr mainId = threads ? PyObjectPtr::steal(PyObject_CallMethod(threads.get(), "_get_main_thread_ident", nullptr))
                                 : PyObjectPtr();
    if (!mainId) {
        PyErr_Clear();
        return false;
    }
    const unsigned long id = PyLong_AsUnsignedLong(mainId.get());
    PyErr_Clear();
    return id == PyThread_get_thread_ident();
}

// Imports Python's signal module the first time with the host's SIGINT disposition kept: the
// module's set-up takes SIGINT for itself when it finds it at its default.
PyObjectPtr signalModuleKeepingSigint() {
    PyObject* modules = PyImport_GetModuleDict();  // borrowed
    const bool first = PyDict_GetItemString(modules, "_signal") == nullptr;
    struct sigaction before {};
    if (first) sigaction(SIGINT, nullptr, &before);
    PyObjectPtr module = PyObjectPtr::steal(PyImport_ImportModule("_signal"));
    if (first) {
        struct sigaction after {};
        sigaction(SIGINT, nullptr, &after);
        if (after.sa_handler != before.sa_handler) sigaction(SIGINT, &before, nullptr);
    }
    return module;
}

}  // namespace

void prepareInterruptSignal(PyMethodDef* onSignal) {
    if (g_prepared || !isMainThreadOfMainInterpreter()) return;
    g_prepared = true;
    PyObjectPtr module = signalModuleKeepingSigint();
    const int chosen = chosenSignal();
    if (!module || chosen == 0) {
        PyErr_Clear();
        return;
    }
    PyObjectPtr handler = PyObjectPtr::steal(PyCFunction_New(onSignal, nullptr));
    PyObjectPtr previous = handler ? PyObjectPtr::steal(PyObject_CallMethod(module.get(), "signal", "iO", chosen, handler.get()))
                                   : PyObjectPtr();
    if (!previous) {
        PyErr_Clear();
        return;
    }
    g_signal = chosen;
    g_signalThreadId = PyThread_get_thread_ident();
    g_signalThread = pthread_self();
    makeResendTimer();
}

bool sendInterruptSignal(std::int64_t threadId) {
    if (g_signal == 0 || static_cast<unsigned long>(threadId) != g_signalThreadId) return false;
    // Marked first: when the wait returns, Python finds the signal already received.
    if (PyErr_SetInterruptEx(g_signal) != 0) return false;
    armResend(true);
    return pthread_kill(g_signalThread, g_signal) == 0;
}

void stopInterruptSignal() noexcept {
    if (g_resendArmed.load(std::memory_order_relaxed) && PyThread_get_thread_ident() == g_signalThreadId) armResend(false);
}

int interruptSignalNumber() noexcept { return g_signal; }

}  // namespace tala::python

#endif

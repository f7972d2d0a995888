// python/language/interruption.cpp: stopping an evaluation that runs on another host thread.
#include "language/interruption.hpp"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "extension/gil.hpp"
#include "extension/interpreters.hpp"
#include "language/interrupt_signal.hpp"
#include "tala/cancellation.hpp"

namespace tala::python {

namespace {

using Clock = std::chrono::steady_clock;

// What the interrupting side knows of one thread; listed in the registry while its thread lives.
// The thread writes `depth`, `raised` and `first` (under the lock of the interpreter it runs
// in); the interrupting thread writes `interrupted` and `graceEnds`. `lists` guards the two
// lists and is taken by the thread and the interrupting one (which holds the registry's mutex):
// it is the thread's own, so an evaluation never waits on a lock of the whole process.
struct ThreadRecord {
    unsigned long threadId = PyThread_get_thread_ident();
    std::uint64_t blockingKey = current_thread_key();  // for stopping its blocking host calls
    std::atomic<int> depth{0};                          // evaluations running on the thread, nested
    bool prepared = false;                              // its first evaluation has run prepareInterruptSignal
    std::atomic<bool> interrupted{false};               // the running evaluation was told to stop
    bool raised = false;                                // ... and the interruption was raised in it
    std::atomic<Clock::rep> graceEnds{0};               // from then on it is raised again at every jump
    PyObjectPtr first;  // the exception first raised, kept to the end (null between evaluations)
    Interpreter* firstIn = nullptr;  // ... and the interpreter it was raised in, where it is kept
    bool scheduled = false;          // handed to the eval breaker (which makes the exception) since the start
    // The interpreter of each running evaluation, outermost first (one thread may evaluate in
    // several: a call into a proxy of another interpreter's object), and those in which the
    // interruption switched monitoring on.
    spinlock lists;
    std::vector<Interpreter*> evaluating;
    std::vector<Interpreter*> monitored;
};

// Thread identifier -> its record. `mutex` guards the map; the process-wide instance is never
// destroyed (threads may end after static destruction began).
struct Registry {
    std::mutex mutex;
    std::unordered_map<unsigned long, ThreadRecord*> threads;
};

Registry& registry() {
    static auto* instance = new Registry();
    return *instance;
}

// This thread's record, listed on first use and unlisted when the thread ends.
struct OwnRecord {
    ThreadRecord record;
    bool listed = false;

    ThreadRecord& get() {
        if (!listed) {
            std::lock_guard lock(registry().mutex);
            registry().threads[record.threadId] = &record;
            listed = true;
        }
        return record;
    }
    ~OwnRecord() {
        if (!listed) return;
        std::lock_guard lock(registry().mutex);
        registry().threads.erase(record.threadId);
    }
};

TALA_HOT_THREAD_LOCAL OwnRecord t_record;

// The record of this thread when the evaluation running on it was told to stop.
ThreadRecord* interruptedHere() {
    if (!t_record.listed) return nullptr;
    ThreadRecord& record = t_record.record;
    return record.depth.load(std::memory_order_relaxed) > 0 && record.interrupted.load(std::memory_order_acquire) ? &record
                                                                                                                  : nullptr;
}

bool inGracePeriod(const ThreadRecord& record) {
    return Clock::now().time_since_epoch().count() < record.graceEnds.load(std::memory_order_acquire);
}

// Keeps `exception` as the evaluation's own interruption when it is the first one made.
void keepFirst(ThreadRecord& record, PyObject* exception) {
    if (record.first) return;
    record.first = PyObjectPtr::borrow(exception);
    record.firstIn = currentInterpreter();
}

// Raises the interruption; the first one is kept as the evaluation's own.
void raiseIn(ThreadRecord& record) {
    PyObjectPtr exception = PyObjectPtr::steal(PyObject_CallNoArgs(interruptedType()));
    if (!exception) return;  // what went wrong is raised instead
    record.raised = true;
    keepFirst(record, exception.get());
    stopInterruptSignal();
    PyErr_SetRaisedException(exception.release());
}

// Has the interruption raised at the thread's next look at its eval breaker (the check of every
// backward jump and function start) instead of here. CPython 3.13 unwinds an exception raised
// by a JUMP or BRANCH callback past the handlers of the frame it is raised in (its except,
// finally and with blocks never run), while one raised at the eval breaker is handled as any
// other. The eval breaker makes the instance with no arguments; its __init__ keeps it as the
// first (initInterrupted).
void scheduleIn(ThreadRecord& record) {
    record.raised = true;
    record.scheduled = true;
    stopInterruptSignal();
    (void)PyThreadState_SetAsyncExc(PyThread_get_thread_ident(), interruptedType());
}

// Takes back an interruption handed to the eval breaker that has not been raised yet: it must
// not stop what the thread runs later.
void unschedule(ThreadRecord& record) {
    if (!record.scheduled) return;
    record.scheduled = false;
    (void)PyThreadState_SetAsyncExc(PyThread_get_thread_ident(), nullptr);
}

// Keeps the exception pending on this thread aside for one scope: the work done meanwhile is
// the interruption's own, and what the code had pending is not its to lose.
class PendingExceptionKept {
public:
    PendingExceptionKept() noexcept : pending_(PyObjectPtr::steal(PyErr_GetRaisedException())) {}
    ~PendingExceptionKept() {
        PyErr_Clear();
        PyErr_SetRaisedException(pending_.release());
    }
    PendingExceptionKept(const PendingExceptionKept&) = delete;
    PendingExceptionKept& operator=(const PendingExceptionKept&) = delete;

private:
    PyObjectPtr pending_;
};

// Where the interruption can be raised (a function start, a signal handler): raises it the
// first time, and again at every such point once the grace period is over.
PyObject* raiseIfDue(PyObject*, PyObject* const*, Py_ssize_t) {
    ThreadRecord* record = interruptedHere();
    if (record == nullptr || (record->raised && inGracePeriod(*record))) Py_RETURN_NONE;
    raiseIn(*record);
    return nullptr;
}

// The same at a jump, through the eval breaker (scheduleIn).
PyObject* scheduleIfDue(PyObject*, PyObject* const*, Py_ssize_t) {
    ThreadRecord* record = interruptedHere();
    if (record != nullptr && !(record->raised && inGracePeriod(*record))) scheduleIn(*record);
    Py_RETURN_NONE;
}

PyMethodDef g_monitoringCallback{"tala_interruption_check", fastCallFunction(raiseIfDue), METH_FASTCALL,
                                 "Raises the interruption in an evaluation that was told to stop."};
PyMethodDef g_jumpCallback{"tala_interruption_jump_check", fastCallFunction(scheduleIfDue), METH_FASTCALL,
                           "Has the interruption raised at the next check of an evaluation that was told to stop."};
PyMethodDef g_signalHandler{"tala_interruption_signal", fastCallFunction(raiseIfDue), METH_FASTCALL,
                            "Raises the interruption where a wait in C was ended by the interrupt signal."};

// ---- Monitoring ----------------------------------------------------------------------------
//
// A monitoring callback on jumps and function starts raises the interruption in Python code. It
// is only switched on, in an interpreter, while some interruption of an evaluation running there
// is pending, so evaluations pay nothing for it otherwise. All of this runs under the lock of the
// interpreter concerned.

}  // namespace

// The monitoring of one interpreter (its InterpreterState): the sys.monitoring tool id we hold
// there (or -1), the events its callback is registered for, and the interruptions pending.
struct MonitoringState {
    int pending = 0;
    int tool = -1;
    long eventMask = 0;
};

namespace {

MonitoringState& monitoringHere() { return partHere(state().monitoring); }

PyObjectPtr monitoring() {
    PyObjectPtr sys = PyObjectPtr::steal(PyImport_ImportModule("sys"));
    return sys ? PyObjectPtr::steal(PyObject_GetAttrString(sys.get(), "monitoring")) : PyObjectPtr();
}

// Takes a free tool id (debuggers, coverage and profilers keep theirs) and registers the
// callback for the events it watches, whose mask it keeps; the tool stays ours for the life of
// the interpreter.
bool claimTool(MonitoringState& here, PyObject* monitoringModule) {
    if (here.tool >= 0) return true;
    PyObjectPtr callback = PyObjectPtr::steal(PyCFunction_New(&g_monitoringCallback, nullptr));
    PyObjectPtr jumpCallback = PyObjectPtr::steal(PyCFunction_New(&g_jumpCallback, nullptr));
    PyObjectPtr events = PyObjectPtr::steal(PyObject_GetAttrString(monitoringModule, "events"));
    if (!callback || !jumpCallback || !events) return false;
    for (int tool : {4, 3}) {
        PyObjectPtr claimed = PyObjectPtr::steal(PyObject_CallMethod(monitoringModule, "use_tool_id", "is", tool, "tala"));
        if (!claimed) {
            PyErr_Clear();
            continue;
        }
        for (const char* name : {"JUMP", "PY_START", "PY_RESUME"}) {
            PyObjectPtr event = PyObjectPtr::steal(PyObject_GetAttrString(events.get(), name));
            PyObject* called = std::string_view(name) == "JUMP" ? jumpCallback.get() : callback.get();
            PyObjectPtr done = event ? PyObjectPtr::steal(PyObject_CallMethod(monitoringModule, "register_callback", "iOO", tool,
                                                                              event.get(), called))
                                     : PyObjectPtr();
            if (done) here.eventMask |= PyLong_AsLong(event.get());
            PyErr_Clear();
        }
        here.tool = tool;
        return true;
    }
    return false;
}

void switchMonitoring(MonitoringState& here, bool on) {
    const PendingExceptionKept kept;
    PyObjectPtr module = monitoring();
    if (module && claimTool(here, module.get())) {
        PyObjectPtr done = PyObjectPtr::steal(PyObject_CallMethod(module.get(), "set_events", "il", here.tool, on ? here.eventMask : 0L));
    }
}

// One more (or one less) interruption pending in the interpreter the caller runs in.
void countPendingHere(int change) {
    MonitoringState& here = monitoringHere();
    const bool wasOn = here.pending > 0;
    here.pending += change;
    if (wasOn != (here.pending > 0)) switchMonitoring(here, here.pending > 0);
}

// ---- The exception type -------------------------------------------------------------------

// The constructor of Interrupted, in C: no Python code runs while the instance is made where the
// evaluation stops (it would be stopped by the very interruption it is making). An instance
// method receives (self, *args).
PyObject* initInterrupted(PyObject*, PyObject* arguments) {
    const Py_ssize_t count = PyTuple_GET_SIZE(arguments);
    if (count < 1) {
        PyErr_SetString(PyExc_TypeError, "Interrupted.__init__ needs the instance.");
        return nullptr;
    }
    PyObjectPtr given = count > 1 ? PyObjectPtr::steal(PyTuple_GetSlice(arguments, 1, count))
                                  : PyObjectPtr::steal(Py_BuildValue("(s)", "The evaluation was interrupted."));
    if (!given || PyObject_SetAttrString(PyTuple_GET_ITEM(arguments, 0), "args", given.get()) < 0) return nullptr;
    // Made by the eval breaker for an interruption handed to it: the evaluation's first.
    if (ThreadRecord* record = interruptedHere(); record != nullptr && record->scheduled) {
        keepFirst(*record, PyTuple_GET_ITEM(arguments, 0));
    }
    Py_RETURN_NONE;
}

PyMethodDef g_initDefinition{"__init__", initInterrupted, METH_VARARGS, nullptr};

// tala.python.Interrupted, a KeyboardInterrupt, so that code that catches Exception lets it pass.
PyObject* makeInterruptedType() {
    PyObjectPtr function = PyObjectPtr::steal(PyCFunction_New(&g_initDefinition, nullptr));
    PyObjectPtr method = function ? PyObjectPtr::steal(PyInstanceMethod_New(function.get())) : PyObjectPtr();
    PyObjectPtr members = PyObjectPtr::steal(PyDict_New());
    if (!method || !members || PyDict_SetItemString(members.get(), "__init__", method.get()) < 0) return nullptr;
    return PyErr_NewExceptionWithDoc("tala.python.Interrupted", "Raised in an evaluation that the host stopped.",
                                     PyExc_KeyboardInterrupt, members.get());
}

}  // namespace

namespace {
// Set while a thread runs evaluations of the extension's own (an interpreter's first
// evaluations, made when it starts): they are no evaluations of the host's to stop.
TALA_HOT_THREAD_LOCAL bool t_uncounted = false;
}  // namespace

UncountedEvaluations::UncountedEvaluations() noexcept : previous_(t_uncounted) { t_uncounted = true; }
UncountedEvaluations::~UncountedEvaluations() { t_uncounted = previous_; }

EvaluationScope::EvaluationScope() noexcept : counted_(!t_uncounted) {
    if (!counted_) return;
    ThreadRecord& record = t_record.get();
    // Prepared before the evaluation can be stopped: the preparation may import (the first time
    // in an interpreter), and an interruption raised inside an import made here would be lost.
    if (!record.prepared) {
        record.prepared = true;
        const PendingExceptionKept kept;
        prepareInterruptSignal(&g_signalHandler);
    }
    std::lock_guard lock(record.lists);
    record.evaluating.push_back(currentInterpreter());
    record.depth.fetch_add(1, std::memory_order_relaxed);
}

EvaluationScope::~EvaluationScope() {
    if (!counted_) return;
    ThreadRecord& record = t_record.record;
    std::vector<Interpreter*> monitored;
    {
        std::lock_guard lock(record.lists);
        record.evaluating.pop_back();
        if (record.depth.fetch_sub(1, std::memory_order_relaxed) > 1 || !record.interrupted.load()) return;
        // The evaluation ended: what was meant to stop it must not stop anything later.
        record.interrupted.store(false, std::memory_order_release);
        monitored.swap(record.monitored);
    }
    record.raised = false;
    unschedule(record);
    // The exception is given back in its own interpreter (this evaluation may run in another).
    if (record.firstIn != nullptr) {
        record.firstIn->release(record.first.release());
        record.firstIn = nullptr;
    }
    record.first.reset();
    stopInterruptSignal();
    for (Interpreter* interpreter : monitored) {
        GilGuard gil(interpreter);
        countPendingHere(-1);
    }
}

bool EvaluationScope::endsInterrupted() noexcept {
    if (!counted_) return false;
    ThreadRecord* record = interruptedHere();
    if (record == nullptr) return false;
    if (PyErr_Occurred() != nullptr && PyErr_ExceptionMatches(interruptedType())) return true;
    PyErr_Clear();
    // The first exception is raised again only in the interpreter that made it.
    if (record->first && record->firstIn == currentInterpreter()) {
        PyErr_SetRaisedException(PyObjectPtr::borrow(record->first.get()).release());
    } else {
        raiseIn(*record);
    }
    return true;
}

std::int64_t currentThreadId() noexcept { return static_cast<std::int64_t>(PyThread_get_thread_ident()); }

PyObject* interruptedType() {
    InterpreterState& here = state();
    PyObject* type = keptHere(here.interruptedType, here.interruptedTypeTried, [] {
        PyObject* made = makeInterruptedType();  // kept for the life of the interpreter
        if (made == nullptr) PyErr_Clear();
        return made;
    });
    return type != nullptr ? type : PyExc_KeyboardInterrupt;
}

bool interruptEvaluation(std::int64_t threadId, double graceSeconds) {
    if (!Py_IsInitialized()) return false;
    std::uint64_t blockingKey = 0;
    std::vector<Interpreter*> toMonitor;
    {
        std::lock_guard lock(registry().mutex);
        auto found = registry().threads.find(static_cast<unsigned long>(threadId));
        if (found == registry().threads.end()) return false;
        ThreadRecord& record = *found->second;
        // The thread starts and ends its evaluations under the same lock: none ends half-way
        // through this.
        std::lock_guard lists(record.lists);
        if (record.depth.load() == 0) return false;
        const auto now = Clock::now();
        if (!record.interrupted.load()) {
            // A longer grace (infinity among them) is as good as none ending; the bound keeps the
            // sum within the clock's range.
            constexpr double kLongestGraceSeconds = 1e9;  // about 31 years
            const double grace = std::min(graceSeconds, kLongestGraceSeconds);
            record.graceEnds.store(
                (now + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(grace))).time_since_epoch().count(),
                std::memory_order_release);
            record.interrupted.store(true, std::memory_order_release);
        } else {
            record.graceEnds.store(now.time_since_epoch().count(), std::memory_order_release);  // asked again: no more grace
        }
        // Monitoring goes on in every interpreter the thread evaluates in (a thread may be
        // inside a call into another interpreter's object), once each.
        for (Interpreter* interpreter : record.evaluating) {
            if (interpreter == nullptr) continue;  // an interpreter of Python code's own: not ours to watch
            if (std::find(record.monitored.begin(), record.monitored.end(), interpreter) != record.monitored.end()) continue;
            record.monitored.push_back(interpreter);
            toMonitor.push_back(interpreter);
        }
        blockingKey = record.blockingKey;
    }
    for (Interpreter* interpreter : toMonitor) {
        GilGuard gil(interpreter);
        (void)interruptedType();  // made before the interruption can need it
        countPendingHere(+1);
    }
    // A blocking host call is asked to stop; a wait of Python's own is ended by the signal
    // where one can reach it.
    if (cancel_blocking_call(blockingKey) != CancelOutcome::Cancelled) (void)sendInterruptSignal(threadId);
    return true;
}

bool raisePendingInterruption() noexcept {
    ThreadRecord* record = interruptedHere();
    if (record == nullptr) return false;
    raiseIn(*record);
    return true;
}

}  // namespace tala::python

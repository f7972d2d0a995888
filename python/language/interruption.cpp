// python/language/interruption.cpp: stopping an evaluation that runs on another host thread.
#include "language/interruption.hpp"

#include <mutex>
#include <unordered_map>

#include "extension/gil.hpp"

namespace tala::python {

namespace {

// What the interrupting side knows of one thread. `depth` and `interrupted` are read and
// written under the interpreter lock only; the record is listed in the registry while its
// thread lives.
struct ThreadRecord {
    unsigned long threadId = PyThread_get_thread_ident();
    int depth = 0;             // evaluations running on the thread, nested
    bool interrupted = false;  // the running evaluation was told to stop
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

// ---- Raising again until the evaluation ends ---------------------------------------------------
//
// The first interruption is an asynchronous exception, which the interpreter raises at the next
// point where it looks. Code that catches it and goes on is stopped by a monitoring callback on
// jumps and function starts, which raises it again while an interruption is pending on its
// thread. The callback is only switched on while some interruption is pending, so evaluations
// pay nothing for it otherwise. All of this runs under the interpreter lock.

int g_pendingInterruptions = 0;
int g_monitoringTool = -1;  // the sys.monitoring tool id we hold, or -1
long g_eventMask = 0;       // the events its callback is registered for

PyObject* raiseIfInterrupted(PyObject*, PyObject* const*, Py_ssize_t) {
    if (t_record.listed && t_record.record.depth > 0 && t_record.record.interrupted) {
        PyErr_SetNone(interruptedType());
        return nullptr;
    }
    Py_RETURN_NONE;
}

PyMethodDef g_callbackDefinition{"tala_interruption_check", fastCallFunction(raiseIfInterrupted), METH_FASTCALL,
                                 "Raises the interruption in an evaluation that was told to stop."};

PyObjectPtr monitoring() {
    PyObjectPtr sys = PyObjectPtr::steal(PyImport_ImportModule("sys"));
    return sys ? PyObjectPtr::steal(PyObject_GetAttrString(sys.get(), "monitoring")) : PyObjectPtr();
}

// Takes a free tool id (debuggers, coverage and profilers keep theirs) and registers the
// callback for the events it watches, whose mask it keeps; the tool stays ours for the life of
// the process.
bool claimTool(PyObject* monitoringModule) {
    if (g_monitoringTool >= 0) return true;
    PyObjectPtr callback = PyObjectPtr::steal(PyCFunction_New(&g_callbackDefinition, nullptr));
    PyObjectPtr events = PyObjectPtr::steal(PyObject_GetAttrString(monitoringModule, "events"));
    if (!callback || !events) return false;
    for (int tool : {4, 3}) {
        PyObjectPtr claimed = PyObjectPtr::steal(PyObject_CallMethod(monitoringModule, "use_tool_id", "is", tool, "tala"));
        if (!claimed) {
            PyErr_Clear();
            continue;
        }
        for (const char* name : {"JUMP", "PY_START", "PY_RESUME"}) {
            PyObjectPtr event = PyObjectPtr::steal(PyObject_GetAttrString(events.get(), name));
            PyObjectPtr done = event ? PyObjectPtr::steal(PyObject_CallMethod(monitoringModule, "register_callback", "iOO", tool,
                                                                              event.get(), callback.get()))
                                     : PyObjectPtr();
            if (done) g_eventMask |= PyLong_AsLong(event.get());
            PyErr_Clear();
        }
        g_monitoringTool = tool;
        return true;
    }
    return false;
}

void switchMonitoring(bool on) {
    PyObjectPtr module = monitoring();
    if (!module || !claimTool(module.get())) {
        PyErr_Clear();
        return;
    }
    PyObjectPtr done = PyObjectPtr::steal(PyObject_CallMethod(module.get(), "set_events", "il", g_monitoringTool, on ? g_eventMask : 0L));
    if (!done) PyErr_Clear();
}

// The constructor of Interrupted, in C: an interruption is raised as the bare type, and Python
// makes the instance at the point where the evaluation stops. Python code run there would be
// stopped by the very interruption it is making. An instance method receives (self, *args).
PyObject* initInterrupted(PyObject*, PyObject* arguments) {
    const Py_ssize_t count = PyTuple_GET_SIZE(arguments);
    if (count < 1) {
        PyErr_SetString(PyExc_TypeError, "Interrupted.__init__ needs the instance.");
        return nullptr;
    }
    PyObjectPtr given = count > 1 ? PyObjectPtr::steal(PyTuple_GetSlice(arguments, 1, count))
                                  : PyObjectPtr::steal(Py_BuildValue("(s)", "The evaluation was interrupted."));
    if (!given || PyObject_SetAttrString(PyTuple_GET_ITEM(arguments, 0), "args", given.get()) < 0) return nullptr;
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

EvaluationScope::EvaluationScope() noexcept { ++t_record.get().depth; }

EvaluationScope::~EvaluationScope() {
    ThreadRecord& record = t_record.record;
    if (--record.depth > 0 || !record.interrupted) return;
    // The evaluation ended: what was meant to stop it must not stop anything later.
    record.interrupted = false;
    (void)PyThreadState_SetAsyncExc(record.threadId, nullptr);
    if (--g_pendingInterruptions == 0) switchMonitoring(false);
}

std::int64_t currentThreadId() noexcept { return static_cast<std::int64_t>(PyThread_get_thread_ident()); }

PyObject* interruptedType() {
    static MadeOnce state;
    static PyObject* type = nullptr;
    makeOnce(state, [] {
        type = makeInterruptedType();  // kept for the life of the process
        if (type == nullptr) {
            PyErr_Clear();
            type = PyExc_KeyboardInterrupt;
        }
    });
    return type;
}

bool interruptEvaluation(std::int64_t threadId) {
    if (!Py_IsInitialized()) return false;
    GilGuard gil;  // evaluations start and end under the lock: none can end half-way through this
    PyObject* type = interruptedType();
    const auto id = static_cast<unsigned long>(threadId);
    bool first = false;
    {
        std::lock_guard lock(registry().mutex);
        auto found = registry().threads.find(id);
        if (found == registry().threads.end() || found->second->depth == 0) return false;
        first = !found->second->interrupted;
        found->second->interrupted = true;
        (void)PyThreadState_SetAsyncExc(id, type);
    }
    if (first && g_pendingInterruptions++ == 0) switchMonitoring(true);
    return true;
}

}  // namespace tala::python

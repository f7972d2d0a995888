// python/extension/interpreters.cpp: the interpreter layout, the pool of isolated interpreters, and which one a host thread enters.
#include "extension/interpreters.hpp"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <thread>

#include "extension/gil.hpp"
#include "tala/tala.hpp"

namespace tala::python {

// The start-up of each interpreter (search paths, sys.executable, the logging bridge, ...):
// interpreter.cpp, which starts Python, knows them all.
void prepareInterpreter(Interpreter& interpreter);

namespace {

// ---- The layout ------------------------------------------------------------------------------

struct Settings {
    InterpreterLayout layout = InterpreterLayout::Shared;
    int bound = 1;
};

// A setting from the host's language options, else from the environment.
std::string settingText(std::string_view option, const char* variable) {
    const Any value = language_option(option);
    if (auto text = String::cast(value)) return text->toStdString();
    if (value.kind() == Kind::Integer) return std::to_string(value.rawInteger());
    const char* environment = std::getenv(variable);
    return environment != nullptr ? std::string(environment) : std::string();
}

void warn(const std::string& message) {
    get_logger().log(LogRecord(30, String(message)));
}

Settings readSettings() {
    Settings settings;
    const std::string layout = settingText("python.interpreters", "TALA_PYTHON_INTERPRETERS");
    if (layout == "isolated") {
        settings.layout = InterpreterLayout::Isolated;
    } else if (!layout.empty() && layout != "shared") {
        warn("The interpreter layout must be 'shared' or 'isolated', not '" + layout + "': Python runs shared.");
    }
    const unsigned cores = std::max(1u, std::thread::hardware_concurrency());
    settings.bound = static_cast<int>(cores);
    const std::string bound = settingText("python.interpreterCount", "TALA_PYTHON_INTERPRETER_COUNT");
    if (!bound.empty()) {
        char* end = nullptr;
        const long number = std::strtol(bound.c_str(), &end, 10);
        if (end != nullptr && *end == '\0' && number >= 1 && number <= 64) {
            settings.bound = static_cast<int>(number);
        } else {
            warn("The number of interpreters must be a whole number from 1 to 64, not '" + bound + "': " +
                 std::to_string(settings.bound) + " are used.");
        }
    }
    if (settings.layout == InterpreterLayout::Shared) settings.bound = 1;
    return settings;
}

Settings g_settings;  // written once, by adoptMainInterpreter, before any other thread enters

// ---- The interpreters ------------------------------------------------------------------------

// Every interpreter of ours, in the order they were made. Slots are written once (under
// g_makeMutex) and read without a lock; a record is never freed.
constexpr int kMostInterpreters = 64;
std::array<std::atomic<Interpreter*>, kMostInterpreters> g_interpreters{};
std::atomic<int> g_count{0};
std::mutex g_makeMutex;  // making an interpreter and choosing a thread's home

// The interpreter a thread entered last, by CPython's interpreter: one compare per look-up.
struct LastSeen {
    PyInterpreterState* handle = nullptr;
    Interpreter* record = nullptr;
};
TALA_HOT_THREAD_LOCAL LastSeen t_lastSeen;

// The calling thread's home, and its count in that interpreter's affinity, given back when the
// thread ends.
struct Home {
    Interpreter* interpreter = nullptr;
    ~Home() {
        if (interpreter != nullptr) interpreter->assignedThreads.fetch_sub(1, std::memory_order_relaxed);
    }
};
thread_local Home t_home;

// The thread states of the calling thread in the interpreters it entered (isolated layout): each
// made on first use and dropped, under its interpreter's lock, when the thread ends.
struct ThreadStates {
    std::vector<std::pair<Interpreter*, PyThreadState*>> states;
    ~ThreadStates() {
        if (!Py_IsInitialized() || Py_IsFinalizing()) return;
        for (auto& [interpreter, state] : states) {
            if (!interpreter->alive() || state == interpreter->firstState) continue;
            PyEval_RestoreThread(state);
            PyThreadState_Clear(state);
            PyThreadState_DeleteCurrent();
        }
    }
};
thread_local ThreadStates t_states;

// A new isolated interpreter, prepared as the main one was, by the calling thread (which holds
// no lock) in the thread state CPython made with it.
Interpreter* makeInterpreter() {
    PyThreadState* made = nullptr;
    PyInterpreterConfig config{};
    config.use_main_obmalloc = 0;
    config.allow_fork = 0;  // a fork is the host's, made outside Python (see interpreter.cpp)
    config.allow_exec = 1;  // subprocess
    config.allow_threads = 1;
    config.allow_daemon_threads = 0;
    config.check_multi_interp_extensions = 1;  // extensions that cannot be isolated refuse to load
    config.gil = PyInterpreterConfig_OWN_GIL;
    const PyStatus status = Py_NewInterpreterFromConfig(&made, &config);
    if (PyStatus_Exception(status) || made == nullptr) return nullptr;
    auto* interpreter = new Interpreter(PyThreadState_GetInterpreter(made), g_count.load(std::memory_order_relaxed));
    // The state CPython made with the interpreter stays with it ("init_threadstate: thread state
    // already initialized" otherwise, see firstState); the threads that enter it, this one
    // included, have states of their own.
    interpreter->firstState = made;
    // Known before it is prepared: the preparation runs in it and finds its state through it.
    // Only this thread can enter it until its home is chosen, which g_makeMutex holds back.
    g_interpreters[static_cast<std::size_t>(interpreter->index())].store(interpreter, std::memory_order_release);
    g_count.fetch_add(1, std::memory_order_release);
    prepareInterpreter(*interpreter);
    (void)PyEval_SaveThread();
    return interpreter;
}

// The pool's rule: a thread's home is the interpreter with the fewest host threads (the first
// made among equals), a new one as long as the pool has fewer than its bound. The thread that
// started Python has the main interpreter.
Interpreter& chooseHome() {
    std::lock_guard lock(g_makeMutex);
    const int count = g_count.load(std::memory_order_acquire);
    Interpreter* best = nullptr;
    for (int index = 0; index < count; ++index) {
        Interpreter* candidate = g_interpreters[static_cast<std::size_t>(index)].load(std::memory_order_acquire);
        if (!candidate->alive()) continue;
        if (best == nullptr || candidate->assignedThreads.load() < best->assignedThreads.load()) best = candidate;
    }
    if (best == nullptr || (best->assignedThreads.load() > 0 && count < g_settings.bound && count < kMostInterpreters)) {
        if (Interpreter* made = makeInterpreter()) best = made;
    }
    if (best == nullptr) best = mainInterpreter();  // CPython could not make one: share
    best->assignedThreads.fetch_add(1, std::memory_order_relaxed);
    return *best;
}

}  // namespace

InterpreterLayout interpreterLayout() noexcept { return g_settings.layout; }
int interpreterBound() noexcept { return g_settings.bound; }

void Interpreter::release(PyObject* object) noexcept {
    if (object == nullptr) return;
    PyThreadState* current = PyThreadState_GetUnchecked();
    if (current != nullptr && PyThreadState_GetInterpreter(current) == handle_) {
        Py_DecRef(object);
        return;
    }
    if (interpreterLayout() == InterpreterLayout::Shared) {
        GilGuard gil(this);
        Py_DecRef(object);
        return;
    }
    std::lock_guard lock(pendingMutex_);
    pending_.push_back(object);
    pendingCount_.store(pending_.size(), std::memory_order_release);
}

void releaseIn(Interpreter* owner, PyObject* object) noexcept {
    if (owner != nullptr) {
        owner->release(object);
        return;
    }
    GilGuard gil;
    Py_DecRef(object);
}

void Interpreter::drainReleasesSlowly() noexcept {
    std::vector<PyObject*> taken;
    {
        std::lock_guard lock(pendingMutex_);
        taken.swap(pending_);
        pendingCount_.store(0, std::memory_order_release);
    }
    // A release may run Python code (a __del__) that queues more: they wait for the next entry.
    for (PyObject* object : taken) Py_DecRef(object);
}

Interpreter* mainInterpreter() noexcept { return g_interpreters[0].load(std::memory_order_acquire); }

Interpreter* interpreterOf(PyInterpreterState* handle) noexcept {
    const int count = g_count.load(std::memory_order_acquire);
    for (int index = 0; index < count; ++index) {
        Interpreter* candidate = g_interpreters[static_cast<std::size_t>(index)].load(std::memory_order_acquire);
        if (candidate != nullptr && candidate->handle() == handle) return candidate;
    }
    return nullptr;
}

Interpreter* currentInterpreter() noexcept {
    PyThreadState* current = PyThreadState_GetUnchecked();
    if (current == nullptr) return nullptr;
    if (g_settings.layout == InterpreterLayout::Shared) return mainInterpreter();
    PyInterpreterState* handle = PyThreadState_GetInterpreter(current);
    if (t_lastSeen.handle == handle) return t_lastSeen.record;
    Interpreter* record = interpreterOf(handle);
    // Only what is found is remembered: an interpreter is known from the moment it is made.
    if (record != nullptr) t_lastSeen = LastSeen{handle, record};
    return record;
}

Interpreter& homeInterpreter() {
    if (t_home.interpreter != nullptr && t_home.interpreter->alive()) return *t_home.interpreter;
    if (g_settings.layout == InterpreterLayout::Shared) {
        t_home.interpreter = mainInterpreter();
        t_home.interpreter->assignedThreads.fetch_add(1, std::memory_order_relaxed);
        return *t_home.interpreter;
    }
    if (t_home.interpreter != nullptr) t_home.interpreter->assignedThreads.fetch_sub(1, std::memory_order_relaxed);
    t_home.interpreter = &chooseHome();
    return *t_home.interpreter;
}

Interpreter* ownerOf(const Any& value) noexcept {
    const internal::ObjectCell* cell = internal::objectCellOf(value);
    return cell == nullptr ? nullptr : static_cast<Interpreter*>(const_cast<void*>(cell->foreignRuntime()));
}

void markOwnedHere(const Any& value) noexcept {
    if (internal::ObjectCell* cell = internal::objectCellOf(value)) cell->markForeignRuntime(currentInterpreter());
}

InterpreterState& state() noexcept {
    if (g_settings.layout == InterpreterLayout::Shared) return mainInterpreter()->state();
    Interpreter* current = currentInterpreter();
    // A thread in an interpreter we did not make (one made by Python code) has no state of ours:
    // it works with the main interpreter's caches, which only hold what they were given.
    return current != nullptr ? current->state() : mainInterpreter()->state();
}

std::vector<Interpreter*> allInterpreters() {
    std::vector<Interpreter*> all;
    const int count = g_count.load(std::memory_order_acquire);
    for (int index = 0; index < count; ++index) all.push_back(g_interpreters[static_cast<std::size_t>(index)].load());
    return all;
}

void releasePendingEverywhere() {
    for (bool waiting = true; waiting;) {
        waiting = false;
        for (Interpreter* interpreter : allInterpreters()) {
            if (!interpreter->alive() || !interpreter->hasPendingReleases()) continue;
            waiting = true;
            GilGuard gil(interpreter);  // an entry drains what waits
        }
    }
}

void adoptMainInterpreter(bool startedHere) {
    if (mainInterpreter() != nullptr) return;
    if (startedHere) g_settings = readSettings();
    auto* main = new Interpreter(PyInterpreterState_Main(), 0);
    g_interpreters[0].store(main, std::memory_order_release);
    g_count.store(1, std::memory_order_release);
    if (!startedHere) return;
    // The thread that starts Python has the main interpreter as its home, and the state it
    // started with as its own there: CPython delivers signals to that state. The state outlives
    // the thread (see makeInterpreter).
    t_home.interpreter = main;
    main->assignedThreads.fetch_add(1, std::memory_order_relaxed);
    main->firstState = PyThreadState_Get();
    if (g_settings.layout == InterpreterLayout::Isolated) t_states.states.emplace_back(main, main->firstState);
}

void forgetInterpretersAfterFork() noexcept {
    const int count = g_count.load(std::memory_order_acquire);
    for (int index = 1; index < count; ++index) {
        Interpreter* gone = g_interpreters[static_cast<std::size_t>(index)].load();
        gone->alive_.store(false, std::memory_order_release);
        gone->assignedThreads.store(0, std::memory_order_relaxed);
    }
    // The forking thread is the child's only thread: its states elsewhere went with their
    // interpreters, and its home is the main interpreter from now on.
    std::erase_if(t_states.states, [](const auto& entry) { return !entry.first->alive(); });
    t_lastSeen = LastSeen{};
    if (t_home.interpreter != nullptr && !t_home.interpreter->alive()) t_home.interpreter = nullptr;
}

PyThreadState* threadStateIn(Interpreter& interpreter) {
    for (auto& [owner, state] : t_states.states) {
        if (owner == &interpreter) return state;
    }
    PyThreadState* made = PyThreadState_New(interpreter.handle());
    t_states.states.emplace_back(&interpreter, made);
    return made;
}

}  // namespace tala::python

// python/extension/interpreter.cpp: the once-only start of the embedded interpreter.
#include "extension/interpreter.hpp"

#include <atomic>

#include <string>

#if !defined(_WIN32)
#include <dlfcn.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

#include "extension/gil.hpp"
#include "extension/interpreters.hpp"
#include "extension/logging_bridge.hpp"
#include "language/python_support.hpp"
#include "extension/sys_path.hpp"
#include "language/host_module_import.hpp"
#include "language/evaluate.hpp"
#include "language/interruption.hpp"
#include "language/language_python.hpp"

// Takes the interpreters other than the main one out of CPython's list (fork_child.c).
extern "C" void tala_python_keep_only_the_main_interpreter(void);

namespace tala::python {

namespace {

std::atomic<int> g_starts{0};

// Python's own extension modules (math, _decimal, ...) expect the interpreter's symbols in the
// global scope. A host that loads this library with local symbols hides them, so make the
// interpreter library global before the first import.
void exposeInterpreterSymbols() {
#if !defined(_WIN32)
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(&Py_InitializeEx), &info) != 0 && info.dli_fname != nullptr) {
        (void)dlopen(info.dli_fname, RTLD_NOW | RTLD_GLOBAL | RTLD_NOLOAD);
    }
#endif
}

bool isProgram(const std::string& path) {
#if defined(_WIN32)
    return GetFileAttributesA(path.c_str()) != INVALID_FILE_ATTRIBUTES;
#else
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) && access(path.c_str(), X_OK) == 0;
#endif
}

// The embedded interpreter has no program of its own: left alone, it takes the first "python3"
// on PATH (which may be another version) as sys.executable, and subprocess and multiprocessing
// would start that. Name the program of the running interpreter's installation instead, or
// nothing when it has none.
void nameInstallationProgram() {
    std::string program;
    PyObject* basePrefix = PySys_GetObject("base_prefix");  // borrowed
    const char* prefix = basePrefix != nullptr && PyUnicode_Check(basePrefix) ? PyUnicode_AsUTF8(basePrefix) : nullptr;
    if (prefix != nullptr) {
#if defined(_WIN32)
        const std::string candidates[] = {std::string(prefix) + "\\python.exe"};
#else
        const std::string version = std::to_string(PY_MAJOR_VERSION) + "." + std::to_string(PY_MINOR_VERSION);
        const std::string candidates[] = {std::string(prefix) + "/bin/python" + version,
                                          std::string(prefix) + "/bin/python" + std::to_string(PY_MAJOR_VERSION)};
#endif
        for (const std::string& candidate : candidates) {
            if (isProgram(candidate)) {
                program = candidate;
                break;
            }
        }
    }
    PyErr_Clear();
    PyObjectPtr text = PyObjectPtr::steal(PyUnicode_DecodeFSDefaultAndSize(program.data(), static_cast<Py_ssize_t>(program.size())));
    if (!text || PySys_SetObject("executable", text.get()) < 0 || PySys_SetObject("_base_executable", text.get()) < 0) {
        PyErr_Clear();
    }
}

#if !defined(_WIN32)
// A host that forks while another thread is inside Python would leave the child with the
// interpreter lock (and the import lock, and the thread list) held by a thread that does not
// exist there. Around a fork made by a host thread, the forking thread takes the lock and lets
// Python prepare and repair its state, as os.fork() does. A fork made from Python code (os.fork,
// where this thread holds the lock and Python has prepared already) is left to Python.
//
// In the isolated layout the fork is prepared in the main interpreter, under this thread's own
// state there. The child keeps only the main interpreter, whichever way it was forked: the others
// leave CPython's list before its repair (fork_child.c) and are forgotten here (interpreters.cpp).
thread_local bool t_forkPrepared = false;
thread_local PyGILState_STATE t_forkState{};

bool isolated() { return interpreterLayout() == InterpreterLayout::Isolated; }

void beforeFork() {
    if (!Py_IsInitialized() || PyThreadState_GetUnchecked() != nullptr || mainInterpreter() == nullptr) return;
    if (isolated()) {
        PyEval_RestoreThread(threadStateIn(*mainInterpreter()));
    } else {
        t_forkState = PyGILState_Ensure();
    }
    PyOS_BeforeFork();
    t_forkPrepared = true;
}

void releaseAfterFork() {
    if (isolated()) {
        (void)PyEval_SaveThread();
    } else {
        PyGILState_Release(t_forkState);
    }
}

void afterForkInParent() {
    if (!t_forkPrepared) return;
    t_forkPrepared = false;
    PyOS_AfterFork_Parent();
    releaseAfterFork();
}

void afterForkInChild() {
    if (isolated() && mainInterpreter() != nullptr) {
        // Before CPython's repair of the child: here for a fork by a host thread, and for os.fork()
        // from Python code, which repairs the child after these handlers have run.
        tala_python_keep_only_the_main_interpreter();
        forgetInterpretersAfterFork();
    }
    if (!t_forkPrepared) return;
    t_forkPrepared = false;
    PyOS_AfterFork_Child();
    if (!isolated()) forgetInterpretersAfterFork();
    releaseAfterFork();
}
#endif

// help() and pydoc show a host value's documentation (its class's text and members) instead of
// the wrapper type's page, and json encodes host containers as the containers they are.
void installHelpForHostValues() {
    PyObject* install = supportFunction("install_standard_module_patches");
    PyObjectPtr done = install != nullptr ? PyObjectPtr::steal(PyObject_CallNoArgs(install)) : PyObjectPtr();
    if (!done) PyErr_Clear();
}

}  // namespace

// What every interpreter gets when it starts, run with its lock held: the main one by
// ensurePythonInitialized below, the isolated ones when the pool makes them.
void prepareInterpreter(Interpreter& interpreter) {
    nameInstallationProgram();
    if (interpreter.isMain()) return;  // the rest follows in ensurePythonInitialized
    // What runs here is the extension's own work, not an evaluation of the host's: an
    // interruption asked for meanwhile waits for the host's evaluation that follows.
    const UncountedEvaluations own;
    applySearchPaths(interpreter);
    installHelpForHostValues();
    installHostModuleImportHere();
    installLoggingBridgeHere();
    // An evaluation and a code block, run once here: what the first ones import and make in an
    // interpreter is then made already, before an evaluation can be stopped while it does so.
    (void)evaluate_expr(String("None"), None(), None());
    (void)evaluate(String("pass"), None(), None(), None());
    PyErr_Clear();
}

namespace {

void installForkHandlers() {
#if !defined(_WIN32)
    (void)pthread_atfork(beforeFork, afterForkInParent, afterForkInChild);
#endif
}

}  // namespace

bool ensurePythonInitialized() {
    if (!Py_IsInitialized()) {
        exposeInterpreterSymbols();
        Py_InitializeEx(0);  // no signal handlers: the host owns the process's signals
        g_starts.fetch_add(1, std::memory_order_relaxed);
        adoptMainInterpreter(true);
        prepareInterpreter(*mainInterpreter());
        installForkHandlers();
        for (const String& path : pendingSysPaths()) (void)python_add_sys_path(path);
        // From here on no thread holds the lock between calls: this thread gives it up for
        // good and, like every other, takes it through GilGuard.
        (void)PyEval_SaveThread();
        GilGuard gil;
        describeLanguage();
        installHelpForHostValues();
    }
    // Someone else's interpreter is used as it is: shared by every thread.
    adoptMainInterpreter(false);
    // The language class exists whenever the interpreter does, also when someone else started it;
    // so does `import` of the host's modules.
    (void)LanguagePython::getClass();
    installHostModuleImport();
    return true;
}

bool ensurePythonOnce() {
    static const bool started = ensurePythonInitialized();
    return started;
}

int testing::interpreterStarts() { return g_starts.load(std::memory_order_relaxed); }

}  // namespace tala::python

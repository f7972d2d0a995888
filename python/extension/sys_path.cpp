// python/extension/sys_path.cpp: sys.path registration before and after start-up.
#include "extension/sys_path.hpp"

#include <filesystem>
#include <atomic>
#include <mutex>

#include "bridge/errors.hpp"
#include "extension/gil.hpp"
#include "extension/interpreters.hpp"

namespace tala::python {

namespace {

// The paths requested before the interpreter existed. Made during static initialisation and
// kept for the life of the process; entries are never removed. The mutex only matters for a
// host that registers from several threads before start-up.
struct PendingPaths {
    std::mutex mutex;
    List<String> paths;
};

PendingPaths& pending() {
    static auto* instance = new PendingPaths();
    return *instance;
}

[[maybe_unused]] const bool g_pendingReady = (pending(), true);

void registerArchives(const std::string& directory) {
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
        // Byte-exact extension test: "b.ZIP" is not an archive here.
        if (entry.is_regular_file() && entry.path().extension().string() == ".zip") {
            (void)python_add_sys_path(String(entry.path().string()));
        }
    }
}


// Every path added once the interpreter runs, in order, for the interpreters made later and for
// those that have not entered since (isolated layout). `version` counts the additions; each
// interpreter notes the version its sys.path has. Guarded by `mutex`; never destroyed.
struct AddedPaths {
    std::mutex mutex;
    std::vector<String> paths;
    std::atomic<std::uint64_t> version{0};
};

AddedPaths& added() {
    static auto* instance = new AddedPaths();
    return *instance;
}

// Appends `path` to the running interpreter's sys.path unless it is there: None, or an error.
Union<None, Lazy<None>, Error> appendToSysPath(const String& path) {
    PyObjectPtr sys = PyObjectPtr::steal(PyImport_ImportModule("sys"));
    if (!sys) return fetch_python_error_or("Unable to import the module sys.");
    PyObjectPtr sysPath = PyObjectPtr::steal(PyObject_GetAttrString(sys.get(), "path"));
    if (!sysPath || !PyList_Check(sysPath.get())) {
        PyErr_Clear();
        return None();
    }
    PyObjectPtr text = PyObjectPtr::steal(PyUnicode_FromStringAndSize(path.data(), static_cast<Py_ssize_t>(path.size())));
    if (!text) return fetch_python_error_or("Unable to convert the path to text.");
    const int present = PySequence_Contains(sysPath.get(), text.get());
    if (present == 0) {
        if (PyList_Append(sysPath.get(), text.get()) < 0) return fetch_python_error_or("Unable to extend sys.path.");
    } else if (present < 0) {
        return fetch_python_error_or("Unable to read sys.path.");
    }
    return None();
}

}  // namespace

Union<None, Lazy<None>, Error> python_add_sys_path(const String& path) {
    if (!Py_IsInitialized()) {
        PendingPaths& queued = pending();
        std::lock_guard lock(queued.mutex);
        queued.paths.append(path);
        return None();
    }
    if (interpreterLayout() == InterpreterLayout::Isolated) {
        // Every interpreter gets it: the running one now, the others when a thread next enters
        // them, and those made later when they start.
        AddedPaths& all = added();
        std::lock_guard lock(all.mutex);
        all.paths.push_back(path);
        all.version.fetch_add(1, std::memory_order_release);
    }
    GilGuard gil;
    return appendToSysPath(path);
}

void applySearchPaths(Interpreter& interpreter) {
    AddedPaths& all = added();
    if (interpreter.searchPathsVersion == all.version.load(std::memory_order_acquire)) return;
    // The version counts the paths: the interpreter has the first `searchPathsVersion` already.
    // (The paths queued before Python ran are among them: they were added once it ran.)
    std::vector<String> missing;
    {
        std::lock_guard lock(all.mutex);
        const auto has = static_cast<std::ptrdiff_t>(interpreter.searchPathsVersion);
        missing.assign(all.paths.begin() + has, all.paths.end());
        interpreter.searchPathsVersion = all.paths.size();
    }
    for (const String& path : missing) (void)appendToSysPath(path);
    PyErr_Clear();
}

void catchUpOnEntry(Interpreter& interpreter) noexcept {
    interpreter.drainReleases();
    if (interpreter.searchPathsVersion != added().version.load(std::memory_order_acquire)) applySearchPaths(interpreter);
}

std::vector<String> pendingSysPaths() {
    PendingPaths& queued = pending();
    std::lock_guard lock(queued.mutex);
    std::vector<String> copy;
    copy.reserve(queued.paths.size());
    for (const Any& path : queued.paths) copy.push_back(String(internal::unchecked, path));
    return copy;
}

void registerSearchPaths(const std::string& ownDirectory) {
    const std::string sitePackages = ownDirectory + "/site-packages";
    registerArchives(sitePackages);
    (void)python_add_sys_path(String(sitePackages));
    registerArchives(ownDirectory + "/python3/lib");
}

}  // namespace tala::python

// python/language/namespace.cpp: the host namespace dictionary made for each evaluation.
#include "language/namespace.hpp"

#include <utility>
#include <vector>

#include "bridge/to_python.hpp"
#include "extension/gil.hpp"
#include "extension/interpreters.hpp"
#include "tala/tala.hpp"

namespace tala::python {

namespace {

void store(PyObject* dictionary, const String& name, const Any& value) {
    PyObjectPtr converted = PyObjectPtr::steal(to_python(value));
    if (!converted) {
        PyErr_Clear();  // a value Python cannot take is left out
        return;
    }
    PyObjectPtr key = PyObjectPtr::steal(PyUnicode_FromStringAndSize(name.data(), static_cast<Py_ssize_t>(name.size())));
    if (!key || PyDict_SetItem(dictionary, key.get(), converted.get()) < 0) PyErr_Clear();
}

}  // namespace

PyObject* buildHostNamespace() {
    GilGuard gil;
    PyObjectPtr dictionary = PyObjectPtr::steal(PyDict_New());
    if (!dictionary) return nullptr;
    for (const Module& module : modules()) {
        if (module.isInternal()) continue;
        const String name = module.name();
        if (!name.contains(".")) store(dictionary.get(), name, module);
        if (module.isInlined()) {
            for (const auto& entry : module.classes()) store(dictionary.get(), String(internal::unchecked, entry.key), entry.value);
            for (const auto& entry : module.functions()) store(dictionary.get(), String(internal::unchecked, entry.key), entry.value);
        }
    }
    return dictionary.release();
}

}  // namespace tala::python

namespace tala::python {

// The template of evaluation globals and the module generation it was built from, one per
// interpreter (its InterpreterState). Read and replaced only under its lock; the template itself
// is never handed out.
struct GlobalsTemplate {
    PyObject* dictionary = nullptr;
    std::uint64_t generation = 0;
    // Globals an evaluation gave back: the template of `spareGeneration` with `spareNames` stored
    // (each once, in the order they were first stored), which nothing else holds.
    PyObject* spare = nullptr;
    std::uint64_t spareGeneration = 0;
    std::vector<PyObjectPtr> spareNames;
    // An empty dictionary that served as the locals of an expression, which nothing else holds.
    PyObject* spareLocals = nullptr;
    // The dictionary watcher that counts what code changes in the globals made here (-1 when
    // Python has no watcher left to give; nothing is kept then), and that count.
    int watcher = -1;
    bool watcherTried = false;
    std::uint64_t changes = 0;
};

namespace {

GlobalsTemplate& globalsTemplate() { return partHere(state().globalsTemplate); }

PyObjectPtr buildTemplate() {
    PyObjectPtr dictionary = PyObjectPtr::steal(buildHostNamespace());
    PyObjectPtr mainName = PyObjectPtr::steal(PyUnicode_FromString("__main__"));
    // As eval and exec do when the globals lack them, the code finds the builtins there; a map
    // that gives its own replaces them.
    if (!dictionary || !mainName || PyDict_SetItemString(dictionary.get(), "__name__", mainName.get()) < 0 ||
        PyDict_SetItemString(dictionary.get(), "__builtins__", PyEval_GetBuiltins()) < 0) {
        PyErr_Clear();
        return PyObjectPtr();
    }
    return dictionary;
}

}  // namespace

namespace {

// The globals this thread stores entries of its own into right now: the watcher does not count
// changes of that dictionary (code that a replaced value's finalizer runs meanwhile changes
// others, which are counted).
TALA_HOT_THREAD_LOCAL PyObject* t_storingInto = nullptr;

class StoringOwn {
public:
    explicit StoringOwn(PyObject* globals) : outer_(std::exchange(t_storingInto, globals)) {}
    ~StoringOwn() { t_storingInto = outer_; }
    StoringOwn(const StoringOwn&) = delete;
    StoringOwn& operator=(const StoringOwn&) = delete;

private:
    PyObject* outer_;
};

// Counts every change that code makes to a watched dictionary (a freed one changes nothing that
// is kept). Runs under the interpreter's lock, before the change.
int countGlobalsChange(PyDict_WatchEvent event, PyObject* dictionary, PyObject*, PyObject*) noexcept {
    if (event != PyDict_EVENT_DEALLOCATED && dictionary != t_storingInto) ++globalsTemplate().changes;
    return 0;
}

int globalsWatcher() {
    GlobalsTemplate& cached = globalsTemplate();
    if (!cached.watcherTried) {
        cached.watcherTried = true;
        cached.watcher = PyDict_AddWatcher(countGlobalsChange);
        if (cached.watcher < 0) PyErr_Clear();
    }
    return cached.watcher;
}

bool storeEntries(PyObject* globals, const std::vector<GlobalEntry>& entries) {
    const StoringOwn own(globals);
    for (const GlobalEntry& entry : entries) {
        if (PyDict_SetItem(globals, entry.name.get(), entry.value.get()) < 0) return false;
    }
    return true;
}

// Whether storing `entries` and then `laterName` (when not null) first stores exactly `names`,
// in that order.
bool storesTheNames(const std::vector<GlobalEntry>& entries, PyObject* laterName, const std::vector<PyObjectPtr>& names) {
    std::size_t next = 0;
    const std::size_t count = entries.size() + (laterName != nullptr ? 1 : 0);
    auto nameAt = [&](std::size_t index) { return index < entries.size() ? entries[index].name.get() : laterName; };
    for (std::size_t index = 0; index < count; ++index) {
        PyObject* name = nameAt(index);
        bool earlier = false;
        for (std::size_t before = 0; before < index && !earlier; ++before) earlier = nameAt(before) == name;
        if (earlier) continue;
        if (next >= names.size() || names[next].get() != name) return false;
        ++next;
    }
    return next == names.size();
}

}  // namespace

PyObjectPtr evaluationGlobals(const std::vector<GlobalEntry>& entries, PyObject* laterName) {
    GlobalsTemplate& cached = globalsTemplate();
    PyObjectPtr spare = PyObjectPtr::steal(std::exchange(cached.spare, nullptr));
    // The spare differs from the template only by the names it stored: the same names stored in
    // the same order make it what a fresh copy would be, down to the order of its keys.
    if (spare && cached.spareGeneration == modules_generation() && cached.generation == cached.spareGeneration &&
        storesTheNames(entries, laterName, cached.spareNames)) {
        if (!storeEntries(spare.get(), entries)) return PyObjectPtr();
        return spare;
    }
    spare.reset();
    PyObjectPtr globals = evaluationGlobals();
    if (!globals) return PyObjectPtr();
    // Watched from the start, so that whatever code does to it is counted before it can be kept.
    if (const int watcher = globalsWatcher(); watcher >= 0 && PyDict_Watch(watcher, globals.get()) < 0) {
        PyErr_Clear();
        cached.watcher = -1;  // nothing is kept from now on
    }
    if (!storeEntries(globals.get(), entries)) return PyObjectPtr();
    return globals;
}

bool storeOwnGlobal(PyObject* globals, PyObject* name, PyObject* value) {
    const StoringOwn own(globals);
    return PyDict_SetItem(globals, name, value) == 0;
}

GlobalsChanges::GlobalsChanges() : count_(globalsTemplate().changes), generation_(globalsTemplate().generation) {}

bool GlobalsChanges::changedSince() const { return globalsTemplate().changes != count_; }

void giveBackGlobals(PyObjectPtr globals, const std::vector<GlobalEntry>& entries, const GlobalsChanges& changes) {
    GlobalsTemplate& cached = globalsTemplate();
    // Kept only when nothing else holds it (no function, frame or caller kept the globals), the
    // code changed no watched globals (these among them, watched since they were made), the
    // template is still the one it was made from, and there is no spare yet (an evaluation
    // inside this one gave its own back first).
    if (!globals || Py_REFCNT(globals.get()) != 1 || changes.changedSince() || cached.spare != nullptr ||
        cached.dictionary == nullptr || changes.generation() != cached.generation || globalsWatcher() < 0) {
        return;
    }
    // The spare holds none of this evaluation's values: they go when the evaluation ends, as they
    // would with its globals. (`entries` still holds each, so no finalizer runs here.)
    {
        const StoringOwn own(globals.get());
        for (const GlobalEntry& entry : entries) {
            if (PyDict_SetItem(globals.get(), entry.name.get(), Py_None) < 0) {
                PyErr_Clear();
                return;
            }
        }
    }
    cached.spareGeneration = cached.generation;
    cached.spare = globals.release();
    // The names of the last spare are kept while they are the same (a rule over rows of one query).
    if (storesTheNames(entries, nullptr, cached.spareNames)) return;
    std::vector<PyObjectPtr> names;
    names.reserve(entries.size());
    for (const GlobalEntry& entry : entries) {
        bool stored = false;
        for (const PyObjectPtr& name : names) stored = stored || name.get() == entry.name.get();
        if (!stored) names.push_back(PyObjectPtr::borrow(entry.name.get()));
    }
    cached.spareNames = std::move(names);
}

PyObjectPtr expressionLocals() {
    if (PyObject* spare = std::exchange(globalsTemplate().spareLocals, nullptr)) return PyObjectPtr::steal(spare);
    return PyObjectPtr::steal(PyDict_New());
}

void giveBackExpressionLocals(PyObjectPtr locals) {
    GlobalsTemplate& cached = globalsTemplate();
    if (!locals || Py_REFCNT(locals.get()) != 1 || PyDict_GET_SIZE(locals.get()) != 0 || cached.spareLocals != nullptr) return;
    cached.spareLocals = locals.release();
}

PyObjectPtr evaluationGlobals() {
    GlobalsTemplate& cached = globalsTemplate();
    const std::uint64_t generation = modules_generation();
    if (cached.dictionary == nullptr || cached.generation != generation) {
        // Building converts the modules, which may run Python code and let another thread
        // build too: whichever finishes last is kept, and both are right for the generation.
        PyObjectPtr fresh = buildTemplate();
        if (!fresh) return PyObjectPtr::steal(PyDict_New());
        PyObject* old = cached.dictionary;
        cached.dictionary = fresh.release();
        cached.generation = generation;
        if (old != nullptr) Py_DecRef(old);
    }
    return PyObjectPtr::steal(PyDict_Copy(cached.dictionary));
}

}  // namespace tala::python

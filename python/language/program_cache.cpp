// python/language/program_cache.cpp: compiled forms of evaluated texts, kept for their next evaluation.
#include "language/program_cache.hpp"

#include <algorithm>
#include <functional>
#include <list>
#include <string>
#include <unordered_map>

#include "extension/interpreters.hpp"
#include "language/python_support.hpp"

namespace tala::python {

namespace {

// Enough for every script of a database's rules, small enough to bound what a host that
// generates texts without end can pin: an entry keeps its text and its code object.
constexpr std::size_t kMaxPrograms = 2048;
constexpr std::size_t kMaxProgramBytes = 8 * 1024 * 1024;

// The output names joined by NULs (which no name can hold): one text to hash and compare. Made
// in a buffer of the thread's, which keeps its room from one evaluation to the next.
std::string_view joinedNames(std::span<const String> names) {
    static thread_local std::string joined;
    joined.clear();
    for (const String& name : names) {
        joined.append(name.view());
        joined.push_back('\0');
    }
    return joined;
}

}  // namespace

// The parts of a cache entry, named for the cache of each interpreter.
namespace programs {

struct Key {
    ProgramKind kind;
    std::string_view text;
    std::string_view names;
    std::string_view filename;
    std::size_t hash;

    Key(ProgramKind kind, std::string_view text, std::string_view names, std::string_view filename)
        : kind(kind), text(text), names(names), filename(filename) {
        const std::hash<std::string_view> hasher;
        std::size_t value = hasher(text);
        for (std::size_t part : {hasher(names), hasher(filename), static_cast<std::size_t>(kind)}) {
            value ^= part + 0x9E3779B97F4A7C15ull + (value << 6) + (value >> 2);
        }
        hash = value;
    }
    friend bool operator==(const Key& a, const Key& b) {
        return a.hash == b.hash && a.kind == b.kind && a.text == b.text && a.names == b.names && a.filename == b.filename;
    }
};

struct KeyHash {
    std::size_t operator()(const Key& key) const noexcept { return key.hash; }
};

// One compiled text. The key of the look-up table points into the entry's own strings, which
// never move (list nodes stay where they are).
struct Entry {
    std::string text;
    std::string names;
    std::string filename;
    ProgramKind kind;
    PyObject* code;  // one strong reference

    std::size_t bytes() const { return text.size() + names.size() + filename.size(); }
};

}  // namespace programs

// The cache of one interpreter (its InterpreterState). Everything here is read and changed by the
// thread that holds that interpreter's lock, and never across a Python call (compiling runs Python
// code, which may let other threads in). Entries are kept while they fit; the cache is never
// destroyed.
struct ProgramCache {
    using Key = programs::Key;
    using KeyHash = programs::KeyHash;
    using Entry = programs::Entry;

    std::list<Entry> entries;  // most recently used first
    std::unordered_map<Key, std::list<Entry>::iterator, KeyHash> index;
    std::size_t bytes = 0;
    std::size_t compilations = 0;

    PyObject* find(const Key& key) {
        auto found = index.find(key);
        if (found == index.end()) return nullptr;
        entries.splice(entries.begin(), entries, found->second);  // now the most recent
        return found->second->code;
    }

    void insert(const Key& key, PyObject* code) {
        if (find(key) != nullptr) return;  // another thread compiled it meanwhile
        entries.push_front(Entry{std::string(key.text), std::string(key.names), std::string(key.filename), key.kind, code});
        Py_IncRef(code);
        const Entry& entry = entries.front();
        index.emplace(Key(entry.kind, entry.text, entry.names, entry.filename), entries.begin());
        bytes += entry.bytes();
        while (entries.size() > kMaxPrograms || (bytes > kMaxProgramBytes && entries.size() > 1)) evictOldest();
    }

    void evictOldest() {
        Entry& oldest = entries.back();
        index.erase(Key(oldest.kind, oldest.text, oldest.names, oldest.filename));
        bytes -= oldest.bytes();
        PyObject* code = oldest.code;
        entries.pop_back();
        Py_DecRef(code);  // a code object runs no Python code when it goes
    }
};

namespace {

ProgramCache& cache() { return partHere(state().programs); }

// A compile error carries the frames of whatever compiled: they are nobody's code.
void dropTraceback() {
    PyObject* raised = PyErr_GetRaisedException();
    if (raised == nullptr) return;
    (void)PyException_SetTraceback(raised, Py_None);
    PyErr_SetRaisedException(raised);
}

PyObjectPtr compile(ProgramKind kind, std::string_view text, std::span<const String> outNames,
                    std::string_view filename) {
    // As the builtin eval does, an expression's leading blanks are no indentation.
    if (kind == ProgramKind::Expression) text.remove_prefix(std::min(text.find_first_not_of(" \t"), text.size()));
    // The whole text as a str: a NUL in it is refused by the compiler, never a cut.
    PyObjectPtr source = PyObjectPtr::steal(PyUnicode_DecodeUTF8(text.data(), static_cast<Py_ssize_t>(text.size()), nullptr));
    PyObjectPtr name = PyObjectPtr::steal(PyUnicode_DecodeFSDefaultAndSize(filename.data(), static_cast<Py_ssize_t>(filename.size())));
    if (!source || !name) return PyObjectPtr();
    PyObjectPtr code;
    if (kind == ProgramKind::Expression) {
        PyObject* builtinCompile = PyDict_GetItemString(PyEval_GetBuiltins(), "compile");
        if (builtinCompile == nullptr) {
            PyErr_SetString(PyExc_RuntimeError, "The builtin compile is missing.");
            return PyObjectPtr();
        }
        code = PyObjectPtr::steal(PyObject_CallFunction(builtinCompile, "OOsiO", source.get(), name.get(), "eval", 0, Py_True));
    } else {
        PyObject* build = supportFunction("build_program");
        if (build == nullptr) {
            PyErr_SetString(PyExc_RuntimeError, "The program builder is not available.");
            return PyObjectPtr();
        }
        PyObjectPtr names = PyObjectPtr::steal(PyTuple_New(static_cast<Py_ssize_t>(outNames.size())));
        if (!names) return PyObjectPtr();
        for (std::size_t index = 0; index < outNames.size(); ++index) {
            PyObject* text = PyUnicode_DecodeUTF8(outNames[index].data(), static_cast<Py_ssize_t>(outNames[index].size()), nullptr);
            if (text == nullptr) return PyObjectPtr();
            PyTuple_SET_ITEM(names.get(), static_cast<Py_ssize_t>(index), text);
        }
        code = PyObjectPtr::steal(PyObject_CallFunctionObjArgs(build, source.get(), name.get(), names.get(), nullptr));
    }
    if (!code) dropTraceback();
    return code;
}

}  // namespace

PyObjectPtr compiledProgram(ProgramKind kind, std::string_view text, std::span<const String> outNames,
                            std::string_view filename) {
    const std::string_view names = outNames.empty() ? std::string_view() : joinedNames(outNames);
    const programs::Key key(kind, text, names, filename);
    if (PyObject* code = cache().find(key)) return PyObjectPtr::borrow(code);
    // Compiling runs Python code, which may evaluate again on this thread (a gc callback, a
    // __del__) and so reuse the thread's buffer of joined names: the key keeps a copy of its own.
    const std::string ownNames(names);
    PyObjectPtr code = compile(kind, text, outNames, filename);
    if (!code) return code;
    ++cache().compilations;
    cache().insert(programs::Key(kind, text, ownNames, filename), code.get());
    return code;
}

namespace testing {
std::size_t cachedPrograms() { return cache().entries.size(); }
std::size_t cachedProgramBytes() { return cache().bytes; }
std::size_t programCompilations() { return cache().compilations; }
}  // namespace testing

}  // namespace tala::python

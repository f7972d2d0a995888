// python/language/namespace.cpp: the host namespace dictionary made for each evaluation.
#include "language/namespace.hpp"

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

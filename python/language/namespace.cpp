// python/language/namespace.cpp: the host namespace dictionary made for each evaluation.
#include "language/namespace.hpp"

#include "bridge/to_python.hpp"
#include "extension/gil.hpp"
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

// python/bridge/module_attribute.cpp: looking up a standard module's type.
#include "bridge/module_attribute.hpp"

#include "extension/gil.hpp"

namespace tala::python {

PyObject* moduleAttribute(const char* moduleName, const char* name) {
    PyObjectPtr module = PyObjectPtr::steal(PyImport_ImportModule(moduleName));
    if (!module) {
        PyErr_Clear();
        return nullptr;
    }
    PyObject* dictionary = PyModule_GetDict(module.get());
    return dictionary == nullptr ? nullptr : PyDict_GetItemString(dictionary, name);
}

PyObjectPtr attributeOrNull(PyObject* object, const char* name) {
    PyObjectPtr value = PyObjectPtr::steal(PyObject_GetAttrString(object, name));
    if (!value) PyErr_Clear();
    return value;
}

}  // namespace tala::python

// python/bridge/from_python.cpp: Python objects into host values.
#include "bridge/from_python.hpp"

#include "extension/gil.hpp"
#include "pyside/tala_object.hpp"

namespace tala::python {

Error errorFromException(PyObject* exception) {
    GilGuard gil;
    PyObjectPtr carried = PyObjectPtr::steal(PyObject_GetAttrString(exception, "tala"));
    if (!carried) PyErr_Clear();
    if (const Any* wrapped = wrappedHostValue(carried.get())) {
        if (auto error = Error::cast(*wrapped)) return *error;
    }
    PyObjectPtr text = PyObjectPtr::steal(PyObject_Str(exception));
    if (!text) {
        PyErr_Clear();
        return Error(String("Unknown Python error."));
    }
    Py_ssize_t size = 0;
    const char* utf8 = PyUnicode_AsUTF8AndSize(text.get(), &size);
    if (utf8 == nullptr) {
        PyErr_Clear();
        return Error(String("Unknown Python error."));
    }
    return Error(String(utf8, static_cast<std::size_t>(size)));
}

}  // namespace tala::python

// python/proxies/python_type.hpp: Python classes seen as host classes.
#pragma once

#include <Python.h>

#include "extension/gil.hpp"
#include "tala/tala.hpp"

namespace tala::python {

// The host class that stands for one Python type. It keeps a strong reference to the type (for
// the life of the process: these classes are never forgotten), lists the type's public members,
// and invoking it calls the type.
class object_value_python_type : public internal::View<object_value_python_type> {
public:
    using View::View;
    // A new host class named `name` for `type`. Prefer classOfPythonType, which makes one class
    // per type.
    object_value_python_type(const String& name, PyObjectPtr_Borrowed type);
    static bool matches(const Any& value);
    // The Python type (borrowed).
    PyObject* pythonType() const;
};

// The host class of a Python type: for the builtin types of plain data, the host class they
// become; for types made for host error classes, that class; otherwise one class view per type,
// made on first request. "Not a type." for anything else. The caller holds the interpreter lock.
Union<Class_Generic, Error> classOfPythonType(PyObject* type);

}  // namespace tala::python

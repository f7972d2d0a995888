// python/bridge/to_python.hpp: host values into Python objects.
#pragma once

#include <Python.h>

#include "tala/tala.hpp"

namespace tala::python {

// The Python object for a host value: a new reference, or null with a Python exception set
// (always so for an Error, which is raised). Plain data is copied (None, booleans, integers,
// floats, text, bytes, dates, times, decimals, tuples); everything else is wrapped in a
// TalaObject. Takes the interpreter lock itself.
PyObject* to_python(const Any& value);
// The same for a caller that holds the interpreter lock (slots, and conversions in progress):
// no second, nested taking of the lock.
PyObject* toPythonLocked(const Any& value);

// The Python type a host class view of a Python class stands for (borrowed), or null for any
// other class.
PyObject* pythonTypeOfClassView(const Class_Generic& cls);

// The Python object a host proxy of a Python object holds (borrowed), or null when the value is
// no such proxy.
PyObject* pythonObjectOfProxy(const Any& value);

}  // namespace tala::python

// python/bridge/from_python.hpp: Python objects into host values.
#pragma once

#include <Python.h>

#include "bridge/error_details.hpp"
#include "tala/tala.hpp"

namespace tala::python {

// The host value for a Python object, which is borrowed. Plain data is copied (numbers, text,
// bytes, dates, times, decimals); a wrapped host value comes back as itself; containers,
// callables, classes and other objects become host proxies holding one reference; an exception
// becomes a host Error. Takes the interpreter lock itself. An int beyond 64 bits gives -1 with
// OverflowError left pending, for the caller to look at.
Any from_python(PyObject* object);
// The same for a caller that holds the interpreter lock.
Any fromPythonLocked(PyObject* object);

// The host error for a Python exception object: the very host error it was raised from when it
// carries one in its attribute `tala`, else an error of the mapped host class with the
// exception's text (for a SyntaxError, the formatted traceback).
// The error also carries the exception's type name and its traceback (see error_details.hpp).
Error errorFromException(PyObject* exception, const ExceptionOrigin* origin = nullptr);

// from_python for a final result: when the conversion leaves a Python error pending (an int
// beyond 64 bits), that error is the answer instead of the wrong value.
Any from_python_result(PyObject* object);
// The same for a caller that holds the interpreter lock.
Any fromPythonResultLocked(PyObject* object);

// The host date and time read from a Python date or time (or date-time), when its fields are ints.
std::optional<Date> date_from_python(PyObject* object);
std::optional<Time> time_from_python(PyObject* object);

}  // namespace tala::python

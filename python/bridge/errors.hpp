// python/bridge/errors.hpp: host errors and Python exceptions, each direction in one place.
#pragma once

#include <Python.h>

#include <string>
#include <vector>

#include "bridge/error_details.hpp"
#include "tala/tala.hpp"

namespace tala::python {

// The Python exception type that stands for a host error class: StopIteration for the host's,
// RuntimeError for the base Error, otherwise a type made once per class (named after the class's
// qualified name, "tala." in front when it has no dot), derived from RuntimeError and carrying a
// class attribute `tala` (None). A borrowed reference that lives as long as the process.
PyObject* exception_type_for(const Class_Generic& errorClass);

// The builtin Python exceptions that the exception type of a host error class derives from, in
// order: "RuntimeError" for every one, then "AttributeError" for the object model's missing
// member and read-only errors, "TypeError" for its argument errors, "IndexError" for its
// position errors (and for the classes derived from them).
std::vector<std::string> pythonExceptionBases(const Class_Generic& errorClass);

// Raises a host error in Python (see exception_type_for); the instance carries the wrapped host
// error in its attribute `tala`. Always leaves an exception set.
void raise_host_error(const Error& error);
// The same with another message (the error's own, with the context of where it happened).
void raise_host_error(const Error& error, const String& message);

// The host error class that stands for a Python exception type: the host class a type was made
// for, StopIteration for Python's, the host view of any other exception class, and the base
// Error for anything else.
Class_Generic host_error_class_for(PyObject* exceptionType);

// The host error class a Python type was made for by exception_type_for, if it was.
std::optional<Class_Generic> hostClassOfExceptionType(PyObject* type);

// Takes the pending Python exception, if any, as a host error; the indicator is clear afterwards.
// `origin` tells where evaluated code raised it (see error_details.hpp).
Union<Error, None> fetch_python_error(const ExceptionOrigin* origin = nullptr);

// The pending exception as a host error, or an Error with `fallback` when none is pending.
Error fetch_python_error_or(const char* fallback, const ExceptionOrigin* origin = nullptr);

}  // namespace tala::python

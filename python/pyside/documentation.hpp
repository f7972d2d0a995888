// python/pyside/documentation.hpp: host signatures as inspect.Signature objects, and the descriptions help() renders for host values.
#pragma once

#include <Python.h>

#include "tala/tala.hpp"

namespace tala::python {

// The invokable's signature as an inspect.Signature (a new reference, or null with an error
// set): the declared parameters by name, optional ones with the default `...`, Python's types as
// annotations where the host's values cross as Python data. A class's is its construction's.
// Interpreter lock held.
PyObject* signatureOf(const I_Invokable_Generic& invokable);

// The definition of the support program's `describe_host_value(object)`: None for anything but
// a wrapped host value, else (kind, name, module, doc, signature, methods, static methods,
// properties) for help() to render.
PyMethodDef* describeHostValueFunction();

// The definition of the support program's `is_host_value(object)`: whether the object is a
// wrapped host value.
PyMethodDef* isHostValueFunction();

}  // namespace tala::python

// python/bridge/from_python.hpp: Python objects into host values.
#pragma once

#include <Python.h>

#include "tala/tala.hpp"

namespace tala::python {

// The host error for a Python exception object: the very host error it was raised from when it
// carries one in its attribute `tala`, else an error with the exception's text.
Error errorFromException(PyObject* exception);

}  // namespace tala::python

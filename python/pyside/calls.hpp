// python/pyside/calls.hpp: the call slot of the callable wrapper types.
#pragma once

#include <Python.h>

namespace tala::python {

PyObject* callSlot(PyObject* self, PyObject* arguments, PyObject* keywords) noexcept;

}  // namespace tala::python

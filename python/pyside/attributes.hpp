// python/pyside/attributes.hpp: the attribute slots of the wrapper types.
#pragma once

#include <Python.h>

namespace tala::python {

PyObject* attributeReadSlot(PyObject* self, PyObject* name) noexcept;
int attributeWriteSlot(PyObject* self, PyObject* name, PyObject* value) noexcept;

}  // namespace tala::python

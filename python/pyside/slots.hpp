// python/pyside/slots.hpp: the CPython slots of the wrapper types, filled into their tables.
#pragma once

#include <Python.h>

#include <vector>

#include "tala/tala.hpp"

namespace tala::python {

// Slots every wrapper type has (text, attribute access, comparison, hashing, iteration).
void fillCommonSlots(PyTypeObject& type);
// Hashing, text, comparison and iteration.
void fillOperatorSlots(PyTypeObject& type);
// The call slot of the callable types.
void fillCallSlot(PyTypeObject& type);
void fillNumberSlots(PyNumberMethods& table);
void fillMinimalSequenceSlots(PySequenceMethods& table);
void fillSetLikeSequenceSlots(PySequenceMethods& table);
void fillFullSequenceSlots(PySequenceMethods& table);
void fillMappingSlots(PyMappingMethods& table);
// The method and property tables of a per-class type, listing the class's public members for
// Python's introspection, and the protocol methods the class defines (`with` blocks). Both
// tables end with an all-zero entry and live for ever.
struct DescriptiveTables {
    PyMethodDef* methods;
    PyGetSetDef* properties;
};
DescriptiveTables describeClass(const Class_Generic& cls);
// The methods every wrapper type has (protocols.cpp): type tests of wrapped classes, member
// names, copies. The table lives for ever.
PyMethodDef* commonMethods();
// The protocol methods a host class defines for Python's statements, added to its type
// (protocols.cpp): `__enter__` and `__exit__` for `with`.
void appendStatementMethods(std::vector<PyMethodDef>& methods, const Class_Generic& cls);

}  // namespace tala::python

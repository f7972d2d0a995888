// python/pyside/slots.hpp: the CPython slots of the wrapper types, filled into their tables.
#pragma once

#include <Python.h>

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
// Python's introspection.
void fillDescriptiveTables(PyTypeObject& type, const Class_Generic& cls);

}  // namespace tala::python

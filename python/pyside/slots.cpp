// python/pyside/slots.cpp: which slot goes into which table; the slots themselves live beside it.
#include "pyside/slots.hpp"

#include "bridge/errors.hpp"
#include "bridge/from_python.hpp"
#include "bridge/to_python.hpp"
#include "extension/gil.hpp"
#include "pyside/tala_object.hpp"

namespace tala::python {

namespace {

// tp_repr: the host display text of the value.
PyObject* reprSlot(PyObject* self) noexcept {
    GilGuard gil;
    const Any* value = wrappedHostValue(self);
    if (value == nullptr) return PyUnicode_FromString("None");
    try {
        const String text = display(Any(*value));
        return PyUnicode_DecodeUTF8(text.data(), static_cast<Py_ssize_t>(text.size()), "replace");
    } catch (const std::exception& error) {
        PyErr_SetString(PyExc_RuntimeError, error.what());
        return nullptr;
    }
}

}  // namespace

void fillCommonSlots(PyTypeObject& type) { type.tp_repr = reprSlot; }

void fillCallSlot(PyTypeObject&) {}
void fillNumberSlots(PyNumberMethods&) {}
void fillMinimalSequenceSlots(PySequenceMethods&) {}
void fillSetLikeSequenceSlots(PySequenceMethods&) {}
void fillFullSequenceSlots(PySequenceMethods&) {}
void fillMappingSlots(PyMappingMethods&) {}
void fillDescriptiveTables(PyTypeObject&, const Class_Generic&) {}

}  // namespace tala::python

// python/pyside/slots.cpp: which slot goes into which table; the slots themselves live beside it.
#include "pyside/slots.hpp"

#include "bridge/errors.hpp"
#include "bridge/from_python.hpp"
#include "bridge/to_python.hpp"
#include "extension/gil.hpp"
#include "pyside/attributes.hpp"
#include "pyside/calls.hpp"
#include "pyside/tala_object.hpp"

#include <cstdlib>
#include <cstring>
#include <vector>

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

// A method table entry is descriptive only: reads of methods are answered by the attribute
// slot before Python's generic look-up, so only a call through the type reaches this.
PyObject* placeholderMethod(PyObject*, PyObject*) {
    PyErr_SetString(PyExc_TypeError, "A host method is called through its object: value.method(...).");
    return nullptr;
}

// The getter and setter of a per-class type's property entry; the closure is the property's
// name, kept for the life of the process with the type.
PyObject* getsetGetter(PyObject* self, void* closure) {
    GilGuard gil;
    const Any* wrapped = wrappedHostValue(self);
    if (wrapped == nullptr) Py_RETURN_NONE;
    const Any value = *wrapped;
    auto property = property_of(value, std::string_view(static_cast<const char*>(closure)));
    if (property.isEmpty()) {
        PyErr_Format(PyExc_AttributeError, "%s", static_cast<const char*>(closure));
        return nullptr;
    }
    return toPythonLocked(property.as<Property>().get(value));
}

int getsetSetter(PyObject* self, PyObject* newValue, void* closure) {
    GilGuard gil;
    const Any* wrapped = wrappedHostValue(self);
    if (wrapped == nullptr) return 0;
    const Any value = *wrapped;
    auto property = property_of(value, std::string_view(static_cast<const char*>(closure)));
    if (property.isEmpty()) {
        PyErr_Format(PyExc_AttributeError, "%s", static_cast<const char*>(closure));
        return -1;
    }
    if (newValue == nullptr) {
        PyErr_Format(PyExc_RuntimeError, "Unable to delete attribute: %s.", static_cast<const char*>(closure));
        return -1;
    }
    Any converted = fromPythonLocked(newValue);
    if (PyErr_Occurred() != nullptr) return -1;  // an int beyond 64 bits: nothing is written
    Any result = resolve(property.as<Property>().set(value, converted));
    if (auto error = Error::cast(result)) {
        raise_host_error(*error);
        return -1;
    }
    return 0;
}

}  // namespace

void fillCommonSlots(PyTypeObject& type) {
    type.tp_repr = reprSlot;
    type.tp_getattro = attributeReadSlot;
    type.tp_setattro = attributeWriteSlot;
    fillOperatorSlots(type);
}

void fillCallSlot(PyTypeObject& type) { type.tp_call = callSlot; }

DescriptiveTables describeClass(const Class_Generic& cls) {
    std::vector<PyMethodDef> methods;
    for (const auto& [name, member] : definedMethods(cls)) {
        if (name.startsWith("_")) continue;
        const I_Invokable_Generic method(internal::unchecked, member);
        string_builder doc;
        doc << method.signature().toString(Signature::WithNames | Signature::WithResult);
        if (const String text = method.doc(); !text.isEmpty()) doc << "\n\n" << text;
        methods.push_back(PyMethodDef{copyToMalloc(name.view()), placeholderMethod, METH_VARARGS, copyToMalloc(doc.view())});
    }
    appendStatementMethods(methods, cls);
    methods.push_back(PyMethodDef{nullptr, nullptr, 0, nullptr});
    std::vector<PyGetSetDef> properties;
    for (const auto& [name, member] : definedProperties(cls)) {
        if (name.startsWith("_")) continue;
        const Property property(internal::unchecked, member);
        char* closure = copyToMalloc(name.view());
        properties.push_back(PyGetSetDef{closure, getsetGetter, property.setter().isEmpty() ? nullptr : getsetSetter,
                                         property.doc().isEmpty() ? nullptr : copyToMalloc(property.doc().view()), closure});
    }
    properties.push_back(PyGetSetDef{nullptr, nullptr, nullptr, nullptr, nullptr});
    // The tables live as long as the type: for ever.
    DescriptiveTables tables{static_cast<PyMethodDef*>(std::calloc(methods.size(), sizeof(PyMethodDef))),
                             static_cast<PyGetSetDef*>(std::calloc(properties.size(), sizeof(PyGetSetDef)))};
    std::memcpy(tables.methods, methods.data(), methods.size() * sizeof(PyMethodDef));
    std::memcpy(tables.properties, properties.data(), properties.size() * sizeof(PyGetSetDef));
    return tables;
}

}  // namespace tala::python

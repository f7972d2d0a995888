// python/pyside/attributes.cpp: attribute reads (introspection names and host look-up) and writes on wrapped host values.
#include "pyside/attributes.hpp"

#include <cstring>
#include <string_view>

#include "bridge/errors.hpp"
#include "bridge/from_python.hpp"
#include "bridge/to_python.hpp"
#include "extension/gil.hpp"
#include "pyside/documentation.hpp"
#include "pyside/member_names.hpp"
#include "pyside/module_objects.hpp"
#include "pyside/tala_object.hpp"

namespace tala::python {

namespace {

PyObject* toPythonString(std::string_view text) {
    return PyUnicode_DecodeUTF8(text.data(), static_cast<Py_ssize_t>(text.size()), "replace");
}

PyObject* toPythonString(const Any& text) {
    if (auto asString = String::cast(resolve(text))) return toPythonString(asString->view());
    return toPythonLocked(text);  // an error raises; anything else converts as it is
}

// ---- Introspection names: each answers, or declines with `nullptr` and no error set ---------

struct Declined {};

PyObject* docText(const Any& value) {
    string_builder text;
    if (auto invokable = I_Invokable_Generic::cast(value)) {
        text << invokable->signature().toString(Signature::WithNames | Signature::WithResult) << "\n\n";
    }
    if (I_HasDoc::matches(value)) {
        Any doc = resolve(I_HasDoc(internal::unchecked, value).doc());
        if (auto asString = String::cast(doc)) text << *asString;
    } else {
        text << class_of(value).doc();
    }
    return toPythonString(text.view());
}

PyObject* annotations(const I_Invokable_Generic& invokable) {
    PyObjectPtr dictionary = PyObjectPtr::steal(PyDict_New());
    const Signature signature = invokable.signature();
    for (const Parameter& parameter : signature.parameters()) {
        auto* type = reinterpret_cast<PyObject*>(wrapperTypeFor(parameter.type.toClass()));
        if (PyDict_SetItemString(dictionary.get(), parameter.name.c_str(), type) < 0) return nullptr;
    }
    auto* result = reinterpret_cast<PyObject*>(wrapperTypeFor(signature.resultType().toClass()));
    if (PyDict_SetItemString(dictionary.get(), "return", result) < 0) return nullptr;
    return dictionary.release();
}

std::optional<String> moduleName(const Any& value) {
    Any context;
    if (auto cls = Class_Generic::cast(value)) {
        context = cls->genericDefinition().value_or(*cls).declaringContext();
    } else if (auto invokable = I_Invokable_Generic::cast(value)) {
        context = declaring_context(class_of(*invokable));
    }
    if (auto module = Module::cast(context)) return module->name();
    return std::nullopt;
}

void appendNames(PyObject* list, const std::vector<std::pair<String, Any>>& members) {
    for (const auto& [name, member] : members) {
        PyObjectPtr text = PyObjectPtr::steal(toPythonString(name.view()));
        if (text) PyList_Append(list, text.get());
    }
}

template <class Map>
void appendKeys(PyObject* list, const Map& map) {
    for (const auto& entry : map) {
        PyObjectPtr text = PyObjectPtr::steal(toPythonString(entry.key));
        if (text) PyList_Append(list, text.get());
    }
}

// The member names, in this order and with repeats: the class's fields, methods and
// properties, then the object's own methods and properties.
PyObject* memberNames(const Any& value) {
    PyObjectPtr list = PyObjectPtr::steal(PyList_New(0));
    const Class_Generic cls = class_of(value);
    appendNames(list.get(), definedFields(cls));
    appendNames(list.get(), definedMethods(cls));
    appendNames(list.get(), definedProperties(cls));
    appendKeys(list.get(), own_methods_of(value));
    appendKeys(list.get(), own_properties_of(value));
    PyErr_Clear();
    return list.release();
}

// Converts into `target` (bytes, bool) through the value's tryInto; an error result raises.
PyObject* converted(const Any& value, const Class_Generic& target) {
    return toPythonLocked(resolve(I_Convertible(internal::unchecked, value).tryInto(target)));
}

PyObject* introspect(const Any& value, std::string_view name) {
    const bool invokable = I_Invokable_Generic::matches(value);
    if (name == "__doc__") return docText(value);
    if (name == "__annotations__" && invokable) return annotations(I_Invokable_Generic(internal::unchecked, value));
    if (name == "__module__") {
        if (auto module = moduleName(value)) return toPythonString(module->view());
    }
    if (name == "__name__" && I_HasName::matches(value)) return toPythonString(I_HasName(internal::unchecked, value).name());
    if (name == "__code__" && I_HasCode::matches(value)) return toPythonString(I_HasCode(internal::unchecked, value).code());
    if (name == "__bytes__" && I_Convertible::matches(value)) return converted(value, ByteArray::getClass());
    if (name == "__bool__" && I_Convertible::matches(value)) return converted(value, Boolean::getClass());
    if (name == "__dir__") return memberNames(value);
    if (name == "__signature__" && invokable) return signatureOf(I_Invokable_Generic(internal::unchecked, value));
    if (name == "__text_signature__" && invokable) {
        const String text = I_Invokable_Generic(internal::unchecked, value).signature().toString(Signature::WithNames | Signature::WithResult);
        return toPythonString(text.view());
    }
    return nullptr;
}

// ---- Host look-up ------------------------------------------------------------------------

std::optional<PyObject*> fromLazy(const Any& value, Identifier name) {
    if (auto property = raw_property_of(value, name); !property.isEmpty()) {
        return toPythonLocked(property.as<Property>().getter()(value));
    }
    if (auto method = raw_method_of(value, name); !method.isEmpty()) {
        return toPythonLocked(method.as<I_Invokable_Generic>().bindArgs(value));
    }
    return std::nullopt;
}

std::optional<PyObject*> fromClassObject(const Class_Generic& cls, Identifier name) {
    if (const Any* method = cls.cell()->findMethod(name)) {
        const I_Invokable_Generic invokable(internal::unchecked, *method);
        if (invokable.isIndependent()) return toPythonLocked(invokable);
    }
    if (const Any* member = cls.cell()->findProperty(name)) {
        const Property property(internal::unchecked, *member);
        if (property.isIndependent()) return toPythonLocked(property.get(Any()));
    }
    return std::nullopt;
}

PyObject* hostLookup(const Any& value, Identifier name) {
    if (value.kind() == Kind::Lazy) {
        if (auto found = fromLazy(value, name)) return *found;
    }
    if (Error::matches(value)) return toPythonLocked(value);
    if (auto property = property_value_of(value, name)) return toPythonLocked(*property);
    // The bound method as Any::boundMethod makes it, but without building its error for a name
    // that is no method: a miss goes on to the steps below.
    if (auto method = method_of(value, name); !method.isEmpty()) return toPythonLocked(method.as<I_Invokable_Generic>().boundTo(value));
    const auto cls = Class_Generic::cast(value);
    if (cls) {
        if (auto found = fromClassObject(*cls, name)) return *found;
    }
    // The raw look-ups differ from the ones above only for a class that answers its own
    // look-ups; for any other they would repeat the same misses.
    const internal::ClassCell* valueClass = internal::classCellOf(value);
    if (valueClass->reflective(internal::ReflectiveProperty) != nullptr ||
        valueClass->reflective(internal::ReflectiveMethod) != nullptr) {
        if (auto property = raw_property_of(value, name); !property.isEmpty()) {
            return toPythonLocked(property.as<Property>().getter()(value));
        }
        if (auto method = raw_method_of(value, name); !method.isEmpty()) {
            return toPythonLocked(method.as<I_Invokable_Generic>().bindArgs(value));
        }
    }
    if (cls) {
        if (auto property = definedProperty(*cls, name); !property.isEmpty()) return toPythonLocked(property.as<Property>().getter());
        if (auto method = definedMethod(*cls, name); !method.isEmpty()) return toPythonLocked(method);
    }
    return toPythonLocked(value.fieldValue(name));
}

PyObject* readAttribute(PyObject* self, PyObject* name) {
    GilGuard gil;
    std::optional<std::string_view> text = utf8Of(name);
    if (!text) return nullptr;
    const Any* wrapped = wrappedHostValue(self);
    if (wrapped == nullptr) return PyObject_GenericGetAttr(self, name);
    const Any value = *wrapped;  // the wrapper may go while the host runs
    if (text->starts_with('_')) {
        // Calling a host invokable's __call__ calls the invokable: it is the invokable itself,
        // whose signature is the host's (what unittest.mock and inspect read).
        if (*text == "__call__" && I_Invokable_Generic::matches(value)) return PyObjectPtr::borrow(self).release();
        if (PyObject* answer = introspect(value, *text)) return answer;
        if (PyErr_Occurred() != nullptr) return nullptr;
        if (PyObject* answer = readModuleImportAttribute(value, *text)) return answer;
        return PyObject_GenericGetAttr(self, name);
    }
    return hostLookup(value, identifierOf(name, *text));
}

// ---- Writes --------------------------------------------------------------------------------

// A failed write: the error's own exception type (RuntimeError for a plain error), with the
// attribute's name in front of the error's message.
int raiseWithName(const char* format, std::string_view name, const Any& result) {
    const Error error = Error::cast(result).value_or(Error(display(result)));
    std::string message(name);
    message += ": ";
    message += error.message().view();
    if (std::strcmp(format, "%U: %s.") == 0) message += ".";
    raise_host_error(error, String(message));
    return -1;
}

// Errors of the object model's own classes, so that Python code tells them as AttributeError.
int raiseReadOnly(std::string_view name) {
    raise_host_error(ReadOnlyError(String("Read-only attribute: {}.").arg(String(name))));
    return -1;
}

// `del value.name`: a property added to this one object goes; whatever the object's class
// defines (properties, methods, fields) stays, and saying so is an error.
int deleteAttribute(const Any& value, std::string_view name, Identifier id) {
    if (remove_property(value, id)) return 0;
    if (auto property = definedProperty(class_of(value), id); !property.isEmpty() && property.as<Property>().setter().isEmpty()) {
        return raiseReadOnly(name);
    }
    raise_host_error(MissingMemberError(String("Unable to delete attribute: {}.").arg(String(name))));
    return -1;
}

int writeAttribute(PyObject* self, PyObject* name, PyObject* newValue) {
    GilGuard gil;
    std::optional<std::string_view> text = utf8Of(name);
    if (!text) return -1;
    const Any* wrapped = wrappedHostValue(self);
    if (wrapped == nullptr) return PyObject_GenericSetAttr(self, name, newValue);
    const Any value = *wrapped;
    if (auto answered = writeModuleAttribute(value, name, *text, newValue)) return *answered;
    const Identifier id = identifierOf(name, *text);
    if (newValue == nullptr) return deleteAttribute(value, *text, id);
    if (auto found = property_of(value, id); !found.isEmpty()) {
        const Property property = found.as<Property>();
        if (!property.setter().isEmpty()) {
            Any converted = fromPythonLocked(newValue);
            if (PyErr_Occurred() != nullptr) return -1;  // an int beyond 64 bits: nothing is written
            Any result = resolve(property.set(value, converted));
            if (is_error_result(result)) return raiseWithName("%U: %s.", *text, result);
            return 0;
        }
        if (!definedProperty(class_of(value), id).isEmpty()) return raiseReadOnly(*text);
    }
    Any converted = fromPythonLocked(newValue);
    if (PyErr_Occurred() != nullptr) return -1;
    Any result = definedField(class_of(value), id).isEmpty() ? insert_property_value(value, id, std::move(converted))
                                                            : value.setFieldValue(id, std::move(converted));
    result = resolve(result);
    if (is_error_result(result)) return raiseWithName("%U: %s", *text, result);
    return 0;
}

// Python's report suggests a name that exists ("Did you mean: 'query'?") from what an
// AttributeError tells of the look-up that failed.
void noteMissingAttribute(PyObject* self, PyObject* name) {
    if (!PyErr_ExceptionMatches(PyExc_AttributeError)) return;
    PyObject* raised = PyErr_GetRaisedException();
    PyObjectPtr known = PyObjectPtr::steal(PyObject_GetAttrString(raised, "name"));
    if (known && known.get() == Py_None) {
        if (PyObject_SetAttrString(raised, "name", name) < 0 || PyObject_SetAttrString(raised, "obj", self) < 0) PyErr_Clear();
    }
    PyErr_Clear();
    PyErr_SetRaisedException(raised);
}

}  // namespace

PyObject* attributeReadSlot(PyObject* self, PyObject* name) noexcept {
    try {
        PyObject* found = readAttribute(self, name);
        if (found == nullptr) noteMissingAttribute(self, name);
        return found;
    } catch (const std::exception& error) {
        PyErr_SetString(PyExc_RuntimeError, error.what());
        return nullptr;
    }
}

int attributeWriteSlot(PyObject* self, PyObject* name, PyObject* value) noexcept {
    try {
        return writeAttribute(self, name, value);
    } catch (const std::exception& error) {
        PyErr_SetString(PyExc_RuntimeError, error.what());
        return -1;
    }
}

}  // namespace tala::python

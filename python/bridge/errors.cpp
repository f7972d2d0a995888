// python/bridge/errors.cpp: exception types for host error classes, and the taking of pending exceptions.
#include "bridge/errors.hpp"

#include <algorithm>
#include <mutex>
#include <span>
#include <unordered_map>

#include "bridge/from_python.hpp"
#include "bridge/python_names.hpp"
#include "bridge/to_python.hpp"
#include "extension/gil.hpp"
#include "extension/interpreters.hpp"
#include "pyside/tala_object.hpp"

namespace tala::python {

// Host error class -> Python exception type, one per class for the life of the interpreter (its
// InterpreterState holds the table). The table owns one reference to each type; `lock` guards the
// map. Callers hold the interpreter lock before they take `lock` (never the other way round), so
// the two cannot deadlock.
struct ExceptionTypes {
    spinlock lock;
    std::unordered_map<const internal::ClassCell*, PyObject*> types;
    std::unordered_map<PyObject*, const internal::ClassCell*> classes;  // the same pairs, the other way
    ExceptionTypes() { types.max_load_factor(1.0f); }
};

namespace {

// The attribute in which an exception carries the host error it was raised for.
StaticName kTalaAttribute{"tala"};

ExceptionTypes& exceptionTypes() { return partHere(state().exceptionTypes); }

// The builtin exception each of the object model's own error classes also stands for, so that
// Python's protocols built on those exceptions (hasattr, getattr with a default, the old
// iteration protocol) work on host values.
struct BuiltinBase {
    Class_Generic (*hostClass)();
    PyObject* pythonType;
    const char* name;
};

std::span<const BuiltinBase> builtinBases() {
    static const BuiltinBase bases[] = {
        {&MissingMemberError::getClass, PyExc_AttributeError, "AttributeError"},
        {&ReadOnlyError::getClass, PyExc_AttributeError, "AttributeError"},
        {&ArgumentError::getClass, PyExc_TypeError, "TypeError"},
        {&OutOfRangeError::getClass, PyExc_IndexError, "IndexError"},
    };
    return bases;
}

// The error classes among the class's parents, other than the base Error.
std::vector<Class_Generic> errorParents(const Class_Generic& errorClass) {
    std::vector<Class_Generic> parents;
    for (const Class_Generic& parent : errorClass.parents()) {
        if (parent != Error::getClass() && parent.derivesFrom(Error::getClass())) parents.push_back(parent);
    }
    return parents;
}

// __getattr__ of the exception types: what normal look-up does not find is a property of the
// host error the exception carries (`e.code`). Names beginning with "_" are never the host's.
PyObject* hostErrorAttribute(PyObject* self, PyObject* name) noexcept {
    try {
        Py_ssize_t size = 0;
        const char* text = PyUnicode_AsUTF8AndSize(name, &size);
        if (text == nullptr) return nullptr;
        if (size > 0 && text[0] != '_') {
            PyObjectPtr carried = PyObjectPtr::steal(PyObject_GenericGetAttr(self, kTalaAttribute.get()));
            if (!carried) PyErr_Clear();
            if (const Any* wrapped = wrappedHostValue(carried.get()); wrapped != nullptr && Error::matches(*wrapped)) {
                const Any error = *wrapped;
                if (auto property = property_of(error, std::string_view(text, static_cast<std::size_t>(size)));
                    !property.isEmpty()) {
                    return toPythonLocked(resolve(property.as<Property>().get(error)));
                }
            }
        }
        PyObjectPtr missing = PyObjectPtr::steal(PyUnicode_FromFormat("'%s' object has no attribute '%U'",
                                                                      Py_TYPE(self)->tp_name, name));
        if (!missing) return nullptr;
        PyObjectPtr exception = PyObjectPtr::steal(PyObject_CallOneArg(PyExc_AttributeError, missing.get()));
        if (!exception) return nullptr;
        // What Python's own report reads to suggest a name that exists.
        if (PyObject_SetAttrString(exception.get(), "name", name) < 0 || PyObject_SetAttrString(exception.get(), "obj", self) < 0) {
            PyErr_Clear();
        }
        PyErr_SetObject(PyExc_AttributeError, exception.get());
        return nullptr;
    } catch (const std::exception& error) {
        PyErr_SetString(PyExc_RuntimeError, error.what());
        return nullptr;
    }
}

// __dir__ of the exception types: the exception's own names and the host error's properties.
PyObject* hostErrorNames(PyObject* self, PyObject*) noexcept {
    try {
        PyObjectPtr names = PyObjectPtr::steal(
            PyObject_CallMethod(reinterpret_cast<PyObject*>(&PyBaseObject_Type), "__dir__", "O", self));
        if (!names) return nullptr;
        PyObjectPtr carried = PyObjectPtr::steal(PyObject_GenericGetAttr(self, kTalaAttribute.get()));
        if (!carried) PyErr_Clear();
        if (const Any* wrapped = wrappedHostValue(carried.get()); wrapped != nullptr && Error::matches(*wrapped)) {
            for (const auto& [name, property] : definedProperties(raw_class_of(*wrapped))) {
                if (name.startsWith("_")) continue;
                PyObjectPtr text = PyObjectPtr::steal(PyUnicode_FromStringAndSize(name.data(), static_cast<Py_ssize_t>(name.size())));
                if (!text || PyList_Append(names.get(), text.get()) < 0) return nullptr;
            }
        }
        return names.release();
    } catch (const std::exception& error) {
        PyErr_SetString(PyExc_RuntimeError, error.what());
        return nullptr;
    }
}

PyMethodDef kHostErrorAttribute{"__getattr__", hostErrorAttribute, METH_O,
                                "The property of the host error this exception carries."};
PyMethodDef kHostErrorNames{"__dir__", hostErrorNames, METH_NOARGS, "The exception's names and the host error's properties."};

bool addMethod(PyObject* type, PyMethodDef& definition) {
    PyObjectPtr method = PyObjectPtr::steal(PyDescr_NewMethod(reinterpret_cast<PyTypeObject*>(type), &definition));
    return method && PyObject_SetAttrString(type, definition.ml_name, method.get()) == 0;
}

// The bases of a new exception type: the types of the class's parent error classes (RuntimeError
// when it has none), then the builtin exceptions the class stands for that those do not
// already derive from.
PyObjectPtr exceptionBases(const Class_Generic& errorClass, const std::vector<PyObject*>& parentTypes) {
    std::vector<PyObject*> bases = parentTypes;
    if (bases.empty()) bases.push_back(PyExc_RuntimeError);
    for (const BuiltinBase& builtin : builtinBases()) {
        if (errorClass != builtin.hostClass() && !errorClass.derivesFrom(builtin.hostClass())) continue;
        const bool covered = std::any_of(bases.begin(), bases.end(), [&](PyObject* base) {
            return PyType_IsSubtype(reinterpret_cast<PyTypeObject*>(base), reinterpret_cast<PyTypeObject*>(builtin.pythonType));
        });
        if (!covered) bases.push_back(builtin.pythonType);
    }
    PyObjectPtr tuple = PyObjectPtr::steal(PyTuple_New(static_cast<Py_ssize_t>(bases.size())));
    if (!tuple) return tuple;
    for (std::size_t index = 0; index < bases.size(); ++index) {
        PyTuple_SET_ITEM(tuple.get(), static_cast<Py_ssize_t>(index), PyObjectPtr::borrow(bases[index]).release());
    }
    return tuple;
}

PyObject* makeExceptionType(const Class_Generic& errorClass, const std::vector<PyObject*>& parentTypes) {
    std::string name(errorClass.qualname().view());
    if (name.empty() || name.find('.') == std::string::npos) name = "tala." + name;
    PyObjectPtr attributes = PyObjectPtr::steal(PyDict_New());
    PyObjectPtr bases = exceptionBases(errorClass, parentTypes);
    if (!attributes || !bases || PyDict_SetItemString(attributes.get(), "tala", Py_None) < 0) {
        PyErr_Clear();
        return nullptr;
    }
    const String& doc = errorClass.doc();
    PyObject* type = PyErr_NewExceptionWithDoc(name.c_str(), doc.isEmpty() ? nullptr : doc.c_str(), bases.get(), attributes.get());
    if (type == nullptr || !addMethod(type, kHostErrorAttribute) || !addMethod(type, kHostErrorNames)) {
        PyErr_Clear();
        Py_XDECREF(type);
        return nullptr;
    }
    return type;
}

}  // namespace

PyObject* exception_type_for(const Class_Generic& errorClass) {
    if (errorClass == StopIteration::getClass()) return PyExc_StopIteration;
    if (PyObject* pythonType = pythonTypeOfClassView(errorClass)) {
        // The exception class of another interpreter is no type here: its errors raise as
        // RuntimeError.
        return usableHere(errorClass) ? pythonType : PyExc_RuntimeError;
    }
    if (errorClass == Error::getClass()) return PyExc_RuntimeError;
    GilGuard gil;
    ExceptionTypes& table = exceptionTypes();
    {
        const std::unique_lock<spinlock> lock = lockReleasingGil(table.lock);
        auto found = table.types.find(errorClass.cell());
        if (found != table.types.end()) return found->second;
    }
    // The parents' types first, outside the lock: each of them takes it.
    // Only the types made for host classes: every type made here derives from RuntimeError (a
    // class derived from the host's StopIteration does not derive from Python's).
    std::vector<PyObject*> parentTypes;
    for (const Class_Generic& parent : errorParents(errorClass)) {
        PyObject* parentType = exception_type_for(parent);
        if (parentType != PyExc_RuntimeError &&
            PyType_IsSubtype(reinterpret_cast<PyTypeObject*>(parentType), reinterpret_cast<PyTypeObject*>(PyExc_RuntimeError))) {
            parentTypes.push_back(parentType);
        }
    }
    const std::unique_lock<spinlock> lock = lockReleasingGil(table.lock);
    auto found = table.types.find(errorClass.cell());
    if (found != table.types.end()) return found->second;
    PyObject* type = makeExceptionType(errorClass, parentTypes);
    if (type == nullptr) return PyExc_RuntimeError;  // not stored: the next request tries again
    table.types.emplace(errorClass.cell(), type);
    table.classes.emplace(type, errorClass.cell());
    return type;
}

std::vector<std::string> pythonExceptionBases(const Class_Generic& errorClass) {
    std::vector<std::string> names{"RuntimeError"};
    for (const BuiltinBase& builtin : builtinBases()) {
        if (errorClass != builtin.hostClass() && !errorClass.derivesFrom(builtin.hostClass())) continue;
        if (std::find(names.begin(), names.end(), builtin.name) == names.end()) names.emplace_back(builtin.name);
    }
    return names;
}

std::optional<Class_Generic> hostClassOfExceptionType(PyObject* type) {
    ExceptionTypes& table = exceptionTypes();
    // The holder of the lock may be creating a type, which needs the interpreter lock.
    const std::unique_lock<spinlock> lock = lockReleasingGil(table.lock);
    auto found = table.classes.find(type);
    if (found == table.classes.end()) return std::nullopt;
    return Class_Generic(found->second);
}

Class_Generic host_error_class_for(PyObject* exceptionType) {
    if (exceptionType == nullptr) return Error::getClass();
    if (exceptionType == PyExc_StopIteration) return StopIteration::getClass();
    GilGuard gil;
    if (!PyType_Check(exceptionType)) return Error::getClass();
    auto cls = Class_Generic::cast(from_python(exceptionType));
    PyErr_Clear();
    if (cls && I_Invokable_Generic(internal::unchecked, *cls).resultType().specializes(Error::getType())) return *cls;
    return Error::getClass();
}

namespace {

// Raises `type` with the message as text. The message keeps every byte: an embedded NUL is kept
// and bytes that are not UTF-8 are replaced, so the exception is always of `type`.
void raiseWithMessage(PyObject* type, const String& message) {
    PyObjectPtr text = PyObjectPtr::steal(
        PyUnicode_DecodeUTF8(message.data(), static_cast<Py_ssize_t>(message.size()), "replace"));
    if (!text) return;  // out of memory: that error stays set
    PyErr_SetObject(type, text.get());
}

}  // namespace

void raise_host_error(const Error& error) { raise_host_error(error, error.message()); }

void raise_host_error(const Error& error, const String& message) {
    GilGuard gil;
    // An error made from a Python exception goes back into Python as that very exception.
    if (PyObject* original = originalException(error)) {
        Py_IncRef(original);
        PyErr_SetRaisedException(original);
        return;
    }
    const Class_Generic errorClass = raw_class_of(error);
    if (errorClass == Error::getClass() && !error.exception()) {
        raiseWithMessage(PyExc_RuntimeError, message);
        return;
    }
    PyObject* type = exception_type_for(errorClass);
    if (type == nullptr) {
        raiseWithMessage(PyExc_RuntimeError, message);
        return;
    }
    // The message is the exception's argument, so that str(), repr() and args tell it.
    PyObjectPtr text = PyObjectPtr::steal(
        PyUnicode_DecodeUTF8(message.data(), static_cast<Py_ssize_t>(message.size()), "replace"));
    if (!text) return;  // out of memory: that error stays set
    PyObjectPtr instance = PyObjectPtr::steal(PyObject_CallOneArg(type, text.get()));
    if (!instance) {
        PyErr_Clear();
        raiseWithMessage(type, message);
        return;
    }
    PyObjectPtr wrapper = PyObjectPtr::steal(wrapHostValue(error));
    if (!wrapper || PyObject_SetAttr(instance.get(), kTalaAttribute.get(), wrapper.get()) < 0) PyErr_Clear();
    PyErr_SetObject(type, instance.get());
}

Union<Error, None> fetch_python_error(const ExceptionOrigin* origin) {
    GilGuard gil;
    // The pending exception, normalised, with its traceback on it.
    PyObjectPtr value = PyObjectPtr::steal(PyErr_GetRaisedException());
    if (!value) return None();
    Error error = errorFromException(value.get(), origin);
    PyErr_Clear();
    return error;
}

Error fetch_python_error_or(const char* fallback, const ExceptionOrigin* origin) {
    auto pending = fetch_python_error(origin);
    if (auto error = pending.get<Error>()) return *error;
    return Error(String(fallback));
}

}  // namespace tala::python

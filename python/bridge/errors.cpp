// python/bridge/errors.cpp: exception types for host error classes, and the taking of pending exceptions.
#include "bridge/errors.hpp"

#include <mutex>
#include <unordered_map>

#include "bridge/from_python.hpp"
#include "bridge/to_python.hpp"
#include "extension/gil.hpp"
#include "pyside/tala_object.hpp"

namespace tala::python {

namespace {

// Host error class -> Python exception type, one per class for the life of the process. The
// table owns one reference to each type; `lock` guards the map. Callers hold the interpreter
// lock before they take `lock` (never the other way round), so the two cannot deadlock.
struct ExceptionTypes {
    spinlock lock;
    std::unordered_map<const internal::ClassCell*, PyObject*> types;
    std::unordered_map<PyObject*, const internal::ClassCell*> classes;  // the same pairs, the other way
    ExceptionTypes() { types.max_load_factor(1.0f); }
};

ExceptionTypes& exceptionTypes() {
    static auto* table = new ExceptionTypes();
    return *table;
}

PyObject* makeExceptionType(const Class_Generic& errorClass) {
    std::string name(errorClass.qualname().view());
    if (name.empty() || name.find('.') == std::string::npos) name = "tala." + name;
    PyObjectPtr attributes = PyObjectPtr::steal(PyDict_New());
    if (!attributes || PyDict_SetItemString(attributes.get(), "tala", Py_None) < 0) {
        PyErr_Clear();
        return nullptr;
    }
    PyObject* type = PyErr_NewException(name.c_str(), PyExc_RuntimeError, attributes.get());
    if (type == nullptr) PyErr_Clear();
    return type;
}

}  // namespace

PyObject* exception_type_for(const Class_Generic& errorClass) {
    if (errorClass == StopIteration::getClass()) return PyExc_StopIteration;
    if (PyObject* pythonType = pythonTypeOfClassView(errorClass)) return pythonType;
    if (errorClass == Error::getClass()) return PyExc_RuntimeError;
    GilGuard gil;
    ExceptionTypes& table = exceptionTypes();
    const std::unique_lock<spinlock> lock = lockReleasingGil(table.lock);
    auto found = table.types.find(errorClass.cell());
    if (found != table.types.end()) return found->second;
    PyObject* type = makeExceptionType(errorClass);
    if (type == nullptr) return PyExc_RuntimeError;  // not stored: the next request tries again
    table.types.emplace(errorClass.cell(), type);
    table.classes.emplace(type, errorClass.cell());
    return type;
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

void raise_host_error(const Error& error) {
    GilGuard gil;
    // An error made from a Python exception goes back into Python as that very exception.
    if (PyObject* original = originalException(error)) {
        Py_IncRef(original);
        PyErr_SetRaisedException(original);
        return;
    }
    const Class_Generic errorClass = raw_class_of(error);
    const String& message = error.message();
    if (errorClass == Error::getClass() && !error.exception()) {
        raiseWithMessage(PyExc_RuntimeError, message);
        return;
    }
    PyObject* type = exception_type_for(errorClass);
    if (type == nullptr) {
        raiseWithMessage(PyExc_RuntimeError, message);
        return;
    }
    PyObjectPtr noArguments = PyObjectPtr::steal(PyTuple_New(0));
    PyObjectPtr instance = PyObjectPtr::steal(PyObject_CallObject(type, noArguments.get()));
    if (!instance) {
        PyErr_Clear();
        raiseWithMessage(type, message);
        return;
    }
    PyObjectPtr wrapper = PyObjectPtr::steal(wrapHostValue(error));
    if (!wrapper || PyObject_SetAttrString(instance.get(), "tala", wrapper.get()) < 0) PyErr_Clear();
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

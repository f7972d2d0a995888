// python/bridge/to_python.cpp: host values into Python objects, a dispatcher over the kind code.
#include "bridge/to_python.hpp"

#include "bridge/errors.hpp"
#include "bridge/module_attribute.hpp"
#include "extension/gil.hpp"
#include "extension/interpreters.hpp"
#include "proxies/python_proxy.hpp"
#include "pyside/module_objects.hpp"
#include "pyside/tala_object.hpp"

namespace tala::python {

namespace {

// The standard types this direction makes, each looked up once per interpreter (its own caches;
// the other direction keeps its own). A failed look-up leaves null for good, and the constructor
// call then fails with an error of its own.
StandardTypes& types() { return partHere(state().toPythonTypes); }

PyObject* callType(PyObject* type, const char* format, auto... arguments) {
    if (type == nullptr) {
        PyErr_SetString(PyExc_RuntimeError, "A standard Python type is not available.");
        return nullptr;
    }
    return PyObject_CallFunction(type, format, arguments...);
}

// Python's datetime takes microseconds: the nanoseconds are cut, not rounded.
int microseconds(const internal::TimeFields& time) { return static_cast<int>(time.nanoseconds / 1000u); }

PyObject* fromTuple(const Tuple& tuple) {
    PyObjectPtr result = PyObjectPtr::steal(PyTuple_New(static_cast<Py_ssize_t>(tuple.size())));
    if (!result) return nullptr;
    for (std::size_t index = 0; index < tuple.size(); ++index) {
        PyObject* item = toPythonLocked(tuple.at(index));
        if (item == nullptr) return nullptr;  // the half-built tuple goes with `result`
        PyTuple_SET_ITEM(result.get(), static_cast<Py_ssize_t>(index), item);
    }
    return result.release();
}

PyObject* fromString(std::string_view text) {
    return PyUnicode_FromStringAndSize(text.data(), static_cast<Py_ssize_t>(text.size()));
}

// Objects (kind 8): the first test that matches decides.
PyObject* fromObject(const Any& value) {
    if (PythonProxy::matches(value)) {
        // An object of another interpreter never goes into this one: here its proxy is a host
        // object like any other, and each use of it goes back to its interpreter.
        if (!usableHere(value)) return wrapHostValueLocked(value);
        PyObject* proxied = pythonObjectOfProxy(value);
        if (proxied == nullptr) {
            // A proxy that holds nothing has no Python object to give back; it is not wrapped.
            PyErr_SetString(PyExc_RuntimeError, "The object is null.");
            return nullptr;
        }
        Py_IncRef(proxied);
        return proxied;
    }
    switch (value.cellAs<internal::ObjectCell>()->tag()) {
        case internal::NativeTag::Class: {
            const Class_Generic cls(internal::unchecked, value);
            if (PyObject* type = pythonTypeOfClassView(cls)) {
                if (!usableHere(value)) return wrapHostValueLocked(value);
                Py_IncRef(type);
                return type;
            }
            // An error class is the exception type it is raised as, so that Python code catches,
            // raises and tests for it by the name it reads (`except sqlite.SqlError`); the type
            // converts back to the class.
            if (cls.derivesFrom(Error::getClass())) {
                PyObject* type = exception_type_for(cls);
                Py_IncRef(type);
                return type;
            }
            return wrapHostValueLocked(value);
        }
        case internal::NativeTag::Date: {
            const auto& date = Date(internal::unchecked, value).fields();
            return callType(types().date.get(), "iii", int(date.year), int(date.month), int(date.day));
        }
        case internal::NativeTag::Decimal:
            return callType(types().decimal.get(), "s", Decimal(internal::unchecked, value).toString().c_str());
        case internal::NativeTag::Error: raise_host_error(Error(internal::unchecked, value)); return nullptr;
        case internal::NativeTag::Module: return hostModuleObject(Module(internal::unchecked, value));
        case internal::NativeTag::StringObject: return toPythonLocked(String(internal::unchecked, value).sliced(0));
        case internal::NativeTag::Time: {
            const auto& time = Time(internal::unchecked, value).fields();
            return callType(types().time.get(), "iiii", int(time.hour), int(time.minute), int(time.second), microseconds(time));
        }
        case internal::NativeTag::DateTime: {
            const auto* cell = value.cellAs<internal::DateTimeCell>();
            return callType(types().dateTime.get(), "iiiiiii", int(cell->date.year), int(cell->date.month), int(cell->date.day),
                            int(cell->time.hour), int(cell->time.minute), int(cell->time.second),
                            microseconds(cell->time));
        }
        default: return wrapHostValueLocked(value);
    }
}

}  // namespace

PyObject* to_python(const Any& value) {
    GilGuard gil;
    return toPythonLocked(value);
}

PyObject* toPythonLocked(const Any& value) {
    switch (value.kind()) {
        case Kind::Empty: return Py_None;  // immortal: no count taken
        case Kind::Boolean: return value.rawBoolean() == internal::g_value_boolean_true.value() ? Py_True : Py_False;
        case Kind::ByteArray: {
            const ByteArray bytes(internal::unchecked, value);
            return PyBytes_FromStringAndSize(bytes.data(), static_cast<Py_ssize_t>(bytes.size()));
        }
        case Kind::Float: return PyFloat_FromDouble(value.rawFloat());
        case Kind::Integer: return PyLong_FromLongLong(value.rawInteger());
        case Kind::Object: return fromObject(value);
        case Kind::String: return fromString(String(internal::unchecked, value).view());
        case Kind::Tuple: return fromTuple(Tuple(internal::unchecked, value));
        case Kind::External: return toPythonLocked(External(internal::unchecked, value).load());
        case Kind::Undefined: return Py_NotImplemented;
        default: return wrapHostValueLocked(value);
    }
}

}  // namespace tala::python

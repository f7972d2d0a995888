// python/bridge/to_python.cpp: host values into Python objects, a dispatcher over the kind code.
#include "bridge/to_python.hpp"

#include <datetime.h>

#include <algorithm>
#include <charconv>
#include <optional>

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

// The datetime module's constructors, which make its values without a call through the type
// (no argument tuple): used only when the module's types are the ones looked up above, so that
// what is made is exactly what calling them makes, checks of the fields included.
const PyDateTime_CAPI* dateTimeApi() {
    InterpreterState& here = state();
    if (!here.dateTimeApiTried) {
        StandardTypes& standard = types();
        auto* api = static_cast<const PyDateTime_CAPI*>(PyCapsule_Import(PyDateTime_CAPSULE_NAME, 0));
        if (api == nullptr) {
            PyErr_Clear();
        } else if (reinterpret_cast<PyObject*>(api->DateType) == standard.date.get() &&
                   reinterpret_cast<PyObject*>(api->TimeType) == standard.time.get() &&
                   reinterpret_cast<PyObject*>(api->DateTimeType) == standard.dateTime.get()) {
            here.dateTimeApi = api;
        }
        here.dateTimeApiTried = true;
    }
    return static_cast<const PyDateTime_CAPI*>(here.dateTimeApi);
}

// Null, with the error raised, for a standard type whose look-up failed.
PyObject* typeMissing() {
    PyErr_SetString(PyExc_RuntimeError, "A standard Python type is not available.");
    return nullptr;
}

PyObject* callType(PyObject* type, const char* format, auto... arguments) {
    if (type == nullptr) return typeMissing();
    return PyObject_CallFunction(type, format, arguments...);
}

// Python's datetime takes microseconds: the nanoseconds are cut, not rounded.
int microseconds(const internal::TimeFields& time) { return static_cast<int>(time.nanoseconds / 1000u); }

PyObject* fromDate(const internal::DateFields& date) {
    if (const PyDateTime_CAPI* api = dateTimeApi()) return api->Date_FromDate(int(date.year), int(date.month), int(date.day), api->DateType);
    return callType(types().date.get(), "iii", int(date.year), int(date.month), int(date.day));
}

PyObject* fromTime(const internal::TimeFields& time) {
    if (const PyDateTime_CAPI* api = dateTimeApi()) {
        return api->Time_FromTime(int(time.hour), int(time.minute), int(time.second), microseconds(time), Py_None, api->TimeType);
    }
    return callType(types().time.get(), "iiii", int(time.hour), int(time.minute), int(time.second), microseconds(time));
}

PyObject* fromDateTime(const internal::DateFields& date, const internal::TimeFields& time) {
    if (const PyDateTime_CAPI* api = dateTimeApi()) {
        return api->DateTime_FromDateAndTime(int(date.year), int(date.month), int(date.day), int(time.hour), int(time.minute),
                                             int(time.second), microseconds(time), Py_None, api->DateTimeType);
    }
    return callType(types().dateTime.get(), "iiiiiii", int(date.year), int(date.month), int(date.day), int(time.hour),
                    int(time.minute), int(time.second), microseconds(time));
}

// A decimal is made from an int when it is one (exponent 0, a coefficient that fits 64 bits, not
// a negative zero, which no int is), else from its coefficient and exponent written as
// "digitsEexponent", which Python reads to the same digits and exponent; an infinity or a NaN
// from its text.
PyObject* fromDecimal(const Decimal& decimal) {
    PyObject* type = types().decimal.get();
    if (type == nullptr) return typeMissing();
    std::optional<Decimal::Finite> finite = decimal.finite();
    if (!finite) return callType(type, "s", decimal.toString().c_str());
    PyObjectPtr argument;
    constexpr std::size_t kInt64Digits = 18;
    const bool zero = finite->digits == "0";
    if (finite->exponent == 0 && finite->digits.size() <= kInt64Digits && !(zero && finite->negative)) {
        std::int64_t coefficient = 0;
        for (const char digit : finite->digits) coefficient = coefficient * 10 + (digit - '0');
        argument = PyObjectPtr::steal(PyLong_FromLongLong(finite->negative ? -coefficient : coefficient));
    } else {
        // The sign, the digits, "E" and the exponent, written straight into an ASCII str.
        char exponent[24];
        const char* exponentEnd = std::to_chars(exponent, exponent + sizeof exponent, finite->exponent).ptr;
        const std::size_t size = (finite->negative ? 1 : 0) + finite->digits.size() + 1 + static_cast<std::size_t>(exponentEnd - exponent);
        argument = PyObjectPtr::steal(PyUnicode_New(static_cast<Py_ssize_t>(size), 127));
        if (argument) {
            char* out = reinterpret_cast<char*>(PyUnicode_1BYTE_DATA(argument.get()));
            if (finite->negative) *out++ = '-';
            out = std::copy(finite->digits.begin(), finite->digits.end(), out);
            *out++ = 'E';
            std::copy(static_cast<const char*>(exponent), exponentEnd, out);
        }
    }
    if (!argument) return nullptr;
    return PyObject_CallOneArg(type, argument.get());
}

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
        case internal::NativeTag::Date: return fromDate(Date(internal::unchecked, value).fields());
        case internal::NativeTag::Decimal: return fromDecimal(Decimal(internal::unchecked, value));
        case internal::NativeTag::Error: raise_host_error(Error(internal::unchecked, value)); return nullptr;
        case internal::NativeTag::Module: return hostModuleObject(Module(internal::unchecked, value));
        case internal::NativeTag::StringObject: return toPythonLocked(String(internal::unchecked, value).sliced(0));
        case internal::NativeTag::Time: return fromTime(Time(internal::unchecked, value).fields());
        case internal::NativeTag::DateTime: {
            const auto* cell = value.cellAs<internal::DateTimeCell>();
            return fromDateTime(cell->date, cell->time);
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

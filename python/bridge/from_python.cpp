// python/bridge/from_python.cpp: Python objects into host values, by a fixed order of tests.
#include "bridge/from_python.hpp"

#include <atomic>
#include <cmath>
#include <mutex>

#include "bridge/errors.hpp"
#include "bridge/module_attribute.hpp"
#include "extension/gil.hpp"
#include "extension/interpreters.hpp"
#include "functions/function_python.hpp"
#include "proxies/python_proxy.hpp"
#include "proxies/python_type.hpp"
#include "pyside/tala_object.hpp"

namespace tala::python {

namespace {

// Types looked up once per interpreter; separate from the caches of the other direction. A
// failed look-up stays null and the test it serves never matches.
StandardTypes& types() { return partHere(state().fromPythonTypes); }

PyObject* formatException() {
    InterpreterState& here = state();
    return keptHere(here.formatException, here.formatExceptionLooked, [] {
        PyObject* function = moduleAttribute("traceback", "format_exception");  // borrowed
        if (function != nullptr) Py_IncRef(function);
        return function;
    });
}

String stringFromUnicode(PyObject* text) {
    // The str's own UTF-8 form (kept inside it; no bytes object is made) copied into the host.
    Py_ssize_t size = 0;
    const char* utf8 = PyUnicode_AsUTF8AndSize(text, &size);
    if (utf8 == nullptr) {
        PyErr_Clear();  // a lone surrogate cannot be encoded: the empty string
        return String();
    }
    return String(utf8, static_cast<std::size_t>(size));
}

Any fromFloat(PyObject* object) {
    const double value = PyFloat_AsDouble(object);
    if (!std::isnan(value)) {
        double whole = 0.0;
        // Whole numbers come over as integers, when an integer holds them exactly: one beyond
        // the 64-bit range, or an infinity, stays the float it is.
        if (std::modf(value, &whole) == 0.0 && value >= -9223372036854775808.0 && value < 9223372036854775808.0) {
            return Integer(static_cast<std::int64_t>(value));
        }
    }
    return Float(value);
}

Any fromNumber(PyObject* object) {
    PyObjectPtr number = PyObjectPtr::steal(PyNumber_Long(object));
    if (!number) return Integer(-1);  // the failure stays pending for the caller
    int overflow = 0;
    const long long value = PyLong_AsLongLongAndOverflow(number.get(), &overflow);
    if (overflow == 0) return Integer(value);
    // An int beyond 64 bits is no host value: -1 with OverflowError pending, for the caller to
    // report. Any other object whose integer value is that large (a UUID) is no number the host
    // could hold either, but it stays the object it is.
    if (PyLong_Check(object)) return Integer(PyLong_AsLongLong(number.get()));
    return makePythonProxy(object);
}

// Through its text: the decimal module of this Python has no C interface, and str() is the
// cheapest exact way out of it (its digit tuple costs more). The str's own UTF-8 form is read in
// place.
Any fromDecimal(PyObject* object) {
    PyObjectPtr text = PyObjectPtr::steal(PyObject_Str(object));
    if (text && PyUnicode_CheckExact(text.get())) {
        Py_ssize_t size = 0;
        if (const char* utf8 = PyUnicode_AsUTF8AndSize(text.get(), &size)) {
            return Decimal::fromString(std::string_view(utf8, static_cast<std::size_t>(size)));
        }
        PyErr_Clear();  // answered below as before
    }
    Any converted = fromPythonLocked(text.get());
    if (auto asString = String::cast(converted)) return Decimal::fromString(asString->view());
    return converted;
}

bool isInt(PyObject* object) { return object != nullptr && PyLong_Check(object); }

PyObjectPtr callNoArguments(PyObject* object, const char* name) {
    PyObjectPtr value = PyObjectPtr::steal(PyObject_CallMethod(object, name, nullptr));
    if (!value) PyErr_Clear();
    return value;
}

// Row 17: objects that cannot be iterated.
Any fromNonIterable(PyObject* object) {
    PyTypeObject* type = Py_TYPE(object);
    if (reinterpret_cast<PyObject*>(type) == types().date.get()) {
        if (auto date = date_from_python(object)) return *date;
    } else if (reinterpret_cast<PyObject*>(type) == types().time.get()) {
        if (auto time = time_from_python(object)) return *time;
    } else if (reinterpret_cast<PyObject*>(type) == types().dateTime.get()) {
        auto date = date_from_python(object);
        auto time = time_from_python(object);
        if (date && time) return DateTime(*date, *time);
    }
    return makePythonProxy(object);
}

String exceptionMessage(PyObject* exception) {
    if (PyObject_IsInstance(exception, PyExc_SyntaxError) == 1 && formatException() != nullptr) {
        PyObjectPtr lines = PyObjectPtr::steal(PyObject_CallOneArg(formatException(), exception));
        if (lines) {
            PyObjectPtr empty = PyObjectPtr::steal(PyUnicode_FromString(""));
            PyObjectPtr joined = PyObjectPtr::steal(PyUnicode_Join(empty.get(), lines.get()));
            if (joined) {
                String text = stringFromUnicode(joined.get());
                if (!text.isEmpty()) return text;
            }
        }
        PyErr_Clear();
    }
    PyObjectPtr text = PyObjectPtr::steal(PyObject_Str(exception));
    if (!text) {
        PyErr_Clear();
        return String();
    }
    return stringFromUnicode(text.get());
}

}  // namespace

std::optional<Date> date_from_python(PyObject* object) {
    GilGuard gil;
    PyObjectPtr year = attributeOrNull(object, "year");
    PyObjectPtr month = attributeOrNull(object, "month");
    PyObjectPtr day = attributeOrNull(object, "day");
    if (!isInt(year.get()) || !isInt(month.get()) || !isInt(day.get())) return std::nullopt;
    return Date(static_cast<std::int32_t>(PyLong_AsLong(year.get())), static_cast<std::uint8_t>(PyLong_AsLong(month.get())),
                static_cast<std::uint8_t>(PyLong_AsLong(day.get())));
}

std::optional<Time> time_from_python(PyObject* object) {
    GilGuard gil;
    PyObjectPtr hour = attributeOrNull(object, "hour");
    PyObjectPtr minute = attributeOrNull(object, "minute");
    PyObjectPtr second = attributeOrNull(object, "second");
    PyObjectPtr microsecond = attributeOrNull(object, "microsecond");
    if (!isInt(hour.get()) || !isInt(minute.get()) || !isInt(second.get()) || !isInt(microsecond.get())) {
        return std::nullopt;
    }
    const auto h = static_cast<std::uint8_t>(PyLong_AsLong(hour.get()));
    const auto m = static_cast<std::uint8_t>(PyLong_AsLong(minute.get()));
    const auto s = static_cast<std::uint8_t>(PyLong_AsLong(second.get()));
    const auto nanoseconds = static_cast<std::uint32_t>(PyLong_AsLong(microsecond.get()) * 1000);
    // An offset is taken only when total_seconds() gives an int. The standard library's gives a
    // float, so a standard aware time comes over naive; that asymmetry is deliberate.
    PyObjectPtr offset = callNoArguments(object, "utcoffset");
    if (offset && offset.get() != Py_None) {
        PyObjectPtr seconds = callNoArguments(offset.get(), "total_seconds");
        if (isInt(seconds.get())) {
            PyObjectPtr foldValue = attributeOrNull(object, "fold");
            const auto fold = static_cast<std::uint8_t>(isInt(foldValue.get()) ? PyLong_AsLong(foldValue.get()) : 0);
            PyObjectPtr zone = callNoArguments(object, "tzname");
            String zoneName = String::cast(from_python(zone.get())).value_or(String());
            PyErr_Clear();
            return Time(h, m, s, nanoseconds, static_cast<std::int32_t>(PyLong_AsLong(seconds.get())), zoneName, fold);
        }
    }
    return Time(h, m, s, nanoseconds);
}

namespace {

// How many exceptions deep this thread follows the `tala` attribute right now.
thread_local int t_carriedDepth = 0;

Error hostErrorOf(PyObject* exception) {
    const Class_Generic errorClass = host_error_class_for(reinterpret_cast<PyObject*>(Py_TYPE(exception)));
    const String message = exceptionMessage(exception);
    if (object_value_python_type::matches(errorClass) || errorClass == Error::getClass()) return Error(message);
    // An instance of the host error class with the message. Made directly: invoking an error
    // class answers the blank error of its factory without running `__init__`.
    if (errorClass.derivesFrom(Error::getClass())) return Error(errorClass, message);
    Any made = errorClass.instantiate(std::vector<Any>{message});
    if (auto error = Error::cast(made)) return *error;
    return Error(message);
}

}  // namespace

Error errorFromException(PyObject* exception, const ExceptionOrigin* origin) {
    GilGuard gil;
    // An exception raised from a host error carries it: the same error comes back. Scripts can
    // set the attribute too, to another exception or to the exception itself (e.tala = e), so a
    // chain of carried exceptions is followed a few links deep only, never round a loop.
    constexpr int kMostCarriedLinks = 8;
    if (PyObjectPtr carried = attributeOrNull(exception, "tala");
        carried && carried.get() != Py_None && t_carriedDepth < kMostCarriedLinks) {
        ++t_carriedDepth;
        Any original = from_python(carried.get());
        --t_carriedDepth;
        if (auto error = Error::cast(original)) {
            // Leaving an evaluation, the error also tells where the script was.
            if (origin != nullptr) describeCarriedException(*error, exception, origin);
            return *error;
        }
    }
    Error error = hostErrorOf(exception);
    describeException(error, exception, origin);
    return error;
}

Any from_python(PyObject* object) {
    if (object == nullptr || object == Py_None) return Any();
    if (object == Py_NotImplemented) return Undefined();
    GilGuard gil;
    return fromPythonLocked(object);
}

Any fromPythonLocked(PyObject* object) {
    if (object == nullptr || object == Py_None) return Any();
    if (object == Py_NotImplemented) return Undefined();
    // The commonest objects first. None of the tests before their own rows can match an exact
    // int, float or str, so answering them here gives what the full order of tests gives.
    if (PyLong_CheckExact(object)) return Integer(PyLong_AsLongLong(object));
    if (PyFloat_CheckExact(object)) return fromFloat(object);
    if (PyUnicode_CheckExact(object)) return stringFromUnicode(object);
    if (const Any* wrapped = wrappedHostValue(object)) return *wrapped;
    PyTypeObject* type = Py_TYPE(object);
    if (type == &PyBool_Type) return Boolean(object == Py_True);
    if (PyByteArray_Check(object)) {
        return ByteArray(PyByteArray_AsString(object), static_cast<std::size_t>(PyByteArray_Size(object)));
    }
    if (PyBytes_Check(object)) return ByteArray(PyBytes_AsString(object), static_cast<std::size_t>(PyBytes_Size(object)));
    if (reinterpret_cast<PyObject*>(type) == types().decimal.get()) return fromDecimal(object);
    if (PyFloat_Check(object)) return fromFloat(object);
    if (PyNumber_Check(object)) return fromNumber(object);
    if (PyObject_IsInstance(object, PyExc_Exception) == 1) return errorFromException(object);
    if (PyType_Check(object)) return classOfPythonType(object);
    if (PyCallable_Check(object)) return FunctionPython::fromCallable(object);
    if (PyUnicode_Check(object)) return stringFromUnicode(object);
    if (PyDict_Check(object)) return makeCollectionProxy(CollectionKind::Mapping, object);
    if ((type->tp_as_sequence != nullptr && type->tp_as_sequence->sq_item != nullptr) || PyList_Check(object)) {
        return makeCollectionProxy(CollectionKind::Sequence, object);
    }
    if (PySet_Check(object)) return makeCollectionProxy(CollectionKind::Set, object);
    if (type->tp_iter == nullptr) return fromNonIterable(object);
    return makeCollectionProxy(CollectionKind::Iterable, object);
}

Any from_python_result(PyObject* object) {
    GilGuard gil;
    return fromPythonResultLocked(object);
}

Any fromPythonResultLocked(PyObject* object) {
    Any value = fromPythonLocked(object);
    if (PyErr_Occurred() != nullptr) {
        auto pending = fetch_python_error();
        if (auto error = pending.get<Error>()) return *error;
    }
    return value;
}

}  // namespace tala::python

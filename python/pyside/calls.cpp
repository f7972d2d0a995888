// python/pyside/calls.cpp: calling wrapped host invokables from Python, by position or by name.
#include "pyside/calls.hpp"

#include <array>

#include "bridge/from_python.hpp"
#include "bridge/to_python.hpp"
#include "extension/gil.hpp"
#include "language/interruption.hpp"
#include "pyside/tala_object.hpp"

namespace tala::python {

namespace {

// Keyword arguments as a host map of names; pairs with an empty name are dropped.
std::optional<HashMap<String, Any>> namedArguments(PyObject* keywords) {
    HashMap<String, Any> named;
    PyObjectPtr items = PyObjectPtr::steal(PyObject_CallMethod(keywords, "items", nullptr));
    if (!items) return std::nullopt;
    PyObjectPtr iterator = PyObjectPtr::steal(PyObject_GetIter(items.get()));
    if (!iterator) return std::nullopt;
    while (PyObjectPtr pair = PyObjectPtr::steal(PyIter_Next(iterator.get()))) {
        PyObjectPtr key = PyObjectPtr::steal(PySequence_GetItem(pair.get(), 0));
        PyObjectPtr value = PyObjectPtr::steal(PySequence_GetItem(pair.get(), 1));
        if (!key || !value) {
            PyErr_Clear();
            continue;
        }
        const String name = String::cast(fromPythonLocked(key.get())).value_or(String());
        if (name.isEmpty()) continue;
        named.set(name, fromPythonLocked(value.get()));
        if (PyErr_Occurred() != nullptr) return std::nullopt;
    }
    if (PyErr_Occurred() != nullptr) return std::nullopt;
    return named;
}

// Runs `call` and gives its result to Python. A blocking function runs with the interpreter lock
// let go: other threads run Python meanwhile, and a thread this call waits for may need it too.
// When the evaluation is interrupted meanwhile, the call is asked to stop; the error it then
// gives reaches Python as the interruption.
template <class Call>
PyObject* resultOfCall(bool blocking, Call&& call) {
    if (!blocking) return toPythonLocked(call());
    Any result;
    const BlockingCall blockingCall;
    {
        const GilReleased released;
        result = call();
    }
    if (blockingCall.cancelled() && is_error_result(result) && raisePendingInterruption()) return nullptr;
    return toPythonLocked(result);
}

// Invokes with the arguments as they are: a function's cell is called in place (no copy of the
// wrapped value, so no shared count moves); a class is invoked as itself. A blocking call holds
// the function while the lock is let go: a cell that only its wrapper holds is open to the cycle
// collector of another thread (cycles.cpp), which must not walk what the call uses.
PyObject* invoke(const Any& value, std::span<const Any> arguments) {
    if (value.kind() == Kind::Function) {
        const auto* function = value.cellAs<internal::FunctionCell>();
        if (!function->isBlocking()) return toPythonLocked(function->call(arguments));
        const Any held = value;
        return resultOfCall(true, [&] { return function->call(arguments); });
    }
    return toPythonLocked(I_Invokable_Generic(internal::unchecked, value).invokeWith(arguments));
}

PyObject* callPositional(const Any& value, PyObject* arguments) {
    const Py_ssize_t count = arguments == nullptr ? 0 : PyTuple_GET_SIZE(arguments);
    // Small calls convert onto the stack: no list cell, no vector.
    constexpr Py_ssize_t kInline = 8;
    if (count <= kInline) {
        std::array<Any, kInline> values;
        for (Py_ssize_t index = 0; index < count; ++index) values[index] = fromPythonLocked(PyTuple_GET_ITEM(arguments, index));
        if (PyErr_Occurred() != nullptr) return nullptr;  // an int beyond 64 bits: raise, don't pass -1 on
        return invoke(value, std::span<const Any>(values.data(), static_cast<std::size_t>(count)));
    }
    List<Any> values;
    values.reserve(static_cast<std::size_t>(count));
    for (Py_ssize_t index = 0; index < count; ++index) values.append(fromPythonLocked(PyTuple_GET_ITEM(arguments, index)));
    if (PyErr_Occurred() != nullptr) return nullptr;
    return invoke(value, values.items());
}

PyObject* call(PyObject* self, PyObject* arguments, PyObject* keywords) {
    GilGuard gil;
    const Any* wrapped = wrappedHostValue(self);
    if (wrapped == nullptr) {
        PyErr_SetString(PyExc_RuntimeError, "Non-callable object: None");
        return nullptr;
    }
    // The caller keeps `self` alive for the whole call, and a wrapper's value never changes, so
    // the value is used where it is.
    const Any& value = *wrapped;
    if (Error::matches(value)) return toPythonLocked(value);
    if (!I_Invokable_Generic::matches(value)) {
        PyErr_Format(PyExc_RuntimeError, "Non-callable object: %s", display(value).c_str());
        return nullptr;
    }
    // Any keyword argument makes the call a call by name only: the positional arguments are
    // not passed at all.
    if (keywords != nullptr) {
        auto named = namedArguments(keywords);
        if (!named) return nullptr;
        if (!named->isEmpty()) {
            const I_Invokable_Generic invokable(internal::unchecked, value);
            return resultOfCall(invokable.isBlocking(), [&] { return invokable.invokeWith(*named); });
        }
    }
    return callPositional(value, arguments);
}

}  // namespace

PyObject* callSlot(PyObject* self, PyObject* arguments, PyObject* keywords) noexcept {
    try {
        return call(self, arguments, keywords);
    } catch (const std::exception& error) {
        PyErr_SetString(PyExc_RuntimeError, error.what());
        return nullptr;
    }
}

}  // namespace tala::python

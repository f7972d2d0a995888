// python/pyside/slot_guard.hpp: the noexcept shell around every slot of the wrapper types.
#pragma once

#include <Python.h>

#include <exception>

namespace tala::python {

// Runs a slot's body; a C++ exception becomes a RuntimeError and the slot's failure value, so
// that no exception ever unwinds into the interpreter.
template <class Result, class Body>
Result guarded(Result failure, Body&& body) noexcept {
    try {
        return body();
    } catch (const std::exception& error) {
        PyErr_SetString(PyExc_RuntimeError, error.what());
        return failure;
    } catch (...) {
        PyErr_SetString(PyExc_RuntimeError, "Unknown native exception.");
        return failure;
    }
}

}  // namespace tala::python

// python/functions/function_python.hpp: Python callables as host invokables.
#pragma once

#include <Python.h>

#include "tala/tala.hpp"

namespace tala {

// A Python callable held by the host as one of its functions (kind 7). Calling it converts the
// arguments into Python, calls, and converts the result back; a Python exception comes back as
// the host error.
class FunctionPython : public internal::View<FunctionPython> {
public:
    using View::View;
    static bool matches(const Any& value);

    // A function around a callable (a new reference is kept); "The source object isn't a
    // function." for anything else.
    static Union<FunctionPython, Error> fromCallable(PyObject* callable);
    // A function compiled from source: a `lambda` expression, a `def` statement, or a bare body
    // (which becomes `def func(*args):` around it).
    static Union<FunctionPython, Error> fromSource(const String& source);

    static Class_Generic getClass();
};

namespace python {
// The callable a FunctionPython holds (borrowed), or null.
PyObject* pythonCallableOf(const Any& function);
}  // namespace python

}  // namespace tala

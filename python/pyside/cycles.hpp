// python/pyside/cycles.hpp: the wrapper types in Python's cycle collection, seeing the Python objects that host values hold.
#pragma once

#include <Python.h>

namespace tala::python {

class Interpreter;

// The tag of references into the heap of the interpreter `owner` (the object's interpreter) that
// host cells report to walkers (tala::ChildVisitor::foreign): the callable of a FunctionPython,
// the object of a proxy. Each interpreter of the isolated layout is a heap of its own, and a
// collection walks only its own; in the shared layout there is one.
const void* pythonHeapTag(const Interpreter* owner) noexcept;

// tp_traverse of the wrapper types: the wrapper's type, and the Python objects that its host
// value holds where the wrapper alone holds the way to them (the rule is in cycles.cpp).
int traverseWrapper(PyObject* self, visitproc visit, void* arg) noexcept;

// tp_clear of the wrapper types: lets go of the host value. The wrapper wraps nothing afterwards,
// which every slot takes as it takes a wrapper whose creation failed half way.
int clearWrapper(PyObject* self) noexcept;

}  // namespace tala::python

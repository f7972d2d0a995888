// python/proxies/python_type.cpp: Python classes seen as host classes.
#include "bridge/to_python.hpp"

namespace tala::python {

PyObject* pythonTypeOfClassView(const Class_Generic&) { return nullptr; }

}  // namespace tala::python

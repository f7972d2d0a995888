// python/proxies/python_proxy.cpp: host proxies of Python objects.
#include "bridge/to_python.hpp"

namespace tala::python {

PyObject* pythonObjectOfProxy(const Any&) { return nullptr; }

}  // namespace tala::python

// python/bridge/exception_bases.cpp: the builtin Python exceptions that the exception type of a host error class derives from.
#include "bridge/exception_bases.hpp"

namespace tala::python {

// Every exception type made for a host error class derives from RuntimeError alone (see
// exception_type_for); the stub generator writes these names as the bases of error classes.
std::vector<std::string> pythonExceptionBases(const Class_Generic&) { return {"RuntimeError"}; }

}  // namespace tala::python

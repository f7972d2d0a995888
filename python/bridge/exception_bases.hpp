// python/bridge/exception_bases.hpp: the builtin Python exceptions that the exception type of a host error class derives from.
#pragma once

#include <string>
#include <vector>

#include "tala/tala.hpp"

namespace tala::python {

// The names of the builtin exceptions that the exception type made for `errorClass` derives
// from, in order: "RuntimeError" first, for every host error class.
std::vector<std::string> pythonExceptionBases(const Class_Generic& errorClass);

}  // namespace tala::python

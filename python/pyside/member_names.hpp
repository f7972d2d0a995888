// python/pyside/member_names.hpp: attribute names from Python as text and as host identifiers.
#pragma once

#include <Python.h>

#include <optional>
#include <string_view>

#include "tala/identifier.hpp"

namespace tala::python {

// The UTF-8 text of a Python str (valid while the str lives), or nothing with the error set.
std::optional<std::string_view> utf8Of(PyObject* name);

// The host identifier for an attribute name. Attribute names are nearly always the same few
// interned strs, so the answer is remembered per str object (which the cache keeps alive), and
// a hot attribute costs one pointer-keyed probe instead of hashing its text. Interpreter lock held.
Identifier identifierOf(PyObject* name, std::string_view text);

}  // namespace tala::python

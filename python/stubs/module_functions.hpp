// python/stubs/module_functions.hpp: the module functions of "tala.python" that import by dotted path and write stubs.
#pragma once

#include "tala/tala.hpp"

namespace tala::python {

// The Python module or module-level object at the dotted `path`: "a.b.c" imports the module
// "a.b" and looks up "c" in its own dictionary (no attribute look-up, no import of a
// sub-module); a path without a dot is a module. The empty path gives the empty value without
// touching Python. Errors: the import's Python exception ("Unable to find the module: {}." when
// none is pending), "Unable to get the module dict: {}." and "Unable to find the object: {}."
// (with the whole path).
Union<Any, Lazy<Any>, Error> python_import(const String& path);

// The stub text of a host module (see generate_stubs).
String python_generate_stubs(const Module& module);

// The typed stubs of a stub package for a host module, by module name (see
// generate_typed_stub_package): what `tala stubs --out` writes for type checkers and editors.
HashMap<String, String> python_generate_typed_stubs(const Module& module);

}  // namespace tala::python

// python/language/namespace.hpp: the host's modules as Python names.
#pragma once

#include <Python.h>

#include "extension/gil.hpp"

namespace tala::python {

// A new dict (a new reference) of the host's modules: every top-level module that is not
// marked internal under its name, and the classes and functions of modules marked inlined
// under their own names; a later module wins a name. The caller holds the interpreter lock.
PyObject* buildHostNamespace();

// The globals every evaluation starts from: the host namespace, "__name__" set to "__main__"
// and "__builtins__". Built once and again only when the host's modules changed; each evaluation takes
// a copy (`evaluationGlobals`). The caller holds the interpreter lock.
PyObjectPtr evaluationGlobals();

}  // namespace tala::python

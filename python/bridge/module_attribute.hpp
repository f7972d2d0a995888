// python/bridge/module_attribute.hpp: looking up a standard module's type once.
#pragma once

#include <Python.h>

namespace tala::python {

// The attribute `name` of the module `moduleName`, borrowed from the module's dictionary: the
// module stays alive in sys.modules, so the reference stays valid. Null (no error left set)
// when the import or the look-up fails. The caller holds the interpreter lock.
PyObject* moduleAttribute(const char* moduleName, const char* name);

}  // namespace tala::python

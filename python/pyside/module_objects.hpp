// python/pyside/module_objects.hpp: one Python object per registered host module, and the attributes Python's import system keeps on it.
#pragma once

#include <Python.h>

#include <optional>
#include <string_view>

#include "tala/tala.hpp"

namespace tala::python {

// The Python object of a host module (a new reference). A registered module (the one
// Module::find gives for its name) has one object for the life of the process, so that the
// module a script sees by name, the one `import` gives and the one read as its parent's member
// are the same object; any other module is wrapped anew, as any host value is. Null with the
// Python error set when the wrapper cannot be made. Interpreter lock held.
PyObject* hostModuleObject(const Module& module);

// The attributes that Python's import system reads and writes on a module (`__spec__`,
// `__loader__`, `__package__`, `__path__`, `__file__`, `__cached__`) are kept on the Python
// side of a registered host module: they describe how Python found it, and the host module
// itself does not change. Interpreter lock held.
//
// The attribute `name` of the module `value` when it is one of those and was set (a new
// reference); null, with no error set, otherwise.
PyObject* readModuleImportAttribute(const Any& value, std::string_view name);

// Writes or deletes (`newValue` null) an attribute of a registered host module when the write is
// one the module answers itself: one of the import attributes above; `__name__`, which may be
// written only with the module's own name (AttributeError otherwise, which the import system
// expects); or a member set to the very host module it holds already (Python's import system
// sets each child module on its parent). Answers 0, or -1 with the Python error set; nothing
// when the write goes to the host as any other does.
std::optional<int> writeModuleAttribute(const Any& value, PyObject* name, std::string_view text, PyObject* newValue);

}  // namespace tala::python

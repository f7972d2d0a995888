// python/proxies/module_python.hpp: imported Python modules seen as host modules.
#pragma once

#include <Python.h>

#include <optional>

#include "extension/gil.hpp"
#include "tala/tala.hpp"

namespace tala {

// A Python module as a host module: its public classes and callables are its members (and fill
// classes() and functions()), its __doc__ is its documentation, and, being a PythonProxy too, it
// keeps the module object in the field `_pyobj` with one strong reference. The members are
// fixed when it is made: names the Python module gains later are not added.
class ModulePython : public Module {
public:
    // Walks the module's dictionary under the interpreter lock, which it takes itself. Exported
    // are the entries whose name does not begin with "_" and whose value is a class or a
    // callable. With `ownClass` the module value is the one instance of a class of its own, named
    // "Module" and derived from ModulePython, whose class properties are the exported members;
    // without, the exported members are inserted into the module value itself.
    ModulePython(const String& name, python::PyObjectPtr_Borrowed module, bool ownClass);
    ModulePython(internal::Unchecked, const Any& value) noexcept : Module(internal::unchecked, value) {}

    static bool matches(const Any& value);
    static std::optional<ModulePython> cast(const Any& value);
    static Class_Generic getClass();
};

}  // namespace tala

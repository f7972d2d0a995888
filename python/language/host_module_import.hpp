// python/language/host_module_import.hpp: `import` of the host's modules, through a finder on Python's meta path.
#pragma once

namespace tala::python {

// Puts the finder of host modules on `sys.meta_path`, once per process: `import sqlite`,
// `import tala.python` and `from sqlite import Database` then give the very objects that
// scripts see by name (see hostModuleObject). The finder answers for every registered module
// that is not marked internal, from the moment it is registered, after Python's built-in and
// frozen modules and before the modules on `sys.path`, so that a package of the same name on
// the path does not hide a host module; a name of Python's standard library
// (`sys.stdlib_module_names`) is always Python's. Its specs say origin "host", with no file and
// an empty `__path__`; loading changes nothing in the module, so `importlib.reload` gives it
// back as it is, as for a built-in module. Takes the interpreter lock itself; a failure leaves
// `import` as it was and is not reported (there is nowhere to report it at start-up).
void installHostModuleImport();
// The same for the interpreter the calling thread runs in (a new isolated one), whose lock it
// holds.
void installHostModuleImportHere();

}  // namespace tala::python

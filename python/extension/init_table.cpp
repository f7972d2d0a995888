// python/extension/init_table.cpp: everything the extension registers with the host at start-up, in one place.
//
// Priorities: 1 class registrations, 2 the logging bridge (which normally starts the
// interpreter), 3 the documentation of module "tala.python", 4 the module functions.
#include "extension/identifiers.hpp"
#include "extension/interpreter.hpp"
#include "extension/sys_path.hpp"
#include "functions/function_python.hpp"
#include "proxies/python_proxy.hpp"
#include "tala/init.hpp"
#include "tala/module.hpp"

namespace tala::python {

namespace {

Module pythonModule() { return Module::create("tala.python"); }

void registerModuleFunctions() {
    pythonModule().addFunction(
        String("python_add_sys_path"),
        native_function([](const String& path) { return python_add_sys_path(path); }, "python_add_sys_path", {"path"},
                        "Adds a path to sys.path once."));
}

// The interpreter normally starts here, while the host runs the init handlers.
void startInterpreter() { (void)ensurePythonOnce(); }

template <class T>
void registerClass() {
    (void)T::getClass();
}

[[maybe_unused]] const bool g_registered = [] {
    internal::add_init_handler(1, registerClass<FunctionPython>);
    internal::add_init_handler(1, registerClass<PythonProxy>);
    internal::add_init_handler(1, registerClass<PythonProxyIterable>);
    internal::add_init_handler(1, registerClass<PythonProxyIterator>);
    internal::add_init_handler(1, registerClass<PythonProxyMapping>);
    internal::add_init_handler(1, registerClass<PythonProxySequence>);
    internal::add_init_handler(1, registerClass<PythonProxySet>);
    // Appended to the list itself rather than through add_init_handler: the same entry either way.
    internal::init_handlers_unsafe().emplace_back(2, startInterpreter);
    internal::add_init_handler(4, registerModuleFunctions);
    return true;
}();

}  // namespace

}  // namespace tala::python

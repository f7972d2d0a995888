// python/extension/init_table.cpp: everything the extension registers with the host at start-up, in one place.
//
// Priorities: 1 class registrations, 2 the logging bridge (which normally starts the
// interpreter), 3 the documentation of module "tala.python", 4 the module functions.
#include "extension/init_table.hpp"

#include <optional>

#include "extension/identifiers.hpp"
#include "extension/logging_bridge.hpp"
#include "extension/sys_path.hpp"
#include "functions/function_python.hpp"
#include "language/evaluation_arguments.hpp"
#include "language/language_python.hpp"
#include "proxies/module_python.hpp"
#include "proxies/python_proxy.hpp"
#include "stubs/module_functions.hpp"
#include "tala/init.hpp"
#include "tala/module.hpp"

namespace tala::python {

namespace {

Module pythonModule() { return Module::create("tala.python"); }

// The maps of the evaluation functions are trailing parameters that callers may leave out, from
// C++ and from Python (`tala.python.evaluate_expr("1 + 1")`), as the language object's methods
// may: left out is None, as passing None is.
using OptionalMap = std::optional<Any>;

template <class T>
void registerClass() {
    (void)T::getClass();
}

void describeModule() {
    const Module module = pythonModule();
    module.setDoc(String("Python language support: evaluation of Python code against host values, the bridge between "
                         "host values and Python objects, Python modules as host modules, and stubs for host modules."));
    // The module's own, in front of the one every module inherits: read from the module each
    // time, so that the property and Module::doc() never disagree.
    module.addProperty(Property(Any::$$doc, native_function([](const Module& self) { return self.doc(); }, "doc", {},
                                                            String(), false),
                                Any(), String("The module's documentation.")));
}

void registerEvaluate() {
    pythonModule().addFunction(
        String("evaluate"),
        native_function([](const String& code, const OptionalMap& locals, const OptionalMap& globals,
                           const OptionalMap& outLocals) {
            return evaluateMethodWithArguments(Any(), code, locals.value_or(Any()), globals.value_or(Any()),
                                               outLocals.value_or(Any()));
        }, "evaluate", {"code", "locals", "globals", "outLocals"},
                        "Runs Python code; what it returns is the result, and the names of outLocals are written back "
                        "into that map."));
}

void registerEvaluateExpr() {
    pythonModule().addFunction(
        String("evaluate_expr"),
        native_function([](const String& code, const OptionalMap& locals, const OptionalMap& globals) {
            return evaluateExprWithArguments(code, locals.value_or(Any()), globals.value_or(Any()));
        }, "evaluate_expr", {"code", "locals", "globals"}, "Evaluates a Python expression."));
}

void registerEvaluateMethod() {
    pythonModule().addFunction(
        String("evaluate_method"),
        native_function([](const Any& self, const String& code, const OptionalMap& locals, const OptionalMap& globals,
                           const OptionalMap& outLocals) {
            return evaluateMethodWithArguments(self, code, locals.value_or(Any()), globals.value_or(Any()),
                                               outLocals.value_or(Any()));
        }, "evaluate_method", {"self", "code", "locals", "globals", "outLocals"},
                        "Runs Python code with `self` bound to a host value."));
}

void registerAddSysPath() {
    pythonModule().addFunction(String("python_add_sys_path"),
                               native_function([](const String& path) { return python_add_sys_path(path); },
                                               "python_add_sys_path", {"path"}, "Adds a path to sys.path once."));
}

void registerGenerateStubs() {
    pythonModule().addFunction(String("python_generate_stubs"),
                               native_function([](const Module& module) { return python_generate_stubs(module); },
                                               "python_generate_stubs", {"module"},
                                               "Generates Python stubs for the given TALA module."));
}

void registerImport() {
    pythonModule().addFunction(String("python_import"),
                               native_function([](const String& path) { return python_import(path); }, "python_import",
                                               {"path"}, "Imports python module or object."));
}

constexpr InitEntry kLoggingBridge{2, "the logging bridge", installLoggingBridge};

constexpr InitEntry kInitTable[] = {
    {1, "class FunctionPython", registerClass<FunctionPython>},
    {1, "class LanguagePython", registerClass<LanguagePython>},
    {1, "class ModulePython", registerClass<ModulePython>},
    {1, "class PythonProxy", registerClass<PythonProxy>},
    {1, "class PythonProxyIterable", registerClass<PythonProxyIterable>},
    {1, "class PythonProxyIterator", registerClass<PythonProxyIterator>},
    {1, "class PythonProxyMapping", registerClass<PythonProxyMapping>},
    {1, "class PythonProxySequence", registerClass<PythonProxySequence>},
    {1, "class PythonProxySet", registerClass<PythonProxySet>},
    kLoggingBridge,
    {3, "doc of module tala.python", describeModule},
    {4, "function evaluate", registerEvaluate},
    {4, "function evaluate_expr", registerEvaluateExpr},
    {4, "function evaluate_method", registerEvaluateMethod},
    {4, "function python_add_sys_path", registerAddSysPath},
    {4, "function python_generate_stubs", registerGenerateStubs},
    {4, "function python_import", registerImport},
};

[[maybe_unused]] const bool g_registered = [] {
    for (const InitEntry& entry : kInitTable) {
        if (entry.handler == kLoggingBridge.handler) {
            // Appended to the list itself rather than through add_init_handler: the same entry
            // either way.
            internal::init_handlers_unsafe().emplace_back(entry.priority, entry.handler);
        } else {
            internal::add_init_handler(entry.priority, entry.handler);
        }
    }
    return true;
}();

}  // namespace

std::span<const InitEntry> initTable() { return kInitTable; }

}  // namespace tala::python

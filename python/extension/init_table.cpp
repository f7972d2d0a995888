// python/extension/init_table.cpp: everything the extension registers with the host at start-up, in one place.
//
// Priorities: 1 class registrations, 2 the logging bridge (which normally starts the
// interpreter), 3 the documentation of module "tala.python", 4 the module functions.
#include "extension/identifiers.hpp"
#include "extension/interpreter.hpp"
#include "extension/logging_bridge.hpp"
#include "language/evaluate.hpp"
#include "language/interruption.hpp"
#include "extension/sys_path.hpp"
#include "functions/function_python.hpp"
#include "proxies/python_proxy.hpp"
#include "tala/init.hpp"
#include "tala/module.hpp"

namespace tala::python {

namespace {

Module pythonModule() { return Module::create("tala.python"); }

// A map argument: a host map, or None for "no map".
std::optional<Union<I_Map<String, Any>, None>> mapArgument(const Any& value) {
    if (value.isEmpty()) return Union<I_Map<String, Any>, None>(None());
    if (I_Map_Generic::matches(value)) return Union<I_Map<String, Any>, None>(internal::unchecked, value);
    return std::nullopt;
}

std::optional<Union<I_MutableMap<String, Any>, None>> mutableMapArgument(const Any& value) {
    if (value.isEmpty()) return Union<I_MutableMap<String, Any>, None>(None());
    if (I_MutableMap_Generic::matches(value)) return Union<I_MutableMap<String, Any>, None>(internal::unchecked, value);
    return std::nullopt;
}

Error notAMap(const char* parameter, const Any& value) {
    return Error(String("The argument '{}' must be a map or None, got {}.").arg(String(parameter), display(value)));
}

Any evaluateMethod(const Any& self, const String& code, const Any& locals, const Any& globals, const Any& outLocals) {
    auto localMap = mapArgument(locals);
    if (!localMap) return notAMap("locals", locals);
    auto globalMap = mapArgument(globals);
    if (!globalMap) return notAMap("globals", globals);
    auto outMap = mutableMapArgument(outLocals);
    if (!outMap) return notAMap("outLocals", outLocals);
    return resolve(language_python_evaluate_method(self, code, *localMap, *globalMap, *outMap));
}

void registerModuleFunctions() {
    const Module module = pythonModule();
    module.addFunction(String("evaluate"),
                       native_function([](const String& code, const Any& locals, const Any& globals, const Any& outLocals) {
                           return evaluateMethod(Any(), code, locals, globals, outLocals);
                       }, "evaluate", {"code", "locals", "globals", "outLocals"},
                                       "Runs Python code; what it returns is the result, and the names of outLocals are "
                                       "written back into that map."));
    module.addFunction(String("evaluate_expr"),
                       native_function([](const String& code, const Any& locals, const Any& globals) -> Any {
                           auto localMap = mapArgument(locals);
                           if (!localMap) return notAMap("locals", locals);
                           auto globalMap = mapArgument(globals);
                           if (!globalMap) return notAMap("globals", globals);
                           return evaluate_expr(code, *localMap, *globalMap);
                       }, "evaluate_expr", {"code", "locals", "globals"}, "Evaluates a Python expression."));
    module.addFunction(String("evaluate_method"),
                       native_function([](const Any& self, const String& code, const Any& locals, const Any& globals,
                                          const Any& outLocals) { return evaluateMethod(self, code, locals, globals, outLocals); },
                                       "evaluate_method", {"self", "code", "locals", "globals", "outLocals"},
                                       "Runs Python code with `self` bound to a host value."));
    module.addFunction(
        String("python_add_sys_path"),
        native_function([](const String& path) { return python_add_sys_path(path); }, "python_add_sys_path", {"path"},
                        "Adds a path to sys.path once."));
    module.addFunction(String("python_thread_id"),
                       native_function([] { return Integer(currentThreadId()); }, "python_thread_id", {},
                                       "The identifier of the calling thread, as python_interrupt takes it."));
    module.addFunction(String("python_interrupt"),
                       native_function([](const Integer& threadId) { return Boolean(interruptEvaluation(threadId.value())); },
                                       "python_interrupt", {"threadId"},
                                       "Stops the Python evaluation running on the thread with that identifier "
                                       "(python_thread_id of that thread): it ends with an error that says it was "
                                       "interrupted. Answers whether an evaluation was running there."));
}


void describeModule() {
    pythonModule().setDoc(String("Python language support: evaluation of Python code against host values, and the bridge "
                                 "between host values and Python objects."));
}

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
    internal::init_handlers_unsafe().emplace_back(2, installLoggingBridge);
    internal::add_init_handler(3, describeModule);
    internal::add_init_handler(4, registerModuleFunctions);
    return true;
}();

}  // namespace

}  // namespace tala::python

// python/language/language_python.cpp: LanguagePython, the language description on host module "python", and the catalogue of Python modules.
#include "language/language_python.hpp"

#include "language/interruption.hpp"

#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "bridge/errors.hpp"
#include "extension/gil.hpp"
#include "extension/identifiers.hpp"
#include "extension/interpreter.hpp"
#include "extension/registration_hook.hpp"
#include "language/evaluate.hpp"
#include "language/evaluation_arguments.hpp"
#include "proxies/module_python.hpp"
#include "stubs/module_functions.hpp"

namespace tala {

namespace python {

const char* const kLanguageName = "python";
// The three characters after "Python" are the UTF-8 bytes of an apostrophe read as Windows-1252
// and encoded again; hosts show the description exactly as given, so it is kept so.
const char* const kLanguageDescription =
    "Python is an easy to learn, powerful programming language. It has efficient high-level data structures and a "
    "simple but effective approach to object-oriented programming. Python\u00e2\u20ac\u2122s elegant syntax and "
    "dynamic typing, together with its interpreted nature, make it an ideal language for scripting and rapid "
    "application development in many areas on most platforms.";
const char* const kLanguageIcon = ":/tala/icons/py.svg";

namespace {

constexpr StandardModule kStandardModules[] = {
    {"python.builtins", "builtins"}, {"python.collections", "collections"},
    {"python.collections.abc", "collections.abc"}, {"python.datetime", "datetime"},
    {"python.decimal", "decimal"},   {"python.sys", "sys"},
    {"python.types", "types"},       {"python.typing", "typing"},
};

const char* const kListModulesProgram = "import pkgutil\nreturn list(pkgutil.iter_modules())";
const char* const kListSubmodulesProgram =
    "import pkgutil\npath = getattr( pp, '__path__', None )\nif path:\n    return list( pkgutil.iter_modules( path ) )\nreturn list()";

Module languageModule() { return Module::create(kLanguageName); }

// Host module name -> the ModulePython made for it. Made once: each one declares the classes of
// its Python module, and a Python module, once imported, stays for the life of the process
// anyway. Entries are never removed; `mutex` guards the map and is never held while Python runs.
struct MadeModules {
    std::mutex mutex;
    std::unordered_map<std::string, Any> modules;
};

MadeModules& madeModules() {
    static auto* made = new MadeModules();
    return *made;
}

// The items of a host sequence (a proxy of a Python list), or the error that reading gave.
Any itemsOf(const Any& sequence, std::vector<Any>& into) {
    auto items = I_Sequence_Generic::cast(sequence);
    if (!items) return Error(String("Expected a list, got {}.").arg(display(sequence)));
    const Any length = resolve(items->length());
    if (is_error_result(length)) return length;
    for (std::int64_t index = 0; length.kind() == Kind::Integer && index < length.rawInteger(); ++index) {
        Any item = resolve(items->at(index));
        if (is_error_result(item)) return item;
        into.push_back(std::move(item));
    }
    return Any();
}

// The property "name" of a pkgutil.ModuleInfo, or the empty string.
String nameOf(const Any& moduleInfo) {
    auto property = property_of(moduleInfo, "name");
    if (property.isEmpty()) return String();
    return String::cast(resolve(property.as<Property>().get(moduleInfo))).value_or(String());
}

bool isListedModule(const String& name) {
    return !name.isEmpty() && !name.startsWith("_") && name != "builtins" && name != "this" && name != "antigravity";
}

// Host module name -> the Python module it is declared for. Entries are never removed (a
// declaration again replaces its own); `mutex` guards the map and is never held while Python runs.
struct DeclaredModules {
    std::mutex mutex;
    std::unordered_map<std::string, std::string> pythonNames;
};

DeclaredModules& declaredModules() {
    static auto* declared = new DeclaredModules();
    return *declared;
}

// Declares the host module `hostName` on `module`: the Python module is imported and made into
// a ModulePython when the member is first read.
void declareIn(const Module& module, const String& hostName, const String& pythonName) {
    {
        DeclaredModules& declared = declaredModules();
        std::lock_guard lock(declared.mutex);
        declared.pythonNames[hostName.toStdString()] = pythonName.toStdString();
    }
    module.addLazyModule(hostName, [hostName, pythonName] { return modulePythonFor(hostName, pythonName); });
}

}  // namespace

std::span<const StandardModule> standardModules() { return kStandardModules; }

void declarePythonModule(const String& hostName, const String& pythonName) {
    declareIn(languageModule(), hostName, pythonName);
}

std::optional<String> declaredPythonModule(const String& hostName) {
    DeclaredModules& declared = declaredModules();
    std::lock_guard lock(declared.mutex);
    auto found = declared.pythonNames.find(hostName.toStdString());
    if (found == declared.pythonNames.end()) return std::nullopt;
    return String(found->second);
}

void describeLanguage() {
    const Module module = languageModule();
    // Its name is the module's own ("python"); the description is its documentation too.
    module.setDoc(String(kLanguageDescription));
    module.setValue(Identifier("$$description"), String(kLanguageDescription));
    module.setValue(Identifier("$$icon"), String(kLanguageIcon));
    for (const StandardModule& standard : kStandardModules) {
        declareIn(module, String(standard.hostName), String(standard.pythonName));
    }
}

Any modulePythonFor(const String& hostName, const String& pythonName) {
    MadeModules& made = madeModules();
    const std::string key(hostName.view());
    {
        std::lock_guard lock(made.mutex);
        if (auto found = made.modules.find(key); found != made.modules.end()) return found->second;
    }
    (void)ensurePythonOnce();
    GilGuard gil;
    PyObjectPtr imported = PyObjectPtr::steal(PyImport_ImportModule(pythonName.c_str()));
    if (!imported) return fetch_python_error_or("Unable to import the module.");
    const ModulePython module(hostName, imported.borrowed(), true);
    std::lock_guard lock(made.mutex);
    // Two first readers may both have made one (the import lets go of the lock): the first kept
    // is the one every reader gets.
    return made.modules.emplace(key, module).first->second;
}

Any importAllModules() {
    (void)ensurePythonOnce();
    GilGuard gil;
    const Module module = languageModule();
    const Any listed = evaluate(String(kListModulesProgram), None(), None(), None());
    if (is_error_result(listed)) return listed;
    std::vector<Any> infos;
    if (Any failed = itemsOf(listed, infos); is_error_result(failed)) return failed;
    for (const Any& info : infos) {
        const String name = nameOf(info);
        if (!isListedModule(name)) continue;
        declareIn(module, String::join({std::string_view(kLanguageName), name.view()}, "."), name);
    }
    return Any();
}

Any submoduleNames(const Any& package) {
    HashMap<String, Any> locals;
    locals.set(String("pp"), package);
    const Any listed = evaluate(String(kListSubmodulesProgram), Union<I_Map<String, Any>, None>(internal::unchecked, locals),
                                None(), None());
    if (is_error_result(listed)) return listed;
    std::vector<Any> infos;
    if (Any failed = itemsOf(listed, infos); is_error_result(failed)) return failed;
    List<String> names;
    for (const Any& info : infos) names.append(nameOf(info));
    return names;
}

}  // namespace python

namespace {

// The text of a `code` argument: a string, or bytes holding UTF-8 text (as C++ callers pass it).
std::optional<String> codeText(const Any& code) {
    if (auto text = String::cast(code)) return *text;
    if (auto bytes = ByteArray::cast(code)) return String(bytes->view());
    return std::nullopt;
}

Error notCode(const Any& code) {
    return Error(String("The argument 'code' must be a text, got {}.").arg(display(code)));
}

Any evaluateExpression(const Any& code, const std::optional<Any>& locals, const std::optional<Any>& globals) {
    auto text = codeText(code);
    if (!text) return notCode(code);
    return python::evaluateExprWithArguments(*text, locals.value_or(Any()), globals.value_or(Any()));
}

Any evaluateCode(const Any& self, const Any& code, const std::optional<Any>& locals, const std::optional<Any>& globals,
                 const std::optional<Any>& outLocals) {
    auto text = codeText(code);
    if (!text) return notCode(code);
    return python::evaluateMethodWithArguments(self, *text, locals.value_or(Any()), globals.value_or(Any()),
                                               outLocals.value_or(Any()));
}

// LanguagePython.interrupt(threadId, graceSeconds = 1).
Union<Boolean, Error> interrupt(const Integer& threadId, const std::optional<Any>& graceSeconds) {
    double grace = python::kDefaultGraceSeconds;
    if (graceSeconds && !graceSeconds->isEmpty()) {
        const Any& given = *graceSeconds;
        if (given.kind() == Kind::Integer) {
            grace = static_cast<double>(given.rawInteger());
        } else if (given.kind() == Kind::Float) {
            grace = Float(internal::unchecked, given).value();
        } else {
            grace = -1;
        }
        if (!(grace >= 0)) {
            return Error(String("The grace period must be a number of seconds, not {}.").arg(display(given)));
        }
    }
    return Boolean(python::interruptEvaluation(threadId.value(), grace));
}

List<String> examples() {
    return List<String>{String("LanguagePython::evaluateExpression( u\"[1, 2, 3]\"_bytea );"),
                        String("tala.python.LanguagePython.evaluateExpression( '[1, 2, 3]' )")};
}

}  // namespace

bool LanguagePython::matches(const Any& value) { return internal::is_instance_of(value, getClass()); }

Class_Generic LanguagePython::getClass() {
    static const ClassRegistration registration("LanguagePython", [] {
        python::testing::runRegistrationHook("LanguagePython");
        const Class_Generic cls =
            ClassBuilder("LanguagePython")
                .doc("Implementation of 'I_Language' interface for Python language.")
                .parent(I_Language::getClass())
                .property(Property(Identifier("$$examples"), constant_function(examples(), List<String>::getType()), Any(),
                                   String("Usage examples.")))
                // The maps may be left out, as callers write `evaluateExpression('[1, 2, 3]')`.
                .staticMethod(Identifier("$evaluateExpression"), evaluateExpression, {"code", "locals", "globals"},
                              "Evaluates a Python expression with the given locals and globals (maps or None).")
                .staticMethod(Identifier("$evaluate"),
                              [](const Any& code, const std::optional<Any>& locals, const std::optional<Any>& globals,
                                 const std::optional<Any>& outLocals) {
                                  return evaluateCode(Any(), code, locals, globals, outLocals);
                              },
                              {"code", "locals", "globals", "outLocals"},
                              "Runs Python code; what it returns is the result, and the names of outLocals are "
                              "written back into that map.")
                .staticMethod(Identifier("$evaluateMethod"), evaluateCode, {"self", "code", "locals", "globals", "outLocals"},
                              "Runs Python code with `self` bound to a host value.")
                .staticMethod(python::$importAllModules,
                              [] { return Union<None, Lazy<None>, Error>(internal::unchecked, python::importAllModules()); },
                              {}, "Imports all standard python modules.")
                .staticMethod(Identifier("$submoduleNames"),
                              [](const Any& package) {
                                  return Union<List<String>, Lazy<List<String>>, Error>(internal::unchecked,
                                                                                        python::submoduleNames(package));
                              },
                              {"package"}, "The names of the modules of a Python package, as pkgutil lists them.")
                // Stopping an evaluation belongs to the language, as evaluating does: a host that
                // holds LanguagePython can stop what it started.
                .staticMethod(Identifier("$threadId"), [] { return Integer(python::currentThreadId()); }, {},
                              "The identifier of the calling thread, as interrupt takes it.")
                .staticMethod(Identifier("$interrupt"), interrupt, {"threadId", "graceSeconds"},
                              "Stops the Python evaluation running on the thread with that identifier (threadId() of "
                              "that thread): it sees a tala.python.Interrupted exception once, where it runs (also in "
                              "a wait of Python's in C on the interpreter's main thread, and in a blocking host "
                              "function that can be stopped), and its except and finally blocks run; code still "
                              "running graceSeconds later (1 by default) is interrupted again at every jump. The "
                              "evaluation ends with the interruption's error whatever the code does. Interrupting it "
                              "again ends the grace period at once. Answers whether an evaluation was running there; "
                              "on a thread that runs none it does nothing.")
                // The stub package editors read: a tool of the language's, like the catalogue
                // above, beside the module functions rather than among them.
                .staticMethod(Identifier("$generateTypedStubs"),
                              [](const Module& module) { return python::python_generate_typed_stubs(module); }, {"module"},
                              "The typed stubs of a stub package for the given module, by module name: the "
                              "module's own, its children's and those of the modules they refer to, with "
                              "constructors, static methods, defaults, exception bases, protocols, module functions "
                              "and documentation, for type checkers and editors.")
                .build();
        Module::create("tala.python").addClass(cls);
        return cls;
    });
    return registration.get();
}

}  // namespace tala

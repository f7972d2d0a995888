// tests/python/language/language_python_test.cpp: LanguagePython and the host module "python": the language description,
// the standard modules made when first read, importAllModules, the modules of a package, and module "tala.python".
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "extension/identifiers.hpp"
#include "extension/sys_path.hpp"
#include "functions/function_python.hpp"
#include "language/language_python.hpp"
#include "language_test_support.hpp"
#include "proxies/module_python.hpp"
#include "proxies/python_proxy.hpp"

namespace {

using tala::Any;
using tala::Class_Generic;
using tala::I_Invokable_Generic;
using tala::Identifier;
using tala::LanguagePython;
using tala::Module;
using tala::ModulePython;
using tala::String;
using tala::python::GilGuard;
using tala_language_test::errorMessage;
using tala_language_test::LanguageTest;
using tala_language_test::noMap;
using tala_language_test::pythonErrorPending;
using tala_language_test::text;

class LanguagePythonTest : public LanguageTest {
protected:
    static Module languageModule() {
        auto module = Module::find("python");
        EXPECT_TRUE(module.has_value()) << "start-up registers the host module python";
        return module.value_or(Module::create("python"));
    }
    static std::vector<std::string> declaredNames() {
        std::vector<std::string> names;
        for (const String& name : languageModule().lazyModuleNames()) names.push_back(name.toStdString());
        return names;
    }
    static bool declared(const std::string& name) {
        const std::vector<std::string> names = declaredNames();
        return std::find(names.begin(), names.end(), name) != names.end();
    }
    // The member of module "python" as a script reads `python.<member>`.
    static Any member(const char* name) {
        const Module module = languageModule();
        const auto property = tala::property_of(module, std::string_view(name));
        if (property.isEmpty()) return tala::Error(String("No member {}.").arg(String(name)));
        Any value = tala::resolve(property.as<tala::Property>().get(module));
        EXPECT_FALSE(pythonErrorPending());
        return value;
    }
    static bool loaded(const char* pythonName) {
        GilGuard gil;
        return PyDict_GetItemString(PyImport_GetModuleDict(), pythonName) != nullptr;
    }
    static I_Invokable_Generic staticMethod(const char* name) {
        const auto method = tala::definedMethod(LanguagePython::getClass(), Identifier::intern(name));
        EXPECT_FALSE(method.isEmpty()) << name;
        return method.as<I_Invokable_Generic>();
    }
    static Any evaluated(const char* expression) {
        Any result = tala::python::evaluate_expr(String(expression), noMap(), noMap());
        EXPECT_FALSE(pythonErrorPending());
        return result;
    }
};

// ---- The class ----------------------------------------------------------------------------------

TEST_F(LanguagePythonTest, ClassIsTheLanguageInterfaceOfModuleTalaPython) {
    const Class_Generic cls = LanguagePython::getClass();
    EXPECT_EQ(cls.name(), "LanguagePython");
    EXPECT_EQ(cls.qualname(), "tala.python.LanguagePython");
    EXPECT_EQ(cls.doc(), "Implementation of 'I_Language' interface for Python language.");
    EXPECT_TRUE(cls.derivesFrom(tala::I_Language::getClass()));
    const auto examples = tala::definedProperty(cls, Identifier("$$examples"));
    ASSERT_FALSE(examples.isEmpty());
    EXPECT_EQ(text(examples.as<tala::Property>().get(Any())),
              "['LanguagePython::evaluateExpression( u\"[1, 2, 3]\"_bytea );', "
              "'tala.python.LanguagePython.evaluateExpression( \\'[1, 2, 3]\\' )']");
}

TEST_F(LanguagePythonTest, ImportAllModulesIsAStaticMethodWithoutArguments) {
    const I_Invokable_Generic method = staticMethod("importAllModules");
    EXPECT_TRUE(method.isIndependent());
    EXPECT_EQ(method.signature().parameterCount(), 0u);
    EXPECT_EQ(method.doc(), "Imports all standard python modules.");
    EXPECT_EQ(tala::python::$importAllModules.text(), "importAllModules");
}

TEST_F(LanguagePythonTest, TheClassesOfTheExtensionAreMembersOfModuleTalaPython) {
    const Module module = *Module::find("tala.python");
    std::vector<std::string> names;
    for (const auto& entry : module.classes()) names.push_back(tala::display(entry.key).toStdString());
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"'FunctionPython'", "'LanguagePython'", "'ModulePython'", "'PythonProxy'",
                                               "'PythonProxyIterable'", "'PythonProxyIterator'", "'PythonProxyMapping'",
                                               "'PythonProxySequence'", "'PythonProxySet'"}));
    // Python code reaches them as members of tala.python.
    const Any function = evaluated("tala.python.FunctionPython");
    ASSERT_TRUE(Class_Generic::matches(function)) << text(function);
    EXPECT_EQ(Class_Generic(tala::internal::unchecked, function), tala::FunctionPython::getClass());
    EXPECT_EQ(text(evaluated("tala.python.ModulePython.doc")), "'Class to export a python module.'");
}

TEST_F(LanguagePythonTest, PythonCodeEvaluatesThroughTheClassAsTheExampleShows) {
    const Any list = evaluated("tala.python.LanguagePython.evaluateExpression( '[1, 2, 3]' )");
    EXPECT_EQ(text(list), "[1, 2, 3]");
}

TEST_F(LanguagePythonTest, HostCodeEvaluatesWithTextGivenAsBytes) {
    const Any list = tala::resolve(staticMethod("evaluateExpression")(tala::ByteArray("[1, 2, 3]")));
    ASSERT_TRUE(tala::I_Sequence_Generic::matches(list)) << text(list);
    const tala::I_Sequence_Generic items(tala::internal::unchecked, list);
    EXPECT_EQ(text(tala::resolve(items.length())), "3");
    EXPECT_EQ(text(tala::resolve(items.at(2))), "3");
    EXPECT_FALSE(pythonErrorPending());
}

TEST_F(LanguagePythonTest, TheOtherEvaluationsTakeTheirMapsOrLeaveThemOut) {
    tala::HashMap<String, Any> locals;
    locals.set(String("x"), tala::Integer(20));
    EXPECT_EQ(text(tala::resolve(staticMethod("evaluate")(String("return x + 1"), locals))), "21");
    EXPECT_EQ(text(tala::resolve(staticMethod("evaluateMethod")(String("text"), String("return self.upper()")))), "'TEXT'");
    EXPECT_EQ(errorMessage(tala::resolve(staticMethod("evaluateExpression")())),
              "evaluateExpression() missing 1 required argument: 'code'");
    EXPECT_EQ(errorMessage(tala::resolve(staticMethod("evaluateExpression")(tala::Integer(1)))),
              "The argument 'code' must be a text, got 1.");
    EXPECT_EQ(errorMessage(tala::resolve(staticMethod("evaluate")(String("return 1"), tala::Integer(2)))),
              "The argument 'locals' must be a map or None, got 2.");
    EXPECT_FALSE(pythonErrorPending());
}

// ---- The host module "python" -------------------------------------------------------------------

TEST_F(LanguagePythonTest, TheLanguageDescriptionIsOnHostModulePython) {
    const Module module = languageModule();
    const std::string description =
        "Python is an easy to learn, powerful programming language. It has efficient high-level data structures and a "
        "simple but effective approach to object-oriented programming. Python\xc3\xa2\xe2\x82\xac\xe2\x84\xa2s elegant "
        "syntax and dynamic typing, together with its interpreted nature, make it an ideal language for scripting and "
        "rapid application development in many areas on most platforms.";
    EXPECT_EQ(module.doc().toStdString(), description);
    EXPECT_EQ(String::cast(member("description")).value_or(String()).toStdString(), description);
    EXPECT_EQ(text(member("name")), "'python'");
    EXPECT_EQ(text(member("icon")), "':/tala/icons/py.svg'");
}

TEST_F(LanguagePythonTest, TheEightStandardModulesAreDeclaredFirstInOrder) {
    const std::vector<std::string> names = declaredNames();
    ASSERT_GE(names.size(), 8u);
    EXPECT_EQ(std::vector<std::string>(names.begin(), names.begin() + 8),
              (std::vector<std::string>{"python.builtins", "python.collections", "python.collections.abc", "python.datetime",
                                        "python.decimal", "python.sys", "python.types", "python.typing"}));
}

TEST_F(LanguagePythonTest, AStandardModuleIsAModulePythonWithAClassOfItsOwn) {
    const Any abc = member("collections.abc");
    ASSERT_TRUE(ModulePython::matches(abc)) << text(abc);
    const ModulePython module(tala::internal::unchecked, abc);
    EXPECT_EQ(module.name(), "python.collections.abc");
    EXPECT_EQ(tala::raw_class_of(module).name(), "Module");
    EXPECT_FALSE(tala::raw_class_of(module) == ModulePython::getClass());
    {
        GilGuard gil;
        EXPECT_EQ(tala::python::pyobjectOf(module), PyDict_GetItemString(PyImport_GetModuleDict(), "collections.abc"));
    }
    EXPECT_TRUE(module.classes().contains(String("Mapping")));
    // The pair python.sys takes the module sys.
    const Any sys = member("sys");
    ASSERT_TRUE(ModulePython::matches(sys)) << text(sys);
    GilGuard gil;
    EXPECT_EQ(tala::python::pyobjectOf(sys), PyImport_AddModule("sys"));
}

TEST_F(LanguagePythonTest, ReadingAgainGivesTheSameModule) {
    const Any first = member("decimal");
    const Any second = member("decimal");
    EXPECT_TRUE(first.isSame(second));
    const Class_Generic decimal(tala::internal::unchecked, *ModulePython(tala::internal::unchecked, first).classes().get(String("Context")));
    EXPECT_TRUE(decimal.declaringContext().isSame(first));
}

TEST_F(LanguagePythonTest, ADeclaredModuleIsImportedOnlyWhenFirstRead) {
    const std::filesystem::path folder = std::filesystem::temp_directory_path() / "tala_language_python_test";
    std::filesystem::create_directories(folder);
    {
        std::ofstream source(folder / "tala_lazy_probe.py");
        source << "\"\"\"A module that records being imported.\"\"\"\ndef probe():\n    return 'probed'\n";
    }
    ASSERT_TRUE(tala::python::python_add_sys_path(String(folder.string())).isEmpty());
    tala::python::declarePythonModule(String("python.tala_lazy_probe"), String("tala_lazy_probe"));
    EXPECT_TRUE(declared("python.tala_lazy_probe"));
    EXPECT_FALSE(loaded("tala_lazy_probe"));
    const Any probe = member("tala_lazy_probe");
    EXPECT_TRUE(loaded("tala_lazy_probe"));
    ASSERT_TRUE(ModulePython::matches(probe)) << text(probe);
    EXPECT_EQ(ModulePython(tala::internal::unchecked, probe).doc(), "A module that records being imported.");
    std::filesystem::remove_all(folder);
}

TEST_F(LanguagePythonTest, AModuleThatCannotBeImportedGivesTheImportErrorEachTime) {
    tala::python::declarePythonModule(String("python.tala_never_there"), String("tala_never_there"));
    EXPECT_EQ(errorMessage(member("tala_never_there")), "No module named 'tala_never_there'");
    EXPECT_EQ(errorMessage(member("tala_never_there")), "No module named 'tala_never_there'");
}

TEST_F(LanguagePythonTest, PythonCodeReachesTheModulesThroughHostModulePython) {
    EXPECT_EQ(text(evaluated("python.decimal.Decimal('1.10') + 1")), "2.10");
    EXPECT_EQ(text(evaluated("python.collections.abc is __import__('collections.abc').abc")), "True");
}

// ---- importAllModules ---------------------------------------------------------------------------

TEST_F(LanguagePythonTest, ImportAllModulesMakesTheStandardLibraryKnown) {
    // pkgutil lists names that begin with "_" too: they are the ones left out.
    const Any underscored = evaluated("any(m.name.startswith('_') for m in __import__('pkgutil').iter_modules())");
    ASSERT_EQ(text(underscored), "True");
    ASSERT_EQ(text(evaluated("any(m.name in ('this', 'antigravity') for m in __import__('pkgutil').iter_modules())")), "True");

    const Any result = tala::resolve(staticMethod("importAllModules")());
    EXPECT_TRUE(result.isEmpty()) << text(result);
    EXPECT_FALSE(pythonErrorPending());
    EXPECT_TRUE(declared("python.json"));
    EXPECT_TRUE(declared("python.email"));
    EXPECT_FALSE(declared("python.this"));
    EXPECT_FALSE(declared("python.antigravity"));
    const std::vector<std::string> names = declaredNames();
    EXPECT_EQ(std::count(names.begin(), names.end(), "python.builtins"), 1);
    EXPECT_EQ(names.front(), "python.builtins") << "builtins stays the standard module it was";
    for (const std::string& name : names) EXPECT_FALSE(name.starts_with("python._")) << name;
    EXPECT_FALSE(loaded("antigravity"));

    const Any json = member("json");
    ASSERT_TRUE(ModulePython::matches(json)) << text(json);
    EXPECT_TRUE(ModulePython(tala::internal::unchecked, json).classes().contains(String("JSONDecoder")));
}

TEST_F(LanguagePythonTest, ImportAllModulesAgainAddsNothingTwice) {
    ASSERT_TRUE(tala::python::importAllModules().isEmpty());
    const std::vector<std::string> before = declaredNames();
    ASSERT_TRUE(tala::python::importAllModules().isEmpty());
    EXPECT_EQ(declaredNames(), before);
}

// ---- The modules of a package -------------------------------------------------------------------

TEST_F(LanguagePythonTest, APackageListsItsModules) {
    const Any json = tala::python::modulePythonFor(String("python.json"), String("json"));
    EXPECT_EQ(text(tala::resolve(staticMethod("submoduleNames")(json))), "['decoder', 'encoder', 'scanner', 'tool']");
    EXPECT_EQ(text(tala::resolve(staticMethod("submoduleNames")(member("collections")))), "['abc']");
    EXPECT_FALSE(pythonErrorPending());
}

TEST_F(LanguagePythonTest, APackageWithoutPathHasNoModules) {
    // sys and os are modules, no packages: they have no __path__; nor has an int.
    EXPECT_EQ(text(tala::python::submoduleNames(member("sys"))), "[]");
    EXPECT_EQ(text(tala::python::submoduleNames(tala::Integer(7))), "[]");
    const Any os = tala::resolve(tala::python::evaluate_expr(String("__import__('os')"), noMap(), noMap()));
    EXPECT_EQ(text(tala::python::submoduleNames(os)), "[]");
    EXPECT_FALSE(pythonErrorPending());
}

// ---- Module "tala.python" ---------------------------------------------------------------------

TEST_F(LanguagePythonTest, ModuleTalaPythonHasADocProperty) {
    const Module module = *Module::find("tala.python");
    const auto doc = tala::property_of(module, "doc");
    ASSERT_FALSE(doc.isEmpty());
    EXPECT_EQ(text(doc.as<tala::Property>().get(module)), text(module.doc()));
    EXPECT_FALSE(module.doc().isEmpty());
    EXPECT_EQ(text(evaluated("tala.python.doc")), text(module.doc()));
}

}  // namespace

// tests/python/stubs/module_functions_test.cpp: python_import and python_generate_stubs, directly and as the module functions
// of "tala.python" that the host and Python code call; the typed stubs of a package, through the language object.
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "language/language_test_support.hpp"
#include "proxies/python_proxy.hpp"
#include "stubs/module_functions.hpp"
#include "stubs/stub_generator.hpp"

namespace {

using tala::Any;
using tala::I_Invokable_Generic;
using tala::String;
using tala::python::GilGuard;
using tala::python::PyObjectPtr;
using tala::python::python_import;
using tala_language_test::errorMessage;
using tala_language_test::LanguageTest;
using tala_language_test::noMap;
using tala_language_test::pythonErrorPending;
using tala_language_test::text;

class ModuleImportTest : public LanguageTest {
protected:
    static Any imported(const char* path) {
        Any result = tala::resolve(python_import(String(path)));
        EXPECT_FALSE(pythonErrorPending());
        return result;
    }
    // sys.modules[name] (borrowed: sys.modules keeps it).
    static PyObject* loaded(const char* name) {
        GilGuard gil;
        PyObject* module = PyDict_GetItemString(PyImport_GetModuleDict(), name);
        EXPECT_NE(module, nullptr) << name;
        return module;
    }
};

TEST_F(ModuleImportTest, AModuleNameGivesTheModule) {
    const Any os = imported("os");
    ASSERT_TRUE(tala::python::PythonProxy::matches(os)) << text(os);
    EXPECT_EQ(tala::python::pyobjectOf(os), loaded("os"));
}

TEST_F(ModuleImportTest, ADottedPathGivesTheObjectFromTheModulesDictionary) {
    const Any path = imported("os.path");
    GilGuard gil;
    PyObject* expected = PyDict_GetItemString(PyModule_GetDict(loaded("os")), "path");
    ASSERT_NE(expected, nullptr);
    EXPECT_EQ(tala::python::pyobjectOf(path), expected);
    EXPECT_EQ(text(imported("os.sep")), "'/'");
}

TEST_F(ModuleImportTest, TheModuleIsEverythingBeforeTheLastDot) {
    // "json.decoder.JSONDecoder" imports json.decoder and looks the class up there.
    const Any decoder = imported("json.decoder.JSONDecoder");
    ASSERT_TRUE(tala::Class_Generic::matches(decoder)) << text(decoder);
    EXPECT_EQ(tala::Class_Generic(tala::internal::unchecked, decoder).name(), "JSONDecoder");
}

TEST_F(ModuleImportTest, AnEmptyPathGivesTheEmptyValueWithoutAnError) {
    const Any nothing = imported("");
    EXPECT_TRUE(nothing.isEmpty());
    EXPECT_FALSE(tala::is_error_result(nothing));
}

TEST_F(ModuleImportTest, AMissingObjectNamesTheWholePath) {
    EXPECT_EQ(errorMessage(imported("os.nonexistent")), "Unable to find the object: os.nonexistent.");
}

TEST_F(ModuleImportTest, OnlyTheModulesOwnDictionaryIsSearched) {
    // A module-level __getattr__ answers attribute reads, but the name is not in the dictionary.
    {
        GilGuard gil;
        PyObjectPtr module = PyObjectPtr::steal(PyModule_New("tala_mf_lazy"));
        PyObject* dictionary = PyModule_GetDict(module.get());
        PyDict_SetItemString(dictionary, "__builtins__", PyEval_GetBuiltins());
        PyObjectPtr ran = PyObjectPtr::steal(
            PyRun_String("def __getattr__(name):\n    return 'computed ' + name\n", Py_file_input, dictionary, dictionary));
        ASSERT_TRUE(ran);
        PyDict_SetItemString(PyImport_GetModuleDict(), "tala_mf_lazy", module.get());
    }
    EXPECT_EQ(text(tala::resolve(tala::python::evaluate_expr(String("__import__('tala_mf_lazy').anything"), noMap(), noMap()))),
              "'computed anything'");
    EXPECT_EQ(errorMessage(imported("tala_mf_lazy.anything")), "Unable to find the object: tala_mf_lazy.anything.");
    // Nor is a sub-module imported under that name (wsgiref.handlers, which nothing here imports).
    const auto handlersLoaded = [] {
        GilGuard gil;
        return PyDict_GetItemString(PyImport_GetModuleDict(), "wsgiref.handlers") != nullptr;
    };
    ASSERT_FALSE(handlersLoaded());
    EXPECT_EQ(errorMessage(imported("wsgiref.handlers")), "Unable to find the object: wsgiref.handlers.");
    EXPECT_FALSE(handlersLoaded());
}

TEST_F(ModuleImportTest, AMissingModuleGivesPythonsModuleNotFoundError) {
    const Any missing = imported("tala_no_such_module.thing");
    EXPECT_EQ(errorMessage(missing), "No module named 'tala_no_such_module'");
    EXPECT_NE(errorMessage(missing), "Unable to find the module: tala_no_such_module.");
}

TEST_F(ModuleImportTest, AnImportThatGivesNoModuleHasNoDictionaryToSearch) {
    // An import answers whatever sys.modules holds under the name, here an int.
    {
        GilGuard gil;
        PyObjectPtr five = PyObjectPtr::steal(PyLong_FromLong(5));
        ASSERT_EQ(PyDict_SetItemString(PyImport_GetModuleDict(), "tala_mf_notmodule", five.get()), 0);
    }
    EXPECT_EQ(errorMessage(imported("tala_mf_notmodule.thing")), "Unable to get the module dict: tala_mf_notmodule.");
    GilGuard gil;
    ASSERT_EQ(PyDict_DelItemString(PyImport_GetModuleDict(), "tala_mf_notmodule"), 0);
}

TEST_F(ModuleImportTest, AMissingModuleSaysWhichExceptionItWas) {
    const Any missing = imported("tala_no_such_module.thing");
    const auto type = tala::property_of(missing, std::string_view("exceptionType"));
    ASSERT_FALSE(type.isEmpty());
    EXPECT_EQ(text(type.as<tala::Property>().get(missing)), "'ModuleNotFoundError'");
}

// ---- As module functions ------------------------------------------------------------------------

class ModuleFunctionRegistrationTest : public LanguageTest {
protected:
    static I_Invokable_Generic function(const char* name) {
        const std::optional<tala::Module> module = tala::Module::find("tala.python");
        EXPECT_TRUE(module.has_value());
        const auto listed = module->functions().get(String(name));
        EXPECT_TRUE(listed.has_value()) << name;
        return I_Invokable_Generic(tala::internal::unchecked, listed.value_or(Any()));
    }
    static std::vector<std::string> parameterNames(const I_Invokable_Generic& function) {
        std::vector<std::string> names;
        for (const tala::Parameter& parameter : function.signature().parameters()) names.push_back(parameter.name.toStdString());
        return names;
    }
};

TEST_F(ModuleFunctionRegistrationTest, ParameterNamesAndDocumentationAreAsPublished) {
    const I_Invokable_Generic addSysPath = function("python_add_sys_path");
    EXPECT_EQ(parameterNames(addSysPath), (std::vector<std::string>{"path"}));
    EXPECT_EQ(addSysPath.doc(), "Adds a path to sys.path once.");
    const I_Invokable_Generic import = function("python_import");
    EXPECT_EQ(parameterNames(import), (std::vector<std::string>{"path"}));
    EXPECT_EQ(import.doc(), "Imports python module or object.");
    EXPECT_EQ(import.signature().toString(0x11), "(path: String) -> Any");
    const I_Invokable_Generic stubs = function("python_generate_stubs");
    EXPECT_EQ(parameterNames(stubs), (std::vector<std::string>{"module"}));
    EXPECT_EQ(stubs.doc(), "Generates Python stubs for the given TALA module.");
    EXPECT_EQ(stubs.signature().toString(0x11), "(module: Module) -> String");
}

TEST_F(ModuleFunctionRegistrationTest, TheHostCallsThemThroughTheModule) {
    const Any os = tala::resolve(function("python_import")(String("os")));
    EXPECT_TRUE(tala::python::PythonProxy::matches(os)) << text(os);
    const tala::Module talaModule = *tala::Module::find("tala");
    const auto stubs = String::cast(function("python_generate_stubs")(talaModule));
    ASSERT_TRUE(stubs.has_value());
    EXPECT_EQ(stubs->toStdString(), tala::python::generate_stubs(talaModule).toStdString());
    EXPECT_FALSE(pythonErrorPending());
}

TEST_F(ModuleFunctionRegistrationTest, PythonCodeCallsThemThroughTheHostModule) {
    const auto evaluated = [](const char* code) {
        Any result = tala::python::evaluate_expr(String(code), noMap(), noMap());
        EXPECT_FALSE(pythonErrorPending());
        return result;
    };
    EXPECT_EQ(text(evaluated("tala.python.python_import('json.dumps')([1, 2])")), "'[1, 2]'");
    EXPECT_EQ(text(evaluated("tala.python.python_import('json') is __import__('json')")), "True");
    EXPECT_EQ(text(evaluated("tala.python.python_generate_stubs(tala).splitlines()[3]")), "'class ArgumentError:'");
    EXPECT_EQ(errorMessage(evaluated("tala.python.python_import('os.nonexistent')")),
              "Unable to find the object: os.nonexistent.");
}

TEST_F(ModuleFunctionRegistrationTest, TheTypedStubsOfAPackageAreAStaticMethodOfTheLanguage) {
    // Not a module function: the module's functions stay the six of the start-up table.
    EXPECT_TRUE(tala::Module::find("tala.python")->functions().get(String("python_generate_typed_stubs")) == std::nullopt);
    const auto language = tala::Class_Generic::cast(
        tala::Module::find("tala.python")->classes().get(String("LanguagePython")).value_or(Any()));
    ASSERT_TRUE(language.has_value());
    const auto found = tala::definedMethod(*language, tala::Identifier("$generateTypedStubs"));
    ASSERT_FALSE(found.isEmpty());
    const I_Invokable_Generic typed = found.as<I_Invokable_Generic>();
    EXPECT_TRUE(typed.isIndependent());
    EXPECT_EQ(parameterNames(typed), (std::vector<std::string>{"module"}));
    EXPECT_EQ(typed.signature().toString(0x11), "(module: Module) -> HashMap<String, String>");
    const tala::Module talaModule = *tala::Module::find("tala");
    const auto stubs = tala::HashMap_Generic::cast(tala::resolve(typed(talaModule)));
    ASSERT_TRUE(stubs.has_value());
    EXPECT_EQ(stubs->size(), 2u);  // tala and its child tala.python
    const auto talaStub = String::cast(stubs->get(String("tala")).value_or(Any()));
    ASSERT_TRUE(talaStub.has_value());
    EXPECT_NE(talaStub->toStdString().find("\ndef get_logger() -> Logger:\n"), std::string::npos) << talaStub->toStdString();
    EXPECT_TRUE(stubs->get(String("tala.python")).has_value());
    EXPECT_FALSE(pythonErrorPending());
}

}  // namespace

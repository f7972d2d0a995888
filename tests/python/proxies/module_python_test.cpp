// tests/python/proxies/module_python_test.cpp: ModulePython: which entries of a Python module become host members, its
// documentation, its class of its own, the declaring context of the classes it exports, and its one reference.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "bridge/to_python.hpp"
#include "proxies/module_python.hpp"
#include "proxies/python_proxy.hpp"
#include "python_test_support.hpp"
#include "stubs/stub_generator.hpp"

namespace {

using tala::Any;
using tala::Class_Generic;
using tala::Identifier;
using tala::ModulePython;
using tala::String;
using tala::python::GilGuard;
using tala::python::PyObjectPtr;
using tala::python::PyObjectPtr_Borrowed;
using tala_python_test::PythonTest;
using tala_python_test::takePendingError;

// A Python module made from source and entered into sys.modules, so that other modules made
// here can import from it.
PyObjectPtr pythonModule(const char* name, const char* source) {
    GilGuard gil;
    PyObjectPtr module = PyObjectPtr::steal(PyModule_New(name));
    if (!module) {
        ADD_FAILURE() << "PyModule_New failed: " << takePendingError();
        return module;
    }
    PyObject* dictionary = PyModule_GetDict(module.get());
    PyDict_SetItemString(dictionary, "__builtins__", PyEval_GetBuiltins());
    PyDict_SetItemString(PyImport_GetModuleDict(), name, module.get());
    PyObjectPtr ran = PyObjectPtr::steal(PyRun_String(source, Py_file_input, dictionary, dictionary));
    if (!ran) ADD_FAILURE() << "Python raised " << takePendingError() << " running module " << name;
    return module;
}

std::vector<std::string> keysOf(const tala::HashMap_Generic& map) {
    std::vector<std::string> keys;
    for (const auto& entry : map) keys.push_back(tala::display(entry.key).toStdString());
    return keys;
}

class ModulePythonTest : public PythonTest {
protected:
    static void SetUpTestSuite() {
        PythonTest::SetUpTestSuite();
        exports_ = new PyObjectPtr(pythonModule("tala_mp_exports", R"PY(
"""Exports for the ModulePython tests."""
import json as sub
LIMIT = 10
text = 'not callable'
_private_name = 'hidden'
__all__ = ['Thing', 'helper']

class Thing:
    def area(self):
        return 6

def helper(x):
    return x + 1

square = lambda x: x * x

def _hidden():
    return 0
)PY"));
    }

    static PyObject* exports() { return exports_->get(); }

    static PyObjectPtr* exports_;  // kept for the process, as sys.modules keeps the module
};

PyObjectPtr* ModulePythonTest::exports_ = nullptr;

TEST_F(ModulePythonTest, PublicClassesAndCallablesAreExported) {
    const ModulePython module(String("host.exports"), PyObjectPtr_Borrowed(exports()), true);
    EXPECT_EQ(keysOf(module.classes()), (std::vector<std::string>{"'Thing'"}));
    EXPECT_EQ(keysOf(module.functions()), (std::vector<std::string>{"'helper'", "'square'"}));
    const Any thing = tala::property_of(module, "Thing").as<tala::Property>().get(module);
    ASSERT_TRUE(Class_Generic::matches(thing));
    EXPECT_EQ(Class_Generic(tala::internal::unchecked, thing).name(), "Thing");
    const Any helper = tala::property_of(module, "helper").as<tala::Property>().get(module);
    ASSERT_TRUE(tala::I_Invokable_Generic::matches(helper));
    EXPECT_EQ(tala::I_Invokable_Generic(tala::internal::unchecked, helper)(tala::Integer(41)).rawInteger(), 42);
}

TEST_F(ModulePythonTest, PrivateNamesAndAllAreNotExported) {
    const ModulePython module(String("host.exports"), PyObjectPtr_Borrowed(exports()), true);
    const Class_Generic own = tala::raw_class_of(module);
    for (const char* name : {"_private_name", "__all__", "_hidden", "__doc__", "__name__"}) {
        SCOPED_TRACE(name);
        EXPECT_FALSE(module.classes().contains(String(name)));
        EXPECT_FALSE(module.functions().contains(String(name)));
        EXPECT_TRUE(tala::definedProperty(own, Identifier::intern(name)).isEmpty());
    }
}

TEST_F(ModulePythonTest, AnIntegerConstantIsNoMemberOfTheHostModule) {
    const ModulePython module(String("host.exports"), PyObjectPtr_Borrowed(exports()), true);
    for (const char* name : {"LIMIT", "text", "sub"}) {
        SCOPED_TRACE(name);
        EXPECT_FALSE(module.classes().contains(String(name)));
        EXPECT_FALSE(module.functions().contains(String(name)));
        EXPECT_TRUE(tala::raw_property_of(module, std::string_view(name)).isEmpty());
    }
    // Being a proxy of the module, it still answers the attribute when asked by name.
    const auto limit = tala::property_of(module, "LIMIT");
    ASSERT_FALSE(limit.isEmpty());
    EXPECT_EQ(limit.as<tala::Property>().get(module).rawInteger(), 10);
}

TEST_F(ModulePythonTest, NameAndDocumentationComeFromTheCreatorAndTheDocString) {
    const ModulePython module(String("host.exports"), PyObjectPtr_Borrowed(exports()), true);
    EXPECT_EQ(module.name(), "host.exports");
    EXPECT_EQ(module.doc(), "Exports for the ModulePython tests.");
    EXPECT_EQ(tala::display(module), "Module: 'host.exports'.");
    EXPECT_TRUE(tala::Module::matches(module));
    EXPECT_TRUE(ModulePython::matches(module));
    EXPECT_FALSE(tala::Module::find("host.exports").has_value()) << "a ModulePython is no registered module";
}

TEST_F(ModulePythonTest, DocNoneGivesAnEmptyDocumentation) {
    GilGuard gil;  // first made, last gone: the Python references below are dropped under it
    PyObjectPtr undocumented = pythonModule("tala_mp_undocumented", "__doc__ = None\ndef f():\n    return 1\n");
    const ModulePython module(String("host.undocumented"), undocumented.borrowed(), true);
    EXPECT_EQ(module.doc(), "");
    PyObjectPtr numbered = pythonModule("tala_mp_numbered_doc", "__doc__ = 42\n");
    EXPECT_EQ(ModulePython(String("host.numbered"), numbered.borrowed(), true).doc(), "");
}

TEST_F(ModulePythonTest, OwnClassIsAFreshClassNamedModuleDerivedFromModulePython) {
    const ModulePython first(String("host.first"), PyObjectPtr_Borrowed(exports()), true);
    const ModulePython second(String("host.second"), PyObjectPtr_Borrowed(exports()), true);
    const Class_Generic own = tala::raw_class_of(first);
    EXPECT_EQ(own.name(), "Module");
    EXPECT_TRUE(own.derivesFrom(ModulePython::getClass()));
    EXPECT_FALSE(own == tala::raw_class_of(second));
    // The exported members are class properties of the module's own class.
    EXPECT_FALSE(tala::definedProperty(own, Identifier::intern("Thing")).isEmpty());
    EXPECT_FALSE(tala::definedProperty(own, Identifier::intern("helper")).isEmpty());
    EXPECT_TRUE(tala::definedProperty(ModulePython::getClass(), Identifier::intern("helper")).isEmpty());
}

TEST_F(ModulePythonTest, WithoutOwnClassTheMembersAreTheValuesOwn) {
    const ModulePython module(String("host.shared"), PyObjectPtr_Borrowed(exports()), false);
    EXPECT_EQ(tala::raw_class_of(module), ModulePython::getClass());
    EXPECT_FALSE(tala::raw_property_of(module, std::string_view("helper")).isEmpty());
    EXPECT_TRUE(tala::definedProperty(ModulePython::getClass(), Identifier::intern("helper")).isEmpty());
    EXPECT_EQ(keysOf(module.functions()), (std::vector<std::string>{"'helper'", "'square'"}));
}

TEST_F(ModulePythonTest, ClassesAreDeclaredInTheFirstModuleThatExportsThem) {
    GilGuard gil;  // first made, last gone: the Python references below are dropped under it
    PyObjectPtr home = pythonModule("tala_mp_home", "class Shared:\n    pass\n");
    PyObjectPtr user = pythonModule("tala_mp_user", "from tala_mp_home import Shared\nclass Own:\n    pass\n");
    const ModulePython homeModule(String("host.home"), home.borrowed(), true);
    const ModulePython userModule(String("host.user"), user.borrowed(), true);
    const Class_Generic shared(tala::internal::unchecked, *userModule.classes().get(String("Shared")));
    EXPECT_TRUE(shared.declaringContext().isSame(homeModule));
    EXPECT_EQ(shared.qualname(), "host.home.Shared");
    const Class_Generic own(tala::internal::unchecked, *userModule.classes().get(String("Own")));
    EXPECT_TRUE(own.declaringContext().isSame(userModule));
    EXPECT_EQ(own.qualname(), "host.user.Own");
}

TEST_F(ModulePythonTest, HostClassesThatStandForPythonTypesKeepTheirContext) {
    GilGuard gil;  // first made, last gone: the Python references below are dropped under it
    PyObjectPtr dates = pythonModule("tala_mp_dates", "from datetime import date\n");
    const ModulePython module(String("host.dates"), dates.borrowed(), true);
    const auto exported = module.classes().get(String("date"));
    ASSERT_TRUE(exported.has_value());
    EXPECT_EQ(Class_Generic(tala::internal::unchecked, *exported), tala::Date::getClass());
    EXPECT_TRUE(tala::Date::getClass().declaringContext().isEmpty());
    EXPECT_EQ(tala::Date::getClass().qualname(), "Date");
}

TEST_F(ModulePythonTest, MembersAreFixedWhenTheModuleIsMade) {
    GilGuard gil;  // first made, last gone: the Python references below are dropped under it
    PyObjectPtr growing = pythonModule("tala_mp_growing", "def before():\n    return 1\n");
    const ModulePython module(String("host.growing"), growing.borrowed(), true);
    {
        PyObjectPtr later = tala_python_test::evalPython("lambda: 2");
        ASSERT_EQ(PyObject_SetAttrString(growing.get(), "after", later.get()), 0);
    }
    EXPECT_EQ(keysOf(module.functions()), (std::vector<std::string>{"'before'"}));
}

TEST_F(ModulePythonTest, AnObjectWithoutADictionaryGivesAModuleWithoutMembers) {
    GilGuard gil;  // first made, last gone: the Python references below are dropped under it
    PyObjectPtr number = tala_python_test::evalPython("12345");
    const ModulePython module(String("host.number"), number.borrowed(), true);
    EXPECT_TRUE(module.classes().isEmpty());
    EXPECT_TRUE(module.functions().isEmpty());
    EXPECT_EQ(tala::python::pyobjectOf(module), number.get());
}

TEST_F(ModulePythonTest, TheModuleIsAProxyHoldingOneReferenceUntilItGoes) {
    GilGuard gil;  // first made, last gone: the Python references below are dropped under it
    // Functions only: an exported class would keep its module (its declaring context) for good.
    PyObjectPtr functions = pythonModule("tala_mp_functions", "def one():\n    return 1\n");
    const Py_ssize_t before = Py_REFCNT(functions.get());
    {
        const ModulePython module(String("host.functions"), functions.borrowed(), true);
        EXPECT_EQ(tala::python::pyobjectOf(module), functions.get());
        EXPECT_TRUE(tala::python::PythonProxy::matches(module));
        EXPECT_EQ(Py_REFCNT(functions.get()), before + 1);
    }
    EXPECT_EQ(Py_REFCNT(functions.get()), before);
}

TEST_F(ModulePythonTest, InPythonTheModuleIsThePythonModuleAgain) {
    const ModulePython module(String("host.exports"), PyObjectPtr_Borrowed(exports()), true);
    GilGuard gil;
    PyObjectPtr back = PyObjectPtr::steal(tala::python::to_python(module));
    EXPECT_EQ(back.get(), exports());
}

TEST_F(ModulePythonTest, ItsStubDeclaresTheExportedClasses) {
    const ModulePython module(String("host.exports"), PyObjectPtr_Borrowed(exports()), true);
    EXPECT_EQ(tala::python::generate_stubs(module),
              "from typing import Any, List, Optional, Self\nimport builtins\n\nclass Thing:\n\tdef area(self) -> 'Any': ...\n");
}

TEST_F(ModulePythonTest, ClassIsRegisteredInModuleTalaPythonWithItsBases) {
    const Class_Generic cls = ModulePython::getClass();
    EXPECT_EQ(cls.name(), "ModulePython");
    EXPECT_EQ(cls.doc(), "Class to export a python module.");
    EXPECT_EQ(cls.qualname(), "tala.python.ModulePython");
    const std::vector<Class_Generic> parents = cls.parents();
    ASSERT_EQ(parents.size(), 2u);
    EXPECT_EQ(parents[0], tala::Module::getClass());
    EXPECT_EQ(parents[1], tala::python::PythonProxy::getClass());
    EXPECT_TRUE(tala::Module::find("tala.python")->classes().contains(String("ModulePython")));
    // `__property__` is declared again as an abstract entry of its own.
    const Any* declared = cls.cell()->findAbstractMethod(tala::Any::$__property__);
    ASSERT_NE(declared, nullptr);
    EXPECT_EQ(tala::I_Invokable_Generic(tala::internal::unchecked, *declared).signature().toString(0x11),
              "(name: String) -> Optional<Property>");
}

}  // namespace

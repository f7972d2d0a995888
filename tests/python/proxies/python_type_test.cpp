// tests/python/proxies/python_type_test.cpp: Python classes seen as host classes: one class per
// type, its name, parents, public members and documentation, and instances made through it.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>

#include "bridge/errors.hpp"
#include "bridge/from_python.hpp"
#include "bridge/to_python.hpp"
#include "functions/function_python.hpp"
#include "proxies/python_proxy.hpp"
#include "proxies/python_type.hpp"
#include "python_test_support.hpp"

namespace {

using tala::Any;
using tala::Class_Generic;
using tala::python::classOfPythonType;
using tala::python::GilGuard;
using tala::python::object_value_python_type;
using tala::python::PyObjectPtr;
using tala_python_test::evalPython;
using tala_python_test::PythonTest;
using tala_python_test::runPython;
using tala_python_test::takePendingError;

class PythonTypeTest : public PythonTest {
protected:
    void SetUp() override {
        GilGuard gil;
        globals_ = tala_python_test::newGlobals();
        ASSERT_TRUE(runPython("class Base:\n"
                              "    def inherited(self):\n"
                              "        return 'from base'\n"
                              "class Thing(Base):\n"
                              "    '''A thing for the tests.'''\n"
                              "    limit = 10\n"
                              "    _private = 1\n"
                              "    __dunder_value__ = 2\n"
                              "    class Inner:\n"
                              "        '''Nested.'''\n"
                              "    def __init__(self, size=1):\n"
                              "        self.size = size\n"
                              "    def grow(self, by):\n"
                              "        return self.size + by\n"
                              "    def _hidden(self):\n"
                              "        pass\n"
                              "    @staticmethod\n"
                              "    def make():\n"
                              "        return 'made'\n"
                              "class Failing:\n"
                              "    def __init__(self):\n"
                              "        raise ValueError('cannot make one')\n",
                              globals_.get()));
    }
    void TearDown() override {
        {
            GilGuard gil;
            globals_.reset();
        }
        PythonTest::TearDown();
    }

    PyObject* global(const char* name) {
        GilGuard gil;
        return PyDict_GetItemString(globals_.get(), name);
    }

    // The host class of a global type; the test fails on an error.
    Class_Generic classOf(const char* name) {
        GilGuard gil;
        auto cls = classOfPythonType(global(name));
        EXPECT_EQ(PyErr_Occurred(), nullptr) << takePendingError();
        if (!cls.is<Class_Generic>()) {
            ADD_FAILURE() << name << ": " << tala::display(cls).toStdString();
            return tala::Error::getClass();
        }
        return cls.as<Class_Generic>();
    }

    static std::set<std::string> namesOf(const std::vector<std::pair<tala::String, Any>>& members) {
        std::set<std::string> names;
        for (const auto& [name, member] : members) names.insert(name.toStdString());
        return names;
    }

    static std::string messageOf(const Any& value) {
        if (!tala::Error::matches(value)) return "<not an error: " + tala::display(value).toStdString() + ">";
        return tala::Error(tala::internal::unchecked, value).message().toStdString();
    }

    PyObjectPtr globals_;
};

TEST_F(PythonTypeTest, SameTypeGivesTheSameClassEveryTime) {
    const Class_Generic first = classOf("Thing");
    const Class_Generic second = classOf("Thing");
    EXPECT_EQ(first.cell(), second.cell());
    GilGuard gil;
    const Any converted = tala::python::from_python(global("Thing"));
    EXPECT_EQ(converted.cell(), first.cell());
}

TEST_F(PythonTypeTest, ClassViewNamesItsTypeAndHoldsIt) {
    const Class_Generic cls = classOf("Thing");
    EXPECT_EQ(cls.name().view(), "Thing");
    EXPECT_EQ(cls.doc().view(), "A thing for the tests.");
    ASSERT_TRUE(object_value_python_type::matches(cls));
    EXPECT_EQ(object_value_python_type(tala::internal::unchecked, cls).pythonType(), global("Thing"));
    EXPECT_TRUE(cls.hasFlag(tala::class_flags::Invokable));
    GilGuard gil;
    PyObjectPtr back = PyObjectPtr::steal(tala::python::to_python(cls));
    EXPECT_EQ(back.get(), global("Thing"));
}

TEST_F(PythonTypeTest, DottedTypeNameKeepsThePartAfterTheLastDot) {
    GilGuard gil;
    static PyType_Slot slots[] = {{0, nullptr}};
    static PyType_Spec description = {"pkg.mod.Thing", sizeof(PyObject), 0, Py_TPFLAGS_DEFAULT, slots};
    PyObjectPtr type = PyObjectPtr::steal(PyType_FromSpec(&description));
    ASSERT_TRUE(type) << takePendingError();
    ASSERT_STREQ(reinterpret_cast<PyTypeObject*>(type.get())->tp_name, "pkg.mod.Thing");
    auto cls = classOfPythonType(type.get());
    ASSERT_TRUE(cls.is<Class_Generic>());
    EXPECT_EQ(cls.as<Class_Generic>().name().view(), "Thing");

    PyObjectPtr ordered = evalPython("__import__('collections').OrderedDict");
    auto orderedClass = classOfPythonType(ordered.get());
    ASSERT_TRUE(orderedClass.is<Class_Generic>());
    EXPECT_EQ(orderedClass.as<Class_Generic>().name().view(), "OrderedDict");
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST_F(PythonTypeTest, NotATypeFails) {
    GilGuard gil;
    PyObjectPtr one = PyObjectPtr::steal(PyLong_FromLong(1));
    auto result = classOfPythonType(one.get());
    ASSERT_TRUE(result.is<tala::Error>());
    EXPECT_EQ(result.as<tala::Error>().message().view(), "Not a type.");
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST_F(PythonTypeTest, ExceptionClassHasTheHostErrorClassAmongItsParents) {
    GilGuard gil;
    ASSERT_TRUE(runPython("class Oops(ValueError):\n"
                          "    '''Something went wrong.'''\n",
                          globals_.get()));
    const Class_Generic cls = classOf("Oops");
    EXPECT_TRUE(tala::is_ancestor(cls, tala::Error::getClass()));
    EXPECT_TRUE(cls.asType().specializes(tala::Error::getType()));
    EXPECT_FALSE(tala::is_ancestor(classOf("Thing"), tala::Error::getClass()));
    EXPECT_FALSE(tala::definedProperty(cls, tala::Any::$$message).isEmpty());
}

TEST_F(PythonTypeTest, PrivateAndDunderMembersAreNotListed) {
    const Class_Generic cls = classOf("Thing");
    EXPECT_EQ(namesOf(tala::definedMethods(cls)), (std::set<std::string>{"grow", "make", "inherited"}));
    EXPECT_EQ(namesOf(tala::definedProperties(cls)), (std::set<std::string>{"limit", "Inner"}));
}

TEST_F(PythonTypeTest, ClassAttributesAreValuePropertiesAndNestedClassesTheirClasses) {
    const Class_Generic cls = classOf("Thing");
    auto limit = tala::definedProperty(cls, tala::Identifier::intern("limit"));
    ASSERT_TRUE(limit.is<tala::Property>());
    EXPECT_EQ(limit.as<tala::Property>().get(Any()).rawInteger(), 10);
    auto inner = tala::definedProperty(cls, tala::Identifier::intern("Inner"));
    ASSERT_TRUE(inner.is<tala::Property>());
    EXPECT_EQ(inner.as<tala::Property>().doc().view(), "Nested.");
    const Any nested = inner.as<tala::Property>().get(Any());
    ASSERT_TRUE(Class_Generic::matches(nested));
    EXPECT_EQ(Class_Generic(tala::internal::unchecked, nested).name().view(), "Inner");
}

TEST_F(PythonTypeTest, MethodsAreFunctionsOfTheClass) {
    const Class_Generic cls = classOf("Thing");
    auto make = tala::definedMethod(cls, tala::Identifier::intern("make"));
    ASSERT_TRUE(make.is<tala::I_Invokable_Generic>());
    EXPECT_TRUE(tala::FunctionPython::matches(make));
    EXPECT_EQ(tala::display(make.as<tala::I_Invokable_Generic>()()).view(), "'made'");
    GilGuard gil;
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST_F(PythonTypeTest, ClassAndStaticMethodsAreHostMethodsBoundAsPythonBindsThem) {
    GilGuard gil;
    ASSERT_TRUE(runPython("class Factory:\n"
                          "    count = 3\n"
                          "    @classmethod\n"
                          "    def describe(cls, suffix):\n"
                          "        return cls.__name__ + suffix\n"
                          "    @staticmethod\n"
                          "    def double(x):\n"
                          "        return 2 * x\n"
                          "class Special(Factory):\n"
                          "    pass\n",
                          globals_.get()));
    const Class_Generic cls = classOf("Factory");
    auto describe = tala::definedMethod(cls, tala::Identifier::intern("describe"));
    ASSERT_TRUE(describe.is<tala::I_Invokable_Generic>()) << "a class method must be a method";
    EXPECT_TRUE(tala::definedProperty(cls, tala::Identifier::intern("describe")).isEmpty());
    EXPECT_EQ(tala::display(describe.as<tala::I_Invokable_Generic>()(tala::String("!"))).view(), "'Factory!'");
    auto doubled = tala::definedMethod(cls, tala::Identifier::intern("double"));
    ASSERT_TRUE(doubled.is<tala::I_Invokable_Generic>());
    EXPECT_EQ(tala::display(doubled.as<tala::I_Invokable_Generic>()(tala::Integer(21))).view(), "42");
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST_F(PythonTypeTest, ClassAttributeBeyond64BitsReadsAsItsError) {
    GilGuard gil;
    ASSERT_TRUE(runPython("class Huge:\n    size = 2 ** 70\n", globals_.get()));
    const Class_Generic cls = classOf("Huge");
    auto size = tala::definedProperty(cls, tala::Identifier::intern("size"));
    ASSERT_TRUE(size.is<tala::Property>());
    EXPECT_EQ(messageOf(size.as<tala::Property>().get(Any())), "int too big to convert");
}

TEST_F(PythonTypeTest, AMetaclassThatAnswersDictWithAnythingDoesNotMislead) {
    GilGuard gil;
    ASSERT_TRUE(runPython("class Meta(type):\n"
                          "    @property\n"
                          "    def __dict__(cls):\n"
                          "        return {'x': 1}.items()\n"
                          "class Odd(metaclass=Meta):\n"
                          "    def real(self):\n"
                          "        return 'real'\n",
                          globals_.get()));
    const Class_Generic cls = classOf("Odd");
    EXPECT_TRUE(tala::definedMethod(cls, tala::Identifier::intern("real")).is<tala::I_Invokable_Generic>());
    EXPECT_TRUE(tala::definedProperty(cls, tala::Identifier::intern("x")).isEmpty());
}

TEST_F(PythonTypeTest, InvokingTheClassMakesAPythonInstance) {
    const Class_Generic cls = classOf("Thing");
    const Any instance = tala::I_Invokable_Generic(tala::internal::unchecked, cls)(tala::Integer(5));
    ASSERT_TRUE(tala::python::PythonProxy::matches(instance)) << messageOf(instance);
    GilGuard gil;
    PyObject* object = tala::python::pyobjectOf(instance);
    ASSERT_NE(object, nullptr);
    EXPECT_EQ(reinterpret_cast<PyObject*>(Py_TYPE(object)), global("Thing"));
    EXPECT_EQ(Py_REFCNT(object), 1);  // only the proxy holds it
    PyObjectPtr size = PyObjectPtr::steal(PyObject_GetAttrString(object, "size"));
    EXPECT_EQ(PyLong_AsLong(size.get()), 5);

    auto grow = tala::definedMethod(cls, tala::Identifier::intern("grow"));
    ASSERT_TRUE(grow.is<tala::I_Invokable_Generic>());
    EXPECT_EQ(grow.as<tala::I_Invokable_Generic>()(instance, tala::Integer(2)).rawInteger(), 7);
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST_F(PythonTypeTest, InvokingAClassWhoseInitRaisesGivesTheError) {
    const Class_Generic cls = classOf("Failing");
    const Any instance = tala::I_Invokable_Generic(tala::internal::unchecked, cls)();
    EXPECT_EQ(messageOf(instance), "cannot make one");
    GilGuard gil;
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST_F(PythonTypeTest, BuiltinTypesOfPlainDataAreTheirHostClasses) {
    GilGuard gil;
    auto hostClass = [](PyObject* type) {
        auto cls = classOfPythonType(type);
        EXPECT_TRUE(cls.is<Class_Generic>());
        return cls.as<Class_Generic>();
    };
    EXPECT_EQ(hostClass(reinterpret_cast<PyObject*>(&PyFloat_Type)), tala::Float::getClass());
    EXPECT_EQ(hostClass(reinterpret_cast<PyObject*>(&PyBool_Type)), tala::Boolean::getClass());
    EXPECT_EQ(hostClass(reinterpret_cast<PyObject*>(&PyBytes_Type)), tala::ByteArray::getClass());
    EXPECT_EQ(hostClass(reinterpret_cast<PyObject*>(&PyByteArray_Type)), tala::ByteArray::getClass());
    EXPECT_EQ(hostClass(reinterpret_cast<PyObject*>(&PyMemoryView_Type)), tala::ByteArray::getClass());
    EXPECT_EQ(hostClass(reinterpret_cast<PyObject*>(&PyType_Type)), Class_Generic::getClass());
    PyObjectPtr date = evalPython("__import__('datetime').date");
    PyObjectPtr time = evalPython("__import__('datetime').time");
    PyObjectPtr dateTime = evalPython("__import__('datetime').datetime");
    PyObjectPtr decimal = evalPython("__import__('decimal').Decimal");
    EXPECT_EQ(hostClass(date.get()), tala::Date::getClass());
    EXPECT_EQ(hostClass(time.get()), tala::Time::getClass());
    EXPECT_EQ(hostClass(dateTime.get()), tala::DateTime::getClass());
    EXPECT_EQ(hostClass(decimal.get()), tala::Decimal::getClass());
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST_F(PythonTypeTest, ExceptionTypeOfAHostClassIsThatClass) {
    const Class_Generic hostClass =
        tala::ClassBuilder("ViewedError").parent(tala::Error::getClass()).build();
    GilGuard gil;
    PyObject* type = tala::python::exception_type_for(hostClass);
    auto cls = classOfPythonType(type);
    ASSERT_TRUE(cls.is<Class_Generic>());
    EXPECT_EQ(cls.as<Class_Generic>(), hostClass);
}

TEST_F(PythonTypeTest, ClassHoldingItselfIsBuiltOnce) {
    GilGuard gil;
    ASSERT_TRUE(runPython("class Self:\n"
                          "    pass\n"
                          "Self.me = Self\n",
                          globals_.get()));
    const Class_Generic cls = classOf("Self");
    EXPECT_EQ(cls.name().view(), "Self");
    EXPECT_EQ(classOf("Self"), cls);
}

TEST_F(PythonTypeTest, ClassViewKeepsOneReferenceToItsTypeForLife) {
    GilGuard gil;
    ASSERT_TRUE(runPython("class Counted:\n"
                          "    pass\n",
                          globals_.get()));
    PyObject* type = global("Counted");
    const Py_ssize_t before = Py_REFCNT(type);
    const Class_Generic cls = classOf("Counted");
    const Py_ssize_t afterFirst = Py_REFCNT(type);
    EXPECT_GT(afterFirst, before);
    for (int round = 0; round < 100; ++round) (void)classOf("Counted");
    EXPECT_EQ(Py_REFCNT(type), afterFirst);
}

TEST_F(PythonTypeTest, SubclassInheritsTheMethodsOfItsBase) {
    GilGuard gil;
    ASSERT_TRUE(runPython("class Derived(Thing):\n"
                          "    def own(self):\n"
                          "        return 1\n",
                          globals_.get()));
    const Class_Generic cls = classOf("Derived");
    const auto names = namesOf(tala::definedMethods(cls));
    for (const char* name : {"own", "grow", "make", "inherited"}) EXPECT_EQ(names.count(name), 1u) << name;
    EXPECT_EQ(names.count("__init__"), 0u);
}

}  // namespace

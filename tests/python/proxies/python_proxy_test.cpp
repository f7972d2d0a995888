// tests/python/proxies/python_proxy_test.cpp: the generic host proxy of a Python object: its one
// reference, member look-up one name at a time, inserted members, display, comparison, and the
// call of a Python method by name.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "bridge/from_python.hpp"
#include "bridge/to_python.hpp"
#include "functions/function_python.hpp"
#include "proxies/python_proxy.hpp"
#include "python_test_support.hpp"

namespace {

using tala::Any;
using tala::Identifier;
using tala::python::callPythonMethod;
using tala::python::GilGuard;
using tala::python::makePythonProxy;
using tala::python::PyObjectPtr;
using tala::python::PythonProxy;
using tala_python_test::evalPython;
using tala_python_test::hostRefCount;
using tala_python_test::PythonTest;
using tala_python_test::runPython;
using tala_python_test::takePendingError;
using tala_python_test::textOf;

class PythonProxyTest : public PythonTest {
protected:
    void SetUp() override {
        GilGuard gil;
        globals_ = tala_python_test::newGlobals();
        ASSERT_TRUE(runPython("import types\n"
                              "class Thing:\n"
                              "    def __init__(self, name='thing'):\n"
                              "        self.name = name\n"
                              "    def __str__(self):\n"
                              "        return 'Thing ' + self.name\n"
                              "    def greet(self, whom):\n"
                              "        return 'hello ' + whom + ' from ' + self.name\n"
                              "    def fail(self):\n"
                              "        raise ValueError('failed on purpose')\n"
                              "    def big(self):\n"
                              "        return 2**70\n"
                              "    not_callable = 5\n",
                              globals_.get()));
    }
    void TearDown() override {
        {
            GilGuard gil;
            globals_.reset();
        }
        PythonTest::TearDown();
    }

    PyObjectPtr object(const char* expression) { return evalPython(expression, globals_.get()); }
    std::string evaluate(const char* expression) {
        PyObjectPtr value = evalPython(expression, globals_.get());
        return tala_python_test::reprOf(value.get());
    }
    PyObject* global(const char* name) {
        GilGuard gil;
        return PyDict_GetItemString(globals_.get(), name);
    }

    static Any proxyOf(PyObject* object) {
        GilGuard gil;
        return makePythonProxy(object);
    }

    // Calls one of the proxy class's reflective methods directly, the receiver first.
    static Any reflective(const Any& proxy, Identifier name, std::vector<Any> arguments) {
        auto method = tala::raw_method_of(proxy, name);
        if (method.isEmpty()) return tala::Error(tala::String("no such reflective method"));
        arguments.insert(arguments.begin(), proxy);
        return tala::resolve(method.as<tala::I_Invokable_Generic>().invokeWith(arguments));
    }

    static std::string messageOf(const Any& value) {
        if (!tala::Error::matches(value)) return "<not an error: " + tala::display(value).toStdString() + ">";
        return tala::Error(tala::internal::unchecked, value).message().toStdString();
    }

    PyObjectPtr globals_;
};

// ---- Making and dropping ---------------------------------------------------------------------

TEST_F(PythonProxyTest, ProxyTakesOneReferenceAndGivesItBackWithItsLastHostReference) {
    GilGuard gil;
    PyObjectPtr thing = object("Thing()");
    const Py_ssize_t before = Py_REFCNT(thing.get());
    Any proxy = proxyOf(thing.get());
    EXPECT_EQ(Py_REFCNT(thing.get()), before + 1);
    EXPECT_EQ(tala::python::pyobjectOf(proxy), thing.get());
    Any copy = proxy;
    proxy.reset();
    EXPECT_EQ(Py_REFCNT(thing.get()), before + 1);
    copy.reset();
    EXPECT_EQ(Py_REFCNT(thing.get()), before);
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST_F(PythonProxyTest, ProxyIsAnInstanceOfTheRuntimeOnlyClassPythonProxy) {
    GilGuard gil;
    PyObjectPtr thing = object("Thing()");
    const Any proxy = proxyOf(thing.get());
    EXPECT_TRUE(PythonProxy::matches(proxy));
    EXPECT_EQ(tala::raw_class_of(proxy), PythonProxy::getClass());
    EXPECT_TRUE(tala::I_RuntimeOnly::matches(proxy));
    EXPECT_EQ(PythonProxy::getClass().name().view(), "PythonProxy");
    EXPECT_EQ(PythonProxy::getClass().doc().view(), "Proxy wrapper around of 'PyObject'.");
    EXPECT_FALSE(PythonProxy::matches(tala::Integer(1)));
    EXPECT_EQ(tala::python::pyobjectOf(tala::Integer(1)), nullptr);
}

TEST_F(PythonProxyTest, ProxyWithoutAnObjectHoldsNull) {
    const Any empty = tala::make_instance(PythonProxy::getClass());
    EXPECT_EQ(tala::python::pyobjectOf(empty), nullptr);
    Any wrongBox = tala::make_instance(PythonProxy::getClass());
    (void)wrongBox.setFieldValue(tala::Identifier("$_pyobj"), tala::Integer(3));
    EXPECT_EQ(tala::python::pyobjectOf(wrongBox), nullptr);
}

TEST_F(PythonProxyTest, ManyProxiesLeaveTheReferenceCountAsItWas) {
    GilGuard gil;
    PyObjectPtr thing = object("Thing()");
    const Py_ssize_t before = Py_REFCNT(thing.get());
    for (int round = 0; round < 10000; ++round) {
        Any proxy = proxyOf(thing.get());
        Any text = tala::display(proxy);
    }
    EXPECT_EQ(Py_REFCNT(thing.get()), before);
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

// ---- Enumerations and removal ----------------------------------------------------------------

TEST_F(PythonProxyTest, OwnMethodsAndPropertiesAreEmptyMaps) {
    GilGuard gil;
    PyObjectPtr many = object("types.SimpleNamespace(**{'a%d' % i: i for i in range(50)})");
    const Any proxy = proxyOf(many.get());
    const auto methods = tala::own_methods_of(proxy);
    const auto properties = tala::own_properties_of(proxy);
    EXPECT_TRUE(methods.isEmpty());
    EXPECT_TRUE(properties.isEmpty());
    EXPECT_EQ(methods.keysType(), tala::String::getType());
    EXPECT_EQ(methods.valuesType(), tala::internal::typeOf<tala::I_Invokable_Generic>());
    EXPECT_EQ(properties.valuesType(), tala::internal::typeOf<tala::Property>());
    // Each request makes a new map.
    EXPECT_NE(tala::own_methods_of(proxy).cell(), methods.cell());
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST_F(PythonProxyTest, RemovingAMethodOrPropertyAnswersFalse) {
    GilGuard gil;
    PyObjectPtr thing = object("Thing()");
    const Any proxy = proxyOf(thing.get());
    for (const Identifier id : {Any::$__removeMethod__, Any::$__removeProperty__}) {
        for (const char* name : {"greet", "name", "missing"}) {
            const Any answer = reflective(proxy, id, {tala::ByteArray(name)});
            ASSERT_TRUE(tala::Boolean::matches(answer)) << name << ": " << messageOf(answer);
            EXPECT_FALSE(answer.rawBoolean());
        }
    }
    PyObjectPtr stillThere = PyObjectPtr::steal(PyObject_GetAttrString(thing.get(), "name"));
    EXPECT_TRUE(stillThere);
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

// ---- Methods ---------------------------------------------------------------------------------

TEST_F(PythonProxyTest, MethodOfAStrIsAnInvokable) {
    GilGuard gil;
    PyObjectPtr text = PyObjectPtr::steal(PyUnicode_FromString("abc"));
    const Any proxy = proxyOf(text.get());
    auto method = tala::method_of(proxy, "upper");
    ASSERT_TRUE(method.is<tala::I_Invokable_Generic>());
    const Any result = method.as<tala::I_Invokable_Generic>()();
    EXPECT_EQ(PyErr_Occurred(), nullptr);
    ASSERT_TRUE(tala::String::matches(result)) << messageOf(result);
    EXPECT_EQ(tala::String(tala::internal::unchecked, result).view(), "ABC");
}

TEST_F(PythonProxyTest, MethodWithArgumentsIsBoundToTheObject) {
    GilGuard gil;
    PyObjectPtr thing = object("Thing('bob')");
    const Any proxy = proxyOf(thing.get());
    auto method = tala::method_of(proxy, "greet");
    ASSERT_TRUE(method.is<tala::I_Invokable_Generic>());
    EXPECT_TRUE(tala::FunctionPython::matches(method));
    const Any result = method.as<tala::I_Invokable_Generic>()(tala::String("ann"));
    EXPECT_EQ(tala::String::cast(result).value_or(tala::String()).view(), "hello ann from bob");
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST_F(PythonProxyTest, MissingMethodIsNoneWithNoErrorPending) {
    GilGuard gil;
    PyObjectPtr thing = object("Thing()");
    const Any proxy = proxyOf(thing.get());
    auto method = tala::method_of(proxy, "no_such_method");
    EXPECT_TRUE(method.is<tala::None>());
    EXPECT_EQ(PyErr_Occurred(), nullptr);
    // The own-method look-up answers the same.
    const Any own = reflective(proxy, Any::$__ownMethod__, {tala::String("no_such_method")});
    EXPECT_TRUE(own.isEmpty());
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST_F(PythonProxyTest, AttributeThatIsNotCallableIsNoMethod) {
    GilGuard gil;
    PyObjectPtr thing = object("Thing()");
    const Any proxy = proxyOf(thing.get());
    EXPECT_TRUE(tala::method_of(proxy, "not_callable").is<tala::None>());
    EXPECT_TRUE(tala::method_of(proxy, "name").is<tala::None>());
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST_F(PythonProxyTest, ReflectiveMethodsOfTheClassAreFoundFirst) {
    GilGuard gil;
    PyObjectPtr thing = object("Thing()");
    const Any proxy = proxyOf(thing.get());
    auto own = tala::method_of(proxy, Any::$__display__);
    ASSERT_TRUE(own.is<tala::I_Invokable_Generic>());
    EXPECT_FALSE(tala::FunctionPython::matches(own));
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST_F(PythonProxyTest, MethodOfAProxyWithoutAnObjectIsNone) {
    const Any empty = tala::make_instance(PythonProxy::getClass());
    EXPECT_TRUE(tala::method_of(empty, "upper").is<tala::None>());
    EXPECT_TRUE(tala::property_of(empty, "upper").is<tala::None>());
}

// ---- Properties ------------------------------------------------------------------------------

TEST_F(PythonProxyTest, ValuePropertyKeepsTheValueAtLookUpTime) {
    GilGuard gil;
    PyObjectPtr thing = object("Thing('first')");
    const Any proxy = proxyOf(thing.get());
    auto property = tala::property_of(proxy, "name");
    ASSERT_TRUE(property.is<tala::Property>());
    const tala::Property found = property.as<tala::Property>();
    EXPECT_TRUE(found.isValueProperty());
    EXPECT_EQ(found.name().text(), "name");
    PyObjectPtr second = PyObjectPtr::steal(PyUnicode_FromString("second"));
    ASSERT_EQ(PyObject_SetAttrString(thing.get(), "name", second.get()), 0);
    EXPECT_EQ(tala::String::cast(found.get(proxy)).value_or(tala::String()).view(), "first");
    auto again = tala::property_of(proxy, "name");
    EXPECT_EQ(tala::String::cast(again.as<tala::Property>().get(proxy)).value_or(tala::String()).view(), "second");
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST_F(PythonProxyTest, AttributeBeyond64BitsReadsAsTheOverflowErrorNotMinusOne) {
    GilGuard gil;
    PyObjectPtr thing = object("Thing()");
    PyObjectPtr big = object("2 ** 70");
    ASSERT_EQ(PyObject_SetAttrString(thing.get(), "huge", big.get()), 0);
    const Any proxy = proxyOf(thing.get());
    auto property = tala::property_of(proxy, "huge");
    ASSERT_TRUE(property.is<tala::Property>());
    EXPECT_EQ(messageOf(property.as<tala::Property>().get(proxy)), "int too big to convert");
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST_F(PythonProxyTest, MissingPropertyIsNoneWithNoErrorPending) {
    GilGuard gil;
    PyObjectPtr thing = object("Thing()");
    const Any proxy = proxyOf(thing.get());
    EXPECT_TRUE(tala::property_of(proxy, "no_such_property").is<tala::None>());
    EXPECT_EQ(PyErr_Occurred(), nullptr);
    const Any own = reflective(proxy, Any::$__ownProperty__, {tala::String("no_such_property")});
    EXPECT_TRUE(own.isEmpty());
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST_F(PythonProxyTest, PythonPropertyWithoutSetterIsReadOnly) {
    GilGuard gil;
    ASSERT_TRUE(runPython("def get_v(self):\n"
                          "    return self._v\n"
                          "holder = types.SimpleNamespace(_v=10, p=property(get_v))\n",
                          globals_.get()));
    const Any proxy = proxyOf(global("holder"));
    auto property = tala::property_of(proxy, "p");
    ASSERT_TRUE(property.is<tala::Property>());
    const tala::Property found = property.as<tala::Property>();
    EXPECT_FALSE(found.isValueProperty());
    EXPECT_TRUE(found.setter().isEmpty());
    EXPECT_TRUE(found.doc().isEmpty());
    const Any value = found.get(proxy);
    ASSERT_TRUE(tala::Integer::matches(value)) << messageOf(value);
    EXPECT_EQ(value.rawInteger(), 10);
    const Any written = found.set(proxy, tala::Integer(11));
    EXPECT_EQ(messageOf(written), "Read-only property: p.");
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST_F(PythonProxyTest, PythonPropertyWithASetterNotAnnotatedNoneIsReadOnly) {
    GilGuard gil;
    ASSERT_TRUE(runPython("def get_v(self):\n"
                          "    return self._v\n"
                          "def set_int(self, value) -> int:\n"
                          "    self._v = value\n"
                          "    return 0\n"
                          "def set_plain(self, value):\n"
                          "    self._v = value\n"
                          "holder = types.SimpleNamespace(_v=1, p=property(get_v, set_int), q=property(get_v, set_plain))\n",
                          globals_.get()));
    const Any proxy = proxyOf(global("holder"));
    for (const char* name : {"p", "q"}) {
        auto property = tala::property_of(proxy, name);
        ASSERT_TRUE(property.is<tala::Property>()) << name;
        const tala::Property found = property.as<tala::Property>();
        EXPECT_TRUE(found.setter().isEmpty()) << name;
        EXPECT_EQ(messageOf(found.set(proxy, tala::Integer(2))), "Read-only property: " + std::string(name) + ".");
    }
    PyObjectPtr value = PyObjectPtr::steal(PyObject_GetAttrString(global("holder"), "_v"));
    EXPECT_EQ(PyLong_AsLong(value.get()), 1);
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST_F(PythonProxyTest, PythonPropertyWithSetterAnnotatedNoneIsWritable) {
    GilGuard gil;
    ASSERT_TRUE(runPython("def get_v(self):\n"
                          "    return self._v\n"
                          "def set_v(self, value) -> None:\n"
                          "    self._v = value\n"
                          "holder = types.SimpleNamespace(_v=1, p=property(get_v, set_v))\n",
                          globals_.get()));
    const Any proxy = proxyOf(global("holder"));
    auto property = tala::property_of(proxy, "p");
    ASSERT_TRUE(property.is<tala::Property>());
    const tala::Property found = property.as<tala::Property>();
    EXPECT_FALSE(found.setter().isEmpty());
    const Any written = found.set(proxy, tala::String("changed"));
    EXPECT_TRUE(written.isEmpty()) << messageOf(written);
    PyObjectPtr value = PyObjectPtr::steal(PyObject_GetAttrString(global("holder"), "_v"));
    EXPECT_EQ(textOf(value.get()), "changed");
    EXPECT_EQ(tala::String::cast(found.get(proxy)).value_or(tala::String()).view(), "changed");
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST_F(PythonProxyTest, PropertyWhoseGetterIsNoFunctionIsAValueProperty) {
    GilGuard gil;
    ASSERT_TRUE(runPython("holder = types.SimpleNamespace(p=property(None))\n", globals_.get()));
    const Any proxy = proxyOf(global("holder"));
    auto property = tala::property_of(proxy, "p");
    ASSERT_TRUE(property.is<tala::Property>());
    EXPECT_TRUE(property.as<tala::Property>().isValueProperty());
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST_F(PythonProxyTest, PropertyOfAnInstanceIsReadThroughItsDescriptor) {
    GilGuard gil;
    ASSERT_TRUE(runPython("class WithProperty:\n"
                          "    @property\n"
                          "    def p(self):\n"
                          "        return 42\n",
                          globals_.get()));
    PyObjectPtr instance = object("WithProperty()");
    const Any proxy = proxyOf(instance.get());
    auto property = tala::property_of(proxy, "p");
    ASSERT_TRUE(property.is<tala::Property>());
    EXPECT_TRUE(property.as<tala::Property>().isValueProperty());
    EXPECT_EQ(property.as<tala::Property>().get(proxy).rawInteger(), 42);
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

// ---- Inserting members -----------------------------------------------------------------------

TEST_F(PythonProxyTest, InsertedValuePropertySetsAPythonAttribute) {
    GilGuard gil;
    PyObjectPtr thing = object("Thing()");
    const Any proxy = proxyOf(thing.get());
    const Any result = tala::insert_property_value(proxy, Identifier::intern("added"), tala::Integer(7));
    EXPECT_TRUE(result.isEmpty()) << messageOf(result);
    PyObjectPtr added = PyObjectPtr::steal(PyObject_GetAttrString(thing.get(), "added"));
    ASSERT_TRUE(added) << takePendingError();
    EXPECT_EQ(PyLong_AsLong(added.get()), 7);
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST_F(PythonProxyTest, InsertedValuePropertyByByteArrayNameSetsAPythonAttribute) {
    GilGuard gil;
    PyObjectPtr thing = object("Thing()");
    const Any proxy = proxyOf(thing.get());
    const tala::Property property = tala::Property::value(Identifier::intern("other"), tala::String("text"));
    const Any result = reflective(proxy, Any::$__insertProperty__, {tala::ByteArray("other"), property});
    EXPECT_TRUE(result.isEmpty()) << messageOf(result);
    PyObjectPtr added = PyObjectPtr::steal(PyObject_GetAttrString(thing.get(), "other"));
    ASSERT_TRUE(added) << takePendingError();
    EXPECT_EQ(textOf(added.get()), "text");
}

TEST_F(PythonProxyTest, InsertingANonValuePropertyFails) {
    GilGuard gil;
    PyObjectPtr thing = object("Thing()");
    const Any proxy = proxyOf(thing.get());
    const tala::Property computed(Identifier::intern("computed"),
                                  tala::native_function([](const Any&) { return tala::Integer(1); }, "computed", {},
                                                        tala::String(), false));
    const Any result = reflective(proxy, Any::$__insertProperty__, {tala::ByteArray("computed"), computed});
    EXPECT_EQ(messageOf(result),
              "Unable to insert non-value property to a python object, use 'raw_insert_property' instead.");
    EXPECT_EQ(PyObject_HasAttrString(thing.get(), "computed"), 0);
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST_F(PythonProxyTest, InsertingIntoAnObjectThatRefusesGivesThePythonError) {
    GilGuard gil;
    PyObjectPtr plain = object("object()");
    const Any proxy = proxyOf(plain.get());
    const Any result = tala::insert_property_value(proxy, Identifier::intern("added"), tala::Integer(7));
    EXPECT_EQ(messageOf(result), "'object' object has no attribute 'added' and no __dict__ for setting new attributes");
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST_F(PythonProxyTest, InsertedHostMethodIsCallableFromPython) {
    GilGuard gil;
    PyObjectPtr thing = object("Thing()");
    const Any proxy = proxyOf(thing.get());
    const auto twice = tala::native_function([](std::int64_t x) { return x * 2; }, "twice", {"x"});
    const Any result = tala::insert_method(proxy, Identifier::intern("twice"), twice);
    EXPECT_TRUE(result.isEmpty()) << messageOf(result);
    ASSERT_EQ(PyDict_SetItemString(globals_.get(), "target", thing.get()), 0);
    PyObjectPtr answer = evalPython("target.twice(21)", globals_.get());
    ASSERT_TRUE(answer);
    EXPECT_EQ(PyLong_AsLong(answer.get()), 42);
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST_F(PythonProxyTest, InsertedMethodTakingAReceiverIsBoundToTheProxy) {
    GilGuard gil;
    PyObjectPtr thing = object("Thing('receiver')");
    const Any proxy = proxyOf(thing.get());
    const auto describe = tala::native_function(
        [](const Any& self, const tala::String& suffix) {
            return tala::String(tala::display(self).toStdString() + suffix.toStdString());
        },
        "describe", {"suffix"}, tala::String(), false);
    const Any result = reflective(proxy, Any::$__insertMethod__, {tala::ByteArray("describe"), describe});
    EXPECT_TRUE(result.isEmpty()) << messageOf(result);
    ASSERT_EQ(PyDict_SetItemString(globals_.get(), "target", thing.get()), 0);
    PyObjectPtr answer = evalPython("target.describe('!')", globals_.get());
    ASSERT_TRUE(answer);
    EXPECT_EQ(textOf(answer.get()), "Thing receiver!");
    // The object now holds the bound method, which holds the proxy, which holds the object: a
    // cycle through the host that Python's collector cannot see. Removing the attribute breaks it.
    EXPECT_EQ(hostRefCount(proxy), 2u);  // this test's and the bound method's
    ASSERT_EQ(PyObject_DelAttrString(thing.get(), "describe"), 0);
    EXPECT_EQ(hostRefCount(proxy), 1u);
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

// ---- Display ---------------------------------------------------------------------------------

TEST_F(PythonProxyTest, DisplayIsTheObjectsStr) {
    GilGuard gil;
    PyObjectPtr thing = object("Thing('shown')");
    EXPECT_EQ(tala::display(proxyOf(thing.get())).view(), "Thing shown");
    PyObjectPtr list = object("[1, 'a']");
    EXPECT_EQ(tala::display(tala::python::from_python(list.get())).view(), "[1, 'a']");
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST_F(PythonProxyTest, DisplayOfAFailingStrIsTheErrorsMessage) {
    GilGuard gil;
    ASSERT_TRUE(runPython("class BadStr:\n"
                          "    def __str__(self):\n"
                          "        raise ValueError('cannot show')\n",
                          globals_.get()));
    PyObjectPtr bad = object("BadStr()");
    const Any proxy = proxyOf(bad.get());
    const Any shown = reflective(proxy, Any::$__display__, {});
    EXPECT_EQ(messageOf(shown), "cannot show");
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST_F(PythonProxyTest, DisplayOfAStrThatReturnsNoTextIsAnErrorNotARecursion) {
    GilGuard gil;
    ASSERT_TRUE(runPython("class Itself:\n"
                          "    def __str__(self):\n"
                          "        return self\n"
                          "class Number:\n"
                          "    def __str__(self):\n"
                          "        return 5\n",
                          globals_.get()));
    PyObjectPtr itself = object("Itself()");
    EXPECT_EQ(messageOf(reflective(proxyOf(itself.get()), Any::$__display__, {})),
              "__str__ returned non-string (type Itself)");
    PyObjectPtr number = object("Number()");
    EXPECT_EQ(messageOf(reflective(proxyOf(number.get()), Any::$__display__, {})),
              "__str__ returned non-string (type int)");
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

// ---- Comparison ------------------------------------------------------------------------------

TEST_F(PythonProxyTest, ComparisonWithANonProxyIsTheRawIdentityDifference) {
    GilGuard gil;
    PyObjectPtr thing = object("Thing()");
    const Any proxy = proxyOf(thing.get());
    for (const Any& other : {Any(tala::Integer(5)), Any(tala::String("text")), Any(tala::List<Any>())}) {
        const Any order = reflective(proxy, Any::$__compare__, {other});
        ASSERT_TRUE(tala::Integer::matches(order)) << messageOf(order);
        EXPECT_EQ(order.rawInteger(), static_cast<std::int64_t>(tala::object_id(proxy) - tala::object_id(other)));
    }
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST_F(PythonProxyTest, ProxyComparedWithItselfOrTheSameObjectIsZeroWithoutEnteringPython) {
    GilGuard gil;
    ASSERT_TRUE(runPython("class Loud:\n"
                          "    calls = 0\n"
                          "    def _refuse(self, other):\n"
                          "        Loud.calls += 1\n"
                          "        raise TypeError('compared')\n"
                          "    __eq__ = __lt__ = __gt__ = __le__ = __ge__ = _refuse\n"
                          "    __hash__ = object.__hash__\n",
                          globals_.get()));
    PyObjectPtr loud = object("Loud()");
    const Any first = proxyOf(loud.get());
    const Any second = proxyOf(loud.get());
    EXPECT_EQ(reflective(first, Any::$__compare__, {first}).rawInteger(), 0);
    EXPECT_EQ(reflective(first, Any::$__compare__, {second}).rawInteger(), 0);
    EXPECT_EQ(tala::compare_objects(first, second), 0);
    PyObjectPtr calls = evalPython("Loud.calls", globals_.get());
    EXPECT_EQ(PyLong_AsLong(calls.get()), 0);
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST_F(PythonProxyTest, ComparisonsThatRaiseFallThroughToTheHelperAndLeaveNothingPending) {
    GilGuard gil;
    ASSERT_TRUE(runPython("class Raising:\n"
                          "    calls = []\n"
                          "    def _refuse(self, other, name):\n"
                          "        import sys\n"
                          "        Raising.calls.append((name, sys.exc_info()[0] is None))\n"
                          "        raise TypeError(name)\n"
                          "    def __lt__(self, other): return self._refuse(other, 'lt')\n"
                          "    def __gt__(self, other): return self._refuse(other, 'gt')\n"
                          "    def __eq__(self, other): return self._refuse(other, 'eq')\n"
                          "    __hash__ = object.__hash__\n",
                          globals_.get()));
    PyObjectPtr first = object("Raising()");
    PyObjectPtr second = object("Raising()");
    const Any a = proxyOf(first.get());
    const Any b = proxyOf(second.get());
    EXPECT_EQ(messageOf(reflective(a, Any::$__compare__, {b})), "Unable to call helper function.");
    EXPECT_EQ(PyErr_Occurred(), nullptr);
    // Each comparison was asked for in turn, the helper's `a > b` last, and none of them was
    // entered with an exception already set.
    EXPECT_EQ(evaluate("Raising.calls"), "[('lt', True), ('gt', True), ('eq', True), ('gt', True)]");
}

TEST_F(PythonProxyTest, OrderedObjectsCompareByTheirOrder) {
    GilGuard gil;
    PyObjectPtr one = PyObjectPtr::steal(PyFloat_FromDouble(1.5));
    PyObjectPtr two = PyObjectPtr::steal(PyFloat_FromDouble(2.5));
    PyObjectPtr alsoOne = PyObjectPtr::steal(PyFloat_FromDouble(1.5));
    const Any a = proxyOf(one.get());
    const Any b = proxyOf(two.get());
    const Any c = proxyOf(alsoOne.get());
    EXPECT_EQ(reflective(a, Any::$__compare__, {b}).rawInteger(), -1);
    EXPECT_EQ(reflective(b, Any::$__compare__, {a}).rawInteger(), 1);
    EXPECT_EQ(reflective(a, Any::$__compare__, {c}).rawInteger(), 0);
    EXPECT_EQ(tala::compare_objects(a, b), -1);
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST_F(PythonProxyTest, ObjectsSupportingOnlyEqualityAreZeroWhenEqual) {
    GilGuard gil;
    ASSERT_TRUE(runPython("class OnlyEq:\n"
                          "    def __init__(self, v):\n"
                          "        self.v = v\n"
                          "    def __eq__(self, other):\n"
                          "        return isinstance(other, OnlyEq) and self.v == other.v\n",
                          globals_.get()));
    PyObjectPtr first = object("OnlyEq(1)");
    PyObjectPtr second = object("OnlyEq(1)");
    PyObjectPtr third = object("OnlyEq(2)");
    const Any a = proxyOf(first.get());
    const Any b = proxyOf(second.get());
    const Any c = proxyOf(third.get());
    const Any equal = reflective(a, Any::$__compare__, {b});
    ASSERT_TRUE(tala::Integer::matches(equal)) << messageOf(equal);
    EXPECT_EQ(equal.rawInteger(), 0);
    EXPECT_EQ(messageOf(reflective(a, Any::$__compare__, {c})), "Unable to call helper function.");
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST_F(PythonProxyTest, UnorderedUnequalObjectsFailThroughTheHelper) {
    GilGuard gil;
    PyObjectPtr first = object("object()");
    PyObjectPtr second = object("object()");
    const Any a = proxyOf(first.get());
    const Any b = proxyOf(second.get());
    EXPECT_EQ(messageOf(reflective(a, Any::$__compare__, {b})), "Unable to call helper function.");
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST_F(PythonProxyTest, HelperDecidesWhenComparisonsAnswerTruthyValuesOtherThanTrue) {
    GilGuard gil;
    ASSERT_TRUE(runPython("class Fuzzy:\n"
                          "    def __init__(self, v):\n"
                          "        self.v = v\n"
                          "    def __gt__(self, other):\n"
                          "        return int(self.v > other.v)\n"
                          "    def __lt__(self, other):\n"
                          "        return int(self.v < other.v)\n",
                          globals_.get()));
    PyObjectPtr low = object("Fuzzy(1)");
    PyObjectPtr high = object("Fuzzy(2)");
    PyObjectPtr sameAsLow = object("Fuzzy(1)");
    const Any a = proxyOf(low.get());
    const Any b = proxyOf(high.get());
    const Any c = proxyOf(sameAsLow.get());
    EXPECT_EQ(reflective(b, Any::$__compare__, {a}).rawInteger(), 1);
    EXPECT_EQ(reflective(a, Any::$__compare__, {b}).rawInteger(), -1);
    EXPECT_EQ(reflective(a, Any::$__compare__, {c}).rawInteger(), 0);
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST_F(PythonProxyTest, ComparisonWithAProxyWithoutAnObjectIsTheIdentityDifference) {
    GilGuard gil;
    PyObjectPtr thing = object("Thing()");
    const Any proxy = proxyOf(thing.get());
    const Any empty = tala::make_instance(PythonProxy::getClass());
    const Any order = reflective(proxy, Any::$__compare__, {empty});
    EXPECT_EQ(order.rawInteger(), static_cast<std::int64_t>(tala::object_id(proxy) - tala::object_id(empty)));
}

// ---- Calling a Python method by name ---------------------------------------------------------

TEST_F(PythonProxyTest, CallPythonMethodConvertsArgumentsAndResult) {
    GilGuard gil;
    PyObjectPtr thing = object("Thing('me')");
    const Any proxy = proxyOf(thing.get());
    const Any result = tala::resolve(callPythonMethod(proxy, tala::String("greet"), {tala::String("you")}));
    EXPECT_EQ(tala::String::cast(result).value_or(tala::String()).view(), "hello you from me");
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST_F(PythonProxyTest, CallPythonMethodOnNullObjectFails) {
    const Any empty = tala::make_instance(PythonProxy::getClass());
    EXPECT_EQ(messageOf(tala::resolve(callPythonMethod(empty, tala::String("greet"), {}))), "The object is null.");
}

TEST_F(PythonProxyTest, CallPythonMethodOfAMissingOrNotCallableAttributeFails) {
    GilGuard gil;
    PyObjectPtr thing = object("Thing('target')");
    const Any proxy = proxyOf(thing.get());
    EXPECT_EQ(messageOf(tala::resolve(callPythonMethod(proxy, tala::String("nothing"), {}))),
              "The method is missing: nothing, target object: Thing target.");
    EXPECT_EQ(messageOf(tala::resolve(callPythonMethod(proxy, tala::String("not_callable"), {}))),
              "The method is missing: not_callable, target object: Thing target.");
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST_F(PythonProxyTest, CallPythonMethodGivesThePythonExceptionAsHostError) {
    GilGuard gil;
    PyObjectPtr thing = object("Thing()");
    const Any proxy = proxyOf(thing.get());
    const Any result = tala::resolve(callPythonMethod(proxy, tala::String("fail"), {}));
    EXPECT_EQ(messageOf(result), "failed on purpose");
    EXPECT_EQ(PyErr_Occurred(), nullptr);
    const Any wrongCount = tala::resolve(callPythonMethod(proxy, tala::String("greet"), {}));
    EXPECT_EQ(messageOf(wrongCount), "Thing.greet() missing 1 required positional argument: 'whom'");
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST_F(PythonProxyTest, CallPythonMethodWithAResultBeyond64BitsGivesTheOverflowError) {
    GilGuard gil;
    PyObjectPtr thing = object("Thing()");
    const Any proxy = proxyOf(thing.get());
    const Any result = tala::resolve(callPythonMethod(proxy, tala::String("big"), {}));
    EXPECT_EQ(messageOf(result), "int too big to convert");
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST_F(PythonProxyTest, CallPythonMethodWithAnErrorArgumentGivesThatError) {
    GilGuard gil;
    PyObjectPtr thing = object("Thing()");
    const Any proxy = proxyOf(thing.get());
    const Any result = tala::resolve(callPythonMethod(proxy, tala::String("greet"), {tala::Error(tala::String("no argument"))}));
    EXPECT_EQ(messageOf(result), "no argument");
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST_F(PythonProxyTest, CallPythonMethodLeavesNoReferenceBehind) {
    GilGuard gil;
    PyObjectPtr thing = object("Thing()");
    PyObjectPtr argument = PyObjectPtr::steal(PyUnicode_FromString("argument"));
    const Any proxy = proxyOf(thing.get());
    const Any hostArgument = tala::python::from_python(argument.get());
    const Py_ssize_t before = Py_REFCNT(thing.get());
    for (int round = 0; round < 1000; ++round) {
        (void)tala::resolve(callPythonMethod(proxy, tala::String("greet"), {hostArgument}));
        (void)tala::resolve(callPythonMethod(proxy, tala::String("fail"), {}));
    }
    EXPECT_EQ(Py_REFCNT(thing.get()), before);
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

}  // namespace

// tests/python/proxies/collection_proxies_test.cpp: the proxies of Python iterables, iterators,
// dicts, sequences and sets, used through the host's collection methods.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "bridge/from_python.hpp"
#include "bridge/to_python.hpp"
#include "proxies/python_proxy.hpp"
#include "python_test_support.hpp"

namespace {

using tala::Any;
using tala::Identifier;
using tala::Integer;
using tala::String;
using tala::python::CollectionKind;
using tala::python::from_python;
using tala::python::GilGuard;
using tala::python::makeCollectionProxy;
using tala::python::PyObjectPtr;
using tala::python::PythonProxyIterable;
using tala::python::PythonProxyIterator;
using tala::python::PythonProxyMapping;
using tala::python::PythonProxySequence;
using tala::python::PythonProxySet;
using tala_python_test::evalPython;
using tala_python_test::PythonTest;
using tala_python_test::reprOf;
using tala_python_test::runPython;
using tala_python_test::takePendingError;
using tala_python_test::textOf;

class CollectionProxyTest : public PythonTest {
protected:
    void SetUp() override {
        GilGuard gil;
        globals_ = tala_python_test::newGlobals();
    }
    void TearDown() override {
        {
            GilGuard gil;
            globals_.reset();
        }
        PythonTest::TearDown();
    }

    // Runs statements in this test's globals.
    void run(const char* code) { ASSERT_TRUE(runPython(code, globals_.get())); }
    PyObject* global(const char* name) {
        GilGuard gil;
        return PyDict_GetItemString(globals_.get(), name);
    }
    // The host value of a global, converted the usual way.
    Any proxyOf(const char* name) {
        GilGuard gil;
        PyObject* object = global(name);
        EXPECT_NE(object, nullptr) << name;
        return from_python(object);
    }
    // repr() of a global, to see what the host changed.
    std::string reprOfGlobal(const char* name) { return reprOf(global(name)); }
    std::string evaluate(const char* expression) {
        PyObjectPtr value = evalPython(expression, globals_.get());
        return reprOf(value.get());
    }

    // Calls a method of the proxy by its identifier; no Python error may be left pending.
    static Any call(const Any& proxy, Identifier name, std::initializer_list<Any> arguments = {}) {
        GilGuard gil;
        Any result = tala::resolve(tala::internal::callMember(proxy, name, arguments));
        EXPECT_EQ(PyErr_Occurred(), nullptr) << name.text() << ": " << takePendingError();
        return result;
    }

    static std::string messageOf(const Any& value) {
        if (!tala::Error::matches(value)) return "<not an error: " + tala::display(value).toStdString() + ">";
        return tala::Error(tala::internal::unchecked, value).message().toStdString();
    }
    static std::int64_t integerOf(const Any& value) {
        EXPECT_TRUE(Integer::matches(value)) << messageOf(value);
        return value.rawInteger();
    }
    static bool booleanOf(const Any& value) {
        EXPECT_TRUE(tala::Boolean::matches(value)) << messageOf(value);
        return value.rawBoolean();
    }

    PyObjectPtr globals_;
};

// ---- The classes -----------------------------------------------------------------------------

TEST_F(CollectionProxyTest, ClassesAreNamedAndDeriveFromPythonProxyAndTheirInterface) {
    struct Expected {
        tala::Class_Generic cls;
        const char* name;
        tala::Class_Generic interface;
    };
    const Expected expected[] = {
        {PythonProxyIterable::getClass(), "PythonProxyIterable", tala::I_Iterable_Generic::getClass()},
        {PythonProxyIterator::getClass(), "PythonProxyIterator", tala::I_Iterator_Generic::getClass()},
        {PythonProxyMapping::getClass(), "PythonProxyMapping", tala::I_MutableMap_Generic::getClass()},
        {PythonProxySequence::getClass(), "PythonProxySequence", tala::I_MutableSequence_Generic::getClass()},
        {PythonProxySet::getClass(), "PythonProxySet", tala::I_MutableSet_Generic::getClass()},
    };
    for (const auto& [cls, name, interface] : expected) {
        EXPECT_EQ(cls.name(), name);
        EXPECT_TRUE(tala::is_ancestor(cls, tala::python::PythonProxy::getClass())) << name;
        EXPECT_TRUE(tala::is_ancestor(cls, interface)) << name;
    }
}

TEST_F(CollectionProxyTest, ClassesListTheirMethods) {
    auto namesOf = [](const tala::Class_Generic& cls) {
        std::vector<std::string> names;
        for (const auto& [name, method] : tala::definedMethods(cls)) names.push_back(name.toStdString());
        return names;
    };
    auto has = [](const std::vector<std::string>& names, const char* name) {
        return std::find(names.begin(), names.end(), name) != names.end();
    };
    const auto iterable = namesOf(PythonProxyIterable::getClass());
    for (const char* name : {"iter", "contains"}) EXPECT_TRUE(has(iterable, name)) << name;
    EXPECT_TRUE(has(namesOf(PythonProxyIterator::getClass()), "next"));
    const auto mapping = namesOf(PythonProxyMapping::getClass());
    for (const char* name : {"set", "remove", "get", "contains", "clear", "values", "length", "keys"}) {
        EXPECT_TRUE(has(mapping, name)) << name;
    }
    const auto sequence = namesOf(PythonProxySequence::getClass());
    for (const char* name : {"set", "removeAt", "removeOne", "pop", "extend", "clear", "appendAt", "append", "indexOf",
                             "contains", "atOr", "at", "length"}) {
        EXPECT_TRUE(has(sequence, name)) << name;
    }
    const auto set = namesOf(PythonProxySet::getClass());
    for (const char* name : {"remove", "insert", "extend", "clear", "length", "contains", "iter"}) {
        EXPECT_TRUE(has(set, name)) << name;
    }
    EXPECT_TRUE(has(mapping, "iter"));
    EXPECT_TRUE(has(sequence, "iter"));
}

// ---- Iterables and iterators -----------------------------------------------------------------

TEST_F(CollectionProxyTest, IterableGivesAnIteratorProxyWalkingTheItems) {
    GilGuard gil;
    run("items = frozenset([5])\n");
    const Any iterable = proxyOf("items");
    ASSERT_TRUE(PythonProxyIterable::matches(iterable));
    const Any iterator = call(iterable, Any::$iter);
    ASSERT_EQ(tala::raw_class_of(iterator), PythonProxyIterator::getClass()) << messageOf(iterator);
    EXPECT_EQ(integerOf(call(iterator, Any::$next)), 5);
    EXPECT_TRUE(tala::StopIteration::matches(call(iterator, Any::$next)));
}

TEST_F(CollectionProxyTest, IterWhoseResultIsNoIteratorIsATypeErrorNotACrash) {
    GilGuard gil;
    run("class GivesList:\n"
        "    def __iter__(self):\n"
        "        return [1, 2]\n"
        "class GivesInt:\n"
        "    def __iter__(self):\n"
        "        return 7\n"
        "lists = GivesList()\n"
        "ints = GivesInt()\n");
    for (const char* name : {"lists", "ints"}) {
        const Any iterable = proxyOf(name);
        ASSERT_TRUE(PythonProxyIterable::matches(iterable)) << name;
        const Any iterator = call(iterable, Any::$iter);
        ASSERT_TRUE(tala::Error::matches(iterator)) << name << ": " << tala::display(iterator).toStdString();
        const std::string expected = std::string("iter() returned non-iterator of type '") +
                                     (std::string(name) == "lists" ? "list" : "int") + "'";
        EXPECT_EQ(messageOf(iterator), expected);
        // Host code that iterates the proxy stops at the error.
        EXPECT_EQ(tala::String::join(iterable, ",").toStdString(), "");
    }
}

TEST_F(CollectionProxyTest, NextOfAnIteratorProxyOverANonIteratorIsATypeError) {
    GilGuard gil;
    run("things = [1, 2]\n");
    const Any iterator = makeCollectionProxy(CollectionKind::Iterator, global("things"));
    EXPECT_EQ(messageOf(call(iterator, Any::$next)), "'list' object is not an iterator");
}

TEST_F(CollectionProxyTest, IndexOfWhoseIndexAnswersNoIntegerIsAnError) {
    GilGuard gil;
    run("class OddIndex(list):\n"
        "    def index(self, value, start=0):\n"
        "        return 'here'\n"
        "class HugeIndex(list):\n"
        "    def index(self, value, start=0):\n"
        "        return 2 ** 70\n"
        "odd = OddIndex([1])\n"
        "huge = HugeIndex([1])\n");
    EXPECT_EQ(messageOf(call(proxyOf("odd"), Any::$indexOf, {Integer(1), Integer(0)})),
              "The Python method did not return an integer: 'here'.");
    EXPECT_EQ(messageOf(call(proxyOf("huge"), Any::$indexOf, {Integer(1)})), "int too big to convert");
}

TEST_F(CollectionProxyTest, ListsTuplesAndDictsAnswerAsTheirMethodsDo) {
    GilGuard gil;
    run("items = [10, 20, 30]\npair = (1, 'two')\ntable = {'a': 1}\nchosen = {3, 4}\n");
    const Any items = proxyOf("items");
    EXPECT_EQ(integerOf(call(items, Any::$at, {Integer(-1)})), 30);
    EXPECT_EQ(messageOf(call(items, Any::$at, {Integer(3)})), "list index out of range");
    EXPECT_EQ(integerOf(call(items, Any::$$length)), 3);
    EXPECT_TRUE(booleanOf(call(items, Any::$contains, {Integer(20)})));
    const Any pair = proxyOf("pair");
    EXPECT_EQ(messageOf(call(pair, Any::$at, {Integer(-3)})), "tuple index out of range");
    EXPECT_EQ(tala::String::cast(call(pair, Any::$at, {Integer(1)})).value_or(String()).view(), "two");
    const Any table = proxyOf("table");
    EXPECT_EQ(messageOf(call(table, Any::$get, {String("b")})), "'b'");
    EXPECT_EQ(integerOf(call(table, Any::$get, {String("b"), Integer(7)})), 7);
    EXPECT_EQ(integerOf(call(table, Any::$$length)), 1);
    EXPECT_FALSE(booleanOf(call(proxyOf("chosen"), Any::$contains, {Integer(5)})));
    // Iterating an exact list while it grows follows the list, as Python's own iterator does.
    const Any iterator = call(items, Any::$iter);
    EXPECT_EQ(integerOf(call(iterator, Any::$next)), 10);
    run("items.append(40)\n");
    for (std::int64_t expected : {20, 30, 40}) EXPECT_EQ(integerOf(call(iterator, Any::$next)), expected);
    EXPECT_TRUE(tala::StopIteration::matches(call(iterator, Any::$next)));
}

TEST_F(CollectionProxyTest, ASubclassThatOverridesItsMethodsIsCalledThroughThem) {
    GilGuard gil;
    run("class Doubled(list):\n"
        "    def __getitem__(self, index):\n"
        "        return 2 * list.__getitem__(self, index)\n"
        "    def __len__(self):\n"
        "        return 99\n"
        "    def __contains__(self, value):\n"
        "        return value == 'always'\n"
        "class Defaulting(dict):\n"
        "    def __getitem__(self, key):\n"
        "        return 'default'\n"
        "doubled = Doubled([1, 2])\n"
        "defaulting = Defaulting()\n");
    const Any doubled = proxyOf("doubled");
    EXPECT_EQ(integerOf(call(doubled, Any::$at, {Integer(1)})), 4);
    EXPECT_EQ(integerOf(call(doubled, Any::$$length)), 99);
    EXPECT_TRUE(booleanOf(call(doubled, Any::$contains, {String("always")})));
    EXPECT_EQ(tala::String::cast(call(proxyOf("defaulting"), Any::$get, {String("k")})).value_or(String()).view(), "default");
}

TEST_F(CollectionProxyTest, NextAfterTheEndIsAStopIterationOnEveryCall) {
    GilGuard gil;
    run("gen = (x * 10 for x in range(2))\n");
    const Any iterator = call(proxyOf("gen"), Any::$iter);
    EXPECT_EQ(integerOf(call(iterator, Any::$next)), 0);
    EXPECT_EQ(integerOf(call(iterator, Any::$next)), 10);
    for (int again = 0; again < 3; ++again) {
        const Any end = call(iterator, Any::$next);
        EXPECT_TRUE(tala::StopIteration::matches(end)) << messageOf(end);
    }
}

TEST_F(CollectionProxyTest, ExceptionInsideAGeneratorIsAHostError) {
    GilGuard gil;
    run("def failing():\n"
        "    yield 1\n"
        "    raise ValueError('inside the generator')\n"
        "gen = failing()\n");
    const Any iterator = call(proxyOf("gen"), Any::$iter);
    EXPECT_EQ(integerOf(call(iterator, Any::$next)), 1);
    const Any failure = call(iterator, Any::$next);
    EXPECT_FALSE(tala::StopIteration::matches(failure));
    EXPECT_EQ(messageOf(failure), "inside the generator");
    EXPECT_TRUE(tala::StopIteration::matches(call(iterator, Any::$next)));
}

TEST_F(CollectionProxyTest, NextGivesTheOverflowOfAHugeItemAsHostError) {
    GilGuard gil;
    run("gen = iter([2**70, 3])\n");
    const Any iterator = call(proxyOf("gen"), Any::$iter);
    EXPECT_EQ(messageOf(call(iterator, Any::$next)), "int too big to convert");
    EXPECT_EQ(integerOf(call(iterator, Any::$next)), 3);
}

TEST_F(CollectionProxyTest, IterWithoutAnObjectIsInvalid) {
    const Any empty = tala::make_instance(PythonProxyIterable::getClass());
    EXPECT_EQ(messageOf(call(empty, Any::$iter)), "Invalid object.");
}

TEST_F(CollectionProxyTest, IterOfAnObjectWhoseIterIsNotCallableIsMissing) {
    GilGuard gil;
    run("class NotIterable:\n"
        "    __iter__ = 5\n"
        "thing = NotIterable()\n");
    const Any proxy = proxyOf("thing");
    ASSERT_TRUE(PythonProxyIterable::matches(proxy));
    EXPECT_EQ(messageOf(call(proxy, Any::$iter)), "Missing '__iter__' method.");

    // Without any __iter__ at all, made into an iterable proxy by hand.
    PyObjectPtr plain = evalPython("object()");
    const Any byHand = makeCollectionProxy(CollectionKind::Iterable, plain.get());
    EXPECT_EQ(messageOf(call(byHand, Any::$iter)), "Missing '__iter__' method.");
}

TEST_F(CollectionProxyTest, IterThatRaisesGivesThePythonError) {
    GilGuard gil;
    run("class Refusing:\n"
        "    def __iter__(self):\n"
        "        raise TypeError('no iteration today')\n"
        "thing = Refusing()\n");
    EXPECT_EQ(messageOf(call(proxyOf("thing"), Any::$iter)), "no iteration today");
}

TEST_F(CollectionProxyTest, NextWithoutAnObjectIsNull) {
    const Any empty = tala::make_instance(PythonProxyIterator::getClass());
    EXPECT_EQ(messageOf(call(empty, Any::$next)), "The object is null.");
}

// The methods called on every item take their receiver as it comes: given a value that is no
// proxy (their function called directly), they answer with an error, as for a proxy without an
// object.
TEST_F(CollectionProxyTest, NextAndAtOfAReceiverThatIsNoProxyAreErrors) {
    const Any* next = PythonProxyIterator::getClass().cell()->findMethod(Any::$next);
    const Any* at = PythonProxySequence::getClass().cell()->findMethod(Any::$at);
    ASSERT_NE(next, nullptr);
    ASSERT_NE(at, nullptr);
    const tala::List<Any> notAProxy{Integer(1), Integer(2)};
    const Any nextArguments[] = {notAProxy};
    const Any atArguments[] = {notAProxy, Integer(0)};
    GilGuard gil;
    const tala::I_Invokable_Generic nextFunction(tala::internal::unchecked, *next);
    const tala::I_Invokable_Generic atFunction(tala::internal::unchecked, *at);
    EXPECT_EQ(messageOf(tala::resolve(nextFunction.invokeWith(std::span<const Any>(nextArguments)))), "The object is null.");
    EXPECT_EQ(messageOf(tala::resolve(atFunction.invokeWith(std::span<const Any>(atArguments)))), "The object is null.");
    EXPECT_EQ(PyErr_Occurred(), nullptr) << takePendingError();
}

TEST_F(CollectionProxyTest, IterableContains) {
    GilGuard gil;
    run("items = frozenset([1, 'two'])\n");
    const Any proxy = proxyOf("items");
    EXPECT_TRUE(booleanOf(call(proxy, Any::$contains, {Integer(1)})));
    EXPECT_TRUE(booleanOf(call(proxy, Any::$contains, {String("two")})));
    EXPECT_FALSE(booleanOf(call(proxy, Any::$contains, {Integer(3)})));
}

TEST_F(CollectionProxyTest, IterableWithoutContainsReportsTheMissingMethod) {
    GilGuard gil;
    run("gen = (x for x in [])\n");
    const Any proxy = proxyOf("gen");
    const std::string shown = evaluate("str(gen)");  // "'<generator object ...>'"
    EXPECT_EQ(messageOf(call(proxy, Any::$contains, {Integer(1)})),
              "The method is missing: __contains__, target object: " + shown.substr(1, shown.size() - 2) + ".");
}

TEST_F(CollectionProxyTest, IteratorProxyKeepsItsIteratorAndGivesItBack) {
    GilGuard gil;
    run("items = [1, 2, 3]\n");
    PyObject* list = global("items");
    const Py_ssize_t before = Py_REFCNT(list);
    {
        const Any iterable = makeCollectionProxy(CollectionKind::Iterable, list);
        const Any iterator = call(iterable, Any::$iter);
        ASSERT_TRUE(PythonProxyIterator::matches(iterator)) << messageOf(iterator);
        EXPECT_EQ(Py_REFCNT(list), before + 2);  // the proxy's and the list iterator's
        PyObject* pythonIterator = tala::python::pyobjectOf(iterator);
        ASSERT_NE(pythonIterator, nullptr);
        EXPECT_EQ(Py_REFCNT(pythonIterator), 1);
        std::vector<std::int64_t> seen;
        for (Any item = call(iterator, Any::$next); Integer::matches(item); item = call(iterator, Any::$next)) {
            seen.push_back(item.rawInteger());
        }
        EXPECT_EQ(seen, (std::vector<std::int64_t>{1, 2, 3}));
        EXPECT_TRUE(tala::StopIteration::matches(call(iterator, Any::$next)));
    }
    EXPECT_EQ(Py_REFCNT(list), before);
}

TEST_F(CollectionProxyTest, IteratorProxyIsAHostIterator) {
    GilGuard gil;
    run("gen = (c for c in 'ab')\n");
    const Any iterable = proxyOf("gen");
    ASSERT_TRUE(tala::I_Iterable_Generic::matches(iterable));
    const Any iterator = tala::I_Iterable_Generic(tala::internal::unchecked, iterable).iter();
    ASSERT_TRUE(tala::I_Iterator_Generic::matches(iterator)) << messageOf(iterator);
    const tala::I_Iterator_Generic walk(tala::internal::unchecked, iterator);
    EXPECT_EQ(tala::display(walk.next()).view(), "'a'");
    EXPECT_EQ(tala::display(walk.next()).view(), "'b'");
    EXPECT_TRUE(tala::StopIteration::matches(walk.next()));
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

// Every collection proxy is an I_Iterable of the host: iteration goes through Python's __iter__.
TEST_F(CollectionProxyTest, SequenceMappingAndSetProxiesIterateThroughTheObjectModel) {
    GilGuard gil;
    run("items = [3, 1, 2]\n"
        "table = {'x': 1, 'y': 2}\n"
        "members = {7}\n");
    auto walk = [&](const Any& proxy) {
        std::vector<std::string> seen;
        const Any iterator = tala::I_Iterable_Generic(tala::internal::unchecked, proxy).iter();
        if (!tala::I_Iterator_Generic::matches(iterator)) return std::vector<std::string>{messageOf(iterator)};
        for (int guard = 0; guard < 10; ++guard) {
            const Any item = tala::I_Iterator_Generic(tala::internal::unchecked, iterator).next();
            if (tala::StopIteration::matches(item)) break;
            seen.push_back(tala::display(item).toStdString());
        }
        return seen;
    };
    EXPECT_EQ(walk(proxyOf("items")), (std::vector<std::string>{"3", "1", "2"}));
    EXPECT_EQ(walk(proxyOf("table")), (std::vector<std::string>{"'x'", "'y'"}));
    EXPECT_EQ(walk(proxyOf("members")), (std::vector<std::string>{"7"}));
    EXPECT_EQ(tala::String::join(proxyOf("items"), "-").view(), "3-1-2");
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

// ---- Mappings --------------------------------------------------------------------------------

TEST_F(CollectionProxyTest, MappingGetOfAPresentKey) {
    GilGuard gil;
    run("table = {'a': 1, 2: 'two'}\n");
    const Any proxy = proxyOf("table");
    ASSERT_TRUE(PythonProxyMapping::matches(proxy));
    EXPECT_EQ(integerOf(call(proxy, Any::$get, {String("a"), Integer(0)})), 1);
    EXPECT_EQ(tala::String::cast(call(proxy, Any::$get, {Integer(2), Any()})).value_or(String()).view(), "two");
}

TEST_F(CollectionProxyTest, MappingGetWithoutADefaultReadsAsEveryHostMapReader) {
    GilGuard gil;
    run("table = {'a': 1}\n");
    const Any proxy = proxyOf("table");
    const tala::I_Map_Generic map(tala::internal::unchecked, proxy);
    EXPECT_EQ(integerOf(tala::resolve(map.get(String("a")))), 1);
    EXPECT_EQ(messageOf(tala::resolve(map.get(String("missing")))), "'missing'");
    const tala::I_MutableMap_Generic mutableMap(tala::internal::unchecked, proxy);
    EXPECT_TRUE(tala::resolve(mutableMap.setChecked(String("b"), Integer(2))).isEmpty());
    EXPECT_EQ(reprOfGlobal("table"), "{'a': 1, 'b': 2}");
}

// Every method and property of every interface a proxy class claims can be called the way the
// interface's own view calls it: the arguments it passes fit the proxy's parameters.
TEST_F(CollectionProxyTest, EveryProxyClassAnswersEveryMemberOfItsInterfaces) {
    const tala::Class_Generic interfaces[] = {
        tala::I_Iterable_Generic::getClass(),  tala::I_Iterator_Generic::getClass(),
        tala::I_Sequence_Generic::getClass(),  tala::I_MutableSequence_Generic::getClass(),
        tala::I_Map_Generic::getClass(),       tala::I_MutableMap_Generic::getClass(),
        tala::I_Set_Generic::getClass(),       tala::I_MutableSet_Generic::getClass(),
    };
    for (const tala::Class_Generic& proxyClass :
         {PythonProxyIterable::getClass(), PythonProxyIterator::getClass(), PythonProxyMapping::getClass(),
          PythonProxySequence::getClass(), PythonProxySet::getClass()}) {
        for (const tala::Class_Generic& interface : interfaces) {
            if (!proxyClass.derivesFrom(interface)) continue;
            for (const auto& [name, abstract] : tala::definedAbstractMethods(interface)) {
                const std::size_t passed = tala::I_Invokable_Generic(tala::internal::unchecked, abstract).signature().parameterCount();
                auto method = tala::definedMethod(proxyClass, Identifier::intern(name.view()));
                ASSERT_FALSE(method.isEmpty()) << proxyClass.name().toStdString() << " has no " << name.toStdString();
                const tala::Signature signature = method.as<tala::I_Invokable_Generic>().signature();
                std::size_t required = 0;
                for (const tala::Parameter& parameter : signature.parameters()) required += parameter.optional ? 0 : 1;
                EXPECT_LE(required, passed) << proxyClass.name().toStdString() << "." << name.toStdString();
                EXPECT_GE(signature.parameterCount(), passed) << proxyClass.name().toStdString() << "." << name.toStdString();
            }
            for (const auto& [name, abstract] : tala::definedAbstractProperties(interface)) {
                const Identifier id = Identifier::intern(name.view());
                const bool answered = !tala::definedProperty(proxyClass, id).isEmpty() || !tala::definedMethod(proxyClass, id).isEmpty();
                EXPECT_TRUE(answered) << proxyClass.name().toStdString() << " has no " << name.toStdString();
            }
        }
    }
}

TEST_F(CollectionProxyTest, MappingGetOfAnAbsentKeyGivesTheDefaultWithoutGetitem) {
    GilGuard gil;
    run("class Counting(dict):\n"
        "    getitem_calls = 0\n"
        "    def __getitem__(self, key):\n"
        "        Counting.getitem_calls += 1\n"
        "        return dict.__getitem__(self, key)\n"
        "table = Counting(a=1)\n");
    const Any proxy = proxyOf("table");
    ASSERT_TRUE(PythonProxyMapping::matches(proxy));
    const Any fallback = call(proxy, Any::$get, {String("missing"), String("default")});
    EXPECT_EQ(tala::String::cast(fallback).value_or(String()).view(), "default");
    EXPECT_EQ(evaluate("Counting.getitem_calls"), "0");
    EXPECT_EQ(integerOf(call(proxy, Any::$get, {String("a"), Any()})), 1);
    EXPECT_EQ(evaluate("Counting.getitem_calls"), "1");
}

TEST_F(CollectionProxyTest, MappingGetWhoseContainsFailsGivesThatError) {
    GilGuard gil;
    run("table = {}\n");
    const Any proxy = proxyOf("table");
    run("class Unhashable:\n"
        "    __hash__ = None\n"
        "key = Unhashable()\n");
    const Any key = proxyOf("key");
    EXPECT_EQ(messageOf(call(proxy, Any::$get, {key, Integer(0)})), "unhashable type: 'Unhashable'");
}

TEST_F(CollectionProxyTest, MappingSetRemoveContainsClearLength) {
    GilGuard gil;
    run("table = {'a': 1}\n");
    const Any proxy = proxyOf("table");
    EXPECT_TRUE(call(proxy, Any::$set, {String("b"), Integer(2)}).isEmpty());
    EXPECT_EQ(reprOfGlobal("table"), "{'a': 1, 'b': 2}");
    EXPECT_TRUE(booleanOf(call(proxy, Any::$contains, {String("b")})));
    EXPECT_FALSE(booleanOf(call(proxy, Any::$contains, {String("c")})));
    EXPECT_EQ(integerOf(call(proxy, Any::$$length)), 2);
    EXPECT_EQ(integerOf(tala::I_Map_Generic(tala::internal::unchecked, proxy).length()), 2);

    EXPECT_EQ(integerOf(call(proxy, Any::$remove, {String("a")})), 1);
    EXPECT_EQ(reprOfGlobal("table"), "{'b': 2}");
    EXPECT_EQ(messageOf(call(proxy, Any::$remove, {String("a")})), "'a'");
    EXPECT_EQ(reprOfGlobal("table"), "{'b': 2}");

    EXPECT_TRUE(call(proxy, Any::$clear).isEmpty());
    EXPECT_EQ(reprOfGlobal("table"), "{}");
    EXPECT_EQ(integerOf(call(proxy, Any::$$length)), 0);
}

TEST_F(CollectionProxyTest, MappingKeysAndValuesAreHostLists) {
    GilGuard gil;
    run("table = {'a': 1, 'b': [2]}\n");
    const Any proxy = proxyOf("table");
    const Any keys = call(proxy, Any::$keys);
    ASSERT_TRUE(tala::List_Generic::matches(keys)) << messageOf(keys);
    EXPECT_EQ(tala::display(keys).view(), "['a', 'b']");
    const Any values = call(proxy, Any::$values);
    ASSERT_TRUE(tala::List_Generic::matches(values)) << messageOf(values);
    const tala::List_Generic list(tala::internal::unchecked, values);
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(integerOf(list[0]), 1);
    EXPECT_TRUE(PythonProxySequence::matches(list[1]));
}

TEST_F(CollectionProxyTest, KeysOfAnEmptyDictIsAnEmptyHostList) {
    GilGuard gil;
    run("table = {}\n");
    const Any keys = call(proxyOf("table"), Any::$keys);
    ASSERT_TRUE(tala::List_Generic::matches(keys)) << messageOf(keys);
    EXPECT_TRUE(tala::List_Generic(tala::internal::unchecked, keys).isEmpty());
    const Any values = call(proxyOf("table"), Any::$values);
    ASSERT_TRUE(tala::List_Generic::matches(values));
    EXPECT_TRUE(tala::List_Generic(tala::internal::unchecked, values).isEmpty());
}

TEST_F(CollectionProxyTest, KeysThatCannotBeIteratedGiveAnEmptyListAndFailingKeysAnError) {
    GilGuard gil;
    run("class OddKeys(dict):\n"
        "    def keys(self):\n"
        "        return 5\n"
        "    def values(self):\n"
        "        raise LookupError('values refused')\n"
        "table = OddKeys(a=1)\n");
    const Any proxy = proxyOf("table");
    const Any keys = call(proxy, Any::$keys);
    ASSERT_TRUE(tala::List_Generic::matches(keys)) << messageOf(keys);
    EXPECT_TRUE(tala::List_Generic(tala::internal::unchecked, keys).isEmpty());
    EXPECT_EQ(messageOf(call(proxy, Any::$values)), "values refused");
}

TEST_F(CollectionProxyTest, KeysBeyond64BitsGiveTheOverflowError) {
    GilGuard gil;
    run("resumed = []\n"
        "def keys():\n"
        "    yield 2**70\n"
        "    resumed.append(True)\n"
        "    yield 1\n"
        "class Generated(dict):\n"
        "    def keys(self):\n"
        "        return keys()\n"
        "table = Generated()\n");
    EXPECT_EQ(messageOf(call(proxyOf("table"), Any::$keys)), "int too big to convert");
    // The walk ends at the item that did not convert; Python is not entered with the error set.
    EXPECT_EQ(reprOfGlobal("resumed"), "[]");
}

TEST_F(CollectionProxyTest, KeysAndValuesTypesAreAny) {
    GilGuard gil;
    run("table = {1: 2}\n");
    const Any proxy = proxyOf("table");
    for (const Identifier id : {Any::$$keysType, Any::$$valuesType}) {
        auto property = tala::property_of(proxy, id);
        ASSERT_TRUE(property.is<tala::Property>()) << id.text();
        const Any type = property.as<tala::Property>().get(proxy);
        ASSERT_TRUE(tala::Type::matches(type)) << id.text();
        EXPECT_EQ(tala::Type(tala::internal::unchecked, type), tala::Type::any());
    }
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST_F(CollectionProxyTest, MappingWithoutAnObjectIsNull) {
    const Any empty = tala::make_instance(PythonProxyMapping::getClass());
    EXPECT_EQ(messageOf(call(empty, Any::$keys)), "The object is null.");
    EXPECT_EQ(messageOf(call(empty, Any::$get, {Integer(1), Integer(2)})), "The object is null.");
    EXPECT_EQ(messageOf(call(empty, Any::$$length)), "The object is null.");
}

// ---- Sequences -------------------------------------------------------------------------------

TEST_F(CollectionProxyTest, SequenceAtAndAtOr) {
    GilGuard gil;
    run("items = ['a', 'b']\n");
    const Any proxy = proxyOf("items");
    ASSERT_TRUE(PythonProxySequence::matches(proxy));
    EXPECT_EQ(tala::display(call(proxy, Any::$at, {Integer(1)})).view(), "'b'");
    EXPECT_EQ(tala::display(call(proxy, Any::$at, {Integer(-1)})).view(), "'b'");
    EXPECT_EQ(messageOf(call(proxy, Any::$at, {Integer(2)})), "list index out of range");
    EXPECT_EQ(tala::display(call(proxy, Any::$atOr, {Integer(0), String("fallback")})).view(), "'a'");
    EXPECT_EQ(tala::display(call(proxy, Any::$atOr, {Integer(5), String("fallback")})).view(), "'fallback'");
    EXPECT_EQ(tala::display(tala::I_Sequence_Generic(tala::internal::unchecked, proxy).at(0)).view(), "'a'");
}

TEST_F(CollectionProxyTest, SequenceSetAppendAppendAtExtend) {
    GilGuard gil;
    run("items = [1, 2]\n"
        "more = [8, 9]\n");
    const Any proxy = proxyOf("items");
    EXPECT_TRUE(call(proxy, Any::$set, {Integer(0), String("one")}).isEmpty());
    EXPECT_EQ(reprOfGlobal("items"), "['one', 2]");
    EXPECT_TRUE(call(proxy, Any::$append, {Integer(3)}).isEmpty());
    EXPECT_TRUE(call(proxy, Any::$appendAt, {Integer(0), Integer(0)}).isEmpty());
    EXPECT_EQ(reprOfGlobal("items"), "[0, 'one', 2, 3]");
    EXPECT_TRUE(call(proxy, Any::$extend, {proxyOf("more")}).isEmpty());
    EXPECT_EQ(reprOfGlobal("items"), "[0, 'one', 2, 3, 8, 9]");
    EXPECT_EQ(messageOf(call(proxy, Any::$set, {Integer(10), Integer(0)})), "list assignment index out of range");
}

TEST_F(CollectionProxyTest, SequenceExtendWithAHostList) {
    GilGuard gil;
    run("items = [1]\n");
    const Any proxy = proxyOf("items");
    const Any result = call(proxy, Any::$extend, {tala::List<Any>{Integer(2), String("three")}});
    EXPECT_TRUE(result.isEmpty()) << messageOf(result);
    EXPECT_EQ(reprOfGlobal("items"), "[1, 2, 'three']");
}

TEST_F(CollectionProxyTest, RemoveAtDeletesCountElementsAtTheSameIndex) {
    GilGuard gil;
    run("items = ['a', 'b', 'c', 'd']\n");
    const Any proxy = proxyOf("items");
    EXPECT_TRUE(call(proxy, Any::$removeAt, {Integer(1), Integer(2)}).isEmpty());
    EXPECT_EQ(reprOfGlobal("items"), "['a', 'd']");
    EXPECT_TRUE(call(proxy, Any::$removeAt, {Integer(0), Integer(0)}).isEmpty());
    EXPECT_TRUE(call(proxy, Any::$removeAt, {Integer(0), Integer(-3)}).isEmpty());
    EXPECT_EQ(reprOfGlobal("items"), "['a', 'd']");
    // The first failing deletion ends the loop with its error; what was deleted stays deleted.
    EXPECT_EQ(messageOf(call(proxy, Any::$removeAt, {Integer(1), Integer(5)})), "list assignment index out of range");
    EXPECT_EQ(reprOfGlobal("items"), "['a']");
    EXPECT_TRUE(tala::I_MutableSequence_Generic(tala::internal::unchecked, proxy).removeAt(0).isEmpty());
    EXPECT_EQ(reprOfGlobal("items"), "[]");
}

TEST_F(CollectionProxyTest, RemoveOneRemovesTheFirstOccurrenceAndIgnoresAbsentValues) {
    GilGuard gil;
    run("items = [1, 2, 1]\n");
    const Any proxy = proxyOf("items");
    EXPECT_TRUE(call(proxy, Any::$removeOne, {Integer(1)}).isEmpty());
    EXPECT_EQ(reprOfGlobal("items"), "[2, 1]");
    EXPECT_TRUE(call(proxy, Any::$removeOne, {Integer(7)}).isEmpty());
    EXPECT_EQ(reprOfGlobal("items"), "[2, 1]");
}

TEST_F(CollectionProxyTest, PopPassesItsArgumentOn) {
    GilGuard gil;
    run("items = [1, 2, 3]\n");
    const Any proxy = proxyOf("items");
    EXPECT_EQ(integerOf(call(proxy, Any::$pop, {Integer(0)})), 1);
    EXPECT_EQ(integerOf(call(proxy, Any::$pop, {Integer(-1)})), 3);
    EXPECT_EQ(reprOfGlobal("items"), "[2]");
    EXPECT_EQ(messageOf(call(proxy, Any::$pop, {Integer(4)})), "pop index out of range");
    EXPECT_EQ(messageOf(call(proxy, Any::$pop, {String("x")})), "'str' object cannot be interpreted as an integer");
}

TEST_F(CollectionProxyTest, SequenceClearContainsLength) {
    GilGuard gil;
    run("items = [1, 'b']\n");
    const Any proxy = proxyOf("items");
    EXPECT_EQ(integerOf(call(proxy, Any::$$length)), 2);
    EXPECT_EQ(integerOf(tala::I_Sequence_Generic(tala::internal::unchecked, proxy).length()), 2);
    EXPECT_TRUE(booleanOf(call(proxy, Any::$contains, {String("b")})));
    EXPECT_FALSE(booleanOf(call(proxy, Any::$contains, {String("c")})));
    EXPECT_TRUE(call(proxy, Any::$clear).isEmpty());
    EXPECT_EQ(reprOfGlobal("items"), "[]");
    EXPECT_EQ(integerOf(call(proxy, Any::$$length)), 0);
}

TEST_F(CollectionProxyTest, IndexOfFindsTheValueOrGivesMinusOneWithNoErrorPending) {
    GilGuard gil;
    run("items = ['a', 'b', 'a']\n");
    const Any proxy = proxyOf("items");
    EXPECT_EQ(integerOf(call(proxy, Any::$indexOf, {String("a"), Integer(0)})), 0);
    EXPECT_EQ(integerOf(call(proxy, Any::$indexOf, {String("a"), Integer(1)})), 2);
    EXPECT_EQ(integerOf(call(proxy, Any::$indexOf, {String("b"), Integer(-2)})), 1);
    EXPECT_EQ(integerOf(call(proxy, Any::$indexOf, {String("z"), Integer(0)})), -1);
    EXPECT_EQ(integerOf(call(proxy, Any::$indexOf, {String("b"), Integer(2)})), -1);
}

TEST_F(CollectionProxyTest, IndexOfWithAStartBeyondTheMachineIntegerOverflows) {
    GilGuard gil;
    run("items = [1]\n");
    const Any proxy = proxyOf("items");
    EXPECT_EQ(messageOf(call(proxy, Any::$indexOf, {Integer(1), Integer(std::int64_t(1) << 40)})),
              "indexOf() argument 'start' is out of range for its type: 1099511627776");
}

TEST_F(CollectionProxyTest, SequenceWithoutAnObjectIsNull) {
    const Any empty = tala::make_instance(PythonProxySequence::getClass());
    EXPECT_EQ(messageOf(call(empty, Any::$indexOf, {Integer(1), Integer(0)})), "The object is null.");
    EXPECT_EQ(messageOf(call(empty, Any::$at, {Integer(0)})), "The object is null.");
    EXPECT_EQ(messageOf(call(empty, Any::$append, {Integer(0)})), "The object is null.");
}

TEST_F(CollectionProxyTest, TupleProxyReportsMissingMutators) {
    GilGuard gil;
    run("pair = (1, 2)\n");
    const Any proxy = proxyOf("pair");
    ASSERT_TRUE(PythonProxySequence::matches(proxy));
    EXPECT_EQ(integerOf(call(proxy, Any::$at, {Integer(1)})), 2);
    EXPECT_EQ(messageOf(call(proxy, Any::$append, {Integer(3)})),
              "The method is missing: append, target object: (1, 2).");
    EXPECT_EQ(messageOf(call(proxy, Any::$set, {Integer(0), Integer(3)})),
              "The method is missing: __setitem__, target object: (1, 2).");
    EXPECT_EQ(integerOf(call(proxy, Any::$indexOf, {Integer(2), Integer(0)})), 1);
}

// ---- Sets ------------------------------------------------------------------------------------

TEST_F(CollectionProxyTest, SetInsertRemoveClearLength) {
    GilGuard gil;
    run("members = {1}\n");
    const Any proxy = proxyOf("members");
    ASSERT_TRUE(PythonProxySet::matches(proxy));
    EXPECT_TRUE(call(proxy, Any::$insert, {Integer(2)}).isEmpty());
    EXPECT_EQ(reprOfGlobal("members"), "{1, 2}");
    EXPECT_EQ(integerOf(call(proxy, Any::$$length)), 2);
    EXPECT_TRUE(booleanOf(call(proxy, Any::$remove, {Integer(1)})));
    EXPECT_EQ(reprOfGlobal("members"), "{2}");
    EXPECT_TRUE(booleanOf(call(proxy, Any::$contains, {Integer(2)})));
    EXPECT_FALSE(booleanOf(call(proxy, Any::$contains, {Integer(1)})));
    EXPECT_TRUE(booleanOf(tala::I_Set_Generic(tala::internal::unchecked, proxy).contains(Integer(2))));
    EXPECT_TRUE(call(proxy, Any::$clear).isEmpty());
    EXPECT_EQ(reprOfGlobal("members"), "set()");
    EXPECT_EQ(integerOf(call(proxy, Any::$$length)), 0);
}

TEST_F(CollectionProxyTest, SetRemoveOfAnAbsentElementIsFalseWithNoErrorPending) {
    GilGuard gil;
    run("members = {1}\n"
        "unhashable = [1]\n");
    const Any proxy = proxyOf("members");
    EXPECT_FALSE(booleanOf(call(proxy, Any::$remove, {Integer(5)})));
    // A removal that raises something else than KeyError is no error either.
    EXPECT_FALSE(booleanOf(call(proxy, Any::$remove, {proxyOf("unhashable")})));
    EXPECT_EQ(reprOfGlobal("members"), "{1}");
}

TEST_F(CollectionProxyTest, SetRemoveWithoutObjectIsFalseAndWithoutMethodAnError) {
    GilGuard gil;
    const Any empty = tala::make_instance(PythonProxySet::getClass());
    EXPECT_FALSE(booleanOf(call(empty, Any::$remove, {Integer(1)})));
    PyObjectPtr frozen = evalPython("frozenset([1])");
    const Any byHand = makeCollectionProxy(CollectionKind::Set, frozen.get());
    EXPECT_EQ(messageOf(call(byHand, Any::$remove, {Integer(1)})), "The method is missing in frozenset({1}).");
}

TEST_F(CollectionProxyTest, SetExtendAddsEachElementOfAHostIterable) {
    GilGuard gil;
    run("members = {1}\n"
        "more = [3, 4]\n");
    const Any proxy = proxyOf("members");
    const Any fromList = call(proxy, Any::$extend, {tala::List<Any>{Integer(2), Integer(2), Integer(1)}});
    EXPECT_TRUE(fromList.isEmpty()) << messageOf(fromList);
    EXPECT_EQ(evaluate("sorted(members)"), "[1, 2]");
    const Any fromProxy = call(proxy, Any::$extend, {proxyOf("more")});
    EXPECT_TRUE(fromProxy.isEmpty()) << messageOf(fromProxy);
    EXPECT_EQ(evaluate("sorted(members)"), "[1, 2, 3, 4]");
    const Any unhashable = call(proxy, Any::$extend, {tala::List<Any>{proxyOf("more")}});
    EXPECT_EQ(messageOf(unhashable), "unhashable type: 'list'");
}

TEST_F(CollectionProxyTest, SetProxyIsAHostMutableSet) {
    GilGuard gil;
    run("members = set()\n");
    const Any proxy = proxyOf("members");
    ASSERT_TRUE(tala::I_MutableSet_Generic::matches(proxy));
    const tala::I_MutableSet_Generic set(tala::internal::unchecked, proxy);
    EXPECT_TRUE(set.insert(String("x")).isEmpty());
    EXPECT_TRUE(booleanOf(set.remove(String("x"))));
    EXPECT_FALSE(booleanOf(set.remove(String("x"))));
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

}  // namespace

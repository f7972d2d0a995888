// tests/python/pyside/operators_test.cpp: Python's operators and protocols on wrapped host values:
// arithmetic, concatenation and repetition, sequences and maps, iteration, hashing, text and
// comparison.
#include <gtest/gtest.h>

#include <string>

#include "bridge/from_python.hpp"
#include "bridge/to_python.hpp"
#include "pyside/tala_object.hpp"
#include "python_test_support.hpp"
#include "support/test_host_module.hpp"

namespace {

using tala::python::GilGuard;
using tala::python::PyObjectPtr;
using tala_python_test::HostTest;
using tala_python_test::hostRefCount;
namespace testhost = tala_python_test::testhost;

class OperatorsTest : public HostTest {
protected:
    void SetUp() override {
        HostTest::SetUp();
        ASSERT_TRUE(run("w = testhost.Widget('w', 3)\n"
                        "p = testhost.Point(6, 4)\n"
                        "q = testhost.Point(1, 1)\n"
                        "d = testhost.Deck([1, 2])\n"
                        "e = testhost.Deck([3])\n"));
        put("hl", tala::List<tala::Integer>{1, 2, 3});
        put("hm", tala::HashMap<tala::String, tala::Integer>{{tala::String("a"), tala::Integer(1)},
                                                             {tala::String("b"), tala::Integer(2)}});
    }
};

// ---- Subtraction and division -------------------------------------------------------------------

TEST_F(OperatorsTest, SubtractionAndDivisionCallTheHostMethods) {
    GilGuard gil;
    EXPECT_EQ(repr("p - q"), "Point(5, 3)");
    EXPECT_EQ(repr("p / 2"), "Point(3, 2)");
    EXPECT_EQ(raised("p / 0"), "RuntimeError: Division by zero.");
    EXPECT_EQ(raised("p - 1"), "RuntimeError: Only points can be subtracted from points.");
}

TEST_F(OperatorsTest, MissingSubtractionHasNoFinalFullStop) {
    GilGuard gil;
    EXPECT_EQ(raised("w - 1"), "NotImplementedError: [tala_number_subtract] None method '__sub__' in: Widget 'w' of size 3");
    EXPECT_EQ(raised("w -= 1"),
              "NotImplementedError: [tala_number_inplace_subtract] None method '__isub__' in: Widget 'w' of size 3");
    // A host value with the method but no in-place form.
    EXPECT_EQ(raised("p -= q"), "NotImplementedError: [tala_number_inplace_subtract] None method '__isub__' in: Point(6, 4)");
}

TEST_F(OperatorsTest, MissingDivisionEndsWithAFullStop) {
    GilGuard gil;
    EXPECT_EQ(raised("w / 2"), "NotImplementedError: [tala_number_divide] None method '__div__' in: Widget 'w' of size 3.");
    // The in-place form keeps the prefix of plain division.
    EXPECT_EQ(raised("w /= 2"), "NotImplementedError: [tala_number_divide] None method '__idiv__' in: Widget 'w' of size 3.");
    EXPECT_EQ(raised("p /= 2"), "NotImplementedError: [tala_number_divide] None method '__idiv__' in: Point(6, 4).");
}

TEST_F(OperatorsTest, AHostValueOnTheRightOfAPlainOperandIsNotHandled) {
    GilGuard gil;
    EXPECT_EQ(raised("1 - p"), "TypeError: unsupported operand type(s) for -: 'int' and 'tala~testhost`Point'");
    EXPECT_EQ(raised("1 / p"), "TypeError: unsupported operand type(s) for /: 'int' and 'tala~testhost`Point'");
    EXPECT_EQ(raised("x = 1\nx -= p"), "TypeError: unsupported operand type(s) for -=: 'int' and 'tala~testhost`Point'");
    EXPECT_EQ(raised("x = 1.5\nx /= p"), "TypeError: unsupported operand type(s) for /=: 'float' and 'tala~testhost`Point'");
}

TEST_F(OperatorsTest, TheLeftOperandIsUnwrappedAndAnErrorOnTheLeftIsRaised) {
    GilGuard gil;
    // A lazy value is resolved first: the text's own __add__ answers.
    EXPECT_EQ(repr("testhost.lazy_text() + '!'"), "'later!'");
    EXPECT_EQ(raisedHostError("testhost.lazy_error() - 1"), "testhost.TestError: Not computable.");
    ASSERT_TRUE(run("try:\n"
                    "    testhost.fail('on the left')\n"
                    "except RuntimeError as error:\n"
                    "    wrapped = error.tala\n"));
    EXPECT_EQ(raisedHostError("wrapped - 1"), "testhost.TestError: on the left");
    EXPECT_EQ(raisedHostError("wrapped / 1"), "testhost.TestError: on the left");
    EXPECT_EQ(raisedHostError("wrapped + 1"), "testhost.TestError: on the left");
}

// ---- Concatenation and repetition ---------------------------------------------------------------

TEST_F(OperatorsTest, ConcatenationWithoutAddFallsBackToConcat) {
    GilGuard gil;
    EXPECT_EQ(repr("d + e"), "Deck([1, 2, 3])");
    EXPECT_EQ(repr("d + [7, 8]"), "Deck([1, 2, 7, 8])");
    EXPECT_EQ(repr("d"), "Deck([1, 2])");  // a new deck
}

TEST_F(OperatorsTest, ConcatenationOfHostListsUsesAdd) {
    GilGuard gil;
    EXPECT_EQ(repr("hl + hl"), "[1, 2, 3, 1, 2, 3]");
    EXPECT_EQ(repr("hl + testhost.numbers()"), "[1, 2, 3, 1, 2, 3]");
    EXPECT_EQ(repr("hl + [4, 5]"), "[1, 2, 3, 4, 5]");  // a Python list on the right, as a proxy
    ASSERT_TRUE(run("before = hl\nhl += testhost.Deck([4])\n"));
    // The same host list, extended in place (in a new wrapper: each conversion makes one).
    EXPECT_TRUE(hostValue("hl").isSame(hostValue("before")));
    EXPECT_EQ(repr("before"), "[1, 2, 3, 4]");
}

TEST_F(OperatorsTest, MissingConcatenationMessages) {
    GilGuard gil;
    EXPECT_EQ(raised("w + 1"), "NotImplementedError: [tala_sequence_concat] None method 'concat' in: Widget 'w' of size 3");
    EXPECT_EQ(raised("w += 1"), "NotImplementedError: [tala_sequence_extend] None method 'extend' in: Widget 'w' of size 3.");
    EXPECT_EQ(raised("d += e"), "NotImplementedError: [tala_sequence_extend] None method 'extend' in: Deck([1, 2]).");
}

TEST_F(OperatorsTest, RepetitionUsesMulThenRepeat) {
    GilGuard gil;
    EXPECT_EQ(repr("hl * 2"), "[1, 2, 3, 1, 2, 3]");
    EXPECT_EQ(repr("2 * hl"), "[1, 2, 3, 1, 2, 3]");
    EXPECT_EQ(repr("d * 2"), "Deck([1, 2, 1, 2])");
    EXPECT_EQ(raised("hl *= 2"), "NotImplementedError: [tala_sequence_inplace_repeat] None method '__imul__' in: [1, 2, 3].");
    EXPECT_EQ(repr("hl"), "[1, 2, 3]");
}

// ---- Sequences ----------------------------------------------------------------------------------

TEST_F(OperatorsTest, HostListAsAPythonSequence) {
    GilGuard gil;
    EXPECT_EQ(repr("len(hl)"), "3");
    EXPECT_EQ(repr("hl[0], hl[2], hl[-1]"), "(1, 3, 3)");
    EXPECT_EQ(repr("2 in hl, 7 in hl"), "(True, False)");
    EXPECT_EQ(repr("list(hl)"), "[1, 2, 3]");
    EXPECT_EQ(repr("[x * 10 for x in hl]"), "[10, 20, 30]");
    ASSERT_TRUE(run("hl[1] = 20"));
    EXPECT_EQ(repr("hl"), "[1, 20, 3]");
    ASSERT_TRUE(run("del hl[0]"));
    EXPECT_EQ(repr("hl"), "[20, 3]");
    EXPECT_EQ(raised("hl[5]"), "OutOfRangeError: Index out of range: 5, size: 2.");
    EXPECT_EQ(raised("hl[5] = 1"), "OutOfRangeError: Index out of range: 5, size: 2.");
    EXPECT_EQ(raised("hl['a']"), "TypeError: sequence index must be integer, not 'str'");
    EXPECT_EQ(raised("hl['a'] = 1"), "TypeError: sequence index must be integer, not 'str'");
}

TEST_F(OperatorsTest, HostSequenceClassAsAPythonSequence) {
    GilGuard gil;
    EXPECT_EQ(repr("len(d), d[0], d[-1], 2 in d, 5 in d"), "(2, 1, 2, True, False)");
    EXPECT_EQ(repr("list(d)"), "[1, 2]");
    EXPECT_EQ(raised("d[0] = 1"), "RuntimeError: None method 'set' in: Deck([1, 2]).");
}

TEST_F(OperatorsTest, IteratorsIterateAndAreTheirOwnIterators) {
    GilGuard gil;
    ASSERT_TRUE(run("it = iter(hl)"));
    EXPECT_EQ(repr("next(it)"), "1");
    EXPECT_EQ(repr("iter(it) is it"), "True");
    EXPECT_EQ(repr("list(it)"), "[2, 3]");
    EXPECT_EQ(raised("next(it)"), "StopIteration: ");
    EXPECT_EQ(raised("iter(w)"), "TypeError: The host value cannot be iterated.");
}

// ---- Maps ---------------------------------------------------------------------------------------

TEST_F(OperatorsTest, HostMapAsAPythonMapping) {
    GilGuard gil;
    EXPECT_EQ(repr("len(hm)"), "2");
    EXPECT_EQ(repr("hm['a'], hm['b']"), "(1, 2)");
    EXPECT_EQ(repr("'a' in hm, 'z' in hm"), "(True, False)");
    EXPECT_EQ(repr("list(hm)"), "['a', 'b']");
    ASSERT_TRUE(run("hm['c'] = 3\nhm['a'] = 10\n"));
    EXPECT_EQ(repr("hm"), "{'a': 10, 'b': 2, 'c': 3}");
    ASSERT_TRUE(run("del hm['b']"));
    EXPECT_EQ(repr("hm"), "{'a': 10, 'c': 3}");
}

TEST_F(OperatorsTest, AMissingKeyRaisesKeyErrorWithTheKeysDisplayText) {
    GilGuard gil;
    EXPECT_EQ(repr("list(hm)"), "['a', 'b']");
    ASSERT_TRUE(run("try:\n"
                    "    hm['missing']\n"
                    "except KeyError as error:\n"
                    "    key = error.args[0]\n"));
    EXPECT_EQ(repr("key"), "\"'missing'\"");
    ASSERT_TRUE(run("try:\n"
                    "    del hm[42]\n"
                    "except KeyError as error:\n"
                    "    key = error.args[0]\n"));
    EXPECT_EQ(repr("key"), "'42'");
    EXPECT_EQ(repr("hm.get('missing')"), "<raised RuntimeError: Key not found: 'missing'.>");
    // Keys must be immutable host values.
    const std::string unhashable = raised("hm[[1]]");
    EXPECT_EQ(unhashable.rfind("TypeError: Unhashable key: ", 0), 0u) << unhashable;
    EXPECT_EQ(repr("len(hm)"), "2");
}

TEST_F(OperatorsTest, SubscriptOfAMapWithoutContainsReadsThroughGetOnce) {
    GilGuard gil;
    ASSERT_TRUE(run("ledger = testhost.Ledger()\nledger['a'] = 1\nledger['b'] = 'two'\n"));
    const std::int64_t before = testhost::ledgerReads();
    EXPECT_EQ(repr("ledger['a'], ledger['b']"), "(1, 'two')");
    EXPECT_EQ(testhost::ledgerReads() - before, 2);  // one host call per read
    ASSERT_TRUE(run("try:\n"
                    "    ledger['missing']\n"
                    "except KeyError as error:\n"
                    "    key = error.args[0]\n"));
    EXPECT_EQ(repr("key"), "\"'missing'\"");
    ASSERT_TRUE(run("del ledger['a']"));
    EXPECT_EQ(repr("len(ledger)"), "1");
    EXPECT_EQ(raised("del ledger['a']"), "KeyError: \"'a'\"");
    EXPECT_EQ(repr("ledger['b']"), "'two'");
}

TEST_F(OperatorsTest, AnErrorOfAnotherClassFromAMapKeepsItsType) {
    GilGuard gil;
    ASSERT_TRUE(run("ledger = testhost.Ledger()\n"));
    // The ledger answers the key 'broken' with a TestError: a failure, not a missing key.
    EXPECT_EQ(raisedHostError("ledger['broken']"), "testhost.TestError: The entry is broken.");
}

// ---- Hashing ------------------------------------------------------------------------------------

TEST_F(OperatorsTest, EqualImmutableHostObjectsAreOneKeyInSetsAndDicts) {
    GilGuard gil;
    ASSERT_TRUE(run("a = testhost.Money(5, 'EUR')\n"
                    "b = testhost.Money(5, 'EUR')\n"
                    "c = testhost.Money(6, 'EUR')\n"));
    EXPECT_EQ(repr("a == b, a is b, a == c"), "(True, False, False)");
    EXPECT_EQ(repr("hash(a) == hash(b)"), "True");
    EXPECT_EQ(repr("len({a, b, c})"), "2");
    EXPECT_EQ(repr("len({a: 1, b: 2})"), "1");
    EXPECT_EQ(repr("{a: 1, b: 2}[testhost.Money(5, 'EUR')]"), "2");
}

TEST_F(OperatorsTest, EqualImmutableHostValuesHashEqually) {
    GilGuard gil;
    // Immutable host values that stay host values in Python: put in as wrappers.
    const auto first = tala::Decimal::fromString("1.10");
    const auto second = tala::Decimal::fromString("1.10");
    ASSERT_TRUE(first.is<tala::Decimal>() && second.is<tala::Decimal>());
    ASSERT_NE(first.cell(), second.cell());
    const tala::Tuple pair{tala::Integer(1), tala::String("a")};
    const tala::Tuple samePair{tala::Integer(1), tala::String("a")};
    PyObjectPtr wrappers[] = {PyObjectPtr::steal(tala::python::wrapHostValue(first)),
                              PyObjectPtr::steal(tala::python::wrapHostValue(second)),
                              PyObjectPtr::steal(tala::python::wrapHostValue(pair)),
                              PyObjectPtr::steal(tala::python::wrapHostValue(samePair))};
    const char* names[] = {"first", "second", "pair", "samePair"};
    for (int index = 0; index < 4; ++index) {
        ASSERT_TRUE(wrappers[index]);
        ASSERT_EQ(PyDict_SetItemString(globals(), names[index], wrappers[index].get()), 0);
    }
    EXPECT_EQ(repr("hash(first) == hash(second)"), "True");
    EXPECT_EQ(repr("hash(pair) == hash(samePair)"), "True");
    EXPECT_EQ(repr("hash(first) == hash(pair)"), "False");
    EXPECT_EQ(repr("len({first, second, pair, samePair})"), "2");
    EXPECT_EQ(PyObject_Hash(wrappers[0].get()), static_cast<Py_hash_t>(tala::hash_of(first)));
}

TEST_F(OperatorsTest, TheHashOfAMutableValueFollowsItsIdentity) {
    GilGuard gil;
    put("other", tala::List<tala::Integer>{1, 2, 3});
    put("again", hostValue("hl"));  // a second wrapper of the same host list
    EXPECT_EQ(repr("hl == other, hl is again"), "(True, False)");
    EXPECT_EQ(repr("hash(hl) == hash(again)"), "True");
    EXPECT_EQ(repr("hash(hl) == hash(other)"), "False");
    EXPECT_EQ(repr("hash(w) == hash(testhost.Widget('w', 3))"), "False");
    PyObjectPtr list = eval("hl");
    EXPECT_EQ(PyObject_Hash(list.get()), static_cast<Py_hash_t>(tala::object_id(hostValue("hl"))));
}

// ---- Text ---------------------------------------------------------------------------------------

TEST_F(OperatorsTest, StrConvertsIntoTextAndReprIsTheDisplayText) {
    GilGuard gil;
    EXPECT_EQ(repr("str(w)"), "'w'");  // the widget's own conversion into text
    EXPECT_EQ(repr("repr(w)"), "\"Widget 'w' of size 3\"");
    // A conversion into the empty text is a conversion all the same.
    EXPECT_EQ(repr("str(testhost.Widget.make(2))"), "''");
    // Not convertible: the display text.
    EXPECT_EQ(repr("str(hl), str(hm)"), "('[1, 2, 3]', \"{'a': 1, 'b': 2}\")");
    EXPECT_EQ(repr("str(p)"), "'Point(6, 4)'");
    EXPECT_EQ(repr("f'{d}'"), "'Deck([1, 2])'");
}

// ---- Comparison ---------------------------------------------------------------------------------

TEST_F(OperatorsTest, ComparisonsFollowTheHostOrder) {
    GilGuard gil;
    ASSERT_TRUE(run("same = testhost.Point(6, 4)"));
    EXPECT_EQ(repr("p == same, p != same, p is same"), "(True, False, False)");
    EXPECT_EQ(repr("q < p, q <= p, q > p, q >= p, p >= same, p <= same"), "(True, True, False, False, True, True)");
    EXPECT_EQ(repr("sorted([p, q, same]) == [q, p, same]"), "True");
    put("shorter", tala::List<tala::Integer>{1, 2});
    EXPECT_EQ(repr("shorter < hl, hl > shorter, hl == shorter"), "(True, True, False)");
    // Values of different kinds order by their kind: lists before integers.
    EXPECT_EQ(repr("hl < 5, hl == 5, 5 > hl"), "(True, False, True)");
}

TEST_F(OperatorsTest, AnIntBeyond64BitsIsUnequalToEveryHostValue) {
    GilGuard gil;
    EXPECT_EQ(repr("p == 2 ** 70, p != 2 ** 70, hl == -2 ** 100"), "(False, True, False)");
    EXPECT_EQ(repr("2 ** 70 in [p, hl]"), "False");
    const std::string ordering = raised("p < 2 ** 70");
    EXPECT_EQ(ordering.rfind("OverflowError: cannot order a host value and a Python value the host cannot hold: ", 0), 0u)
        << ordering;
}

// ---- Reference counts ---------------------------------------------------------------------------

TEST_F(OperatorsTest, OperatorsLeaveNoReferencesBehind) {
    GilGuard gil;
    ASSERT_TRUE(run("import gc, sys\n"
                    "def churn():\n"
                    "    for i in range(300):\n"
                    "        p - q; p / 2; d + e; d * 2; hl + hl; hl * 2; len(hl); hl[0]; hl[0] = 1; 3 in hl\n"
                    "        list(hl); list(hm); hm['a']; hm['z'] = i; del hm['z']; 'a' in hm\n"
                    "        hash(hl); str(w); repr(w); p == q; p < q; hl < 5\n"
                    "        for code in ('w - 1', 'w / 1', 'w + 1', 'hl *= 2', 'hm[\"zz\"]', 'p / 0', 'hl[9]', '1 - p'):\n"
                    "            try:\n"
                    "                exec(code)\n"
                    "            except (RuntimeError, NotImplementedError, KeyError, TypeError):\n"
                    "                pass\n"
                    "churn()\n"
                    "gc.collect()\n"));
    const std::int64_t widgets = testhost::liveWidgets();
    const tala::Any list = hostValue("hl");
    const tala::Any map = hostValue("hm");
    const tala::Any point = hostValue("p");
    const std::uint32_t listReferences = hostRefCount(list);
    const std::uint32_t mapReferences = hostRefCount(map);
    const std::uint32_t pointReferences = hostRefCount(point);
    ASSERT_TRUE(run(tala_python_test::kLeastBlockGrowthOfThreeChurns));
    EXPECT_EQ(testhost::liveWidgets(), widgets);
    EXPECT_EQ(hostRefCount(list), listReferences);
    EXPECT_EQ(hostRefCount(map), mapReferences);
    EXPECT_EQ(hostRefCount(point), pointReferences);
    PyObjectPtr grown = eval("grown");
    ASSERT_TRUE(grown);
    EXPECT_LT(PyLong_AsLong(grown.get()), 100) << "Python memory blocks grew over 300 rounds";
}

}  // namespace

// tests/tala/display_test.cpp: display texts, ordering across kinds and hashing of every kind.
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "tala/tala.hpp"
#include "value_test_support.hpp"

namespace {

using tala_test::order;
using tala_test::shown;

using tala_test::decimal;

tala::I_Invokable_Generic addFunction() {
    return tala::native_function([](std::int64_t a, std::int64_t b) { return a + b; }, "add", {"a", "b"});
}

// ---- Display ----------------------------------------------------------------------------------

TEST(Display, ScalarTexts) {
    EXPECT_EQ(shown(tala::Any()), "None");
    EXPECT_EQ(shown(tala::None()), "None");
    EXPECT_EQ(shown(tala::Boolean(true)), "True");
    EXPECT_EQ(shown(tala::Boolean(false)), "False");
    EXPECT_EQ(shown(tala::internal::g_value_boolean_true), "True");
    EXPECT_EQ(shown(tala::Integer(42)), "42");
    EXPECT_EQ(shown(tala::Integer(-42)), "-42");
    EXPECT_EQ(shown(tala::Integer(0)), "0");
    EXPECT_EQ(shown(tala::Undefined()), "Undefined");
}

TEST(Display, FloatTexts) {
    EXPECT_EQ(shown(tala::Float(1.5)), "1.5");
    EXPECT_EQ(shown(tala::Float(-0.25)), "-0.25");
    EXPECT_EQ(shown(tala::Float(0.1)), "0.1");
    EXPECT_EQ(shown(tala::Float(std::numeric_limits<double>::infinity())), "inf");
    EXPECT_EQ(shown(tala::Float(-std::numeric_limits<double>::infinity())), "-inf");
    EXPECT_EQ(shown(tala::Float(std::numeric_limits<double>::quiet_NaN())), "nan");
}

TEST(Display, WholeFloatsStayVisiblyFloats) {
    EXPECT_EQ(shown(tala::Float(2.0)), "2.0");
    EXPECT_EQ(shown(tala::Float(-3.0)), "-3.0");
    EXPECT_EQ(shown(tala::Float(0.0)), "0.0");
    EXPECT_EQ(shown(tala::Float(-0.0)), "-0.0");
    EXPECT_EQ(shown(tala::List<tala::Any>{tala::Integer(2), tala::Float(2.0)}), "[2, 2.0]");
    EXPECT_EQ(shown(tala::Float(1e300)), "1e+300");  // an exponent already marks a float
}

TEST(Display, StringsAreQuotedWithBackslashAndQuoteEscaped) {
    EXPECT_EQ(shown(tala::String("text")), "'text'");
    EXPECT_EQ(shown(tala::String("it's")), R"('it\'s')");
    EXPECT_EQ(shown(tala::String(R"(a\b)")), R"('a\\b')");
    EXPECT_EQ(shown(tala::String(R"(it's \ here)")), R"('it\'s \\ here')");
    EXPECT_EQ(shown(tala::String("")), "''");
    EXPECT_EQ(shown(tala::String("say \"hi\"")), "'say \"hi\"'");
}

TEST(Display, ByteArraysUseHexEscapes) {
    EXPECT_EQ(shown(tala::ByteArray(std::string_view("abc"))), "b'abc'");
    EXPECT_EQ(shown(tala::ByteArray(std::string_view("a\0b\xff", 4))), R"(b'a\x00b\xff')");
    EXPECT_EQ(shown(tala::ByteArray(std::string_view("\n\r\t'\\\x7f\x1f", 7))), R"(b'\n\r\t\'\\\x7f\x1f')");
    EXPECT_EQ(shown(tala::ByteArray()), "b''");
}

TEST(Display, ContainerTexts) {
    EXPECT_EQ(shown(tala::List<tala::Integer>{1, 2}), "[1, 2]");
    EXPECT_EQ(shown(tala::List<tala::Integer>()), "[]");
    EXPECT_EQ(shown(tala::HashMap<tala::String, tala::Integer>{{"a", 1}}), "{'a': 1}");
    EXPECT_EQ(shown(tala::HashMap<tala::String, tala::Integer>()), "{}");
    EXPECT_EQ(shown(tala::Set<tala::Integer>{1, 2}), "Set([1, 2])");
    EXPECT_EQ(shown(tala::Tuple{tala::Integer(1), tala::Integer(2)}), "(1, 2)");
    EXPECT_EQ(shown(tala::Tuple{tala::Integer(1)}), "(1,)");
}

TEST(Display, NestedContainers) {
    const tala::HashMap<tala::String, tala::Any> map{
        {"list", tala::List<tala::Any>{tala::String("x"), tala::None(), tala::Float(0.5)}},
        {"set", tala::Set<tala::String>{tala::String("s")}},
        {"tuple", tala::Tuple{tala::Boolean(false), tala::Undefined()}},
    };
    EXPECT_EQ(shown(map), "{'list': ['x', None, 0.5], 'set': Set(['s']), 'tuple': (False, Undefined)}");
}

TEST(Display, DeeplyNestedListIsCutShort) {
    tala::List<tala::Any> outer;
    tala::List<tala::Any> inner = outer;
    for (int depth = 0; depth < 100; ++depth) {
        tala::List<tala::Any> next;
        inner.append(next);
        inner = next;
    }
    const std::string text = shown(outer);
    EXPECT_NE(text.find("..."), std::string::npos);
    EXPECT_EQ(text.substr(0, 3), "[[[");
}

TEST(Display, ListContainingItselfIsCutShort) {
    const tala::List<tala::Any> list;
    list.append(list);
    EXPECT_EQ(shown(list), "[[...]]");
    list.clear();  // breaks the reference cycle
    EXPECT_EQ(shown(list), "[]");
}

TEST(Display, FunctionText) { EXPECT_EQ(shown(addFunction()), "Function: 'add'."); }

TEST(Display, DateAndTimeTexts) {
    EXPECT_EQ(shown(tala::Date(2024, 2, 29)), "2024-02-29");
    EXPECT_EQ(shown(tala::Date(33, 1, 5)), "0033-01-05");
    EXPECT_EQ(shown(tala::Time(12, 30, 15)), "12:30:15");
    EXPECT_EQ(shown(tala::Time(12, 30, 15, 1, 7200, tala::String("CEST"))), "12:30:15.000000001+02:00");
    EXPECT_EQ(shown(tala::Time(12, 30, 15, 250000000)), "12:30:15.250000");
    EXPECT_EQ(shown(tala::Time(0, 0, 0, 999999999, 0, tala::String(), 1)), "00:00:00.999999999+00:00");
    EXPECT_EQ(shown(tala::Time(1, 2, 3, 0, -3600)), "01:02:03-01:00");
    EXPECT_EQ(shown(tala::Time(1, 2, 3, 0, 3661)), "01:02:03+01:01:01");
    EXPECT_EQ(shown(tala::DateTime(tala::Date(2024, 2, 29), tala::Time(12, 30, 15))), "2024-02-29T12:30:15");
}

TEST(Display, DecimalsShowTheirExactText) {
    EXPECT_EQ(shown(decimal("1.10")), "1.10");
    EXPECT_EQ(shown(decimal("-0.00")), "-0.00");
    EXPECT_EQ(shown(decimal("1E+1000")), "1E+1000");
    EXPECT_EQ(shown(decimal("0.000001")), "0.000001");
    EXPECT_EQ(shown(tala::List<tala::Any>{decimal("1.10")}), "[1.10]");
}

TEST(Display, ErrorsShowTheirMessage) {
    EXPECT_EQ(shown(tala::Error(tala::String("Something went wrong: {}.").arg(tala::Integer(42)))),
              "Something went wrong: 42.");
    EXPECT_EQ(shown(tala::StopIteration()), "StopIteration");
    EXPECT_EQ(shown(tala::Error(tala::String(""))), "");
}

TEST(Display, OpaqueValueTexts) {
    EXPECT_EQ(shown(tala::Boxed<int>(7)), "Boxed object.");
    EXPECT_EQ(shown(tala::External([] { return tala::Any(tala::Integer(1)); })), "External object");
    EXPECT_EQ(shown(tala::Undefined()), "Undefined");
}

TEST(Display, DisplayToAppendsToABuilder) {
    tala::string_builder out;
    out << "value: ";
    tala::display_to(out, tala::List<tala::Integer>{1});
    EXPECT_EQ(out.view(), "value: [1]");
}

// ---- Ordering across kinds --------------------------------------------------------------------

// One value of every kind, in kind-code order; the empty value first. Float(-100.5) is below
// Integer(-5) both by kind code and by value, so the chain is consistent with numeric comparison.
std::vector<tala::Any> oneValuePerKind() {
    return {
        tala::None(),
        tala::Boolean(true),
        tala::ByteArray(std::string_view("zz")),
        tala::Float(-100.5),
        tala::List<tala::Integer>{9},
        tala::HashMap<tala::String, tala::Integer>{{"z", 9}},
        tala::Set<tala::Integer>{9},
        tala::Integer(-5),
        addFunction(),
        tala::Date(2024, 1, 1),
        tala::String("a"),
        tala::Tuple{tala::Integer(0)},
        tala::Boxed<int>(0),
        tala::External([] { return tala::Any(); }),
        tala::Undefined(),
    };
}

TEST(Compare, DifferentKindsOrderByKindCode) {
    const std::vector<tala::Any> values = oneValuePerKind();
    for (std::size_t i = 0; i < values.size(); ++i) {
        for (std::size_t j = 0; j < values.size(); ++j) {
            SCOPED_TRACE(shown(values[i]) + " vs " + shown(values[j]));
            const int expected = (i > j) - (i < j);
            EXPECT_EQ(order(values[i], values[j]), expected);
        }
    }
}

TEST(Compare, KindCodesOfTheChainAreIncreasing) {
    const std::vector<tala::Any> values = oneValuePerKind();
    const std::vector<int> codes = {-1, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 15};
    ASSERT_EQ(values.size(), codes.size());
    for (std::size_t i = 0; i < values.size(); ++i) EXPECT_EQ(values[i].kindCode(), codes[i]) << shown(values[i]);
}

TEST(Compare, LazyOrdersAsItsValue) {
    const tala::Lazy<tala::Integer> lazy([] { return tala::Any(tala::Integer(5)); });
    EXPECT_EQ(lazy.kindCode(), 13);
    EXPECT_EQ(order(lazy, tala::Integer(5)), 0);
    EXPECT_EQ(order(lazy, tala::Float(5.5)), -1);
    EXPECT_EQ(order(tala::String("a"), lazy), 1);  // kind 9 after kind 6
}

TEST(Compare, OperatorEqualsUsesCompareObjects) {
    EXPECT_TRUE(tala::Any(tala::Integer(1)) == tala::Any(tala::Float(1.0)));
    EXPECT_FALSE(tala::Any(tala::Integer(1)) == tala::Any(tala::String("1")));
    EXPECT_TRUE(tala::Any(tala::List<tala::Integer>{1}) == tala::Any(tala::List<tala::Integer>{1}));
}

// ---- Hashing ----------------------------------------------------------------------------------

TEST(Hash, EqualValuesHashEqual) {
    struct Pair {
        tala::Any a;
        tala::Any b;
    };
    const std::vector<Pair> pairs = {
        {tala::None(), tala::Any()},
        {tala::Boolean(true), tala::internal::g_value_boolean_true},
        {tala::Integer(2), tala::Float(2.0)},
        {tala::Integer(-1), tala::Float(-1.0)},
        {tala::Float(0.5), tala::Float(0.5)},
        {tala::String("same"), tala::String("same")},
        {tala::ByteArray(std::string_view("b")), tala::ByteArray(std::string_view("b"))},
        {tala::List<tala::Integer>{1, 2}, tala::List<tala::Any>{tala::Float(1.0), tala::Integer(2)}},
        {tala::Tuple{tala::String("t")}, tala::Tuple{tala::String("t")}},
        {tala::HashMap<tala::String, tala::Integer>{{"k", 1}}, tala::HashMap<tala::String, tala::Integer>{{"k", 1}}},
        {tala::Set<tala::Integer>{1, 2, 3}, tala::Set<tala::Integer>{3, 2, 1}},
        {tala::Set<tala::Any>{tala::Integer(1), tala::String("x")}, tala::Set<tala::Any>{tala::String("x"), tala::Float(1.0)}},
        {decimal("1.10"), decimal("1.1")},
        {decimal("100"), decimal("1E+2")},
        {tala::Date(2024, 2, 29), tala::Date(2024, 2, 29)},
        {tala::Time(12, 30, 15, 1), tala::Time(12, 30, 15, 1)},
        {tala::DateTime(tala::Date(2024, 2, 29), tala::Time(1, 2, 3)),
         tala::DateTime(tala::Date(2024, 2, 29), tala::Time(1, 2, 3))},
        {tala::Boxed<int>(3), tala::Boxed<int>(3)},
        {tala::Undefined(), tala::Undefined()},
        {tala::Lazy<tala::String>([] { return tala::Any(tala::String("lazy")); }), tala::String("lazy")},
    };
    for (const Pair& pair : pairs) {
        SCOPED_TRACE(shown(pair.a) + " and " + shown(pair.b));
        EXPECT_EQ(order(pair.a, pair.b), 0);
        EXPECT_EQ(tala::hash_of(pair.a), tala::hash_of(pair.b));
    }
}

namespace {
const tala::Identifier kHashAmount{"$amount"};
const tala::Identifier kHashNote{"$note"};

// Instances compared by `amount` alone, through the class's own comparison.
tala::Class_Generic comparedClass(bool ownHash) {
    tala::ClassBuilder builder(ownHash ? "HashedByClass" : "HashedByFields");
    builder.parent(tala::I_Immutable::getClass())
        .field(kHashAmount)
        .method(tala::Any::$__compare__, [](const tala::Any& self, const tala::Any& other) -> std::int64_t {
            return tala::compare_objects(self.fieldValue(kHashAmount), other.fieldValue(kHashAmount));
        }, {"other"});
    if (ownHash) {
        // The note is not compared, so the class hashes the amount only.
        builder.field(kHashNote).method(tala::Any::$__hash__, [](const tala::Any& self) {
            return static_cast<std::int64_t>(tala::hash_of(self.fieldValue(kHashAmount)));
        });
    }
    return builder.build();
}

tala::Any compared(const tala::Class_Generic& cls, std::int64_t amount, const char* note = "") {
    tala::Any value = tala::make_instance(cls);
    (void)value.setFieldValue(kHashAmount, tala::Integer(amount));
    if (tala::definedField(cls, kHashNote).is<tala::Type>()) (void)value.setFieldValue(kHashNote, tala::String(note));
    return value;
}
}  // namespace

TEST(Hash, ContainersThatHoldThemselvesOrSharedPartsHashInBoundedTime) {
    // A list holding itself twice: without a bound, 2^256 paths down to the depth limit.
    const tala::List<tala::Any> twice;
    twice.append(twice);
    twice.append(twice);
    const tala::List<tala::Any> twiceAgain;  // the same value, built on its own
    twiceAgain.append(twiceAgain);
    twiceAgain.append(twiceAgain);
    EXPECT_EQ(tala::hash_of(twice), tala::hash_of(twiceAgain));
    // A list built of one part shared at every level (no cycle): 2^60 paths.
    tala::List<tala::Any> shared;
    for (int level = 0; level < 60; ++level) shared = tala::List<tala::Any>{shared, shared};
    tala::List<tala::Any> sameShape;
    for (int level = 0; level < 60; ++level) sameShape = tala::List<tala::Any>{sameShape, sameShape};
    EXPECT_EQ(tala::hash_of(shared), tala::hash_of(sameShape));  // equal values, equal hashes
    // A map holding itself as a value, a set of such lists.
    const tala::HashMap<tala::String, tala::Any> map;
    map.set(tala::String("self"), map);
    map.set(tala::String("list"), twice);
    const tala::HashMap<tala::String, tala::Any> mapAgain;
    mapAgain.set(tala::String("list"), twiceAgain);
    mapAgain.set(tala::String("self"), mapAgain);
    EXPECT_EQ(tala::hash_of(map), tala::hash_of(mapAgain));
    tala::Set<tala::Any> set;
    set.insert(shared);
    EXPECT_TRUE(set.contains(shared));
    // Small values still hash by their content.
    EXPECT_NE(tala::hash_of(tala::List<tala::Any>{tala::Integer(1)}), tala::hash_of(tala::List<tala::Any>{tala::Integer(2)}));
    twice.clear();  // breaks the reference cycles
    twiceAgain.clear();
    map.clear();
    mapAgain.clear();
}

TEST(Hash, AClassThatComparesItsInstancesHashesThemByTheirFields) {
    static const tala::Class_Generic cls = comparedClass(false);
    const tala::Any first = compared(cls, 5);
    const tala::Any second = compared(cls, 5);
    ASSERT_NE(first.cell(), second.cell());
    EXPECT_EQ(order(first, second), 0);
    EXPECT_EQ(tala::hash_of(first), tala::hash_of(second));
    EXPECT_NE(tala::hash_of(first), tala::hash_of(compared(cls, 6)));
    // As keys of a host set: one entry for the two equal values.
    tala::Set<tala::Any> set;
    set.insert(first);
    set.insert(second);
    EXPECT_EQ(set.size(), 1u);
}

TEST(Hash, AClassWithAHashOfItsOwnIsHashedByIt) {
    static const tala::Class_Generic cls = comparedClass(true);
    const tala::Any first = compared(cls, 5, "one");
    const tala::Any second = compared(cls, 5, "two");
    EXPECT_EQ(order(first, second), 0);
    EXPECT_EQ(tala::hash_of(first), tala::hash_of(second));
    EXPECT_EQ(tala::hash_of(first), tala::hash_of(tala::Integer(5)));
    EXPECT_NE(tala::hash_of(first), tala::hash_of(compared(cls, 6, "one")));
}

TEST(Hash, ObjectsWithoutAComparisonOfTheirOwnHashByIdentity) {
    static const tala::Class_Generic cls = tala::ClassBuilder("HashedByIdentity").field(kHashAmount).build();
    const tala::Any first = compared(cls, 5);
    const tala::Any second = compared(cls, 5);
    EXPECT_NE(order(first, second), 0);
    EXPECT_EQ(tala::hash_of(first), tala::hash_of(tala::Any(first)));
    EXPECT_NE(tala::hash_of(first), tala::hash_of(second));
}

TEST(Hash, CopiesHashEqual) {
    for (const tala::Any& value : oneValuePerKind()) {
        const tala::Any copy = value;
        EXPECT_EQ(tala::hash_of(value), tala::hash_of(copy)) << shown(value);
    }
}

TEST(Hash, DifferentSimpleValuesHashDifferently) {
    EXPECT_NE(tala::hash_of(tala::Integer(1)), tala::hash_of(tala::Integer(2)));
    EXPECT_NE(tala::hash_of(tala::String("a")), tala::hash_of(tala::String("b")));
    EXPECT_NE(tala::hash_of(tala::Float(0.5)), tala::hash_of(tala::Float(0.25)));
    EXPECT_NE(tala::hash_of(tala::List<tala::Integer>{1, 2}), tala::hash_of(tala::List<tala::Integer>{2, 1}));
    EXPECT_NE(tala::hash_of(decimal("1.1")), tala::hash_of(decimal("1.2")));
}

TEST(Hash, ListThatContainsItselfHashesAndComparesInFiniteTime) {
    const tala::List<tala::Any> first{tala::Integer(1)};
    const tala::List<tala::Any> second{tala::Integer(1)};
    first.append(first);
    second.append(second);
    EXPECT_EQ(tala::hash_of(first), tala::hash_of(first));
    EXPECT_EQ(tala::compare_objects(first, first), 0);
    // Two distinct self-containing lists end up compared by identity, never equal.
    EXPECT_NE(tala::compare_objects(first, second), 0);
    EXPECT_EQ(tala::compare_objects(first, second), -tala::compare_objects(second, first));
    // Break the cycles so that the lists are freed.
    first.clear();
    second.clear();
}

// A container that holds itself shows "..." where it meets itself again, as Python shows it; a
// list that holds itself twice once took 2^64 copies of its text (and all memory) to show.
TEST(Display, ContainersHoldingThemselvesShowAnEllipsis) {
    const tala::List<tala::Any> list{tala::Integer(1)};
    list.append(list);
    list.append(list);
    EXPECT_EQ(shown(list), "[1, [...], [...]]");
    const tala::HashMap<tala::String, tala::Any> map;
    map.set(tala::String("me"), map);
    map.set(tala::String("list"), list);
    EXPECT_EQ(shown(map), "{'me': {...}, 'list': [1, [...], [...]]}");
    // The same list twice side by side is no cycle: it shows in full both times.
    const tala::List<tala::Any> twice{tala::List<tala::Any>{tala::Integer(2)}, tala::List<tala::Any>{tala::Integer(2)}};
    EXPECT_EQ(shown(twice), "[[2], [2]]");
    list.clear();
    map.clear();
}

// The lowest offset a time can carry is shown without overflow (it once negated INT32_MIN).
TEST(Display, LowestTimeOffsetIsShown) {
    const tala::Time time(12, 30, 15, 0, std::numeric_limits<std::int32_t>::min());
    EXPECT_EQ(shown(time), "12:30:15-596523:14:08");
}

}  // namespace

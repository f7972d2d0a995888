// tests/tala/containers_test.cpp: List, HashMap, Set and Tuple.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "tala/tala.hpp"
#include "value_test_support.hpp"

namespace {

using tala_test::expectCopyAndMoveSemantics;
using tala_test::order;
using tala_test::refCountOf;
using tala_test::shown;

constexpr const char* kInvalidIterator = "[iterator_iterable_typed::operator *] The iterator is invalid.";

// The keys of a map or set in iteration order, by their display text.
std::vector<std::string> keysInOrder(const tala::HashMap_Generic& map) {
    std::vector<std::string> keys;
    for (const auto& entry : map) keys.push_back(shown(entry.key));
    return keys;
}

std::vector<std::string> keysInOrder(const tala::Set_Generic& set) {
    std::vector<std::string> keys;
    for (const auto& entry : set) keys.push_back(shown(entry.key));
    return keys;
}

// ---- List -------------------------------------------------------------------------------------

TEST(List, HasKindCodeThreeAndItsItems) {
    const tala::List<tala::Integer> list{1, 2, 3};
    EXPECT_EQ(list.kindCode(), 3);
    EXPECT_EQ(list.size(), 3u);
    EXPECT_EQ(list.length(), 3);
    EXPECT_FALSE(list.isEmpty());
    EXPECT_EQ(list.get(0).value(), 1);
    EXPECT_EQ(list.get(2).value(), 3);
    EXPECT_EQ(shown(list), "[1, 2, 3]");
    expectCopyAndMoveSemantics(list, 3);
}

TEST(List, CopiesShareTheItems) {
    const tala::List<tala::Integer> list{1};
    const tala::Any copy = list;
    tala::List_Generic(tala::internal::unchecked, copy).append(tala::Integer(2));
    EXPECT_EQ(shown(list), "[1, 2]");
}

TEST(List, ItemsAreReleasedWithTheList) {
    const tala::String item("item");
    {
        tala::List<tala::String> list{item, item};
        EXPECT_EQ(refCountOf(item), 3u);
        list.removeAt(0);
        EXPECT_EQ(refCountOf(item), 2u);
    }
    EXPECT_EQ(refCountOf(item), 1u);
}

TEST(List, AtCountsNegativeIndexesFromTheEnd) {
    const tala::List<tala::Integer> list{10, 20, 30};
    EXPECT_EQ(order(list.at(0), tala::Integer(10)), 0);
    EXPECT_EQ(order(list.at(-1), tala::Integer(30)), 0);
    EXPECT_EQ(order(list.at(-3), tala::Integer(10)), 0);
}

TEST(List, AtOutOfRangeIsAnError) {
    const tala::List<tala::Integer> list{10, 20};
    const tala::Any error = list.at(5);
    ASSERT_TRUE(tala::is_error_result(error));
    EXPECT_EQ(shown(error), "Index out of range: 5, size: 2.");
    EXPECT_EQ(shown(list.at(-3)), "Index out of range: -3, size: 2.");
    EXPECT_EQ(shown(tala::List<tala::Any>().at(0)), "Index out of range: 0, size: 0.");
}

TEST(List, SetInsertAndRemoveAt) {
    const tala::List<tala::Integer> list{1, 2, 3};
    EXPECT_TRUE(list.set(-1, tala::Integer(30)).isEmpty());
    EXPECT_EQ(shown(list), "[1, 2, 30]");
    EXPECT_TRUE(tala::is_error_result(list.set(3, tala::Integer(0))));
    EXPECT_TRUE(list.insert(0, tala::Integer(0)).isEmpty());
    EXPECT_TRUE(list.insert(4, tala::Integer(40)).isEmpty());  // at size(): appends
    EXPECT_TRUE(list.insert(-1, tala::Integer(35)).isEmpty());
    EXPECT_EQ(shown(list), "[0, 1, 2, 30, 35, 40]");
    EXPECT_EQ(shown(list.insert(7, tala::Integer(0))), "Index out of range: 7, size: 6.");
    EXPECT_TRUE(list.removeAt(1, 2).isEmpty());
    EXPECT_EQ(shown(list), "[0, 30, 35, 40]");
    EXPECT_TRUE(list.removeAt(-1).isEmpty());
    EXPECT_EQ(shown(list), "[0, 30, 35]");
    EXPECT_TRUE(list.removeAt(1, 100).isEmpty());
    EXPECT_EQ(shown(list), "[0]");
    EXPECT_TRUE(list.removeAt(0, 0).isEmpty());
    EXPECT_TRUE(tala::is_error_result(list.removeAt(1)));
    list.clear();
    EXPECT_TRUE(list.isEmpty());
    EXPECT_EQ(shown(list), "[]");
}

TEST(List, ContainsAndIndexOfCompareByValue) {
    const tala::List<tala::Any> list{tala::Integer(1), tala::String("two"), tala::Float(3.0), tala::String("two")};
    EXPECT_TRUE(list.contains(tala::String("two")));
    EXPECT_TRUE(list.contains(tala::Integer(3)));  // equals Float(3.0)
    EXPECT_FALSE(list.contains(tala::String("three")));
    EXPECT_EQ(list.indexOf(tala::String("two")), 1);
    EXPECT_EQ(list.indexOf(tala::String("two"), 2), 3);
    EXPECT_EQ(list.indexOf(tala::String("two"), 4), -1);
    EXPECT_EQ(list.indexOf(tala::Float(1.0), -5), 0);
}

TEST(List, AnnouncesItsElementType) {
    EXPECT_EQ(tala::List<tala::Integer>().elementType().toString(), "Integer");
    EXPECT_TRUE(tala::List<tala::Integer>().elementType() == tala::Integer::getType());
    EXPECT_TRUE(tala::List<tala::Any>().elementType() == tala::Type::any());
}

TEST(List, ComparesItemByItemThenByLength) {
    EXPECT_EQ(order(tala::List<tala::Integer>{1, 2}, tala::List<tala::Integer>{1, 2}), 0);
    EXPECT_EQ(order(tala::List<tala::Integer>{1, 2}, tala::List<tala::Integer>{1, 3}), -1);
    EXPECT_EQ(order(tala::List<tala::Integer>{1, 2}, tala::List<tala::Integer>{1, 2, 0}), -1);
    EXPECT_EQ(order(tala::List<tala::Integer>{2}, tala::List<tala::Integer>{1, 9}), 1);
    EXPECT_EQ(order(tala::List<tala::Any>{tala::Integer(1)}, tala::List<tala::Any>{tala::Float(1.0)}), 0);
    EXPECT_EQ(tala::hash_of(tala::List<tala::Integer>{1, 2}), tala::hash_of(tala::List<tala::Integer>{1, 2}));
    EXPECT_EQ(tala::hash_of(tala::List<tala::Any>{tala::Integer(1)}), tala::hash_of(tala::List<tala::Any>{tala::Float(1.0)}));
}

TEST(List, CastChecksTheKind) {
    const tala::Any value = tala::List<tala::Integer>{1};
    EXPECT_TRUE(tala::List<tala::Integer>::cast(value).has_value());
    EXPECT_TRUE(tala::List_Generic::cast(value).has_value());
    EXPECT_FALSE(tala::List<tala::Integer>::cast(tala::Tuple{tala::Integer(1)}).has_value());
}

// ---- HashMap ----------------------------------------------------------------------------------

TEST(HashMap, HasKindCodeFourAndItsEntries) {
    const tala::HashMap<tala::String, tala::Integer> map{{"a", 1}, {"b", 2}};
    EXPECT_EQ(map.kindCode(), 4);
    EXPECT_EQ(map.size(), 2u);
    EXPECT_EQ(map.length(), 2);
    EXPECT_TRUE(map.contains(tala::String("a")));
    EXPECT_FALSE(map.contains(tala::String("c")));
    ASSERT_TRUE(map.get(tala::String("b")).has_value());
    EXPECT_EQ(order(*map.get(tala::String("b")), tala::Integer(2)), 0);
    EXPECT_FALSE(map.get(tala::String("c")).has_value());
    EXPECT_EQ(shown(map), "{'a': 1, 'b': 2}");
    expectCopyAndMoveSemantics(map, 4);
}

TEST(HashMap, SetReplacesTheValueOfAnExistingKeyInPlace) {
    const tala::HashMap<tala::String, tala::Integer> map{{"a", 1}, {"b", 2}};
    map.set(tala::String("a"), tala::Integer(10));
    EXPECT_EQ(map.size(), 2u);
    EXPECT_EQ(shown(map), "{'a': 10, 'b': 2}");
}

TEST(HashMap, KeepsInsertionOrderAfterRemovalsAndReinserts) {
    const tala::HashMap<tala::String, tala::Integer> map;
    for (const char* key : {"e", "d", "c", "b", "a"}) map.set(tala::String(key), tala::Integer(key[0]));
    EXPECT_EQ(keysInOrder(map), (std::vector<std::string>{"'e'", "'d'", "'c'", "'b'", "'a'"}));

    EXPECT_TRUE(map.remove(tala::String("c")));
    EXPECT_FALSE(map.remove(tala::String("c")));
    EXPECT_TRUE(map.remove(tala::String("e")));
    EXPECT_EQ(keysInOrder(map), (std::vector<std::string>{"'d'", "'b'", "'a'"}));

    map.set(tala::String("c"), tala::Integer(3));  // a re-inserted key goes to the end
    map.set(tala::String("d"), tala::Integer(4));  // replacing a value keeps the position
    EXPECT_EQ(keysInOrder(map), (std::vector<std::string>{"'d'", "'b'", "'a'", "'c'"}));
    EXPECT_EQ(shown(map), "{'d': 4, 'b': 98, 'a': 97, 'c': 3}");
    EXPECT_EQ(map.size(), 4u);
    EXPECT_FALSE(map.contains(tala::String("e")));
}

TEST(HashMap, KeepsOrderAndFindsEveryKeyAcrossGrowthAndCompaction) {
    const tala::HashMap<tala::Integer, tala::Integer> map;
    for (std::int64_t i = 0; i < 1000; ++i) map.set(tala::Integer(i), tala::Integer(i * i));
    for (std::int64_t i = 0; i < 1000; i += 2) ASSERT_TRUE(map.remove(tala::Integer(i)));
    for (std::int64_t i = 0; i < 1000; i += 4) map.set(tala::Integer(i), tala::Integer(-i));  // re-insert some
    for (std::int64_t i = 1000; i < 3000; ++i) map.set(tala::Integer(i), tala::Integer(i));    // force growth

    std::vector<std::int64_t> expected;
    for (std::int64_t i = 1; i < 1000; i += 2) expected.push_back(i);
    for (std::int64_t i = 0; i < 1000; i += 4) expected.push_back(i);
    for (std::int64_t i = 1000; i < 3000; ++i) expected.push_back(i);

    std::vector<std::int64_t> actual;
    for (const auto& entry : map) actual.push_back(entry.key.rawInteger());
    EXPECT_EQ(actual, expected);
    EXPECT_EQ(map.size(), expected.size());
    for (std::int64_t i = 0; i < 1000; ++i) {
        const auto value = map.get(tala::Integer(i));
        if (i % 4 == 0) {
            ASSERT_TRUE(value.has_value()) << i;
            EXPECT_EQ(value->rawInteger(), -i);
        } else if (i % 2 == 0) {
            EXPECT_FALSE(value.has_value()) << i;
        } else {
            ASSERT_TRUE(value.has_value()) << i;
            EXPECT_EQ(value->rawInteger(), i * i);
        }
    }
}

TEST(HashMap, RemovingEveryKeyThenInsertingStartsAfresh) {
    const tala::HashMap<tala::String, tala::Integer> map{{"a", 1}, {"b", 2}};
    EXPECT_TRUE(map.remove(tala::String("a")));
    EXPECT_TRUE(map.remove(tala::String("b")));
    EXPECT_TRUE(map.isEmpty());
    EXPECT_EQ(shown(map), "{}");
    map.set(tala::String("b"), tala::Integer(20));
    map.set(tala::String("a"), tala::Integer(10));
    EXPECT_EQ(shown(map), "{'b': 20, 'a': 10}");
    map.clear();
    EXPECT_TRUE(map.isEmpty());
    EXPECT_FALSE(map.contains(tala::String("a")));
    map.set(tala::String("z"), tala::Integer(0));
    EXPECT_EQ(shown(map), "{'z': 0}");
}

TEST(HashMap, KeysEqualAcrossIntegerAndFloatFindTheSameEntry) {
    const tala::HashMap<tala::Any, tala::Any> map;
    map.set(tala::Integer(2), tala::String("two"));
    EXPECT_TRUE(map.contains(tala::Float(2.0)));
    map.set(tala::Float(2.0), tala::String("deux"));
    EXPECT_EQ(map.size(), 1u);
    EXPECT_EQ(shown(map), "{2: 'deux'}");
}

TEST(HashMap, StringKeysWithEmbeddedNulAreDistinct) {
    const tala::HashMap<tala::String, tala::Integer> map;
    map.set(tala::String(std::string_view("a\0b", 3)), tala::Integer(1));
    map.set(tala::String(std::string_view("a\0c", 3)), tala::Integer(2));
    map.set(tala::String("a"), tala::Integer(3));
    EXPECT_EQ(map.size(), 3u);
    EXPECT_EQ(map.get(tala::String(std::string_view("a\0c", 3)))->rawInteger(), 2);
}

TEST(HashMap, KeysAndValuesFollowInsertionOrder) {
    const tala::HashMap<tala::String, tala::Integer> map{{"x", 1}, {"y", 2}};
    EXPECT_EQ(shown(map.keys()), "['x', 'y']");
    EXPECT_EQ(shown(map.values()), "[1, 2]");
    EXPECT_EQ(map.keysType().toString(), "String");
    EXPECT_EQ(map.valuesType().toString(), "Integer");
}

TEST(HashMap, IteratorInvalidatedByInsertionThrows) {
    const tala::HashMap<tala::String, tala::Integer> map{{"a", 1}, {"b", 2}};
    auto it = map.begin();
    EXPECT_EQ(shown(it->key), "'a'");
    map.set(tala::String("c"), tala::Integer(3));
    try {
        (void)*it;
        FAIL() << "dereferencing an invalidated iterator did not throw";
    } catch (const tala::Exception& error) {
        EXPECT_STREQ(error.what(), kInvalidIterator);
    }
}

TEST(HashMap, InsertingDuringIterationThrowsOnTheNextItem) {
    const tala::HashMap<tala::String, tala::Integer> map{{"a", 1}, {"b", 2}, {"c", 3}};
    int visited = 0;
    try {
        for (const auto& entry : map) {
            (void)entry;
            if (++visited == 1) map.set(tala::String("d"), tala::Integer(4));
        }
        FAIL() << "iteration went on over a changed map";
    } catch (const tala::Exception& error) {
        EXPECT_STREQ(error.what(), kInvalidIterator);
    }
    EXPECT_EQ(visited, 1);
}

TEST(HashMap, IteratorInvalidatedByRemovalThrows) {
    const tala::HashMap<tala::String, tala::Integer> map{{"a", 1}, {"b", 2}};
    auto it = map.begin();
    map.remove(tala::String("b"));
    EXPECT_THROW((void)*it, tala::Exception);
}

TEST(HashMap, IteratorInvalidatedByCompactionThrows) {
    const tala::HashMap<tala::Integer, tala::Integer> map;
    for (std::int64_t i = 0; i < 4; ++i) map.set(tala::Integer(i), tala::Integer(i));
    map.remove(tala::Integer(0));
    auto it = map.begin();
    EXPECT_EQ(it->key.rawInteger(), 1);
    map.cell()->table.reserve(64);  // moves the live entries over the hole
    EXPECT_THROW((void)*it, tala::Exception);
    EXPECT_EQ(shown(map), "{1: 1, 2: 2, 3: 3}");
}

TEST(HashMap, ReplacingAValueKeepsIteratorsValid) {
    const tala::HashMap<tala::String, tala::Integer> map{{"a", 1}, {"b", 2}};
    auto it = map.begin();
    map.set(tala::String("a"), tala::Integer(5));
    EXPECT_EQ(it->value.rawInteger(), 5);
}

TEST(HashMap, SetCheckedWithWrongValueTypeIsAnError) {
    const tala::HashMap<tala::String, tala::Integer> map;
    const tala::Any wrongValue = map.setChecked(tala::String("a"), tala::String("not a number"));
    ASSERT_TRUE(tala::is_error_result(wrongValue));
    EXPECT_EQ(shown(wrongValue), "Value type mismatch: expected Integer, got 'not a number'.");
    EXPECT_TRUE(map.isEmpty());

    const tala::Any wrongKey = map.setChecked(tala::Integer(1), tala::Integer(1));
    ASSERT_TRUE(tala::is_error_result(wrongKey));
    EXPECT_EQ(shown(wrongKey), "Key type mismatch: expected String, got 1.");
    EXPECT_TRUE(map.isEmpty());

    EXPECT_TRUE(tala::is_error_result(map.setChecked(tala::String("a"), tala::None())));
    EXPECT_TRUE(map.setChecked(tala::String("a"), tala::Integer(1)).isEmpty());
    EXPECT_EQ(shown(map), "{'a': 1}");
}

TEST(HashMap, SetCheckedOfAnyAcceptsEverything) {
    const tala::HashMap<tala::Any, tala::Any> map;
    EXPECT_TRUE(map.setChecked(tala::Integer(1), tala::None()).isEmpty());
    EXPECT_TRUE(map.setChecked(tala::String("k"), tala::List<tala::Integer>{1}).isEmpty());
    EXPECT_EQ(shown(map), "{1: None, 'k': [1]}");
}

TEST(HashMap, EqualMapsCompareEqualAndHashEqual) {
    const tala::HashMap<tala::String, tala::Integer> a{{"a", 1}, {"b", 2}};
    const tala::HashMap<tala::String, tala::Integer> b{{"a", 1}, {"b", 2}};
    const tala::HashMap<tala::String, tala::Integer> other{{"a", 1}, {"b", 3}};
    EXPECT_EQ(order(a, b), 0);
    EXPECT_EQ(tala::hash_of(a), tala::hash_of(b));
    EXPECT_NE(order(a, other), 0);
    EXPECT_NE(order(a, tala::HashMap<tala::String, tala::Integer>{{"a", 1}}), 0);
}

TEST(HashMap, MapsFilledInDifferentOrdersCompareEqualAndHashEqual) {
    const tala::HashMap<tala::String, tala::Integer> a{{"a", 1}, {"b", 2}, {"c", 3}};
    const tala::HashMap<tala::String, tala::Integer> b{{"c", 3}, {"a", 1}, {"b", 2}};
    EXPECT_EQ(order(a, b), 0);
    EXPECT_EQ(order(b, a), 0);
    EXPECT_EQ(tala::hash_of(a), tala::hash_of(b));
    const tala::HashMap<tala::String, tala::Integer> c{{"c", 3}, {"a", 1}, {"b", 4}};
    EXPECT_NE(order(a, c), 0);
    EXPECT_EQ(order(a, c), -order(c, a));
}

// ---- Set --------------------------------------------------------------------------------------

TEST(Set, HasKindCodeFiveAndItsElements) {
    const tala::Set<tala::Integer> set{1, 2};
    EXPECT_EQ(set.kindCode(), 5);
    EXPECT_EQ(set.size(), 2u);
    EXPECT_TRUE(set.contains(tala::Integer(1)));
    EXPECT_TRUE(set.contains(tala::Float(2.0)));
    EXPECT_FALSE(set.contains(tala::Integer(3)));
    EXPECT_EQ(shown(set), "Set([1, 2])");
    EXPECT_EQ(set.elementType().toString(), "Integer");
    expectCopyAndMoveSemantics(set, 5);
}

TEST(Set, InsertAnswersWhetherTheElementWasNew) {
    const tala::Set<tala::String> set;
    EXPECT_TRUE(set.insert(tala::String("x")));
    EXPECT_FALSE(set.insert(tala::String("x")));
    EXPECT_TRUE(set.insert(tala::String("y")));
    EXPECT_EQ(set.size(), 2u);
    EXPECT_TRUE(set.remove(tala::String("x")));
    EXPECT_FALSE(set.remove(tala::String("x")));
    EXPECT_TRUE(set.insert(tala::String("x")));
    EXPECT_EQ(keysInOrder(set), (std::vector<std::string>{"'y'", "'x'"}));
    set.clear();
    EXPECT_TRUE(set.isEmpty());
    EXPECT_EQ(shown(set), "Set([])");
}

TEST(Set, SetsFilledInDifferentOrdersAreEqualAndHashEqual) {
    const tala::Set<tala::Integer> a{1, 2, 3, 4};
    const tala::Set<tala::Integer> b{4, 3, 2, 1};
    EXPECT_EQ(order(a, b), 0);
    EXPECT_EQ(tala::hash_of(a), tala::hash_of(b));
    EXPECT_EQ(shown(a), "Set([1, 2, 3, 4])");
    EXPECT_EQ(shown(b), "Set([4, 3, 2, 1])");

    const tala::Set<tala::Integer> c{1, 2, 3, 5};
    EXPECT_NE(order(a, c), 0);
    EXPECT_EQ(order(a, c), -order(c, a));
    EXPECT_EQ(order(tala::Set<tala::Integer>{1}, a), -1);  // a smaller set orders first
}

TEST(Set, IteratorInvalidatedByInsertionThrows) {
    const tala::Set<tala::Integer> set{1, 2};
    auto it = set.begin();
    set.insert(tala::Integer(3));
    try {
        (void)*it;
        FAIL() << "dereferencing an invalidated iterator did not throw";
    } catch (const tala::Exception& error) {
        EXPECT_STREQ(error.what(), kInvalidIterator);
    }
}

// ---- Tuple ------------------------------------------------------------------------------------

TEST(Tuple, HasKindCodeTenAndItsItems) {
    const tala::Tuple tuple{tala::Integer(1), tala::Integer(2)};
    EXPECT_EQ(tuple.kindCode(), 10);
    EXPECT_EQ(tuple.size(), 2u);
    EXPECT_EQ(tuple.at(1).rawInteger(), 2);
    EXPECT_EQ(shown(tuple), "(1, 2)");
    expectCopyAndMoveSemantics(tuple, 10);
}

TEST(Tuple, SingleAndEmptyTuplesDisplayLikePython) {
    EXPECT_EQ(shown(tala::Tuple{tala::Integer(1)}), "(1,)");
    EXPECT_EQ(shown(tala::Tuple()), "()");
    EXPECT_EQ(shown(tala::Tuple{tala::String("a"), tala::None(), tala::Tuple{tala::Integer(1)}}), "('a', None, (1,))");
}

TEST(Tuple, ComparesAndHashesByItems) {
    const tala::Tuple a{tala::Integer(1), tala::String("x")};
    const tala::Tuple b{tala::Float(1.0), tala::String("x")};
    EXPECT_EQ(order(a, b), 0);
    EXPECT_EQ(tala::hash_of(a), tala::hash_of(b));
    EXPECT_EQ(order(a, tala::Tuple{tala::Integer(1), tala::String("y")}), -1);
    EXPECT_EQ(order(a, tala::Tuple{tala::Integer(1)}), 1);
    EXPECT_NE(order(a, tala::List<tala::Any>{tala::Integer(1), tala::String("x")}), 0);  // a list is no tuple
}

}  // namespace

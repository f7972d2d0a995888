// tests/tala/views_test.cpp: MapView, SequenceView, SetView, IteratorView and Iteration over host containers and
// over host classes that implement the collection interfaces themselves.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "tala/tala.hpp"
#include "tala/views.hpp"
#include "value_test_support.hpp"

namespace {

using tala::Any;
using tala::HashMap;
using tala::Integer;
using tala::List;
using tala::Result;
using tala::String;
using tala_test::failure;
using tala_test::shown;


// Every item of an iteration by its display text; an error item as "error: <message>".
std::vector<std::string> itemsOf(const tala::Iteration& iteration) {
    std::vector<std::string> items;
    for (const Result<Any>& item : iteration) items.push_back(item ? shown(*item) : "error: " + failure(item));
    return items;
}

// A class that implements I_Sequence by length and at alone: views read it by position.
tala::Class_Generic countdownClass() {
    static const tala::ClassRegistration registration("ViewsCountdown", [] {
        return tala::ClassBuilder("ViewsCountdown")
            .parent(tala::I_Sequence_Generic::getClass())
            .property(Any::$$length, [](const Any&) { return Integer(3); })
            .method(Any::$at, [](const Any&, std::int64_t index) -> Any {
                if (index == 2) return tala::Error(String("Lift-off failed."));
                return Integer(3 - index);
            }, {"index"})
            .build();
    });
    return registration.get();
}

// ---- MapView --------------------------------------------------------------------------------

const HashMap<String, Any> kPrices{{String("tea"), tala::Float(4.5)}, {String("cake"), Integer(3)}};

TEST(MapView, ReadsAHostMap) {
    const auto map = tala::to<tala::MapView>(kPrices);
    ASSERT_TRUE(map.ok()) << failure(map);
    EXPECT_EQ(*map->size(), 2);
    EXPECT_EQ(*map->get<double>("tea"), 4.5);
    EXPECT_EQ(shown(*map->get("cake")), "3");
    EXPECT_TRUE(*map->contains("tea"));
    EXPECT_FALSE(*map->contains("coffee"));
    EXPECT_EQ(*map->find("coffee"), std::nullopt);
    EXPECT_EQ(shown(**map->find("tea")), "4.5");
}

TEST(MapView, AMissingKeyIsTheMapsOwnError) {
    const tala::MapView map = *tala::to<tala::MapView>(kPrices);
    EXPECT_EQ(failure(map.get("coffee")), "Key not found: 'coffee'.");
    EXPECT_EQ(failure(map.get<std::string>("tea")), "Cannot convert 4.5 to std::string.");
}

TEST(MapView, KeysValuesItemsAndIterationFollowTheMapsOrder) {
    const tala::MapView map = *tala::to<tala::MapView>(kPrices);
    std::vector<std::string> keys;
    for (const Any& key : *map.keys()) keys.push_back(shown(key));
    EXPECT_EQ(keys, (std::vector<std::string>{"'tea'", "'cake'"}));
    EXPECT_EQ(shown(map.values()->back()), "3");
    EXPECT_EQ(shown(map.items()->front().second), "4.5");
    std::vector<std::string> iterated;
    for (const Result<Any>& key : map) iterated.push_back(shown(*key));
    EXPECT_EQ(iterated, keys);
}

TEST(MapView, OnlyMapsAreMapViews) {
    EXPECT_EQ(failure(tala::to<tala::MapView>(List<Integer>{1})), "Cannot convert [1] to tala::MapView.");
}

// ---- SequenceView, SetView, IteratorView ----------------------------------------------------

TEST(SequenceView, ReadsListsAndTuples) {
    const tala::SequenceView list = *tala::to<tala::SequenceView>(List<Integer>{10, 20, 30});
    EXPECT_EQ(*list.size(), 3);
    EXPECT_EQ(*list.at<std::int64_t>(-1), 30);
    EXPECT_EQ(failure(list.at(5)), "Index out of range: 5, size: 3.");
    EXPECT_TRUE(*list.contains(20));
    EXPECT_EQ(list.items()->size(), 3u);
    const tala::SequenceView tuple = *tala::to<tala::SequenceView>(tala::Tuple{String("a"), Integer(1)});
    EXPECT_EQ(*tuple.at<std::string>(0), "a");
    EXPECT_EQ(itemsOf(tala::Iteration(tuple)), (std::vector<std::string>{"'a'", "1"}));
}

TEST(SequenceView, AClassWithoutIterIsReadByPosition) {
    const Any countdown = tala::make_instance(countdownClass());
    const auto sequence = tala::to<tala::SequenceView>(countdown);
    ASSERT_TRUE(sequence.ok()) << failure(sequence);
    EXPECT_EQ(*sequence->at<int>(0), 3);
    // The failing item ends the iteration as its last item.
    EXPECT_EQ(itemsOf(tala::Iteration(countdown)), (std::vector<std::string>{"3", "2", "error: Lift-off failed."}));
    EXPECT_EQ(failure(tala::to<std::vector<int>>(countdown)), "Lift-off failed.");
}

TEST(SetView, ReadsSets) {
    const tala::SetView set = *tala::to<tala::SetView>(tala::Set<String>{String("x"), String("y")});
    EXPECT_EQ(*set.size(), 2);
    EXPECT_TRUE(*set.contains("y"));
    EXPECT_FALSE(*set.contains("z"));
    EXPECT_EQ(set.items()->size(), 2u);
}

TEST(IteratorView, IsConsumedAsItIsRead) {
    const Any iterator = tala::I_Iterable_Generic(tala::internal::unchecked, List<Integer>{1, 2}).iter();
    const tala::IteratorView view = *tala::to<tala::IteratorView>(iterator);
    EXPECT_EQ(shown(**view.next()), "1");
    EXPECT_EQ(itemsOf(tala::Iteration(view)), (std::vector<std::string>{"2"}));
    EXPECT_EQ(*view.next(), std::nullopt);
}

// ---- Iteration ------------------------------------------------------------------------------

TEST(Iteration, AMapThatChangesEndsTheIterationWithAnError) {
    const HashMap<String, Any> map{{String("a"), Integer(1)}, {String("b"), Integer(2)}};
    std::vector<std::string> items;
    for (const Result<Any>& key : tala::Iteration(map)) {
        items.push_back(key ? shown(*key) : "error: " + failure(key));
        map.set(String("added") , Integer(0));
    }
    EXPECT_EQ(items, (std::vector<std::string>{"'a'", "error: The container changed during the iteration."}));
}

TEST(Iteration, ANonIterableValueGivesOneError) {
    EXPECT_EQ(itemsOf(tala::Iteration(Integer(5))), (std::vector<std::string>{"error: Cannot iterate over 5."}));
    tala::Iteration iteration(Integer(5));
    EXPECT_FALSE(iteration.next().ok());
    // An iteration that ended stays ended.
    EXPECT_EQ(*iteration.next(), std::nullopt);
}

TEST(Iteration, NextGivesTheItemsThenNothing) {
    tala::Iteration iteration(List<Integer>{7});
    EXPECT_EQ(shown(**iteration.next()), "7");
    EXPECT_EQ(*iteration.next(), std::nullopt);
    EXPECT_EQ(*iteration.next(), std::nullopt);
}

}  // namespace

// tests/tala/children_test.cpp: what cells report to walkers of the graph of values, and when a cell is held by one reference alone.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tala/tala.hpp"
#include "value_test_support.hpp"

namespace {

using tala_test::shown;

// Records what one cell reports: the display text of each child, and each foreign reference.
class Recorder final : public tala::ChildVisitor {
public:
    void child(const tala::Any& value) noexcept override {
        children.push_back(shown(value));
        values.push_back(value);
    }
    void foreign(const void* runtime, void* reference) noexcept override { foreigns.emplace_back(runtime, reference); }

    std::vector<std::string> children;
    std::vector<tala::Any> values;
    std::vector<std::pair<const void*, void*>> foreigns;
};

std::vector<std::string> childrenOf(const tala::Any& value) {
    Recorder recorder;
    tala::visit_children(value, recorder);
    EXPECT_TRUE(recorder.foreigns.empty());
    return recorder.children;
}

using Texts = std::vector<std::string>;

TEST(Children, ListReportsItsItemsInOrder) {
    const tala::List<tala::Any> list{tala::Integer(1), tala::String("a"), tala::List<tala::Any>{}};
    EXPECT_EQ(childrenOf(list), (Texts{"1", "'a'", "[]"}));
}

TEST(Children, MapReportsKeysAndValuesOfLiveEntries) {
    tala::HashMap<tala::String, tala::Any> map{{tala::String("a"), tala::Integer(1)}, {tala::String("b"), tala::Integer(2)}};
    map.set(tala::String("c"), tala::Integer(3));
    map.remove(tala::String("b"));
    EXPECT_EQ(childrenOf(map), (Texts{"'a'", "1", "'c'", "3"}));
}

TEST(Children, SetReportsItsValues) {
    const tala::Set<tala::Any> set{tala::Integer(5), tala::String("x")};
    EXPECT_EQ(childrenOf(set), (Texts{"5", "'x'"}));
}

TEST(Children, TupleReportsItsItems) {
    const tala::Tuple tuple{tala::Integer(1), tala::Any()};
    EXPECT_EQ(childrenOf(tuple), (Texts{"1", "None"}));
}

TEST(Children, ScalarsAndTextsReportNothing) {
    EXPECT_TRUE(childrenOf(tala::Integer(7)).empty());
    EXPECT_TRUE(childrenOf(tala::Any()).empty());
    EXPECT_TRUE(childrenOf(tala::String("text")).empty());
    EXPECT_TRUE(childrenOf(tala::ByteArray("bytes")).empty());
}

TEST(Children, ObjectReportsItsFieldsThenItsInsertedMembers) {
    static const tala::Identifier first("$_first");
    static const tala::Identifier second("$_second");
    static const tala::Identifier extra("$$extra");
    static const tala::Class_Generic cls = tala::ClassBuilder("ChildrenHolder").field(first).field(second).build();
    const tala::Any object = tala::make_instance(cls);
    (void)object.setFieldValue(first, tala::String("one"));
    (void)object.setFieldValue(second, tala::Integer(2));
    EXPECT_EQ(childrenOf(object), (Texts{"'one'", "2"}));

    ASSERT_TRUE(tala::insert_property_value(object, extra, tala::String("inserted")).isEmpty());
    Recorder recorder;
    tala::visit_children(object, recorder);
    ASSERT_EQ(recorder.values.size(), 3u);
    const auto property = tala::Property::cast(recorder.values[2]);
    ASSERT_TRUE(property.has_value()) << recorder.children[2];
    EXPECT_EQ(shown(property->getter().constantValue()), "'inserted'");
}

TEST(Children, InsertedPropertyLeadsToItsValueThroughItsGetter) {
    const tala::Property property = tala::Property::value(tala::Identifier("$$kept"), tala::String("kept"));
    Recorder fromProperty;
    tala::visit_children(property, fromProperty);
    ASSERT_EQ(fromProperty.children.size(), 2u);  // the getter, then the setter (none)
    EXPECT_EQ(fromProperty.children[1], "None");
    EXPECT_EQ(childrenOf(property.getter()), (Texts{"'kept'"}));
}

TEST(Children, BoundFunctionReportsItsTargetAndFixedArguments) {
    const tala::I_Invokable_Generic add = tala::native_function([](std::int64_t a, std::int64_t b) { return a + b; }, "add");
    const tala::I_Invokable_Generic bound = add.bindArgs(tala::Integer(40));
    const Texts reported = childrenOf(bound);
    ASSERT_EQ(reported.size(), 2u);
    EXPECT_EQ(reported[0], shown(add));
    EXPECT_EQ(reported[1], "40");
}

TEST(Children, NativeFunctionReportsNothing) {
    EXPECT_TRUE(childrenOf(tala::native_function([] { return 1; }, "one")).empty());
}

TEST(Children, ClassesReportNothing) {
    EXPECT_TRUE(childrenOf(tala::List_Generic::getClass()).empty());
}

TEST(Children, IteratorReportsItsContainer) {
    const tala::List<tala::Any> list{tala::Integer(1)};
    const tala::Any iterator = tala::resolve(tala::internal::callMember(list, tala::Any::$iter, {}));
    ASSERT_TRUE(tala::internal::objectCellOf(iterator) != nullptr) << shown(iterator);
    const Texts reported = childrenOf(iterator);
    ASSERT_EQ(reported.size(), 1u);
    EXPECT_EQ(reported[0], "[1]");
}

TEST(Children, SolelyHeldCountsOneReferenceAndNeverImmortalCells) {
    tala::List<tala::Any> list;
    EXPECT_TRUE(list.cell()->isSolelyHeld());
    {
        const tala::Any copy = list;
        EXPECT_FALSE(list.cell()->isSolelyHeld());
    }
    EXPECT_TRUE(list.cell()->isSolelyHeld());
    const tala::Class_Generic cls = tala::List_Generic::getClass();
    ASSERT_TRUE(cls.cell()->isImmortal());
    EXPECT_FALSE(cls.cell()->isSolelyHeld());
}

}  // namespace

// tests/tala/members_test.cpp: finding and using the members of values: properties, methods,
// fields, members inserted into one object, classes that answer member look-ups themselves, and
// member access from several threads at once.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "model_test_support.hpp"
#include "tala/tala.hpp"

namespace {

using tala::Any;
using tala::Class_Generic;
using tala::ClassBuilder;
using tala::I_Invokable_Generic;
using tala::Identifier;
using tala::Integer;
using tala::None;
using tala::Property;
using tala::String;

using tala_test::expectedErrorText;
using tala_test::text;
using tala_test::kept;

const Identifier kX{"$x"};
const Identifier kY{"$y"};
const Identifier kZ{"$z"};
const Identifier kSum{"$$sum"};
const Identifier kKind{"$$kind"};
const Identifier kDescribe{"$describe"};
const Identifier kMove{"$move"};
const Identifier kScaled{"$scaled"};
const Identifier kMake{"$make"};

// A small hierarchy: MemberDerived overrides a property and a method of MemberBase and adds its
// own; MemberUnrelated shares nothing with them.
struct Classes {
    Class_Generic base;
    Class_Generic derived;
    Class_Generic unrelated;
};

const Classes& classes() {
    static const Classes made = [] {
        const Class_Generic base =
            kept(ClassBuilder("MemberBase")
                     .doc("Two coordinates.")
                     .field(kX, Integer::getType())
                     .field(kY)
                     .property(kSum, [](const Any& self) {
                         return self.fieldValue(kX).rawInteger() + self.fieldValue(kY).rawInteger();
                     }, "x + y.")
                     .property(kKind, [](const Any&) { return String("base"); }, "The kind.")
                     .method(kDescribe, [](const Any&) { return String("a base"); }, {}, "Describes.")
                     .method(kMove, [](const Any& self, std::int64_t dx, std::int64_t dy) {
                         self.setFieldValue(kX, Integer(self.fieldValue(kX).rawInteger() + dx));
                         self.setFieldValue(kY, Integer(self.fieldValue(kY).rawInteger() + dy));
                     }, {"dx", "dy"}, "Moves by dx, dy.")
                     .build());
        const Class_Generic derived =
            kept(ClassBuilder("MemberDerived")
                     .parent(base)
                     .field(kZ)
                     .property(kKind, [](const Any&) { return String("derived"); }, "The kind, overridden.")
                     .method(kDescribe, [](const Any&) { return String("a derived"); }, {}, "Describes, overridden.")
                     .method(kScaled, [](const Any& self, std::int64_t by) {
                         return self.fieldValue(kX).rawInteger() * by;
                     }, {"by"}, "x times by.")
                     .staticMethod(kMake, [](std::int64_t x) { return x + 1000; }, {"x"}, "Needs no instance.")
                     .build());
        const Class_Generic unrelated = kept(ClassBuilder("MemberUnrelated").build());
        return Classes{base, derived, unrelated};
    }();
    return made;
}

Any point(const Class_Generic& cls, std::int64_t x, std::int64_t y) {
    Any instance = tala::make_instance(cls);
    instance.setFieldValue(kX, Integer(x));
    instance.setFieldValue(kY, Integer(y));
    return instance;
}

// The property found; a failure, and a stand-in that reads as an error, when there is none.
Property property(const tala::Union<Property, None>& found) {
    EXPECT_TRUE(found.is<Property>()) << "no property";
    if (!found.is<Property>()) return Property::value(Identifier("$missing"), tala::Error(String("No property.")));
    return found.as<Property>();
}

// The method found; a failure, and a stand-in that answers an error, when there is none.
I_Invokable_Generic method(const tala::Union<I_Invokable_Generic, None>& found) {
    EXPECT_TRUE(found.is<I_Invokable_Generic>()) << "no method";
    if (!found.is<I_Invokable_Generic>()) {
        return tala::make_function(
            String("missing"), [](std::span<const Any>) -> Any { return tala::Error(String("No method.")); },
            tala::Signature({}, tala::Type::any()));
    }
    return found.as<I_Invokable_Generic>();
}

// ---- Properties and methods -------------------------------------------------------------------

TEST(MemberAccess, PropertyOfFindsOwnAndInheritedPropertiesByIdentifierAndByText) {
    const Any derived = point(classes().derived, 3, 4);
    EXPECT_EQ(property(tala::property_of(derived, kSum)).get(derived).rawInteger(), 7);
    EXPECT_EQ(property(tala::property_of(derived, "sum")).get(derived).rawInteger(), 7);
    EXPECT_EQ(text(property(tala::property_of(derived, kKind)).get(derived)), "'derived'");
    EXPECT_EQ(text(property(tala::property_of(derived, "kind")).get(derived)), "'derived'");
    const Any base = point(classes().base, 1, 1);
    EXPECT_EQ(text(property(tala::property_of(base, "kind")).get(base)), "'base'");
}

TEST(MemberAccess, PropertyOfAnUnknownNameIsNone) {
    const Any derived = point(classes().derived, 3, 4);
    EXPECT_TRUE(tala::property_of(derived, Identifier("$noSuchProperty")).is<None>());
    EXPECT_TRUE(tala::property_of(derived, "a name nobody ever interned 7f3a").is<None>());
    EXPECT_TRUE(tala::raw_property_of(derived, "a name nobody ever interned 7f3a").is<None>());
    // Methods are not properties, and the other way round.
    EXPECT_TRUE(tala::property_of(derived, kDescribe).is<None>());
    EXPECT_TRUE(tala::method_of(derived, kSum).is<None>());
    // The look-up does not make the name known.
    EXPECT_FALSE(Identifier::find("a name nobody ever interned 7f3a").has_value());
}

TEST(MemberAccess, RawPropertyOfFindsTheSamePropertiesWithoutReflection) {
    const Any derived = point(classes().derived, 3, 4);
    EXPECT_TRUE(tala::raw_property_of(derived, kSum).isSame(tala::property_of(derived, kSum)));
    EXPECT_TRUE(tala::raw_property_of(derived, "kind").isSame(tala::property_of(derived, "kind")));
}

TEST(MemberAccess, MethodOfFindsOwnAndInheritedMethodsByIdentifierAndByText) {
    const Any derived = point(classes().derived, 3, 4);
    EXPECT_EQ(text(method(tala::method_of(derived, kDescribe))(derived)), "'a derived'");
    EXPECT_EQ(text(method(tala::method_of(derived, "describe"))(derived)), "'a derived'");
    EXPECT_TRUE(method(tala::method_of(derived, kMove))(derived, Integer(10), Integer(20)).isEmpty());
    EXPECT_EQ(derived.fieldValue(kX).rawInteger(), 13);
    EXPECT_EQ(derived.fieldValue(kY).rawInteger(), 24);
    EXPECT_TRUE(tala::raw_method_of(derived, kScaled).isSame(tala::method_of(derived, kScaled)));
    EXPECT_TRUE(tala::raw_method_of(derived, "scaled").isSame(tala::method_of(derived, kScaled)));
    EXPECT_TRUE(tala::method_of(derived, "a name nobody ever interned 7f3a").is<None>());
    EXPECT_TRUE(tala::raw_method_of(derived, "a name nobody ever interned 7f3a").is<None>());
    const Any base = point(classes().base, 0, 0);
    EXPECT_TRUE(tala::method_of(base, kScaled).is<None>());
}

TEST(MemberAccess, MethodOfFindsTheMethodsOfBuiltinValues) {
    const tala::List<Any> list{Integer(1)};
    EXPECT_TRUE(method(tala::method_of(list, "append"))(list, Integer(2)).isEmpty());
    EXPECT_EQ(list.size(), 2u);
    EXPECT_EQ(text(method(tala::method_of(Integer(42), Any::$tryInto))(Integer(42), String::getClass())), "'42'");
}

TEST(MemberAccess, InsertedPropertyValueIsVisibleOnThatObjectOnly) {
    const Any first = point(classes().base, 1, 2);
    const Any second = point(classes().base, 1, 2);
    const Identifier note("$note");
    EXPECT_TRUE(tala::own_properties_of(first).isEmpty());
    EXPECT_TRUE(tala::insert_property_value(first, note, String("hello")).isEmpty());

    const Property found = property(tala::property_of(first, note));
    EXPECT_EQ(text(found.get(first)), "'hello'");
    EXPECT_TRUE(found.isValueProperty());
    EXPECT_EQ(text(property(tala::property_of(first, "note")).get(first)), "'hello'");
    EXPECT_EQ(text(property(tala::raw_property_of(first, note)).get(first)), "'hello'");
    EXPECT_TRUE(tala::property_of(second, note).is<None>());

    const auto own = tala::own_properties_of(first);
    ASSERT_EQ(own.size(), 1u);
    ASSERT_TRUE(own.get(String("note")).has_value());
    EXPECT_EQ(text(Property(tala::internal::unchecked, *own.get(String("note"))).get(first)), "'hello'");
    EXPECT_TRUE(tala::own_properties_of(second).isEmpty());

    // Inserting again replaces the value.
    EXPECT_TRUE(tala::insert_property_value(first, note, Integer(2)).isEmpty());
    EXPECT_EQ(property(tala::property_of(first, note)).get(first).rawInteger(), 2);
    EXPECT_EQ(tala::own_properties_of(first).size(), 1u);
}

TEST(MemberAccess, InsertedPropertyShadowsTheClassProperty) {
    const Any instance = point(classes().derived, 1, 2);
    EXPECT_TRUE(tala::insert_property_value(instance, kKind, String("custom")).isEmpty());
    EXPECT_EQ(text(property(tala::property_of(instance, kKind)).get(instance)), "'custom'");
    const Any other = point(classes().derived, 1, 2);
    EXPECT_EQ(text(property(tala::property_of(other, kKind)).get(other)), "'derived'");
}

TEST(MemberAccess, InsertingIntoAValueThatIsNotAnObjectIsAnError) {
    EXPECT_EQ(expectedErrorText(tala::insert_property_value(Integer(5), Identifier("$note"), String("x"))),
              "Unable to add the member 'note' to a value of class Integer.");
    EXPECT_EQ(expectedErrorText(tala::insert_method(String("text"), Identifier("$extra"),
                                            tala::native_function([] { return std::int64_t(1); }))),
              "Unable to add the member 'extra' to a value of class String.");
}

TEST(MemberAccess, InsertedMethodIsListedAmongTheOwnMethods) {
    const Any instance = point(classes().derived, 2, 0);
    const Any other = point(classes().derived, 2, 0);
    EXPECT_TRUE(tala::own_methods_of(instance).isEmpty());
    const Identifier extra("$extra");
    EXPECT_TRUE(tala::insert_method(instance, extra,
                                    tala::native_function([](const Any& self) { return self.fieldValue(kX); }, "extra",
                                                          {}, String(), false))
                    .isEmpty());
    EXPECT_EQ(method(tala::method_of(instance, extra))(instance).rawInteger(), 2);
    EXPECT_TRUE(tala::method_of(other, extra).is<None>());
    const auto own = tala::own_methods_of(instance);
    ASSERT_EQ(own.size(), 1u);
    EXPECT_TRUE(own.contains(String("extra")));
    // The class's own methods are not the object's.
    EXPECT_FALSE(own.contains(String("describe")));
}

TEST(MemberAccess, BoundMethodCarriesItsReceiver) {
    const Any instance = point(classes().derived, 6, 0);
    const Any bound = instance.boundMethod(kScaled);
    ASSERT_TRUE(I_Invokable_Generic::matches(bound));
    const I_Invokable_Generic invokable(tala::internal::unchecked, bound);
    EXPECT_TRUE(invokable.isIndependent());
    EXPECT_EQ(invokable.functionKind(), tala::FunctionKind::Bound);
    EXPECT_EQ(invokable.signature().toString(0x11), "(by: Integer) -> Integer");
    EXPECT_EQ(invokable.parameterCount(), 1u);
    EXPECT_EQ(invokable(Integer(7)).rawInteger(), 42);
    EXPECT_EQ(invokable.invokeWith({Integer(2)}).rawInteger(), 12);
    tala::HashMap<String, Any> named;
    named.set(String("by"), Integer(3));
    EXPECT_EQ(invokable.invokeWith(named).rawInteger(), 18);
    // Inherited methods bind the same way.
    const Any move = instance.boundMethod(kMove);
    EXPECT_TRUE(I_Invokable_Generic(tala::internal::unchecked, move)(Integer(1), Integer(1)).isEmpty());
    EXPECT_EQ(instance.fieldValue(kX).rawInteger(), 7);
}

TEST(MemberAccess, BoundMethodOfAStaticMethodIsTheMethodItself) {
    const Any instance = point(classes().derived, 0, 0);
    const Any bound = instance.boundMethod(kMake);
    ASSERT_TRUE(I_Invokable_Generic::matches(bound));
    EXPECT_TRUE(bound.isSame(method(tala::method_of(instance, kMake))));
    EXPECT_EQ(I_Invokable_Generic(tala::internal::unchecked, bound)(Integer(1)).rawInteger(), 1001);
}

TEST(MemberAccess, BoundMethodOfAnUnknownNameIsAnError) {
    const Any instance = point(classes().derived, 0, 0);
    EXPECT_EQ(expectedErrorText(instance.boundMethod(Identifier("$noSuchMethod"))),
              "Unknown method 'noSuchMethod' in an object of class MemberDerived.");
    EXPECT_EQ(expectedErrorText(Integer(1).boundMethod(Identifier("$noSuchMethod"))),
              "Unknown method 'noSuchMethod' in an object of class Integer.");
}

TEST(MemberAccess, BoundMethodOfABuiltinValue) {
    const tala::List<Any> list;
    const Any append = list.boundMethod(Any::$append);
    ASSERT_TRUE(I_Invokable_Generic::matches(append));
    I_Invokable_Generic(tala::internal::unchecked, append)(String("a"));
    EXPECT_EQ(list.size(), 1u);
}

// ---- Fields -----------------------------------------------------------------------------------

TEST(MemberAccess, FieldValuesAreReadAndWrittenIncludingInheritedFields) {
    const Any instance = point(classes().derived, 1, 2);
    EXPECT_EQ(instance.fieldValue(kX).rawInteger(), 1);
    EXPECT_TRUE(instance.fieldValue(kZ).isEmpty());
    EXPECT_TRUE(instance.setFieldValue(kZ, String("zed")).isEmpty());
    EXPECT_EQ(text(instance.fieldValue(kZ)), "'zed'");
}

TEST(MemberAccess, UnknownFieldIsAnError) {
    const Any instance = point(classes().derived, 1, 2);
    const Identifier missing("$w");
    EXPECT_EQ(expectedErrorText(instance.fieldValue(missing)), "Unknown field 'w' in an object of class MemberDerived.");
    EXPECT_EQ(expectedErrorText(instance.setFieldValue(missing, Integer(1))),
              "Unknown field 'w' in an object of class MemberDerived.");
    // A base instance has no field of the derived class.
    const Any base = point(classes().base, 1, 2);
    EXPECT_EQ(expectedErrorText(base.fieldValue(kZ)), "Unknown field 'z' in an object of class MemberBase.");
}

TEST(MemberAccess, FieldsOfValuesThatAreNotObjectsAreErrors) {
    EXPECT_EQ(expectedErrorText(Integer(3).fieldValue(kX)), "Unknown field 'x' in an object of class Integer.");
    EXPECT_EQ(expectedErrorText(String("s").setFieldValue(kX, Integer(1))), "Unknown field 'x' in an object of class String.");
    EXPECT_EQ(expectedErrorText(Any().fieldValue(kX)), "Unknown field 'x' in an object of class None.");
    // Functions are objects without fields.
    const I_Invokable_Generic function = tala::native_function([] { return std::int64_t(1); }, "one");
    EXPECT_EQ(expectedErrorText(function.fieldValue(kX)), "Unknown field 'x' in an object of class Function.");
    EXPECT_EQ(expectedErrorText(function.setFieldValue(kX, Integer(1))), "Unknown field 'x' in an object of class Function.");
}

TEST(MemberAccess, FieldAddedToAClassLaterIsUnknownToOlderInstances) {
    const Class_Generic cls = kept(ClassBuilder("GrowingFields").field(kX).build());
    const Any before = tala::make_instance(cls);
    const_cast<tala::internal::ClassCell*>(cls.cell())->addField(kY, Any());
    const Any after = tala::make_instance(cls);
    EXPECT_TRUE(after.setFieldValue(kY, Integer(1)).isEmpty());
    EXPECT_EQ(after.fieldValue(kY).rawInteger(), 1);
    EXPECT_EQ(expectedErrorText(before.fieldValue(kY)), "Unknown field 'y' in an object of class GrowingFields.");
    EXPECT_TRUE(before.setFieldValue(kX, Integer(2)).isEmpty());
}

TEST(MemberAccess, FieldAddedToAParentLaterKeepsTheSlotsOfExistingInstances) {
    const Class_Generic parent = kept(ClassBuilder("SlotParent").field(kX).build());
    const Class_Generic child = kept(ClassBuilder("SlotChild").parent(parent).field(kZ).build());
    const Any before = tala::make_instance(child);
    before.setFieldValue(kX, String("x of before"));
    before.setFieldValue(kZ, String("z of before"));

    // The parent's fields come first in a child; a new one must not move the child's own.
    const_cast<tala::internal::ClassCell*>(parent.cell())->addField(kY, Any());
    EXPECT_EQ(text(before.fieldValue(kX)), "'x of before'");
    EXPECT_EQ(text(before.fieldValue(kZ)), "'z of before'");
    EXPECT_EQ(expectedErrorText(before.fieldValue(kY)), "Unknown field 'y' in an object of class SlotChild.");
    EXPECT_EQ(expectedErrorText(before.setFieldValue(kY, Integer(1))), "Unknown field 'y' in an object of class SlotChild.");
    EXPECT_EQ(text(before.fieldValue(kZ)), "'z of before'");

    const Any after = tala::make_instance(child);
    EXPECT_TRUE(after.setFieldValue(kY, String("y of after")).isEmpty());
    EXPECT_TRUE(after.setFieldValue(kZ, String("z of after")).isEmpty());
    EXPECT_EQ(text(after.fieldValue(kY)), "'y of after'");
    EXPECT_EQ(text(after.fieldValue(kZ)), "'z of after'");
    EXPECT_TRUE(after.fieldValue(kX).isEmpty());
    // Every field is still listed once.
    const auto fields = tala::definedFields(child);
    ASSERT_EQ(fields.size(), 3u);
}

// ---- What classes define ----------------------------------------------------------------------

TEST(DefinedMembers, FieldsAreFoundWithTheirTypes) {
    auto typed = tala::definedField(classes().derived, kX);
    ASSERT_TRUE(typed.is<tala::Type>());
    EXPECT_TRUE(typed.as<tala::Type>() == Integer::getType());
    auto untyped = tala::definedField(classes().derived, kZ);
    ASSERT_TRUE(untyped.is<tala::Type>());
    EXPECT_TRUE(untyped.as<tala::Type>() == tala::Type::any());
    EXPECT_TRUE(tala::definedField(classes().base, kZ).is<None>());

    const auto fields = tala::definedFields(classes().derived);
    ASSERT_EQ(fields.size(), 3u);
    EXPECT_EQ(fields[0].first, "x");
    EXPECT_EQ(fields[1].first, "y");
    EXPECT_EQ(fields[2].first, "z");
}

TEST(DefinedMembers, OwnPropertyOverridesTheParentsOfTheSameName) {
    const Any instance = point(classes().derived, 1, 2);
    auto kind = tala::definedProperty(classes().derived, kKind);
    ASSERT_TRUE(kind.is<Property>());
    EXPECT_EQ(text(kind.as<Property>().get(instance)), "'derived'");
    EXPECT_EQ(kind.as<Property>().doc(), "The kind, overridden.");
    auto sum = tala::definedProperty(classes().derived, kSum);
    ASSERT_TRUE(sum.is<Property>());
    EXPECT_EQ(sum.as<Property>().get(instance).rawInteger(), 3);
    EXPECT_TRUE(tala::definedProperty(classes().base, Identifier("$nothing")).is<None>());

    const auto properties = tala::definedProperties(classes().derived);
    ASSERT_EQ(properties.size(), 2u);  // kind once, the derived one; sum inherited
    EXPECT_EQ(properties[0].first, "kind");
    EXPECT_EQ(Property(tala::internal::unchecked, properties[0].second).doc(), "The kind, overridden.");
    EXPECT_EQ(properties[1].first, "sum");
}

TEST(DefinedMembers, OwnMethodOverridesTheParentsOfTheSameName) {
    const Any instance = point(classes().derived, 1, 2);
    auto describe = tala::definedMethod(classes().derived, kDescribe);
    ASSERT_TRUE(describe.is<I_Invokable_Generic>());
    EXPECT_EQ(text(describe.as<I_Invokable_Generic>()(instance)), "'a derived'");
    EXPECT_EQ(describe.as<I_Invokable_Generic>().doc(), "Describes, overridden.");
    EXPECT_TRUE(tala::definedMethod(classes().derived, kMove).is<I_Invokable_Generic>());
    EXPECT_TRUE(tala::definedMethod(classes().base, kScaled).is<None>());

    std::vector<std::string> names;
    for (const auto& [name, member] : tala::definedMethods(classes().derived)) names.push_back(name.toStdString());
    EXPECT_EQ(names, (std::vector<std::string>{"describe", "scaled", "make", "move"}));
    names.clear();
    for (const auto& [name, member] : tala::definedMethods(classes().base)) names.push_back(name.toStdString());
    EXPECT_EQ(names, (std::vector<std::string>{"describe", "move"}));
}

TEST(DefinedMembers, AbstractMembersAreListedWithInheritedOnes) {
    const Class_Generic base = kept(ClassBuilder("AbstractMembersBase")
                                        .flags(tala::class_flags::Abstract)
                                        .abstractMethod(Identifier("$first"), tala::Signature({}, Integer::getType()))
                                        .abstractProperty(Identifier("$size"), Integer::getType())
                                        .build());
    const Class_Generic child = kept(ClassBuilder("AbstractMembersChild")
                                         .parent(base)
                                         .flags(tala::class_flags::Abstract)
                                         .abstractMethod(Identifier("$second"), tala::Signature({}, Integer::getType()))
                                         .build());
    const auto methods = tala::definedAbstractMethods(child);
    ASSERT_EQ(methods.size(), 2u);
    EXPECT_EQ(methods[0].first, "second");
    EXPECT_EQ(methods[1].first, "first");
    const auto properties = tala::definedAbstractProperties(child);
    ASSERT_EQ(properties.size(), 1u);
    EXPECT_EQ(properties[0].first, "size");
}

// ---- Classes of values ------------------------------------------------------------------------

TEST(ClassesOfValues, IsAncestorFollowsParents) {
    EXPECT_TRUE(tala::is_ancestor(classes().derived, classes().base));
    EXPECT_TRUE(tala::is_ancestor(classes().derived, classes().derived));
    EXPECT_FALSE(tala::is_ancestor(classes().base, classes().derived));
    EXPECT_FALSE(tala::is_ancestor(classes().unrelated, classes().base));
    EXPECT_TRUE(tala::is_ancestor(tala::StopIteration::getClass(), tala::Error::getClass()));
}

TEST(ClassesOfValues, ClassOfAnswersTheClassOfObjectsAndBuiltinValues) {
    EXPECT_TRUE(tala::class_of(point(classes().derived, 0, 0)) == classes().derived);
    EXPECT_TRUE(tala::raw_class_of(point(classes().base, 0, 0)) == classes().base);
    EXPECT_TRUE(tala::class_of(Integer(1)) == Integer::getClass());
    EXPECT_TRUE(tala::class_of(String("s")) == String::getClass());
    EXPECT_TRUE(tala::class_of(Any()) == None::getClass());
    EXPECT_TRUE(tala::class_of(tala::List<Any>()) == tala::List_Generic::getClass());
    EXPECT_TRUE(tala::class_of(classes().base) == Class_Generic::getClass());
    EXPECT_TRUE(tala::class_of(tala::Error(String("e"))) == tala::Error::getClass());
    EXPECT_EQ(tala::class_of(tala::native_function([] { return 1.0; })).qualname(), "Function");
}

TEST(ClassesOfValues, ClassOfSeesThroughLazyValuesRawClassOfDoesNot) {
    const Any instance = point(classes().derived, 0, 0);
    const tala::Lazy_Generic lazy([instance] { return instance; });
    EXPECT_TRUE(tala::raw_class_of(lazy) == tala::Lazy_Generic::getClass());
    EXPECT_TRUE(tala::class_of(lazy) == classes().derived);
    const tala::Lazy_Generic lazyOfLazy([lazy] { return Any(lazy); });
    EXPECT_TRUE(tala::class_of(lazyOfLazy) == classes().derived);
}

TEST(ClassesOfValues, CastObjectAcceptsInstancesOfTheClassAndItsDescendants) {
    const Any derived = point(classes().derived, 0, 0);
    const Any base = point(classes().base, 0, 0);
    EXPECT_TRUE(tala::internal::cast_object(derived, classes().base).isSame(derived));
    EXPECT_TRUE(tala::internal::cast_object(derived, classes().derived).isSame(derived));
    EXPECT_TRUE(tala::internal::cast_object(base, classes().base).isSame(base));
    EXPECT_TRUE(tala::internal::cast_object(base, classes().derived).isEmpty());
    EXPECT_TRUE(tala::internal::cast_object(derived, classes().unrelated).isEmpty());
    EXPECT_TRUE(tala::internal::cast_object(Integer(1), classes().base).isEmpty());
    EXPECT_TRUE(tala::internal::cast_object(Any(), classes().base).isEmpty());
}

TEST(ClassesOfValues, UnwrapResolvesLazyValues) {
    int runs = 0;
    const tala::Lazy_Generic lazy([&runs] {
        ++runs;
        return Any(Integer(5));
    });
    EXPECT_EQ(tala::internal::unwrap(lazy).rawInteger(), 5);
    EXPECT_EQ(tala::internal::unwrap(lazy).rawInteger(), 5);
    EXPECT_EQ(runs, 1);
    const tala::Lazy_Generic outer([lazy] { return Any(lazy); });
    EXPECT_EQ(tala::internal::unwrap(outer).rawInteger(), 5);
    EXPECT_EQ(tala::internal::unwrap(Integer(9)).rawInteger(), 9);
    const String plain("plain");
    EXPECT_TRUE(tala::internal::unwrap(plain).isSame(plain));
    const tala::Lazy_Generic failing([] { return Any(tala::Error(String("Not computable."))); });
    EXPECT_EQ(expectedErrorText(tala::internal::unwrap(failing)), "Not computable.");
}

// ---- Classes that answer member look-ups themselves -------------------------------------------

const Identifier kExtras{"$extras"};
const Identifier kRank{"$rank"};
const Identifier kPlain{"$plain"};
const Identifier kAnswer{"$answer"};

// Answers "answer" and "greet" itself, keeps inserted properties in a map of its own, displays
// itself and compares by rank.
Class_Generic reflectiveClass() {
    static const Class_Generic cls = kept(
        ClassBuilder("Reflective")
            .field(kExtras)
            .field(kRank)
            .method(kPlain, [](const Any&) { return String("plain method"); })
            .property(Identifier("$plainProperty"), [](const Any&) { return String("plain property"); })
            .method(
                Any::$__property__,
                [](const Any& self, const String& name) -> tala::Union<Property, None> {
                    if (name == "answer") return Property::value(kAnswer, Integer(42));
                    if (auto extras = tala::HashMap_Generic::cast(self.fieldValue(kExtras))) {
                        if (auto found = extras->get(name)) return Property(tala::internal::unchecked, *found);
                    }
                    return None();
                },
                {"name"})
            .method(
                Any::$__method__,
                [](const Any&, const String& name) -> tala::Union<I_Invokable_Generic, None> {
                    if (name == "greet") {
                        return tala::native_function(
                            [](const Any&, const String& who) { return String("hello " + who.toStdString()); },
                            "greet", {"who"}, String(), false);
                    }
                    return None();
                },
                {"name"})
            .method(Any::$__ownMethods__,
                    [](const Any& self) {
                        tala::HashMap<String, I_Invokable_Generic> out;
                        out.set(String("greet"), tala::method_of(self, "greet"));
                        return out;
                    })
            .method(Any::$__ownProperties__,
                    [](const Any& self) {
                        tala::HashMap<String, Property> out;
                        out.set(String("answer"), tala::property_of(self, "answer"));
                        if (auto extras = tala::HashMap_Generic::cast(self.fieldValue(kExtras))) {
                            for (const auto& entry : *extras) out.set(entry.key, entry.value);
                        }
                        return out;
                    })
            .method(
                Any::$__insertProperty__,
                // Insertion methods receive the name as bytes.
                [](const Any& self, const tala::ByteArray& bytes, const Property& property) -> Any {
                    const String name = bytes.toString();
                    if (name == "answer") return tala::Error(String("The answer is fixed."));
                    auto extras = tala::HashMap_Generic::cast(self.fieldValue(kExtras));
                    if (!extras) {
                        extras = tala::HashMap<String, Property>();
                        self.setFieldValue(kExtras, *extras);
                    }
                    extras->set(name, property);
                    return Any();
                },
                {"name", "property"})
            .method(Any::$__display__,
                    [](const Any& self) { return String("Reflective of rank " + tala::display(self.fieldValue(kRank)).toStdString()); })
            .method(
                Any::$__compare__,
                [](const Any& self, const Any& other) -> std::int64_t {
                    const std::int64_t mine = self.fieldValue(kRank).rawInteger();
                    const std::int64_t theirs = other.fieldValue(kRank).rawInteger();
                    return (mine > theirs) - (mine < theirs);
                },
                {"other"})
            .build());
    return cls;
}

Any reflectiveInstance(std::int64_t rank) {
    Any instance = tala::make_instance(reflectiveClass());
    instance.setFieldValue(kRank, Integer(rank));
    return instance;
}

TEST(ReflectiveMembers, PropertyMethodTakesOverPropertyOf) {
    const Any instance = reflectiveInstance(1);
    EXPECT_EQ(property(tala::property_of(instance, "answer")).get(instance).rawInteger(), 42);
    EXPECT_EQ(property(tala::property_of(instance, kAnswer)).get(instance).rawInteger(), 42);
    // What the class answers is all there is: its ordinary properties are not consulted.
    EXPECT_TRUE(tala::property_of(instance, "plainProperty").is<None>());
    EXPECT_TRUE(tala::property_of(instance, "never interned either 91c2").is<None>());
}

TEST(ReflectiveMembers, RawPropertyOfBypassesThePropertyMethod) {
    const Any instance = reflectiveInstance(1);
    EXPECT_TRUE(tala::raw_property_of(instance, kAnswer).is<None>());
    EXPECT_TRUE(tala::raw_property_of(instance, "answer").is<None>());
    EXPECT_EQ(text(property(tala::raw_property_of(instance, "plainProperty")).get(instance)), "'plain property'");
}

TEST(ReflectiveMembers, MethodMethodTakesOverMethodOf) {
    const Any instance = reflectiveInstance(1);
    const I_Invokable_Generic greet = method(tala::method_of(instance, "greet"));
    EXPECT_EQ(text(greet(instance, String("you"))), "'hello you'");
    EXPECT_EQ(text(method(tala::method_of(instance, Identifier("$greet")))(instance, String("me"))), "'hello me'");
    EXPECT_TRUE(tala::method_of(instance, kPlain).is<None>());
    // Bound methods go through it too.
    const Any bound = instance.boundMethod(Identifier("$greet"));
    ASSERT_TRUE(I_Invokable_Generic::matches(bound));
    EXPECT_EQ(text(I_Invokable_Generic(tala::internal::unchecked, bound)(String("all"))), "'hello all'");
}

TEST(ReflectiveMembers, RawMethodOfBypassesTheMethodMethod) {
    const Any instance = reflectiveInstance(1);
    EXPECT_TRUE(tala::raw_method_of(instance, "greet").is<None>());
    EXPECT_EQ(text(method(tala::raw_method_of(instance, kPlain))(instance)), "'plain method'");
    EXPECT_EQ(text(method(tala::raw_method_of(instance, "plain"))(instance)), "'plain method'");
    // The reflective methods are ordinary methods to the raw look-up.
    EXPECT_TRUE(tala::raw_method_of(instance, Any::$__property__).is<I_Invokable_Generic>());
}

TEST(ReflectiveMembers, OwnMembersMethodsTakeOverTheOwnMemberLists) {
    const Any instance = reflectiveInstance(1);
    const auto methods = tala::own_methods_of(instance);
    ASSERT_EQ(methods.size(), 1u);
    EXPECT_TRUE(methods.contains(String("greet")));
    const auto properties = tala::own_properties_of(instance);
    ASSERT_EQ(properties.size(), 1u);
    EXPECT_TRUE(properties.contains(String("answer")));
}

TEST(ReflectiveMembers, InsertPropertyMethodTakesOverInsertion) {
    const Any instance = reflectiveInstance(1);
    EXPECT_TRUE(tala::insert_property_value(instance, Identifier("$colour"), String("blue")).isEmpty());
    // Stored by the class's own means, not among the object's inserted members.
    EXPECT_EQ(instance.cellAs<tala::internal::ObjectCell>()->ownMembers(), nullptr);
    EXPECT_EQ(text(property(tala::property_of(instance, "colour")).get(instance)), "'blue'");
    EXPECT_TRUE(tala::raw_property_of(instance, "colour").is<None>());
    const auto properties = tala::own_properties_of(instance);
    EXPECT_EQ(properties.size(), 2u);
    EXPECT_TRUE(properties.contains(String("colour")));
    EXPECT_EQ(expectedErrorText(tala::insert_property_value(instance, kAnswer, Integer(1))), "The answer is fixed.");
}

TEST(ReflectiveMembers, DisplayMethodGivesTheDisplayText) {
    EXPECT_EQ(text(reflectiveInstance(3)), "Reflective of rank 3");
    // Without one, an object shows its class's qualified name.
    EXPECT_EQ(text(point(classes().base, 0, 0)), "MemberBase");
}

TEST(ReflectiveMembers, CompareMethodOrdersObjects) {
    const Any low = reflectiveInstance(1);
    const Any high = reflectiveInstance(2);
    const Any alsoLow = reflectiveInstance(1);
    EXPECT_LT(tala::compare_objects(low, high), 0);
    EXPECT_GT(tala::compare_objects(high, low), 0);
    EXPECT_EQ(tala::compare_objects(low, alsoLow), 0);
    EXPECT_TRUE(low == alsoLow);
    // Without one, distinct objects are never equal.
    EXPECT_NE(tala::compare_objects(point(classes().base, 0, 0), point(classes().base, 0, 0)), 0);
}

TEST(ReflectiveMembers, DerivedClassInheritsTheTakeover) {
    const Class_Generic derived = kept(ClassBuilder("ReflectiveChild").parent(reflectiveClass()).build());
    Any instance = tala::make_instance(derived);
    instance.setFieldValue(kRank, Integer(9));
    EXPECT_EQ(property(tala::property_of(instance, "answer")).get(instance).rawInteger(), 42);
    EXPECT_EQ(text(instance), "Reflective of rank 9");
}

// ---- Calls through interfaces ------------------------------------------------------------------

// Interfaces call members by name on their receiver: what they reach must be what method_of gives.
TEST(InterfaceCalls, AMethodInsertedIntoTheObjectComesBeforeTheClassMethod) {
    const Any plain = point(classes().derived, 2, 0);
    const Any changed = point(classes().derived, 2, 0);
    EXPECT_EQ(text(tala::internal::callMember(plain, kDescribe, {})), "'a derived'");
    ASSERT_TRUE(tala::insert_method(changed, kDescribe,
                                    tala::native_function([](const Any&) { return String("own"); }, "describe", {},
                                                          String(), false))
                    .isEmpty());
    EXPECT_EQ(text(tala::internal::callMember(changed, kDescribe, {})), "'own'");
    EXPECT_EQ(text(tala::internal::callMember(plain, kDescribe, {})), "'a derived'");
}

TEST(InterfaceCalls, AClassThatAnswersMethodsItselfIsAskedEvenForItsOrdinaryMethods) {
    const Any instance = reflectiveInstance(1);
    EXPECT_EQ(text(tala::internal::callMember(instance, Identifier("$greet"), {String("you")})), "'hello you'");
    EXPECT_EQ(expectedErrorText(tala::internal::callMember(instance, kPlain, {})), "None method 'plain' in: Reflective of rank 1.");
}

TEST(InterfaceCalls, WithMembersFirstTheClassMethodComesBeforeTheClassAnswer) {
    static const Class_Generic cls = kept(
        ClassBuilder("MembersFirstReflective")
            .flags(tala::class_flags::MembersFirst)
            .method(kPlain, [](const Any&, std::int64_t step) { return Integer(step + 1); }, {"step"})
            .method(
                Any::$__method__,
                [](const Any&, const String&) -> tala::Union<I_Invokable_Generic, None> {
                    return tala::native_function([](const Any&, const Any&) { return String("answered"); }, "any",
                                                 {"step"}, String(), false);
                },
                {"name"})
            .build());
    const Any instance = tala::make_instance(cls);
    EXPECT_EQ(tala::internal::callMember(instance, kPlain, {Integer(4)}).rawInteger(), 5);
    EXPECT_EQ(text(tala::internal::callMember(instance, Identifier("$other"), {Integer(4)})), "'answered'");
}

// ---- Several threads --------------------------------------------------------------------------

TEST(MemberThreads, FourThreadsReadPropertiesAndCallMethodsOfOneObject) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 100'000;
    const Any shared = point(classes().derived, 3, 4);
    std::atomic<int> ready{0};
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            ready.fetch_add(1);
            while (ready.load() < kThreads) std::this_thread::yield();
            int mistakes = 0;
            for (int i = 0; i < kRounds; ++i) {
                switch ((i + t) % 4) {
                    case 0: {
                        auto sum = tala::property_of(shared, kSum);
                        if (!sum.is<Property>() || sum.as<Property>().get(shared).rawInteger() != 7) ++mistakes;
                        break;
                    }
                    case 1: {
                        auto scaled = tala::method_of(shared, kScaled);
                        if (!scaled.is<I_Invokable_Generic>() ||
                            scaled.as<I_Invokable_Generic>()(shared, Integer(i)).rawInteger() != 3 * std::int64_t(i)) {
                            ++mistakes;
                        }
                        break;
                    }
                    case 2: {
                        auto kind = tala::property_of(shared, "kind");
                        if (!kind.is<Property>()) {
                            ++mistakes;
                            break;
                        }
                        const Any value = kind.as<Property>().get(shared);
                        if (!String::matches(value) || !(String(tala::internal::unchecked, value) == "derived")) ++mistakes;
                        break;
                    }
                    default: {
                        const Any bound = shared.boundMethod(kScaled);
                        if (!I_Invokable_Generic::matches(bound) ||
                            I_Invokable_Generic(tala::internal::unchecked, bound)(Integer(2)).rawInteger() != 6) {
                            ++mistakes;
                        }
                        if (shared.fieldValue(kY).rawInteger() != 4) ++mistakes;
                        break;
                    }
                }
            }
            wrong.fetch_add(mistakes);
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_EQ(shared.cell()->refCount(), 1u);
}

TEST(MemberThreads, ReadersKeepFindingMembersWhileAnotherThreadAddsSome) {
    constexpr int kReaders = 3;
    constexpr int kAdditions = 200;
    const Class_Generic cls = kept(ClassBuilder("Growing")
                                       .field(kX)
                                       .method(Identifier("$stable"), [](const Any& self) { return self.fieldValue(kX); })
                                       .build());
    const Class_Generic child = kept(ClassBuilder("GrowingChild").parent(cls).build());
    Any shared = tala::make_instance(child);
    shared.setFieldValue(kX, Integer(11));
    std::atomic<bool> done{false};
    std::atomic<int> wrong{0};
    std::vector<std::thread> readers;
    for (int r = 0; r < kReaders; ++r) {
        readers.emplace_back([&] {
            int mistakes = 0;
            while (!done.load()) {
                auto stable = tala::method_of(shared, Identifier("$stable"));
                if (!stable.is<I_Invokable_Generic>() || stable.as<I_Invokable_Generic>()(shared).rawInteger() != 11) {
                    ++mistakes;
                }
            }
            wrong.fetch_add(mistakes);
        });
    }
    auto* cell = const_cast<tala::internal::ClassCell*>(cls.cell());
    for (int i = 0; i < kAdditions; ++i) {
        const Identifier name = Identifier::intern("added" + std::to_string(i));
        cell->addMethod(name, tala::native_function([i](const Any&) { return std::int64_t(i); }, String(name.text()), {},
                                                    String(), false));
    }
    done.store(true);
    for (auto& reader : readers) reader.join();
    EXPECT_EQ(wrong.load(), 0);
    for (int i = 0; i < kAdditions; i += 37) {
        auto added = tala::method_of(shared, "added" + std::to_string(i));
        ASSERT_TRUE(added.is<I_Invokable_Generic>());
        EXPECT_EQ(added.as<I_Invokable_Generic>()(shared).rawInteger(), i);
    }
}

// ---- Native readers --------------------------------------------------------------------------

const Identifier kCells{"$cells"};

// Instances keep a map of named values in the field $cells; `__property__` answers each as a
// value property, `keys` and `get` read the map. The native readers answer the same and count
// their calls. Each test builds its own class, since some change the class they use.
std::atomic<int> g_propertyReads{0};
std::atomic<int> g_entryReads{0};

std::optional<Any> readCell(const Any& self, Identifier name) {
    ++g_propertyReads;
    auto cells = tala::HashMap_Generic::cast(self.fieldValue(kCells));
    if (!cells) return std::nullopt;
    if (auto found = cells->get(String(name.text()))) return *found;
    return std::nullopt;
}

bool readEntries(const Any& self, tala::internal::ClassCell::MapEntryVisit visit, void* context) {
    ++g_entryReads;
    auto cells = tala::HashMap_Generic::cast(self.fieldValue(kCells));
    if (!cells) return false;
    for (const auto& entry : *cells) {
        if (!visit(context, entry.key, entry.value)) break;
    }
    return true;
}

Class_Generic cellsClass(const char* name) {
    return kept(ClassBuilder(name)
                    .field(kCells)
                    .method(Any::$__property__,
                            [](const Any& self, const String& name) -> tala::Union<Property, None> {
                                auto cells = tala::HashMap_Generic::cast(self.fieldValue(kCells));
                                if (!cells) return None();
                                if (auto found = cells->get(name)) return Property::value(Identifier::intern(name.view()), *found);
                                return None();
                            },
                            {"name"})
                    .method(Any::$keys,
                            [](const Any& self) {
                                tala::List<String> keys;
                                if (auto cells = tala::HashMap_Generic::cast(self.fieldValue(kCells))) {
                                    for (const auto& entry : *cells) keys.append(String(tala::internal::unchecked, entry.key));
                                }
                                return keys;
                            })
                    .method(Any::$get,
                            [](const Any& self, const Any& key) -> Any {
                                if (auto cells = tala::HashMap_Generic::cast(self.fieldValue(kCells))) {
                                    if (auto found = cells->get(key)) return *found;
                                }
                                return tala::Error(String("No such key."));
                            },
                            {"key"})
                    .propertyValueReader(readCell)
                    .mapEntriesReader(readEntries)
                    .build());
}

Any cellsInstance(const Class_Generic& cls) {
    Any instance = tala::make_instance(cls);
    instance.setFieldValue(kCells, tala::HashMap<String, Any>{{String("price"), Integer(12)}, {String("qty"), Integer(3)}});
    return instance;
}

// The entries read natively, as "key=value" in order; "none" when the map is to be read by calls.
std::string nativeEntries(const Any& map) {
    std::string out;
    const bool read = tala::read_map_entries(map, [&out](const Any& key, const Any& value) {
        out += text(key) + "=" + text(value) + " ";
        return true;
    });
    return read ? out : "none";
}

TEST(NativeReaders, PropertyValueReaderAnswersWhatThePropertyMethodAnswers) {
    const Any instance = cellsInstance(cellsClass("CellsRead"));
    const int before = g_propertyReads;
    EXPECT_EQ(text(property(tala::property_of(instance, Identifier("$price"))).get(instance)), "12");
    EXPECT_EQ(text(*tala::property_value_of(instance, Identifier("$price"))), "12");
    EXPECT_FALSE(tala::property_value_of(instance, Identifier("$weight")).has_value());
    EXPECT_EQ(g_propertyReads - before, 2);
}

TEST(NativeReaders, ReplacingThePropertyMethodRetiresTheReader) {
    const Class_Generic cls = cellsClass("CellsReplaced");
    const Any instance = cellsInstance(cls);
    EXPECT_EQ(text(*tala::property_value_of(instance, Identifier("$price"))), "12");
    const_cast<tala::internal::ClassCell*>(cls.cell())
        ->addMethod(Any::$__property__, tala::native_function(
                                            [](const Any&, const String& name) -> tala::Union<Property, None> {
                                                return Property::value(Identifier::intern(name.view()), Integer(99));
                                            },
                                            "__property__", {"name"}, String(), false));
    const int before = g_propertyReads;
    EXPECT_EQ(text(*tala::property_value_of(instance, Identifier("$price"))), "99");
    EXPECT_EQ(text(*tala::property_value_of(instance, Identifier("$weight"))), "99");
    EXPECT_EQ(g_propertyReads - before, 0);
}

TEST(NativeReaders, DerivedClassesAskThePropertyMethod) {
    const Class_Generic base = cellsClass("CellsBase");
    const Class_Generic derived = kept(ClassBuilder("CellsDerived").parent(base).build());
    const Any instance = cellsInstance(derived);
    const int before = g_propertyReads;
    EXPECT_EQ(text(*tala::property_value_of(instance, Identifier("$qty"))), "3");
    EXPECT_EQ(g_propertyReads - before, 0);
    EXPECT_EQ(nativeEntries(instance), "none");
}

TEST(NativeReaders, MapEntriesReaderGivesTheEntriesOfKeysAndGet) {
    const Any instance = cellsInstance(cellsClass("CellsEntries"));
    const int before = g_entryReads;
    EXPECT_EQ(nativeEntries(instance), "'price'=12 'qty'=3 ");
    EXPECT_EQ(g_entryReads - before, 1);
    EXPECT_EQ(text(tala::internal::callMember(instance, Any::$keys, {})), "['price', 'qty']");
    // A visit that answers false ends the reading.
    int visits = 0;
    EXPECT_TRUE(tala::read_map_entries(instance, [&visits](const Any&, const Any&) { return ++visits < 1; }));
    EXPECT_EQ(visits, 1);
}

TEST(NativeReaders, ReplacingGetOrAMethodOfTheObjectRetiresTheEntriesReader) {
    const Class_Generic cls = cellsClass("CellsEntriesReplaced");
    const Any inserted = cellsInstance(cls);
    EXPECT_TRUE(tala::insert_method(inserted, Any::$keys, tala::native_function([](const Any&) { return tala::List<String>(); },
                                                                                "keys", {}, String(), false))
                    .isEmpty());
    EXPECT_EQ(nativeEntries(inserted), "none");
    const Any instance = cellsInstance(cls);
    EXPECT_EQ(nativeEntries(instance), "'price'=12 'qty'=3 ");
    const_cast<tala::internal::ClassCell*>(cls.cell())
        ->addMethod(Any::$get, tala::native_function([](const Any&, const Any&) { return Integer(0); }, "get", {"key"},
                                                     String(), false));
    EXPECT_EQ(nativeEntries(instance), "none");
}

TEST(NativeReaders, AClassWithoutThePropertyMethodHasNoReader) {
    const Class_Generic cls = kept(ClassBuilder("NoPropertyMethod").propertyValueReader(readCell).mapEntriesReader(readEntries).build());
    EXPECT_EQ(cls.cell()->propertyValueReader, nullptr);
    EXPECT_EQ(cls.cell()->mapEntriesReader, nullptr);
    const Any instance = tala::make_instance(cls);
    EXPECT_FALSE(tala::property_value_of(instance, Identifier("$price")).has_value());
}

// A read of a class's property in place gives what property_of and get give, and sees a property
// added to the object, or a class property replaced, after earlier reads.
TEST(NativeReaders, PropertyValueOfFollowsMembersThatChangeAfterReads) {
    const Identifier size{"$$size"};
    const Class_Generic cls = kept(ClassBuilder("SizedLater").property(size, [](const Any&) { return Integer(3); }).build());
    const Any first = tala::make_instance(cls);
    const Any second = tala::make_instance(cls);
    EXPECT_EQ(text(*tala::property_value_of(first, size)), "3");
    EXPECT_EQ(text(property(tala::property_of(first, size)).get(first)), "3");
    EXPECT_FALSE(tala::property_value_of(first, Identifier("$$weight")).has_value());
    EXPECT_TRUE(tala::insert_property_value(first, size, Integer(8)).isEmpty());
    EXPECT_EQ(text(*tala::property_value_of(first, size)), "8");
    EXPECT_EQ(text(*tala::property_value_of(second, size)), "3");
    const_cast<tala::internal::ClassCell*>(cls.cell())->addProperty(size, Property::value(size, Integer(5)));
    EXPECT_EQ(text(*tala::property_value_of(second, size)), "5");
    EXPECT_EQ(text(*tala::property_value_of(first, size)), "8");
    EXPECT_EQ(text(tala::property_value_of(Integer(1), Identifier("$$weight")).value_or(String("none"))), "'none'");
}

}  // namespace

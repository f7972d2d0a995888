// tests/tala/interfaces_test.cpp: the standard interfaces as abstract classes, the classes of the
// host's own values that implement them, and calling those values through interface views.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "model_test_support.hpp"
#include "tala/tala.hpp"

namespace {

using tala::Any;
using tala::Class_Generic;
using tala::Identifier;
using tala::Integer;
using tala::String;

using tala_test::expectedErrorText;
using tala_test::text;

// Every value the iterator of `iterable` gives, in order, as display texts; the end must be a
// StopIteration.
std::vector<std::string> iterated(const Any& iterable) {
    std::vector<std::string> out;
    const auto view = tala::I_Iterable_Generic::cast(iterable);
    EXPECT_TRUE(view.has_value());
    if (!view) return out;
    const Any iterator = view->iter();
    const auto next = tala::I_Iterator_Generic::cast(iterator);
    EXPECT_TRUE(next.has_value()) << text(iterator);
    if (!next) return out;
    for (int guard = 0; guard < 1000; ++guard) {
        const Any value = next->next();
        if (tala::StopIteration::matches(value)) return out;
        EXPECT_FALSE(tala::is_error_result(value)) << text(value);
        if (tala::is_error_result(value)) return out;
        out.push_back(text(value));
    }
    ADD_FAILURE() << "the iteration did not end";
    return out;
}

bool derives(const Class_Generic& cls, const Class_Generic& ancestor) { return tala::is_ancestor(cls, ancestor); }

// ---- Which classes implement which interfaces -------------------------------------------------

TEST(InterfaceClasses, ListIsAMutableSequence) {
    const Class_Generic list = tala::List_Generic::getClass();
    EXPECT_EQ(list.qualname(), "List");
    EXPECT_TRUE(derives(list, tala::I_MutableSequence_Generic::getClass()));
    EXPECT_TRUE(derives(list, tala::I_Sequence_Generic::getClass()));
    EXPECT_TRUE(derives(list, tala::I_Iterable_Generic::getClass()));
    EXPECT_FALSE(derives(list, tala::I_Map_Generic::getClass()));
    EXPECT_FALSE(derives(list, tala::I_Immutable::getClass()));
    EXPECT_TRUE(list.hasFlag(tala::class_flags::Sequence));
    EXPECT_FALSE(list.hasFlag(tala::class_flags::Abstract));
}

TEST(InterfaceClasses, HashMapIsAMutableMap) {
    const Class_Generic map = tala::HashMap_Generic::getClass();
    EXPECT_EQ(map.qualname(), "HashMap");
    EXPECT_TRUE(derives(map, tala::I_MutableMap_Generic::getClass()));
    EXPECT_TRUE(derives(map, tala::I_Map_Generic::getClass()));
    EXPECT_TRUE(derives(map, tala::I_Iterable_Generic::getClass()));
    EXPECT_FALSE(derives(map, tala::I_Sequence_Generic::getClass()));
    EXPECT_TRUE(map.hasFlag(tala::class_flags::Mapping));
}

TEST(InterfaceClasses, SetIsAMutableSet) {
    const Class_Generic set = tala::Set_Generic::getClass();
    EXPECT_EQ(set.qualname(), "Set");
    EXPECT_TRUE(derives(set, tala::I_MutableSet_Generic::getClass()));
    EXPECT_TRUE(derives(set, tala::I_Set_Generic::getClass()));
    EXPECT_TRUE(derives(set, tala::I_Iterable_Generic::getClass()));
    EXPECT_FALSE(derives(set, tala::I_Sequence_Generic::getClass()));
    EXPECT_TRUE(set.hasFlag(tala::class_flags::SetLike));
}

TEST(InterfaceClasses, TupleIsAnImmutableTupleSequence) {
    const Class_Generic tuple = tala::Tuple::getClass();
    EXPECT_TRUE(tuple == tala::Tuple_Generic::getClass());
    EXPECT_EQ(tuple.qualname(), "Tuple");
    EXPECT_TRUE(derives(tuple, tala::I_Tuple_Generic::getClass()));
    EXPECT_TRUE(derives(tuple, tala::I_Sequence_Generic::getClass()));
    EXPECT_TRUE(derives(tuple, tala::I_Iterable_Generic::getClass()));
    EXPECT_TRUE(derives(tuple, tala::I_Immutable::getClass()));
    EXPECT_FALSE(derives(tuple, tala::I_MutableSequence_Generic::getClass()));
    EXPECT_TRUE(tuple.hasFlag(tala::class_flags::Sequence));
}

TEST(InterfaceClasses, StringIsImmutableAndConvertible) {
    const Class_Generic string = String::getClass();
    EXPECT_TRUE(derives(string, tala::I_Immutable::getClass()));
    EXPECT_TRUE(derives(string, tala::I_Convertible::getClass()));
    EXPECT_FALSE(derives(string, tala::I_MutableSequence_Generic::getClass()));
    EXPECT_TRUE(derives(Integer::getClass(), tala::I_Immutable::getClass()));
    EXPECT_TRUE(derives(Integer::getClass(), tala::I_Convertible::getClass()));
}

TEST(InterfaceClasses, InterfaceViewsMatchValuesOfImplementingClasses) {
    const tala::List<Any> list{Integer(1)};
    const tala::HashMap<Any, Any> map;
    const tala::Set<Any> set;
    const tala::Tuple tuple{Integer(1)};
    const String string("s");
    EXPECT_TRUE(tala::I_MutableSequence_Generic::matches(list));
    EXPECT_TRUE(tala::I_Sequence_Generic::matches(list));
    EXPECT_TRUE(tala::I_Iterable_Generic::matches(list));
    EXPECT_FALSE(tala::I_Map_Generic::matches(list));
    EXPECT_TRUE(tala::I_MutableMap_Generic::matches(map));
    EXPECT_TRUE(tala::I_Map_Generic::matches(map));
    EXPECT_FALSE(tala::I_Sequence_Generic::matches(map));
    EXPECT_TRUE(tala::I_MutableSet_Generic::matches(set));
    EXPECT_TRUE(tala::I_Set_Generic::matches(set));
    EXPECT_TRUE(tala::I_Tuple_Generic::matches(tuple));
    EXPECT_TRUE(tala::Tuple_Generic::matches(tuple));
    EXPECT_TRUE(tala::I_Immutable::matches(tuple));
    EXPECT_FALSE(tala::I_MutableSequence_Generic::matches(tuple));
    EXPECT_TRUE(tala::I_Immutable::matches(string));
    EXPECT_TRUE(tala::I_Convertible::matches(string));
    EXPECT_TRUE(tala::I_Convertible::matches(Integer(1)));
    EXPECT_FALSE(tala::I_Iterable_Generic::matches(Integer(1)));
    EXPECT_FALSE(tala::I_Sequence_Generic::cast(map).has_value());
    EXPECT_TRUE(tala::I_Invokable_Generic::matches(tala::native_function([] { return 1.0; })));
    EXPECT_TRUE(tala::I_Invokable_Generic::matches(tala::List_Generic::getClass()));
}

TEST(InterfaceClasses, InterfacesInheritFromTheirBaseInterfaces) {
    EXPECT_TRUE(derives(tala::I_MutableSequence_Generic::getClass(), tala::I_Sequence_Generic::getClass()));
    EXPECT_TRUE(derives(tala::I_Sequence_Generic::getClass(), tala::I_Iterable_Generic::getClass()));
    EXPECT_TRUE(derives(tala::I_MutableMap_Generic::getClass(), tala::I_Map_Generic::getClass()));
    EXPECT_TRUE(derives(tala::I_Map_Generic::getClass(), tala::I_Iterable_Generic::getClass()));
    EXPECT_TRUE(derives(tala::I_MutableSet_Generic::getClass(), tala::I_Set_Generic::getClass()));
    EXPECT_TRUE(derives(tala::I_Tuple_Generic::getClass(), tala::I_Sequence_Generic::getClass()));
    EXPECT_TRUE(derives(tala::iteratorClass(), tala::I_Iterator_Generic::getClass()));
    EXPECT_TRUE(derives(tala::iteratorClass(), tala::I_RuntimeOnly::getClass()));
}

TEST(InterfaceClasses, InterfaceClassesAreAbstract) {
    const std::vector<Class_Generic> interfaces{
        tala::I_Iterable_Generic::getClass(),   tala::I_Iterator_Generic::getClass(),
        tala::I_Sequence_Generic::getClass(),   tala::I_MutableSequence_Generic::getClass(),
        tala::I_Map_Generic::getClass(),        tala::I_MutableMap_Generic::getClass(),
        tala::I_Set_Generic::getClass(),        tala::I_MutableSet_Generic::getClass(),
        tala::I_Tuple_Generic::getClass(),      tala::I_Immutable::getClass(),
        tala::I_Convertible::getClass(),        tala::I_Invokable_Generic::getClass(),
        tala::I_HasName::getClass(),            tala::I_HasDoc::getClass(),
        tala::I_HasCode::getClass(),            tala::I_RuntimeOnly::getClass(),
        tala::I_Language::getClass(),
    };
    for (const Class_Generic& cls : interfaces) {
        SCOPED_TRACE(cls.qualname().toStdString());
        EXPECT_TRUE(cls.hasFlag(tala::class_flags::Abstract));
        EXPECT_EQ(expectedErrorText(cls.instantiate({})),
                  "Unable to create an instance of the abstract class: " + cls.qualname().toStdString() + ".");
    }
    EXPECT_EQ(tala::I_Sequence_Generic::getClass().qualname(), "I_Sequence");
    EXPECT_EQ(tala::I_MutableMap_Generic::getClass().qualname(), "I_MutableMap");
    EXPECT_TRUE(tala::I_Sequence_Generic::getClass().hasFlag(tala::class_flags::Generic));
    EXPECT_TRUE(tala::I_Invokable_Generic::getClass().hasFlag(tala::class_flags::Invokable));
}

TEST(InterfaceClasses, InterfaceMembersAreAbstractAndAnswerErrors) {
    const Class_Generic sequence = tala::I_Sequence_Generic::getClass();
    const Any* at = sequence.cell()->findAbstractMethod(Any::$at);
    ASSERT_NE(at, nullptr);
    const tala::I_Invokable_Generic atMethod(tala::internal::unchecked, *at);
    EXPECT_EQ(atMethod.signature().toString(0x11), "(index: Integer) -> Any");
    EXPECT_EQ(expectedErrorText(atMethod(Any(), Integer(0))), "The abstract method I_Sequence.at was called.");
    const Any* length = sequence.cell()->findAbstractProperty(Any::$$length);
    ASSERT_NE(length, nullptr);
    EXPECT_EQ(expectedErrorText(tala::Property(tala::internal::unchecked, *length).get(Any())),
              "The abstract property I_Sequence.length was read.");
    // Derived interfaces list the inherited abstract members too.
    const Class_Generic mutableSequence = tala::I_MutableSequence_Generic::getClass();
    EXPECT_NE(mutableSequence.cell()->findAbstractMethod(Any::$at), nullptr);
    EXPECT_NE(mutableSequence.cell()->findAbstractMethod(Any::$append), nullptr);
    EXPECT_NE(mutableSequence.cell()->findAbstractMethod(Any::$iter), nullptr);
}

TEST(InterfaceClasses, ImplementingClassesImplementEveryAbstractMethod) {
    for (const Class_Generic& cls : {tala::List_Generic::getClass(), tala::HashMap_Generic::getClass(),
                                     tala::Set_Generic::getClass(), tala::Tuple::getClass(), String::getClass()}) {
        SCOPED_TRACE(cls.qualname().toStdString());
        for (const auto& [name, member] : tala::definedAbstractMethods(cls)) {
            EXPECT_TRUE(cls.cell()->findMethod(Identifier::intern(name.view())) != nullptr) << name.toStdString();
        }
        for (const auto& [name, member] : tala::definedAbstractProperties(cls)) {
            EXPECT_TRUE(cls.cell()->findProperty(Identifier::intern(name.view())) != nullptr) << name.toStdString();
        }
    }
}

// ---- Calling through the views ----------------------------------------------------------------

TEST(InterfaceViews, SequenceViewReadsLengthAndElements) {
    const tala::List<Any> list{Integer(10), String("b"), Integer(30)};
    const auto sequence = tala::I_Sequence_Generic::cast(list);
    ASSERT_TRUE(sequence.has_value());
    EXPECT_EQ(sequence->length().rawInteger(), 3);
    EXPECT_EQ(sequence->at(0).rawInteger(), 10);
    EXPECT_EQ(text(sequence->at(1)), "'b'");
    EXPECT_EQ(sequence->at(-1).rawInteger(), 30);
    EXPECT_EQ(expectedErrorText(sequence->at(3)), "Index out of range: 3, size: 3.");

    const tala::Tuple tuple{Integer(1), Integer(2)};
    const auto tupleView = tala::I_Sequence_Generic::cast(tuple);
    ASSERT_TRUE(tupleView.has_value());
    EXPECT_EQ(tupleView->length().rawInteger(), 2);
    EXPECT_EQ(tupleView->at(1).rawInteger(), 2);
    EXPECT_EQ(expectedErrorText(tupleView->at(-3)), "Index out of range: -3, size: 2.");
    const auto asTuple = tala::I_Tuple_Generic::cast(tuple);
    ASSERT_TRUE(asTuple.has_value());
    EXPECT_EQ(asTuple->length().rawInteger(), 2);
    EXPECT_EQ(asTuple->at(0).rawInteger(), 1);
}

TEST(InterfaceViews, MutableSequenceViewChangesTheList) {
    const tala::List<Any> list{Integer(1), Integer(2), Integer(3), Integer(4)};
    const auto sequence = tala::I_MutableSequence_Generic::cast(list);
    ASSERT_TRUE(sequence.has_value());
    EXPECT_TRUE(sequence->set(0, String("first")).isEmpty());
    EXPECT_TRUE(sequence->append(Integer(5)).isEmpty());
    EXPECT_EQ(text(list), "['first', 2, 3, 4, 5]");
    EXPECT_TRUE(sequence->removeAt(1).isEmpty());
    EXPECT_EQ(text(list), "['first', 3, 4, 5]");
    EXPECT_TRUE(sequence->removeAt(1, 2).isEmpty());
    EXPECT_EQ(text(list), "['first', 5]");
    EXPECT_EQ(expectedErrorText(sequence->set(7, Integer(0))), "Index out of range: 7, size: 2.");
    EXPECT_EQ(expectedErrorText(sequence->removeAt(-5)), "Index out of range: -5, size: 2.");
    EXPECT_EQ(text(list), "['first', 5]");
}

TEST(InterfaceViews, MapViewReadsEntries) {
    tala::HashMap<String, Integer> map;
    map.set(String("one"), Integer(1));
    map.set(String("two"), Integer(2));
    const auto view = tala::I_Map_Generic::cast(map);
    ASSERT_TRUE(view.has_value());
    EXPECT_EQ(view->get(String("two")).rawInteger(), 2);
    EXPECT_EQ(expectedErrorText(view->get(String("three"))), "Key not found: 'three'.");
    EXPECT_TRUE(view->contains(String("one")).rawBoolean());
    EXPECT_FALSE(view->contains(String("three")).rawBoolean());
    EXPECT_EQ(text(view->keys()), "['one', 'two']");
    EXPECT_EQ(text(view->values()), "[1, 2]");
    EXPECT_EQ(view->length().rawInteger(), 2);
}

TEST(InterfaceViews, MutableMapViewChangesTheMap) {
    const tala::HashMap<String, Integer> map;
    const auto view = tala::I_MutableMap_Generic::cast(map);
    ASSERT_TRUE(view.has_value());
    EXPECT_TRUE(view->set(String("a"), Integer(1)).isEmpty());
    EXPECT_TRUE(view->set(String("b"), Integer(2)).isEmpty());
    EXPECT_EQ(text(map), "{'a': 1, 'b': 2}");
    EXPECT_EQ(view->remove(String("a")).rawInteger(), 1);
    EXPECT_EQ(expectedErrorText(view->remove(String("a"))), "Key not found: 'a'.");
    EXPECT_TRUE(view->setChecked(String("c"), Integer(3)).isEmpty());
    EXPECT_EQ(expectedErrorText(view->setChecked(Integer(4), Integer(4))), "Key type mismatch: expected String, got 4.");
    EXPECT_EQ(expectedErrorText(view->setChecked(String("d"), String("x"))),
              "Value type mismatch: expected Integer, got 'x'.");
    EXPECT_EQ(text(map), "{'b': 2, 'c': 3}");
}

TEST(InterfaceViews, MutableSetViewInsertsAndRemoves) {
    const tala::Set<Any> set{Integer(1)};
    const auto view = tala::I_MutableSet_Generic::cast(set);
    ASSERT_TRUE(view.has_value());
    EXPECT_TRUE(view->insert(Integer(2)).rawBoolean());
    EXPECT_FALSE(view->insert(Integer(2)).rawBoolean());
    EXPECT_TRUE(view->remove(Integer(1)).rawBoolean());
    EXPECT_FALSE(view->remove(Integer(1)).rawBoolean());
    const auto readOnly = tala::I_Set_Generic::cast(set);
    ASSERT_TRUE(readOnly.has_value());
    EXPECT_TRUE(readOnly->contains(Integer(2)).rawBoolean());
    EXPECT_FALSE(readOnly->contains(Integer(1)).rawBoolean());
    EXPECT_EQ(readOnly->length().rawInteger(), 1);
}

TEST(InterfaceViews, IterationGivesEveryValueThenStopIteration) {
    EXPECT_EQ(iterated(tala::List<Any>{Integer(1), String("two"), Integer(3)}),
              (std::vector<std::string>{"1", "'two'", "3"}));
    EXPECT_EQ(iterated(tala::Tuple{Integer(4), Integer(5)}), (std::vector<std::string>{"4", "5"}));
    EXPECT_EQ(iterated(tala::Set<Any>{Integer(7), Integer(8)}), (std::vector<std::string>{"7", "8"}));
    tala::HashMap<String, Integer> map;
    map.set(String("k1"), Integer(1));
    map.set(String("k2"), Integer(2));
    EXPECT_EQ(iterated(map), (std::vector<std::string>{"'k1'", "'k2'"}));
    EXPECT_TRUE(iterated(tala::List<Any>()).empty());
}

TEST(InterfaceViews, IteratorKeepsAnsweringStopIterationAtTheEnd) {
    const tala::List<Any> list{Integer(1)};
    const Any iterator = tala::I_Iterable_Generic(tala::internal::unchecked, list).iter();
    const tala::I_Iterator_Generic next(tala::internal::unchecked, iterator);
    EXPECT_EQ(next.next().rawInteger(), 1);
    const Any end = next.next();
    EXPECT_TRUE(tala::StopIteration::matches(end));
    EXPECT_TRUE(tala::is_error_result(end));
    EXPECT_TRUE(tala::StopIteration::matches(next.next()));
    EXPECT_TRUE(tala::raw_class_of(iterator) == tala::iteratorClass());
}

TEST(InterfaceViews, ChangingASetDuringIterationEndsItWithAnError) {
    const tala::Set<Any> set{Integer(1), Integer(2)};
    const Any iterator = tala::I_Iterable_Generic(tala::internal::unchecked, set).iter();
    const tala::I_Iterator_Generic next(tala::internal::unchecked, iterator);
    EXPECT_EQ(next.next().rawInteger(), 1);
    set.insert(Integer(3));
    EXPECT_EQ(expectedErrorText(next.next()), "The container changed during the iteration.");
}

TEST(InterfaceViews, ConvertibleViewConvertsIntoOtherClasses) {
    const auto number = tala::I_Convertible::cast(Integer(42));
    ASSERT_TRUE(number.has_value());
    EXPECT_EQ(text(number->tryInto(String::getClass())), "'42'");
    EXPECT_TRUE(number->tryInto(tala::Boolean::getClass()).rawBoolean());
    EXPECT_EQ(number->tryInto(Integer::getClass()).rawInteger(), 42);

    const auto digits = tala::I_Convertible::cast(String("17"));
    ASSERT_TRUE(digits.has_value());
    EXPECT_EQ(digits->tryInto(Integer::getClass()).rawInteger(), 17);
    EXPECT_EQ(text(digits->tryInto(String::getClass())), "'17'");
    EXPECT_TRUE(digits->tryInto(tala::Boolean::getClass()).rawBoolean());
    EXPECT_FALSE(tala::I_Convertible(tala::internal::unchecked, String("")).tryInto(tala::Boolean::getClass()).rawBoolean());
    EXPECT_FALSE(tala::I_Convertible(tala::internal::unchecked, Integer(0)).tryInto(tala::Boolean::getClass()).rawBoolean());
    EXPECT_EQ(expectedErrorText(tala::I_Convertible(tala::internal::unchecked, String("x1")).tryInto(Integer::getClass())),
              "Unable to convert 'x1' into Integer.");
    EXPECT_EQ(expectedErrorText(number->tryInto(tala::List_Generic::getClass())), "Unable to convert 42 into List.");
    EXPECT_EQ(text(tala::I_Convertible(tala::internal::unchecked, tala::Float(2.5)).tryInto(Integer::getClass())), "2");
}

TEST(InterfaceViews, CallingAMissingMemberThroughAViewIsAnError) {
    // A view trusted onto a value that lacks the member reports the missing method.
    const tala::I_Sequence_Generic wrong(tala::internal::unchecked, Integer(5));
    EXPECT_EQ(expectedErrorText(wrong.at(0)), "None method 'at' in: 5.");
}

// ---- Predefined member names ------------------------------------------------------------------

TEST(PredefinedIdentifiers, LiteralsDropTheirDollarSigns) {
    EXPECT_EQ(Any::$__add__.text(), "__add__");
    EXPECT_EQ(Any::$__sub__.text(), "__sub__");
    EXPECT_EQ(Any::$__init__.text(), "__init__");
    EXPECT_EQ(Any::$__property__.text(), "__property__");
    EXPECT_EQ(Any::$at.text(), "at");
    EXPECT_EQ(Any::$tryInto.text(), "tryInto");
    EXPECT_EQ(Any::$$length.text(), "length");
    EXPECT_EQ(Any::$$name.text(), "name");
    EXPECT_TRUE(Any::$at == Identifier("$at"));
    EXPECT_TRUE(Any::$at == Identifier::intern("at"));
    EXPECT_TRUE(Any::$$length == Identifier("$$length"));
    EXPECT_TRUE(Any::$$length == Identifier::intern("length"));
    EXPECT_FALSE(Any::$__add__ == Any::$__iadd__);
}

TEST(PredefinedIdentifiers, NameTheMembersOfTheBuiltinClasses) {
    const Class_Generic list = tala::List_Generic::getClass();
    for (const Identifier& name : {Any::$at, Any::$set, Any::$append, Any::$appendAt, Any::$removeAt, Any::$removeOne,
                                   Any::$clear, Any::$extend, Any::$contains, Any::$indexOf, Any::$iter, Any::$__add__,
                                   Any::$__iadd__, Any::$__mul__}) {
        EXPECT_NE(list.cell()->findMethod(name), nullptr) << name.text();
    }
    EXPECT_NE(list.cell()->findProperty(Any::$$length), nullptr);
    const Class_Generic map = tala::HashMap_Generic::getClass();
    for (const Identifier& name : {Any::$get, Any::$set, Any::$setChecked, Any::$remove, Any::$contains, Any::$keys,
                                   Any::$values, Any::$clear, Any::$iter}) {
        EXPECT_NE(map.cell()->findMethod(name), nullptr) << name.text();
    }
    EXPECT_NE(map.cell()->findProperty(Any::$$keysType), nullptr);
    EXPECT_NE(map.cell()->findProperty(Any::$$valuesType), nullptr);
    EXPECT_NE(String::getClass().cell()->findMethod(Any::$__add__), nullptr);
    EXPECT_EQ(String::getClass().cell()->findMethod(Any::$__sub__), nullptr);
    EXPECT_NE(tala::iteratorClass().cell()->findMethod(Any::$next), nullptr);
    EXPECT_NE(Class_Generic::getClass().cell()->findProperty(Any::$$name), nullptr);
    EXPECT_NE(tala::Error::getClass().cell()->findMethod(Any::$__init__), nullptr);
}

TEST(PredefinedIdentifiers, OperatorMembersWorkThroughMethodOf) {
    const String hello("hello ");
    auto add = tala::method_of(hello, Any::$__add__);
    ASSERT_TRUE(add.is<tala::I_Invokable_Generic>());
    EXPECT_EQ(text(add.as<tala::I_Invokable_Generic>()(hello, String("world"))), "'hello world'");
    EXPECT_EQ(expectedErrorText(add.as<tala::I_Invokable_Generic>()(hello, Integer(1))), "Unable to add 1 to a string.");

    const tala::List<Any> list{Integer(1)};
    auto times = tala::method_of(list, Any::$__mul__);
    ASSERT_TRUE(times.is<tala::I_Invokable_Generic>());
    EXPECT_EQ(text(times.as<tala::I_Invokable_Generic>()(list, Integer(3))), "[1, 1, 1]");
    auto length = tala::property_of(list, Any::$$length);
    ASSERT_TRUE(length.is<tala::Property>());
    EXPECT_EQ(length.as<tala::Property>().get(list).rawInteger(), 1);
}

TEST(PredefinedIdentifiers, ClassesAndFunctionsHaveNamesAndDocs) {
    const auto named = tala::I_HasName::cast(tala::List_Generic::getClass());
    ASSERT_TRUE(named.has_value());
    EXPECT_EQ(text(named->name()), "'List'");
    const auto documented = tala::I_HasDoc::cast(tala::List_Generic::getClass());
    ASSERT_TRUE(documented.has_value());
    EXPECT_EQ(text(documented->doc()), "'A mutable sequence of values.'");
    const auto function = tala::native_function([] { return 1.0; }, "one", {}, "Answers one.");
    ASSERT_TRUE(tala::I_HasName::matches(function));
    EXPECT_EQ(text(tala::I_HasName(tala::internal::unchecked, function).name()), "'one'");
    EXPECT_EQ(text(tala::I_HasDoc(tala::internal::unchecked, function).doc()), "'Answers one.'");
}

}  // namespace

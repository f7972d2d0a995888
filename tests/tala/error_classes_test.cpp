// tests/tala/error_classes_test.cpp: the object model's own error classes, the errors its calls,
// member look-ups and containers answer with them, and type names for messages.
#include <gtest/gtest.h>

#include <string>

#include "tala/tala.hpp"

namespace {

using tala::Any;
using tala::Class_Generic;
using tala::Integer;
using tala::String;

TEST(ErrorClasses, AreErrorClassesDeclaredInModuleTala) {
    const tala::Module module = tala::tala_module();
    for (const Class_Generic& cls : {tala::MissingMemberError::getClass(), tala::ReadOnlyError::getClass(),
                                     tala::ArgumentError::getClass(), tala::OutOfRangeError::getClass()}) {
        SCOPED_TRACE(cls.name().toStdString());
        EXPECT_TRUE(cls.derivesFrom(tala::Error::getClass()));
        EXPECT_EQ(cls.qualname().toStdString(), "tala." + cls.name().toStdString());
        EXPECT_TRUE(module.classes().get(cls.name()).has_value());
    }
}

TEST(ErrorClasses, AnErrorOfAClassMatchesItAndItsParents) {
    const tala::ArgumentError error(String("bad"));
    EXPECT_TRUE(tala::ArgumentError::matches(error));
    EXPECT_TRUE(tala::Error::matches(error));
    EXPECT_FALSE(tala::OutOfRangeError::matches(error));
    EXPECT_FALSE(tala::ArgumentError::matches(tala::Error(String("plain"))));
    EXPECT_EQ(error.message(), "bad");
    EXPECT_EQ(error.errorClass(), tala::ArgumentError::getClass());
    // The host makes one through the class as it makes any error.
    const Any made = tala::ArgumentError::getClass().instantiate(std::vector<Any>{String("made")});
    ASSERT_TRUE(tala::ArgumentError::matches(made));
    EXPECT_EQ(tala::Error(tala::internal::unchecked, made).message(), "made");
}

TEST(ErrorClasses, MissingMembersPositionsAndReadOnlyPropertiesAnswerThem) {
    const tala::List<Integer> list{1, 2};
    EXPECT_TRUE(tala::MissingMemberError::matches(list.fieldValue(tala::Identifier("$nothing"))));
    EXPECT_TRUE(tala::MissingMemberError::matches(list.boundMethod(tala::Identifier("$nothing"))));
    EXPECT_TRUE(tala::OutOfRangeError::matches(list.at(5)));
    const tala::Property property(tala::Identifier("$$fixed"), tala::constant_function(Integer(1)));
    EXPECT_TRUE(tala::ReadOnlyError::matches(property.set(list, Integer(2))));
}

TEST(ErrorClasses, ArgumentErrorsNameTheFunctionAndCountWithoutTheReceiver) {
    const auto method = tala::native_function([](const Any&, std::int64_t, const std::optional<String>&) { return true; },
                                              String("pick"), {"count", "label"}, String(), false);
    const Any receiver = tala::List<Integer>{};
    auto message = [](const Any& result) { return tala::Error(tala::internal::unchecked, result).message().toStdString(); };
    EXPECT_EQ(message(method(receiver)), "pick() missing 1 required argument: 'count'");
    EXPECT_EQ(message(method.invokeWith(std::span<const Any>())), "pick() missing 2 required arguments: 'self' and 'count'");
    EXPECT_EQ(message(method(receiver, Integer(1), String("a"), Integer(3))), "pick() takes from 1 to 2 arguments but 3 were given");
    EXPECT_EQ(message(method(receiver, String("one"))), "pick() argument 'count' must be Integer, not String");
    EXPECT_TRUE(tala::ArgumentError::matches(method(receiver)));
    const auto three = tala::native_function([](std::int64_t, std::int64_t, std::int64_t) { return 0; }, String("three"),
                                             {"a", "b", "c"});
    EXPECT_EQ(message(three()), "three() missing 3 required arguments: 'a', 'b', and 'c'");
    EXPECT_EQ(message(three(Integer(1), Integer(2), Integer(3), Integer(4))), "three() takes 3 arguments but 4 were given");
}

TEST(TypeNames, AreClassNamesUnlessTheClassAnswersOne) {
    EXPECT_EQ(tala::type_name_of(Integer(1)), "Integer");
    EXPECT_EQ(tala::type_name_of(tala::List<Integer>{}), "List");
    const Class_Generic foreign = tala::ClassBuilder("ForeignProxy")
                                      .method(tala::Any::$__typeName__, [](const Any&) { return String("UUID"); })
                                      .build();
    static auto* kept = new std::vector<Class_Generic>{foreign};
    (void)kept;
    EXPECT_EQ(tala::type_name_of(tala::make_instance(foreign)), "UUID");
}

TEST(ClassSignatures, AConstructorSaysWhatItTakes) {
    const Class_Generic cls =
        tala::ClassBuilder("Opened")
            .constructor([](std::span<const Any> arguments) -> Any { return arguments.empty() ? Any() : arguments[0]; },
                         tala::Signature({tala::Parameter{String("path"), String::getType()}}, tala::Type::any()))
            .build();
    static auto* kept = new std::vector<Class_Generic>{cls};
    (void)kept;
    EXPECT_EQ(tala::I_Invokable_Generic(tala::internal::unchecked, cls).signature().toString(), "(path: String) -> Opened");
}

TEST(ListSlices, TakeTheElementsAtTheirPositionsWithTheElementType) {
    const tala::List<Integer> list{1, 2, 3, 4, 5};
    const tala::List_Generic reversed = list.slice(4, -1, 5);
    EXPECT_EQ(tala::display(reversed), "[5, 4, 3, 2, 1]");
    EXPECT_EQ(reversed.elementType(), list.elementType());
    EXPECT_EQ(tala::display(list.slice(1, 2, 2)), "[2, 4]");
    EXPECT_EQ(tala::display(list.slice(0, 1, 0)), "[]");
    const tala::List_Generic copied = list.copy();
    copied.append(Integer(6));
    EXPECT_EQ(list.size(), 5u);
    EXPECT_EQ(copied.size(), 6u);
}

}  // namespace

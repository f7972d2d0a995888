// tests/tala/invokable_test.cpp: native functions, binding, classes as invokables, types and lazy values.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "model_test_support.hpp"
#include "tala/tala.hpp"

namespace {

using tala::Any;
using tala::Error;
using tala::HashMap;
using tala::I_Invokable_Generic;
using tala::Integer;
using tala::List;
using tala::Signature;
using tala::String;
using tala::Type;

// A map of argument names to values, as a language bridge passes keyword arguments.
HashMap<String, Any> named(std::initializer_list<std::pair<const char*, Any>> entries) {
    HashMap<String, Any> map;
    for (const auto& [name, value] : entries) map.set(String(name), value);
    return map;
}

// The message of an Error result, or a note saying the result was no error.
using tala_test::errorText;

std::int64_t integerOf(const Any& result) {
    EXPECT_EQ(result.kind(), tala::Kind::Integer) << tala::display(result).toStdString();
    return result.kind() == tala::Kind::Integer ? result.rawInteger() : 0;
}

I_Invokable_Generic makeAdd() {
    return tala::native_function([](std::int64_t a, std::int64_t b) { return a + b; }, "add", {"a", "b"},
                                 "Adds two integers.");
}

// ---- Signatures read from C++ types ---------------------------------------------------------------

TEST(NativeFunction, SignatureUsesTheGivenParameterNamesAndCppTypes) {
    const I_Invokable_Generic add = makeAdd();
    EXPECT_EQ(add.signature().toString(Signature::WithNames | Signature::WithResult).toStdString(),
              "(a: Integer, b: Integer) -> Integer");
    EXPECT_EQ(add.signature().toString(0x11).toStdString(), "(a: Integer, b: Integer) -> Integer");
    EXPECT_EQ(add.signature().toString(0).toStdString(), "(Integer, Integer)");
    EXPECT_EQ(add.signature().toString(Signature::WithNames).toStdString(), "(a: Integer, b: Integer)");
    EXPECT_EQ(add.name().toStdString(), "add");
    EXPECT_EQ(add.doc().toStdString(), "Adds two integers.");
    EXPECT_EQ(add.functionKind(), tala::FunctionKind::Native);
    EXPECT_TRUE(add.isIndependent());
}

TEST(NativeFunction, UnnamedParametersAreCalledArgN) {
    const auto fn = tala::native_function([](const String&, double, bool) { return true; });
    EXPECT_EQ(fn.signature().toString().toStdString(), "(arg0: String, arg1: Float, arg2: Boolean) -> Boolean");
    const auto partly = tala::native_function([](std::int64_t, std::int64_t, std::int64_t) {}, "f", {"first"});
    EXPECT_EQ(partly.signature().toString().toStdString(), "(first: Integer, arg1: Integer, arg2: Integer) -> None");
}

TEST(NativeFunction, MethodSignatureLeavesOutTheReceiver) {
    const auto method = tala::native_function([](const Any&, std::int64_t factor) { return factor; }, "scale",
                                              {"factor"}, String(), false);
    EXPECT_FALSE(method.isIndependent());
    EXPECT_EQ(method.signature().toString().toStdString(), "(factor: Integer) -> Integer");
    EXPECT_EQ(method.signature().parameterCount(), 1u);
    EXPECT_EQ(method.parameterCount(), 2u);
}

TEST(NativeFunction, ResultTypeOfAFallibleUnionIsItsFirstAlternative) {
    using Fallible = tala::Union<Integer, tala::Lazy<Integer>, Error>;
    const auto fn = tala::native_function([](std::int64_t x) -> Fallible {
        if (x < 0) return Error(String("negative"));
        return Integer(x * 2);
    }, "double_it", {"x"});
    EXPECT_EQ(fn.resultType(), Integer::getType());
    EXPECT_FALSE(fn.resultType().isOptional());
    EXPECT_EQ(fn.signature().toString().toStdString(), "(x: Integer) -> Integer");
    EXPECT_EQ(integerOf(fn(Integer(21))), 42);
    EXPECT_EQ(errorText(fn(Integer(-1))), "negative");
}

TEST(NativeFunction, ResultTypeOfAUnionWithNoneIsOptional) {
    const auto fn = tala::native_function([](std::int64_t x) -> tala::Union<String, tala::None> {
        if (x == 0) return tala::None();
        return String("some");
    }, "maybe", {"x"});
    EXPECT_EQ(fn.resultType(), String::getType().asOptional());
    EXPECT_TRUE(fn.resultType().isOptional());
    EXPECT_EQ(fn.signature().toString().toStdString(), "(x: Integer) -> Optional<String>");
    EXPECT_TRUE(fn(Integer(0)).isEmpty());
    EXPECT_EQ(tala::display(fn(Integer(1))).toStdString(), "'some'");
}

TEST(NativeFunction, ResultTypesOfPlainCppResults) {
    EXPECT_EQ(tala::native_function([] {}).resultType(), tala::None::getType());
    EXPECT_EQ(tala::native_function([] { return 1.5; }).resultType(), tala::Float::getType());
    EXPECT_EQ(tala::native_function([] { return false; }).resultType(), tala::Boolean::getType());
    EXPECT_EQ(tala::native_function([] { return String("x"); }).resultType(), String::getType());
    EXPECT_EQ(tala::native_function([] { return Any(); }).resultType(), Type::any());
    EXPECT_EQ(tala::native_function([] { return List<Integer>(); }).resultType(), List<Integer>::getType());
}

TEST(NativeFunction, CallableReturningAConstReferenceIsAccepted) {
    static const String kGreeting("hello");
    const auto fn = tala::native_function([]() -> const String& { return kGreeting; }, "greeting");
    EXPECT_EQ(fn.resultType(), String::getType());
    EXPECT_EQ(tala::display(fn()).toStdString(), "'hello'");
}

TEST(NativeFunction, PlainFunctionPointerIsAccepted) {
    const auto fn = tala::native_function(+[](std::int64_t x) { return x + 1; }, "increment", {"x"});
    EXPECT_EQ(fn.signature().toString().toStdString(), "(x: Integer) -> Integer");
    EXPECT_EQ(integerOf(fn(Integer(41))), 42);
}

// ---- Invocation by position ---------------------------------------------------------------------

TEST(NativeFunction, InvokeWithListSpanAndInitializerList) {
    const I_Invokable_Generic add = makeAdd();
    const List<Any> arguments{Integer(2), Integer(3)};
    EXPECT_EQ(integerOf(add.invokeWith(arguments)), 5);
    const std::vector<Any> vector{Integer(4), Integer(5)};
    EXPECT_EQ(integerOf(add.invokeWith(std::span<const Any>(vector))), 9);
    EXPECT_EQ(integerOf(add.invokeWith({Integer(6), Integer(7)})), 13);
    EXPECT_EQ(integerOf(add(Integer(1), Integer(1))), 2);
}

TEST(NativeFunction, WrongArgumentCountIsAnError) {
    const I_Invokable_Generic add = makeAdd();
    EXPECT_EQ(errorText(add(Integer(1))), "add() missing 1 required argument: 'b'");
    EXPECT_EQ(errorText(add(Integer(1), Integer(2), Integer(3))), "add() takes 2 arguments but 3 were given");
    EXPECT_EQ(errorText(add.invokeWith(std::span<const Any>())), "add() missing 2 required arguments: 'a' and 'b'");
}

TEST(NativeFunction, WrongArgumentTypeIsAnErrorNamingTheArgument) {
    const I_Invokable_Generic add = makeAdd();
    EXPECT_EQ(errorText(add(Integer(1), String("two"))),
              "add() argument 'b' must be Integer, not String");
    EXPECT_EQ(errorText(add(tala::Float(1.5), Integer(2))),
              "add() argument 'a' must be Integer, not Float");
    EXPECT_EQ(errorText(add(Any(), Integer(2))), "add() argument 'a' must be Integer, not None");
    const auto text = tala::native_function([](const String& s) { return s; }, "echo", {"s"});
    EXPECT_EQ(errorText(text(Integer(1))), "echo() argument 's' must be String, not Integer");
}

TEST(NativeFunction, FloatParameterAcceptsIntegers) {
    const auto half = tala::native_function([](double x) { return x / 2; }, "half", {"x"});
    const Any result = half(Integer(3));
    ASSERT_EQ(result.kind(), tala::Kind::Float);
    EXPECT_DOUBLE_EQ(result.rawFloat(), 1.5);
}

TEST(NativeFunction, IntegerOutOfRangeOfANarrowParameterIsRejected) {
    int calls = 0;
    const auto narrow = tala::native_function([&calls](int x) {
        ++calls;
        return x;
    }, "narrow", {"x"});
    EXPECT_EQ(narrow.signature().toString().toStdString(), "(x: Integer) -> Integer");
    EXPECT_EQ(integerOf(narrow(Integer(std::numeric_limits<int>::max()))), std::numeric_limits<int>::max());
    EXPECT_EQ(integerOf(narrow(Integer(std::numeric_limits<int>::min()))), std::numeric_limits<int>::min());
    EXPECT_EQ(calls, 2);
    EXPECT_EQ(errorText(narrow(Integer(std::int64_t{std::numeric_limits<int>::max()} + 1))), "narrow() argument 'x' is out of range for its type: 2147483648");
    EXPECT_EQ(errorText(narrow(Integer(std::int64_t{std::numeric_limits<int>::min()} - 1))), "narrow() argument 'x' is out of range for its type: -2147483649");
    EXPECT_EQ(errorText(narrow(Integer(std::numeric_limits<std::int64_t>::max()))), "narrow() argument 'x' is out of range for its type: 9223372036854775807");
    EXPECT_EQ(calls, 2);

    const auto unsignedByte = tala::native_function([](std::uint8_t x) { return x; }, "byte", {"x"});
    EXPECT_EQ(integerOf(unsignedByte(Integer(255))), 255);
    EXPECT_EQ(errorText(unsignedByte(Integer(256))), "byte() argument 'x' is out of range for its type: 256");
    EXPECT_EQ(errorText(unsignedByte(Integer(-1))), "byte() argument 'x' is out of range for its type: -1");
    // A value of another kind is still a wrong type, not an overflow.
    EXPECT_EQ(errorText(unsignedByte(String("1"))), "byte() argument 'x' must be Integer, not String");
}

// ---- Invocation by name -------------------------------------------------------------------------

TEST(NativeFunction, NamedArgumentsBindToParameters) {
    const auto subtract = tala::native_function([](std::int64_t a, std::int64_t b) { return a - b; }, "subtract",
                                                {"a", "b"});
    EXPECT_EQ(integerOf(subtract.invokeWith(named({{"a", Integer(10)}, {"b", Integer(3)}}))), 7);
    // Order of the names does not matter.
    EXPECT_EQ(integerOf(subtract.invokeWith(named({{"b", Integer(3)}, {"a", Integer(10)}}))), 7);
    const auto none = tala::native_function([] { return std::int64_t{1}; }, "one");
    EXPECT_EQ(integerOf(none.invokeWith(named({}))), 1);
}

TEST(NativeFunction, NamedArgumentsMissingOrSurplusAreErrors) {
    const I_Invokable_Generic add = makeAdd();
    EXPECT_EQ(errorText(add.invokeWith(named({{"a", Integer(1)}}))), "add() missing 1 required argument: 'b'");
    EXPECT_EQ(errorText(add.invokeWith(named({}))), "add() missing 2 required arguments: 'a' and 'b'");
    EXPECT_EQ(errorText(add.invokeWith(named({{"a", Integer(1)}, {"b", Integer(2)}, {"c", Integer(3)}}))),
              "add() got an unexpected keyword argument 'c'");
    EXPECT_EQ(errorText(add.invokeWith(named({{"a", Integer(1)}, {"self", Integer(2)}}))), "add() missing 1 required argument: 'b'");
    EXPECT_EQ(errorText(add.invokeWith(named({{"a", Integer(1)}, {"b", Integer(2)}, {"self", Integer(3)}}))),
              "add() got an unexpected keyword argument 'self'");
    // Keys that are not text are unknown names too.
    HashMap<Any, Any> odd;
    odd.set(String("a"), Integer(1));
    odd.set(String("b"), Integer(2));
    odd.set(Integer(7), Integer(3));
    EXPECT_EQ(errorText(add.invokeWith(static_cast<const tala::HashMap_Generic&>(odd))), "add() got an unexpected keyword argument 7");
    // Named values of the wrong type are checked as positional ones.
    EXPECT_EQ(errorText(add.invokeWith(named({{"a", Integer(1)}, {"b", String("x")}}))),
              "add() argument 'b' must be Integer, not String");
}

TEST(NativeFunction, NamedArgumentsOfAMethodTakeTheReceiverAsSelf) {
    const auto scale = tala::native_function([](std::int64_t self, std::int64_t factor) { return self * factor; },
                                             "scale", {"factor"}, String(), false);
    EXPECT_EQ(integerOf(scale.invokeWith(named({{"self", Integer(6)}, {"factor", Integer(7)}}))), 42);
    EXPECT_EQ(errorText(scale.invokeWith(named({{"factor", Integer(7)}}))), "scale() missing 1 required argument: 'self'");
    EXPECT_EQ(errorText(scale.invokeWith(named({{"self", Integer(6)}}))), "scale() missing 1 required argument: 'factor'");
    EXPECT_EQ(errorText(scale.invokeWith(named({{"self", Integer(6)}, {"factor", Integer(7)}, {"extra", Integer(1)}}))),
              "scale() got an unexpected keyword argument 'extra'");
}

// ---- Binding ------------------------------------------------------------------------------------

TEST(NativeFunction, BindArgsFixesLeadingArguments) {
    const auto sum3 = tala::native_function([](std::int64_t a, std::int64_t b, std::int64_t c) { return a * 100 + b * 10 + c; },
                                            "sum3", {"a", "b", "c"});
    const I_Invokable_Generic bound = sum3.bindArgs(Integer(1));
    EXPECT_EQ(bound.functionKind(), tala::FunctionKind::Bound);
    EXPECT_EQ(bound.parameterCount(), 2u);
    EXPECT_EQ(bound.signature().toString().toStdString(), "(b: Integer, c: Integer) -> Integer");
    EXPECT_EQ(bound.name().toStdString(), "sum3");
    EXPECT_TRUE(bound.isIndependent());
    EXPECT_EQ(integerOf(bound(Integer(2), Integer(3))), 123);
    EXPECT_EQ(integerOf(bound.invokeWith(named({{"c", Integer(3)}, {"b", Integer(2)}}))), 123);
    EXPECT_EQ(errorText(bound.invokeWith(named({{"a", Integer(9)}, {"b", Integer(2)}, {"c", Integer(3)}}))),
              "sum3() got an unexpected keyword argument 'a'");
    EXPECT_EQ(errorText(bound(Integer(2))), "sum3() missing 1 required argument: 'c'");

    const I_Invokable_Generic twice = sum3.bindArgs({Integer(4), Integer(5)});
    EXPECT_EQ(twice.parameterCount(), 1u);
    EXPECT_EQ(twice.signature().toString(0).toStdString(), "(Integer)");
    EXPECT_EQ(integerOf(twice(Integer(6))), 456);
    const I_Invokable_Generic again = bound.bindArgs(Integer(7));
    EXPECT_EQ(again.parameterCount(), 1u);
    EXPECT_EQ(integerOf(again(Integer(8))), 178);
    const I_Invokable_Generic all = sum3.bindArgs({Integer(1), Integer(2), Integer(3)});
    EXPECT_EQ(all.parameterCount(), 0u);
    EXPECT_EQ(all.signature().toString().toStdString(), "() -> Integer");
    EXPECT_EQ(integerOf(all()), 123);
}

TEST(NativeFunction, BindingTheReceiverMakesAMethodIndependent) {
    const auto scale = tala::native_function([](std::int64_t self, std::int64_t factor) { return self * factor; },
                                             "scale", {"factor"}, String(), false);
    EXPECT_EQ(scale.parameterCount(), 2u);
    const I_Invokable_Generic bound = scale.bindArgs(Integer(5));
    EXPECT_TRUE(bound.isIndependent());
    EXPECT_EQ(bound.parameterCount(), 1u);
    EXPECT_EQ(bound.signature().toString().toStdString(), "(factor: Integer) -> Integer");
    EXPECT_EQ(integerOf(bound(Integer(3))), 15);
    EXPECT_EQ(integerOf(bound.invokeWith(named({{"factor", Integer(4)}}))), 20);
    EXPECT_EQ(errorText(bound.invokeWith(named({{"self", Integer(1)}, {"factor", Integer(4)}}))),
              "scale() got an unexpected keyword argument 'self'");
}

// ---- Constant and span functions ----------------------------------------------------------------

TEST(ConstantFunction, AnswersItsValueWhateverItIsGiven) {
    const auto constant = tala::constant_function(String("fixed"), String::getType());
    EXPECT_EQ(constant.functionKind(), tala::FunctionKind::Constant);
    EXPECT_EQ(tala::display(constant.constantValue()).toStdString(), "'fixed'");
    EXPECT_EQ(constant.parameterCount(), 0u);
    EXPECT_TRUE(constant.isIndependent());
    EXPECT_EQ(constant.resultType(), String::getType());
    EXPECT_EQ(constant.signature().toString().toStdString(), "() -> String");
    EXPECT_EQ(tala::display(constant()).toStdString(), "'fixed'");
    EXPECT_EQ(tala::display(constant(Integer(1), Integer(2))).toStdString(), "'fixed'");
    EXPECT_EQ(tala::display(constant.invokeWith(named({{"x", Integer(1)}}))).toStdString(), "'fixed'");
    EXPECT_EQ(tala::constant_function(Integer(3)).resultType(), Type::any());
    // Other functions have no constant value.
    EXPECT_TRUE(makeAdd().constantValue().isEmpty());
}

TEST(MakeFunction, RunsTheBodyWithTheGivenSignature) {
    const Signature signature({tala::Parameter{String("items"), List<Any>::getType()}}, Integer::getType());
    const auto count = tala::make_function(String("count"), [](std::span<const Any> arguments) -> Any {
        return Integer(static_cast<std::int64_t>(arguments.size()));
    }, signature, true, String("Counts its arguments."));
    EXPECT_EQ(count.functionKind(), tala::FunctionKind::Native);
    EXPECT_EQ(count.name().toStdString(), "count");
    EXPECT_EQ(count.doc().toStdString(), "Counts its arguments.");
    EXPECT_EQ(count.signature().toString().toStdString(), "(items: List<Any>) -> Integer");
    EXPECT_EQ(count.parameterCount(), 1u);
    EXPECT_EQ(integerOf(count(Integer(1), Integer(2), Integer(3))), 3);
    EXPECT_EQ(integerOf(count.invokeWith(named({{"items", List<Any>()}}))), 1);
    EXPECT_EQ(errorText(count.invokeWith(named({}))), "count() missing 1 required argument: 'items'");

    const auto method = tala::make_function(String("m"), [](std::span<const Any> arguments) -> Any {
        return arguments.empty() ? Any() : arguments[0];
    }, Signature({}, Type::any()), false);
    EXPECT_FALSE(method.isIndependent());
    EXPECT_EQ(method.parameterCount(), 1u);
    EXPECT_EQ(integerOf(method.invokeWith(named({{"self", Integer(9)}}))), 9);
}

TEST(Invokable, MatchesFunctionsAndClassesOnly) {
    EXPECT_TRUE(I_Invokable_Generic::matches(makeAdd()));
    EXPECT_TRUE(I_Invokable_Generic::matches(String::getClass()));
    EXPECT_FALSE(I_Invokable_Generic::matches(Integer(1)));
    EXPECT_FALSE(I_Invokable_Generic::matches(String("f")));
    EXPECT_FALSE(I_Invokable_Generic::matches(Any()));
    EXPECT_EQ(makeAdd().kind(), tala::Kind::Function);
    EXPECT_EQ(tala::display(makeAdd()).toStdString(), "Function: 'add'.");
}

// ---- Classes are invokable ----------------------------------------------------------------------

const tala::Identifier kX("$x");
const tala::Identifier kY("$y");

std::vector<std::string>& pointEvents() {
    static std::vector<std::string> events;
    return events;
}

tala::Class_Generic pointClass() {
    static const tala::ClassRegistration registration("InvokablePoint", [] {
        return tala::ClassBuilder("InvokablePoint")
            .doc("A point made by invoking its class.")
            .field(kX, Integer::getType())
            .field(kY, Integer::getType())
            .factory([](const tala::Class_Generic& cls) {
                pointEvents().push_back("factory");
                return tala::make_instance(cls);
            })
            .method(Any::$__init__, [](const Any& self, std::int64_t x, std::int64_t y) {
                pointEvents().push_back("init");
                self.setFieldValue(kX, Integer(x));
                self.setFieldValue(kY, Integer(y));
            }, {"x", "y"})
            .build();
    });
    return registration.get();
}

tala::Class_Generic plainClass() {
    static const tala::ClassRegistration registration("InvokablePlain", [] {
        return tala::ClassBuilder("InvokablePlain").doc("A class without __init__.").build();
    });
    return registration.get();
}

TEST(ClassInvokable, InvokingAClassMakesAnInstanceThroughFactoryThenInit) {
    const I_Invokable_Generic point(tala::internal::unchecked, pointClass());
    pointEvents().clear();
    const Any instance = point(Integer(1), Integer(2));
    ASSERT_FALSE(tala::is_error_result(instance)) << errorText(instance);
    EXPECT_EQ(pointEvents(), (std::vector<std::string>{"factory", "init"}));
    EXPECT_TRUE(tala::raw_class_of(instance) == pointClass());
    EXPECT_EQ(integerOf(instance.fieldValue(kX)), 1);
    EXPECT_EQ(integerOf(instance.fieldValue(kY)), 2);

    EXPECT_TRUE(point.isIndependent());
    EXPECT_EQ(point.parameterCount(), 2u);
    EXPECT_EQ(point.resultType(), pointClass().asType());
    EXPECT_EQ(point.signature().toString().toStdString(), "(x: Integer, y: Integer) -> InvokablePoint");
    EXPECT_EQ(point.name().toStdString(), "InvokablePoint");
    EXPECT_EQ(point.doc().toStdString(), "A point made by invoking its class.");
    EXPECT_TRUE(point.function() == nullptr);
    EXPECT_EQ(point.functionKind(), tala::FunctionKind::Native);
}

TEST(ClassInvokable, InitErrorsComeBackFromTheInvocation) {
    const I_Invokable_Generic point(tala::internal::unchecked, pointClass());
    EXPECT_EQ(errorText(point(Integer(1))), "__init__() missing 1 required argument: 'y'");
    EXPECT_EQ(errorText(point(Integer(1), String("y"))), "__init__() argument 'y' must be Integer, not String");
}

TEST(ClassInvokable, InvokingAClassByNameBindsInitParameters) {
    const I_Invokable_Generic point(tala::internal::unchecked, pointClass());
    const Any instance = point.invokeWith(named({{"y", Integer(20)}, {"x", Integer(10)}}));
    ASSERT_FALSE(tala::is_error_result(instance)) << errorText(instance);
    EXPECT_EQ(integerOf(instance.fieldValue(kX)), 10);
    EXPECT_EQ(integerOf(instance.fieldValue(kY)), 20);
    EXPECT_EQ(errorText(point.invokeWith(named({{"x", Integer(10)}}))), "InvokablePoint() missing 1 required argument: 'y'");
    EXPECT_EQ(errorText(point.invokeWith(named({{"x", Integer(1)}, {"y", Integer(2)}, {"z", Integer(3)}}))),
              "InvokablePoint() got an unexpected keyword argument 'z'");
}

TEST(ClassInvokable, SurplusArgumentsForAClassWithoutInitAreAnError) {
    const I_Invokable_Generic plain(tala::internal::unchecked, plainClass());
    EXPECT_EQ(plain.parameterCount(), 0u);
    const Any instance = plain();
    EXPECT_FALSE(tala::is_error_result(instance));
    EXPECT_TRUE(tala::raw_class_of(instance) == plainClass());
    EXPECT_FALSE(tala::is_error_result(plain.invokeWith(named({}))));
    EXPECT_EQ(errorText(plain(Integer(1))), "InvokablePlain() takes no arguments but 1 was given");
    EXPECT_EQ(errorText(plain(Integer(1), Integer(2))), "InvokablePlain() takes no arguments but 2 were given");
    EXPECT_EQ(errorText(plain.invokeWith(named({{"a", Integer(1)}}))),
              "InvokablePlain() takes no arguments but 1 was given");
    EXPECT_EQ(errorText(plain.invokeWith(named({{"a", Integer(1)}, {"b", Integer(2)}}))),
              "InvokablePlain() takes no arguments but 2 were given");
}

TEST(ClassInvokable, BindArgsOnAClassFixesInitArguments) {
    const I_Invokable_Generic point(tala::internal::unchecked, pointClass());
    const I_Invokable_Generic onAxis = point.bindArgs(Integer(0));
    EXPECT_EQ(onAxis.parameterCount(), 1u);
    EXPECT_EQ(onAxis.signature().toString().toStdString(), "(y: Integer) -> InvokablePoint");
    const Any instance = onAxis(Integer(5));
    ASSERT_FALSE(tala::is_error_result(instance)) << errorText(instance);
    EXPECT_EQ(integerOf(instance.fieldValue(kX)), 0);
    EXPECT_EQ(integerOf(instance.fieldValue(kY)), 5);
}

// ---- Types --------------------------------------------------------------------------------------

tala::Class_Generic baseClass() {
    static const tala::ClassRegistration registration("TypeBase", [] {
        return tala::ClassBuilder("TypeBase").build();
    });
    return registration.get();
}

tala::Class_Generic derivedClass() {
    static const tala::ClassRegistration registration("TypeDerived", [] {
        return tala::ClassBuilder("TypeDerived").parent(baseClass()).build();
    });
    return registration.get();
}

TEST(Type, InternedTypesAreEqual) {
    EXPECT_EQ(Type(Integer::getClass()), Integer::getType());
    EXPECT_EQ(Integer::getType().cell(), Integer::getType().cell());
    EXPECT_EQ(Type(tala::List_Generic::getClass(), {Integer::getType()}), List<Integer>::getType());
    EXPECT_EQ(List<Integer>::getType(), List<Integer>::getType());
    EXPECT_FALSE(List<Integer>::getType() == List<String>::getType());
    EXPECT_FALSE(Integer::getType() == Integer::getType().asOptional());
    EXPECT_EQ(Type(Integer::getClass(), {}, true), Integer::getType().asOptional());
    EXPECT_EQ(tala::internal::typeOf<Any>(), Type::any());
    EXPECT_EQ(tala::internal::typeOf<Integer>(), Integer::getType());
}

TEST(Type, DerivedClassSpecializesItsParent) {
    const Type base(baseClass());
    const Type derived(derivedClass());
    EXPECT_TRUE(derived.specializes(base));
    EXPECT_FALSE(base.specializes(derived));
    EXPECT_TRUE(base.specializes(base));
    EXPECT_TRUE(derived.specializes(base.asOptional()));
    EXPECT_FALSE(derived.asOptional().specializes(base));
    EXPECT_FALSE(Integer::getType().specializes(String::getType()));
}

TEST(Type, EverythingSpecializesAny) {
    EXPECT_TRUE(Integer::getType().specializes(Type::any()));
    EXPECT_TRUE(Integer::getType().asOptional().specializes(Type::any()));
    EXPECT_TRUE(List<Integer>::getType().specializes(Type::any()));
    EXPECT_TRUE(Type::any().specializes(Type::any()));
    EXPECT_TRUE(tala::None::getType().specializes(Type::any()));
    EXPECT_FALSE(Type::any().specializes(Integer::getType()));
}

TEST(Type, ContainerTypesSpecializeByTheirArguments) {
    EXPECT_TRUE(List<Integer>::getType().specializes(List<Any>::getType()));
    EXPECT_FALSE(List<Any>::getType().specializes(List<Integer>::getType()));
    EXPECT_FALSE(List<Integer>::getType().specializes(List<String>::getType()));
    EXPECT_TRUE(List<Integer>::getType().specializes(Type(tala::List_Generic::getClass())));
    EXPECT_TRUE((HashMap<String, Integer>::getType().specializes(HashMap<String, Any>::getType())));
    EXPECT_FALSE((HashMap<String, Integer>::getType().specializes(HashMap<Integer, Integer>::getType())));
    EXPECT_TRUE(List<tala::Class_Generic>::getType().specializes(List<Any>::getType()));
}

TEST(Type, NoneSpecializesOptionalTypesOnly) {
    const Type none = tala::None::getType();
    EXPECT_EQ(none, Type(tala::None::getClass()));
    EXPECT_EQ(none.toString().toStdString(), "None");
    EXPECT_FALSE(none.isOptional());
    EXPECT_TRUE(none.specializes(none));
    EXPECT_TRUE(none.specializes(Integer::getType().asOptional()));
    EXPECT_TRUE(none.specializes(List<Integer>::getType().asOptional()));
    EXPECT_FALSE(none.specializes(Integer::getType()));
    EXPECT_FALSE(Integer::getType().specializes(none));
    EXPECT_TRUE(Integer::getType().specializes(Integer::getType().asOptional()));
    EXPECT_FALSE(Integer::getType().asOptional().specializes(Integer::getType()));
}

TEST(Type, ToClassAnswersTheClass) {
    EXPECT_TRUE(Integer::getType().toClass() == Integer::getClass());
    EXPECT_TRUE(List<Integer>::getType().toClass() == tala::List_Generic::getClass());
    EXPECT_TRUE(Integer::getType().asOptional().toClass() == Integer::getClass());
    EXPECT_EQ(Type::any().toClass().name().toStdString(), "Any");
    EXPECT_TRUE(Type(derivedClass()).toClass() == derivedClass());
    const std::vector<Type> arguments = HashMap<String, Integer>::getType().typeArguments();
    ASSERT_EQ(arguments.size(), 2u);
    EXPECT_EQ(arguments[0], String::getType());
    EXPECT_EQ(arguments[1], Integer::getType());
}

TEST(Type, AsOptionalIsInternedAndIdempotent) {
    const Type optional = Integer::getType().asOptional();
    EXPECT_TRUE(optional.isOptional());
    EXPECT_FALSE(Integer::getType().isOptional());
    EXPECT_EQ(optional.asOptional(), optional);
    EXPECT_EQ(optional, Integer::getType().asOptional());
}

TEST(Type, ToStringNamesClassArgumentsAndOptionality) {
    EXPECT_EQ(Integer::getType().toString().toStdString(), "Integer");
    EXPECT_EQ(Type::any().toString().toStdString(), "Any");
    EXPECT_EQ(List<Integer>::getType().toString().toStdString(), "List<Integer>");
    EXPECT_EQ(List<Any>::getType().toString().toStdString(), "List<Any>");
    EXPECT_EQ((HashMap<String, List<Integer>>::getType().toString().toStdString()), "HashMap<String, List<Integer>>");
    EXPECT_EQ(String::getType().asOptional().toString().toStdString(), "Optional<String>");
    EXPECT_EQ(List<Integer>::getType().asOptional().toString().toStdString(), "Optional<List<Integer>>");
}

TEST(Type, ErrorTypeIsTheErrorClass) {
    EXPECT_EQ(Error::getType(), Type(Error::getClass()));
    EXPECT_EQ(Error::getType().toString().toStdString(), "Error");
    EXPECT_TRUE(Type(tala::StopIteration::getClass()).specializes(Error::getType()));
    EXPECT_FALSE(Error::getType().specializes(Type(tala::StopIteration::getClass())));
    EXPECT_TRUE(Type::matches(Error::getType()));
    EXPECT_FALSE(Type::matches(Error::getClass()));
}

// ---- Lazy values --------------------------------------------------------------------------------

TEST(Lazy, ResolvesOnDemandOnlyOnce) {
    int calls = 0;
    const tala::Lazy_Generic lazy([&calls]() -> Any {
        ++calls;
        return Integer(42);
    });
    EXPECT_EQ(lazy.kind(), tala::Kind::Lazy);
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(integerOf(lazy.resolve()), 42);
    EXPECT_EQ(integerOf(lazy.resolve()), 42);
    EXPECT_EQ(integerOf(tala::resolve(lazy)), 42);
    EXPECT_EQ(calls, 1);
}

TEST(Lazy, ResolvingToAnErrorKeepsTheError) {
    int calls = 0;
    const tala::Lazy<Integer> lazy([&calls]() -> Any {
        ++calls;
        return Error(String("Not available."));
    });
    const Any first = lazy.resolve();
    EXPECT_EQ(errorText(first), "Not available.");
    EXPECT_TRUE(lazy.resolve().isSame(first));
    EXPECT_EQ(errorText(tala::resolve(lazy)), "Not available.");
    EXPECT_EQ(calls, 1);
}

TEST(Lazy, ResolveUnwrapsNestedLazyValuesAndLeavesPlainValues) {
    int inner = 0;
    int outer = 0;
    const tala::Lazy_Generic nested([&]() -> Any {
        ++outer;
        return tala::Lazy_Generic([&]() -> Any {
            ++inner;
            return String("deep");
        });
    });
    EXPECT_EQ(tala::display(tala::resolve(nested)).toStdString(), "'deep'");
    EXPECT_EQ(tala::display(tala::resolve(nested)).toStdString(), "'deep'");
    EXPECT_EQ(outer, 1);
    EXPECT_EQ(inner, 1);
    EXPECT_EQ(integerOf(tala::resolve(Integer(3))), 3);
    EXPECT_TRUE(tala::resolve(Any()).isEmpty());
    EXPECT_TRUE(tala::Lazy<Integer>::cast(nested).has_value());
    EXPECT_FALSE(tala::Lazy<Integer>::cast(Integer(1)).has_value());
}

TEST(Lazy, ResolvesOnceWhenAskedFromManyThreads) {
    std::atomic<int> calls{0};
    const tala::Lazy_Generic lazy([&calls]() -> Any {
        calls.fetch_add(1);
        return String("shared");
    });
    std::vector<std::thread> threads;
    std::atomic<int> wrong{0};
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 1000; ++i) {
                if (tala::display(lazy.resolve()) != String("'shared'")) wrong.fetch_add(1);
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(calls.load(), 1);
    EXPECT_EQ(wrong.load(), 0);
}

// ---- Concurrency --------------------------------------------------------------------------------

TEST(NativeFunction, EightThreadsInvokingOneFunctionGetCorrectResults) {
    constexpr int kThreads = 8;
    constexpr std::int64_t kCalls = 100'000;
    const I_Invokable_Generic add = makeAdd();
    std::vector<std::int64_t> sums(kThreads, 0);
    std::vector<std::int64_t> failures(kThreads, 0);
    std::atomic<int> ready{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            ready.fetch_add(1);
            while (ready.load() < kThreads) std::this_thread::yield();
            for (std::int64_t i = 0; i < kCalls; ++i) {
                const Any result = add(Integer(i), Integer(t));
                if (result.kind() != tala::Kind::Integer || result.rawInteger() != i + t) {
                    ++failures[t];
                } else {
                    sums[t] += result.rawInteger();
                }
            }
        });
    }
    for (auto& thread : threads) thread.join();
    for (int t = 0; t < kThreads; ++t) {
        EXPECT_EQ(failures[t], 0) << "thread " << t;
        EXPECT_EQ(sums[t], kCalls * (kCalls - 1) / 2 + kCalls * t) << "thread " << t;
    }
    // Every reference the calls took was given back.
    EXPECT_EQ(add.cell()->refCount(), 1u);
}

// ---- Optional parameters ------------------------------------------------------------------------

I_Invokable_Generic withOptionalTail() {
    return tala::native_function(
        [](const String& key, const std::optional<Any>& fallback, std::optional<std::int64_t> count) {
            return String(key.toStdString() + "|" + (fallback ? tala::display(*fallback).toStdString() : "-") + "|" +
                          (count ? std::to_string(*count) : "-"));
        },
        "lookup", {"key", "fallback", "count"});
}

TEST(OptionalParameters, TrailingOptionalParametersMayBeLeftOut) {
    const I_Invokable_Generic function = withOptionalTail();
    EXPECT_EQ(tala::display(function(String("k"))).toStdString(), "'k|-|-'");
    EXPECT_EQ(tala::display(function(String("k"), Integer(1))).toStdString(), "'k|1|-'");
    EXPECT_EQ(tala::display(function(String("k"), Any(), Integer(3))).toStdString(), "'k|None|3'");
    const auto parameters = function.signature().parameters();
    ASSERT_EQ(parameters.size(), 3u);
    EXPECT_FALSE(parameters[0].optional);
    EXPECT_TRUE(parameters[1].optional);
    EXPECT_TRUE(parameters[2].optional);
}

TEST(OptionalParameters, TooFewOrTooManyArgumentsNameTheRange) {
    const I_Invokable_Generic function = withOptionalTail();
    EXPECT_EQ(Error(tala::internal::unchecked, function()).message().toStdString(),
              "lookup() missing 1 required argument: 'key'");
    EXPECT_EQ(Error(tala::internal::unchecked, function(String("k"), Any(), Integer(1), Integer(2))).message().toStdString(),
              "lookup() takes from 1 to 3 arguments but 4 were given");
    // An optional argument of the wrong type is still refused.
    EXPECT_TRUE(tala::is_error_result(function(String("k"), Any(), String("many"))));
}

TEST(OptionalParameters, ByNameAnOptionalParameterMayBeMissingButNotSkipped) {
    const I_Invokable_Generic function = withOptionalTail();
    EXPECT_EQ(tala::display(function.invokeWith(named({{"key", String("k")}}))).toStdString(), "'k|-|-'");
    EXPECT_EQ(tala::display(function.invokeWith(named({{"key", String("k")}, {"fallback", Integer(2)}}))).toStdString(),
              "'k|2|-'");
    EXPECT_EQ(Error(tala::internal::unchecked, function.invokeWith(named({{"key", String("k")}, {"count", Integer(2)}})))
                  .message()
                  .toStdString(),
              "lookup() missing 1 required argument: 'fallback'");
}

}  // namespace

// tests/python/language/module_functions_test.cpp: evaluate_expr, evaluate and evaluate_method as
// the host finds them: functions of the module "tala.python", called by position and by name.
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "language_test_support.hpp"

namespace {

using tala::Any;
using tala::HashMap;
using tala::I_Invokable_Generic;
using tala::Integer;
using tala::String;
using tala_language_test::errorMessage;
using tala_language_test::LanguageTest;
using tala_language_test::pythonErrorPending;
using tala_language_test::text;

using Map = HashMap<String, Any>;

class ModuleFunctionsTest : public LanguageTest {
protected:
    // The function `name` of "tala.python", read through the module's property.
    static I_Invokable_Generic function(const char* name) {
        const std::optional<tala::Module> module = tala::Module::find("tala.python");
        EXPECT_TRUE(module.has_value());
        if (!module) return I_Invokable_Generic(tala::internal::unchecked, Any());
        const auto property = tala::property_of(*module, name);
        EXPECT_FALSE(property.isEmpty()) << name;
        if (property.isEmpty()) return I_Invokable_Generic(tala::internal::unchecked, Any());
        const Any value = property.as<tala::Property>().get(*module);
        EXPECT_TRUE(I_Invokable_Generic::matches(value)) << text(value);
        return I_Invokable_Generic(tala::internal::unchecked, value);
    }
    static Any call(const char* name, std::initializer_list<Any> arguments) {
        const I_Invokable_Generic invokable = function(name);
        if (invokable.isEmpty()) return Any();
        Any result = tala::resolve(invokable.invokeWith(arguments));
        EXPECT_FALSE(pythonErrorPending());
        return result;
    }
    static Any callNamed(const char* name, const Map& arguments) {
        const I_Invokable_Generic invokable = function(name);
        if (invokable.isEmpty()) return Any();
        Any result = tala::resolve(invokable.invokeWith(static_cast<const tala::HashMap_Generic&>(arguments)));
        EXPECT_FALSE(pythonErrorPending());
        return result;
    }
    static std::vector<std::string> parameterNames(const char* name) {
        std::vector<std::string> names;
        const I_Invokable_Generic invokable = function(name);
        if (invokable.isEmpty()) return names;
        for (const tala::Parameter& parameter : invokable.signature().parameters()) names.push_back(parameter.name.toStdString());
        return names;
    }
};

TEST_F(ModuleFunctionsTest, ParameterNamesAreAsRegistered) {
    EXPECT_EQ(parameterNames("evaluate_expr"), (std::vector<std::string>{"code", "locals", "globals"}));
    EXPECT_EQ(parameterNames("evaluate"), (std::vector<std::string>{"code", "locals", "globals", "outLocals"}));
    EXPECT_EQ(parameterNames("evaluate_method"),
              (std::vector<std::string>{"self", "code", "locals", "globals", "outLocals"}));
}

TEST_F(ModuleFunctionsTest, EvaluateExprByPosition) {
    EXPECT_EQ(text(call("evaluate_expr", {String("1 + 2"), Any(), Any()})), "3");
    EXPECT_EQ(text(call("evaluate_expr", {String("x * 2"), Map{{String("x"), Integer(21)}}, Any()})), "42");
    EXPECT_EQ(text(call("evaluate_expr", {String("x"), Map{{String("x"), Integer(1)}}, Map{{String("x"), Integer(2)}}})),
              "1");
}

TEST_F(ModuleFunctionsTest, EvaluateExprByName) {
    const Any result = callNamed("evaluate_expr", Map{{String("code"), String("a - b")},
                                                      {String("locals"), Map{{String("a"), Integer(10)}}},
                                                      {String("globals"), Map{{String("b"), Integer(3)}}}});
    EXPECT_EQ(text(result), "7");
}

TEST_F(ModuleFunctionsTest, EvaluateExprErrorIsAValue) {
    EXPECT_EQ(errorMessage(call("evaluate_expr", {String("1/0"), Any(), Any()})), "division by zero");
}

TEST_F(ModuleFunctionsTest, EvaluateExprRejectsAMapArgumentThatIsNoMap) {
    EXPECT_EQ(errorMessage(call("evaluate_expr", {String("1"), Integer(5), Any()})),
              "The argument 'locals' must be a map or None, got 5.");
}

TEST_F(ModuleFunctionsTest, EvaluateWritesOutLocalsBack) {
    Map out{{String("x"), Any()}};
    EXPECT_EQ(text(call("evaluate", {String("x = 1\nreturn x * 2"), Any(), Any(), out})), "2");
    EXPECT_EQ(text(out.get(String("x")).value_or(String("<missing>"))), "1");
}

TEST_F(ModuleFunctionsTest, EvaluateByName) {
    Map out{{String("doubled"), Any()}};
    const Any result = callNamed("evaluate", Map{{String("code"), String("doubled = n * 2")},
                                                 {String("locals"), Map{{String("n"), Integer(4)}}},
                                                 {String("globals"), Any()},
                                                 {String("outLocals"), out}});
    EXPECT_TRUE(result.isEmpty()) << text(result);
    EXPECT_EQ(text(out.get(String("doubled")).value_or(String("<missing>"))), "8");
}

TEST_F(ModuleFunctionsTest, EvaluateMethodSeesSelf) {
    const Any self = Map{{String("key"), String("value")}};
    EXPECT_EQ(text(call("evaluate_method", {self, String("return self['key']"), Any(), Any(), Any()})), "'value'");
    const Any named = callNamed("evaluate_method", Map{{String("self"), Integer(20)},
                                                       {String("code"), String("return self + extra")},
                                                       {String("locals"), Map{{String("extra"), Integer(1)}}},
                                                       {String("globals"), Any()},
                                                       {String("outLocals"), Any()}});
    EXPECT_EQ(text(named), "21");
}

TEST_F(ModuleFunctionsTest, EvaluateRejectsAnOutLocalsArgumentThatIsNoMap) {
    EXPECT_EQ(errorMessage(call("evaluate", {String("return 1"), Any(), Any(), String("out")})),
              "The argument 'outLocals' must be a map or None, got 'out'.");
}

TEST_F(ModuleFunctionsTest, TheMapsAreOptionalTrailingParameters) {
    EXPECT_EQ(text(call("evaluate_expr", {String("1 + 2")})), "3");
    EXPECT_EQ(text(call("evaluate_expr", {String("x * 2"), Map{{String("x"), Integer(21)}}})), "42");
    EXPECT_EQ(text(call("evaluate", {String("return 5")})), "5");
    EXPECT_EQ(text(call("evaluate", {String("return n + 1"), Map{{String("n"), Integer(1)}}})), "2");
    EXPECT_EQ(text(call("evaluate_method", {Integer(6), String("return self * 2")})), "12");
    // By name, the ones left out are left out at the end.
    EXPECT_EQ(text(callNamed("evaluate_expr", Map{{String("code"), String("7")}})), "7");
    EXPECT_EQ(text(callNamed("evaluate", Map{{String("code"), String("return a")},
                                             {String("locals"), Map{{String("a"), Integer(8)}}}})),
              "8");
}

TEST_F(ModuleFunctionsTest, OnlyTheMapsAreOptional) {
    const auto optional = [](const char* name) {
        std::vector<bool> flags;
        for (const tala::Parameter& parameter : function(name).signature().parameters()) flags.push_back(parameter.optional);
        return flags;
    };
    EXPECT_EQ(optional("evaluate_expr"), (std::vector<bool>{false, true, true}));
    EXPECT_EQ(optional("evaluate"), (std::vector<bool>{false, true, true, true}));
    EXPECT_EQ(optional("evaluate_method"), (std::vector<bool>{false, false, true, true, true}));
    // The code (and the receiver of evaluate_method) must still be given: the object model's
    // error for a call with too few arguments.
    EXPECT_TRUE(tala::is_error_result(call("evaluate_expr", {})));
    EXPECT_TRUE(tala::is_error_result(call("evaluate_method", {Integer(1)})));
    EXPECT_TRUE(tala::is_error_result(call("evaluate", {})));
}

TEST_F(ModuleFunctionsTest, PythonCodeLeavesTheMapsOut) {
    const auto evaluated = [](const char* code) {
        Any result = tala::resolve(tala::python::evaluate(String(code), tala_language_test::noMap(),
                                                          tala_language_test::noMap(), tala_language_test::noMutableMap()));
        EXPECT_FALSE(pythonErrorPending());
        return text(result);
    };
    EXPECT_EQ(evaluated("return tala.python.evaluate_expr('1 + 1')"), "2");
    EXPECT_EQ(evaluated("return tala.python.evaluate_expr('x', {'x': 3})"), "3");
    // A call with keywords is a call by name only.
    EXPECT_EQ(evaluated("return tala.python.evaluate_expr(code='x', locals={'x': 4})"), "4");
    EXPECT_EQ(evaluated("return tala.python.evaluate('return 5')"), "5");
    EXPECT_EQ(evaluated("return tala.python.evaluate_method([1, 2], 'return len(self)')"), "2");
    // A keyword after one that was left out has no place to go: pass None for the one before.
    EXPECT_EQ(evaluated("return tala.python.evaluate_expr('x', None, {'x': 6})"), "6");
}

TEST_F(ModuleFunctionsTest, MapThatChangesWhileReadGivesTheIteratorErrorAsAValue) {
    // The host function's border turns the object model's exception into an error value.
    Map locals;
    const tala::internal::Cell* cell = locals.cell();
    locals.set(String("changing"), tala::External([cell] {
        const Map map(tala::internal::unchecked, Any::share(tala::Kind::HashMap, cell));
        map.set(String("added"), Integer(1));
        return Any(Integer(5));
    }));
    locals.set(String("after"), Integer(6));
    Any result;
    EXPECT_NO_THROW(result = call("evaluate_expr", {String("changing + after"), locals, Any()}));
    EXPECT_EQ(errorMessage(result), "[iterator_iterable_typed::operator *] The iterator is invalid.");
}

}  // namespace

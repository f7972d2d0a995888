// tests/python/language/evaluate_code_test.cpp: running Python code as the body of a function, with
// output locals written back, and method bodies with `self` bound.
#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <string>

#include "language/evaluate.hpp"
#include "language_test_support.hpp"

namespace {

using tala::Any;
using tala::HashMap;
using tala::Integer;
using tala::String;
using tala_language_test::errorMessage;
using tala_language_test::LanguageTest;
using tala_language_test::mapArgument;
using tala_language_test::MapArgument;
using tala_language_test::mutableMapArgument;
using tala_language_test::MutableMapArgument;
using tala_language_test::noMap;
using tala_language_test::noMutableMap;
using tala_language_test::pythonErrorPending;
using tala_language_test::text;

using Map = HashMap<String, Any>;

class EvaluateCodeTest : public LanguageTest {
protected:
    static Any run(const char* code, const MapArgument& locals = noMap(), const MapArgument& globals = noMap(),
                   const MutableMapArgument& outLocals = noMutableMap()) {
        Any result = tala::python::evaluate(String(code), locals, globals, outLocals);
        EXPECT_FALSE(pythonErrorPending());
        return result;
    }
    static Any method(const Any& self, const char* code, const MapArgument& locals = noMap(),
                      const MapArgument& globals = noMap(), const MutableMapArgument& outLocals = noMutableMap()) {
        Any result = tala::resolve(tala::language_python_evaluate_method(self, String(code), locals, globals, outLocals));
        EXPECT_FALSE(pythonErrorPending());
        return result;
    }
    static std::string valueOf(const Map& map, const char* name) {
        const std::optional<Any> value = map.get(String(name));
        return value ? text(*value) : std::string("<missing>");
    }
};

const tala::Identifier kLabel{"$label"};

// A host class with a field `label` and a read-only property `name` computed from it.
tala::Class_Generic customerClass() {
    static const tala::Class_Generic cls = tala::ClassBuilder("LangTestCustomer")
                                               .doc("A customer with a name.")
                                               .field(kLabel)
                                               .property(Any::$$name, [](const Any& self) -> String {
                                                   return String("Customer " + String(tala::internal::unchecked, self.fieldValue(kLabel)).toStdString());
                                               }, "The customer's name.")
                                               .build();
    return cls;
}

Any makeCustomer(const char* label) {
    Any customer = tala::make_instance(customerClass());
    EXPECT_TRUE(customer.setFieldValue(kLabel, String(label)).isEmpty());
    return customer;
}

TEST_F(EvaluateCodeTest, CodeWithoutReturnGivesNone) {
    const Any result = run("x = 1\ny = x + 1");
    EXPECT_TRUE(result.isEmpty()) << text(result);
    EXPECT_FALSE(tala::is_error_result(result));
}

TEST_F(EvaluateCodeTest, ReturnGivesTheResult) {
    const Any result = run("values = [1, 2, 3]\nreturn sum(values)");
    ASSERT_EQ(result.kind(), tala::Kind::Integer) << text(result);
    EXPECT_EQ(result.rawInteger(), 6);
}

TEST_F(EvaluateCodeTest, OutLocalIsWrittenBackAfterTheResult) {
    Map out{{String("x"), Any()}};
    const Any result = run("x = 1\nreturn x * 2", noMap(), noMap(), mutableMapArgument(out));
    ASSERT_EQ(result.kind(), tala::Kind::Integer) << text(result);
    EXPECT_EQ(result.rawInteger(), 2);
    EXPECT_EQ(valueOf(out, "x"), "1");
    EXPECT_EQ(out.size(), 1u);
}

TEST_F(EvaluateCodeTest, UntouchedOutLocalsKeepTheirInitialValues) {
    Map out{{String("count"), Integer(5)}, {String("label"), String("kept")}, {String("changed"), Integer(0)}};
    const Any result = run("changed = count + 1", noMap(), noMap(), mutableMapArgument(out));
    EXPECT_TRUE(result.isEmpty()) << text(result);
    EXPECT_EQ(valueOf(out, "count"), "5");
    EXPECT_EQ(valueOf(out, "label"), "'kept'");
    EXPECT_EQ(valueOf(out, "changed"), "6");
}

TEST_F(EvaluateCodeTest, OutLocalStartsWithItsInitialValue) {
    Map out{{String("total"), Integer(10)}};
    EXPECT_TRUE(run("total += 5", noMap(), noMap(), mutableMapArgument(out)).isEmpty());
    EXPECT_EQ(valueOf(out, "total"), "15");
}

TEST_F(EvaluateCodeTest, NeverAssignedOutLocalComesBackAsItStarted) {
    Map out{{String("first"), Any()}, {String("untouched"), Any()}};
    const Any result = run("first = 3\nreturn 1", noMap(), noMap(), mutableMapArgument(out));
    EXPECT_EQ(text(result), "1");
    // Every output name starts in the globals (the empty value as None), so one the code never
    // assigns comes back with its starting value.
    EXPECT_EQ(valueOf(out, "first"), "3");
    ASSERT_TRUE(out.get(String("untouched")).has_value());
    EXPECT_TRUE(out.get(String("untouched"))->isEmpty());
}

TEST_F(EvaluateCodeTest, EmptyOutLocalIsNoneInTheCode) {
    Map out{{String("seen"), Any()}};
    const Any result = run("return seen is None", noMap(), noMap(), mutableMapArgument(out));
    EXPECT_EQ(text(result), "True");
}

TEST_F(EvaluateCodeTest, OutLocalDeletedByTheCodeGivesNameErrorAfterTheResultWasStored) {
    Map out{{String("first"), Any()}, {String("missing"), Any()}};
    const Any result = run("global missing\nfirst = 3\ndel missing\nreturn 1", noMap(), noMap(), mutableMapArgument(out));
    ASSERT_TRUE(tala::is_error_result(result)) << text(result);
    EXPECT_EQ(errorMessage(result), "name 'missing' is not defined");
    // The code ran to its end and the out-locals before the failing one were written back.
    EXPECT_EQ(valueOf(out, "first"), "3");
    EXPECT_EQ(valueOf(out, "missing"), "None");
}

TEST_F(EvaluateCodeTest, CodeWithANulCharacterIsRefusedNotCut) {
    const std::string code("x = 1\0\nreturn 2", 16);
    Map out{{String("x"), Integer(0)}};
    const Any result = tala::python::evaluate(String(code), noMap(), noMap(), mutableMapArgument(out));
    EXPECT_FALSE(pythonErrorPending());
    ASSERT_TRUE(tala::is_error_result(result)) << text(result);
    EXPECT_NE(errorMessage(result).find("source code string cannot contain null bytes"), std::string::npos)
        << errorMessage(result);
    EXPECT_EQ(valueOf(out, "x"), "0");  // nothing of the code ran
}

TEST_F(EvaluateCodeTest, CodeRunsAsTheMainModule) {
    EXPECT_EQ(text(run("return __name__")), "'__main__'");
    EXPECT_EQ(text(run("import sys\nreturn sys._getframemodulename()")), "'__main__'");
    EXPECT_EQ(text(run("class Order:\n    pass\nreturn Order.__module__")), "'__main__'");
    // A map that names the module otherwise wins.
    EXPECT_EQ(text(run("return __name__", noMap(), mapArgument(Map{{String("__name__"), String("report")}}))), "'report'");
}

TEST_F(EvaluateCodeTest, ADictFromOneEvaluationServesAsTheMapsOfTheNext) {
    const Any dict = run("return {'a': 1, 'b': 'two'}");
    ASSERT_TRUE(tala::I_MutableMap_Generic::matches(dict)) << text(dict);
    const MapArgument asMap(tala::internal::unchecked, dict);
    EXPECT_EQ(text(run("return a + 1", asMap)), "2");
    EXPECT_EQ(text(run("return b * 2", noMap(), asMap)), "'twotwo'");
    EXPECT_EQ(text(tala::python::evaluate_expr(String("(a, b)"), asMap, noMap())), "(1, 'two')");
    const MutableMapArgument asOut(tala::internal::unchecked, dict);
    EXPECT_EQ(text(run("a = a * 10\nreturn b", noMap(), noMap(), asOut)), "'two'");
    EXPECT_EQ(text(dict), "{'a': 10, 'b': 'two'}");
}

TEST_F(EvaluateCodeTest, ProcessNamesTheInterpretersOwnProgram) {
    const Any names = run("import sys\nreturn (sys.executable, sys._base_executable)");
    const std::string shown = text(names);
    EXPECT_NE(shown.find("/bin/python3"), std::string::npos) << shown;
    const Any runs = run("import subprocess, sys\n"
                         "done = subprocess.run([sys.executable, '-c', 'import sys; print(sys.version_info[:2])'],\n"
                         "                      capture_output=True, text=True)\n"
                         "return done.stdout.strip()");
    EXPECT_EQ(text(runs), "'(3, 13)'");
}

TEST_F(EvaluateCodeTest, LocalsBeatGlobals) {
    const Any result = run("return name", mapArgument(Map{{String("name"), String("local")}}),
                           mapArgument(Map{{String("name"), String("global")}}));
    EXPECT_EQ(text(result), "'local'");
}

TEST_F(EvaluateCodeTest, OutLocalsBeatGlobals) {
    Map out{{String("name"), String("out")}};
    const Any result = run("return name", noMap(), mapArgument(Map{{String("name"), String("global")}}),
                           mutableMapArgument(out));
    EXPECT_EQ(text(result), "'out'");
}

TEST_F(EvaluateCodeTest, LocalsBeatOutLocals) {
    Map out{{String("name"), String("out")}};
    const Any result = run("return name", mapArgument(Map{{String("name"), String("local")}}), noMap(),
                           mutableMapArgument(out));
    EXPECT_EQ(text(result), "'local'");
}

TEST_F(EvaluateCodeTest, AbsentGlobalsMapDoesNotBringTheProcessGlobals) {
    tala::globals().set(String("langtest_code_global"), Integer(1));
    const Any result = run("return langtest_code_global");
    EXPECT_EQ(errorMessage(result), "name 'langtest_code_global' is not defined");
    tala::globals().remove(String("langtest_code_global"));
}

TEST_F(EvaluateCodeTest, HostModulesAreVisible) {
    EXPECT_EQ(text(run("return tala.get_logger() is not None")), "True");
}

TEST_F(EvaluateCodeTest, CodeKeepsItsOwnIndentation) {
    const Any result = run("total = 0\nfor i in range(4):\n    if i % 2:\n        total += i\nreturn total");
    EXPECT_EQ(text(result), "4");
}

TEST_F(EvaluateCodeTest, CarriageReturnsBeforeLineFeedsAreAccepted) {
    EXPECT_EQ(text(run("x = 20\r\nreturn x + 1\r\n")), "21");
}

TEST_F(EvaluateCodeTest, ExceptionGivesErrorValue) {
    Any result;
    EXPECT_NO_THROW(result = run("x = 1\nreturn x / 0"));
    EXPECT_EQ(errorMessage(result), "division by zero");
    EXPECT_EQ(errorMessage(run("raise ValueError('bad value')")), "bad value");
}

TEST_F(EvaluateCodeTest, SyntaxErrorGivesTheFormattedTraceback) {
    const Any result = run("x = (");
    ASSERT_TRUE(tala::is_error_result(result)) << text(result);
    // The code is compiled as it was written: its first line is line 1.
    const std::string message = errorMessage(result);
    EXPECT_EQ(message, tala_language_test::formattedSyntaxError("x = (", "exec"));
    EXPECT_EQ(message.rfind("  File \"<string>\", line 1\n", 0), 0u) << message;
    EXPECT_TRUE(message.ends_with("SyntaxError: '(' was never closed\n")) << message;
}

TEST_F(EvaluateCodeTest, IntegerBeyondSixtyFourBitsAsResultGivesOverflowError) {
    const Any result = run("return 2 ** 64");
    const tala::Error expected = tala_language_test::overflowHostError();
    EXPECT_EQ(errorMessage(result), expected.message().toStdString());
    EXPECT_EQ(tala::raw_class_of(result), tala::raw_class_of(expected));
}

TEST_F(EvaluateCodeTest, MethodSeesSelf) {
    const Any customer = makeCustomer("ACME");
    EXPECT_EQ(text(method(customer, "return self.name")), "'Customer ACME'");
    // The very host value comes back as itself.
    EXPECT_TRUE(method(customer, "return self").isSame(customer));
}

TEST_F(EvaluateCodeTest, MethodWithMapsAndOutLocals) {
    const Any customer = makeCustomer("Zeta");
    Map out{{String("greeting"), Any()}};
    const Any result = method(customer, "greeting = prefix + self.name\nreturn len(greeting)",
                              mapArgument(Map{{String("prefix"), String("Hello, ")}}), noMap(), mutableMapArgument(out));
    EXPECT_EQ(text(result), "20");
    EXPECT_EQ(valueOf(out, "greeting"), "'Hello, Customer Zeta'");
}

TEST_F(EvaluateCodeTest, CodeEvaluationSeesSelfAsNone) {
    EXPECT_EQ(text(run("return self is None")), "True");
}

TEST_F(EvaluateCodeTest, MapThatChangesWhileReadThrowsTheIteratorError) {
    Map globals;
    const tala::internal::Cell* cell = globals.cell();
    globals.set(String("changing"), tala::External([cell] {
        const Map map(tala::internal::unchecked, Any::share(tala::Kind::HashMap, cell));
        map.remove(String("after"));
        return Any(Integer(5));
    }));
    globals.set(String("after"), Integer(6));
    globals.set(String("last"), Integer(7));
    try {
        (void)tala::python::evaluate(String("return 1"), noMap(), mapArgument(globals), noMutableMap());
        ADD_FAILURE() << "no exception was thrown";
    } catch (const tala::Exception& error) {
        EXPECT_STREQ(error.what(), "[iterator_iterable_typed::operator *] The iterator is invalid.");
    }
    EXPECT_FALSE(pythonErrorPending());
    EXPECT_EQ(text(run("return 2")), "2");
}

TEST_F(EvaluateCodeTest, EvaluationsLeaveNoBlocksBehind) {
    Map out{{String("y"), Any()}};
    const Map locals{{String("x"), Integer(1)}};
    auto evaluateOnce = [&locals, &out] {
        return tala::python::evaluate(String("y = x + 1\nreturn y"), mapArgument(locals), noMap(), mutableMapArgument(out));
    };
    for (int index = 0; index < 200; ++index) (void)evaluateOnce();
    const tala_language_test::PythonAllocations allocations;
    for (int index = 0; index < 100; ++index) (void)evaluateOnce();
    const std::int64_t before = allocations.count();
    for (int index = 0; index < 10000; ++index) {
        const Any result = evaluateOnce();
        if (result.kind() != tala::Kind::Integer || result.rawInteger() != 2) {
            ADD_FAILURE() << "evaluation " << index << " gave " << text(result);
            break;
        }
    }
    const std::int64_t after = allocations.count();
    ASSERT_GT(before, 0) << allocations.unit();
    EXPECT_LT(after - before, allocations.allowedGrowth())
        << allocations.unit() << " before " << before << ", after " << after;
    EXPECT_EQ(valueOf(out, "y"), "2");
    EXPECT_FALSE(pythonErrorPending());
}

// Repeated code evaluations see a fresh copy of the namespace with their own names: what one did
// to its globals, or kept of them in a function, changes nothing for the next.
TEST_F(EvaluateCodeTest, RepeatedEvaluationsSeeTheirOwnGlobals) {
    const Map first{{String("price"), Integer(2)}};
    const char* const look = "return [price, sorted(name for name in globals() if name in ('price', 'leak', 'self')), self]";
    EXPECT_EQ(text(run(look, mapArgument(first))), "[2, ['price', 'self'], None]");
    EXPECT_EQ(text(run("globals()['leak'] = 1\nreturn price", mapArgument(first))), "2");
    EXPECT_EQ(text(run(look, mapArgument(first))), "[2, ['price', 'self'], None]");
    EXPECT_EQ(text(method(Integer(7), look, mapArgument(first))), "[2, ['price', 'self'], 7]");
    const Any function = run("def f():\n    return price\nreturn f", mapArgument(Map{{String("price"), Integer(3)}}));
    EXPECT_EQ(text(run(look, mapArgument(first))), "[2, ['price', 'self'], None]");
    EXPECT_EQ(text(tala::I_Invokable_Generic(tala::internal::unchecked, function)()), "3");
}

}  // namespace

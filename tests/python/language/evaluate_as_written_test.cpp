// tests/python/language/evaluate_as_written_test.cpp: code runs exactly as written, and errors carry
// what Python knew: the exception's type name and its traceback with the code's own lines.
#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "bridge/error_details.hpp"
#include "language/evaluate.hpp"
#include "language_test_support.hpp"

namespace {

using tala::Any;
using tala::HashMap;
using tala::Integer;
using tala::String;
using tala_language_test::errorMessage;
using tala_language_test::errorProperty;
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

class EvaluateAsWrittenTest : public LanguageTest {
protected:
    static Any run(const std::string& code, const MapArgument& locals = noMap(), const MutableMapArgument& outLocals = noMutableMap()) {
        Any result = tala::python::evaluate(String(code), locals, noMap(), outLocals);
        EXPECT_FALSE(pythonErrorPending());
        return result;
    }
};

// ---- Code as written ------------------------------------------------------------------------

TEST_F(EvaluateAsWrittenTest, ATripleQuotedStringKeepsItsText) {
    const std::string code = "query = '''SELECT *\n  FROM orders\n\tWHERE id = 1'''\nreturn query";
    const std::string expected = "SELECT *\n  FROM orders\n\tWHERE id = 1";
    EXPECT_EQ(String::cast(run(code)).value_or(String()).toStdString(), expected);
    Map out{{String("query"), Any()}};
    EXPECT_EQ(String::cast(run(code, noMap(), mutableMapArgument(out))).value_or(String()).toStdString(), expected);
    EXPECT_EQ(String::cast(*out.get(String("query"))).value_or(String()).toStdString(), expected);
}

TEST_F(EvaluateAsWrittenTest, EmptyOrCommentOnlyCodeGivesNone) {
    for (const char* code : {"", "\n\n", "# nothing to do", "   # indented comment\n# another\n"}) {
        const Any result = run(code);
        EXPECT_TRUE(result.isEmpty()) << code << ": " << text(result);
    }
}

TEST_F(EvaluateAsWrittenTest, FutureImportsAtTheTopWork) {
    EXPECT_EQ(text(run("from __future__ import annotations\ndef f(a: Missing): pass\nreturn f.__annotations__['a']")),
              "'Missing'");
}

TEST_F(EvaluateAsWrittenTest, RuntimeErrorsNameTheLinesOfTheCodeAsGiven) {
    for (const bool withOutLocals : {false, true}) {
        Map out{{String("count"), Integer(0)}};
        const Any onFirst = run("return {}['k']", noMap(), withOutLocals ? mutableMapArgument(out) : noMutableMap());
        EXPECT_EQ(errorProperty(onFirst, "traceback"),
                  "Traceback (most recent call last):\n"
                  "  File \"<string>\", line 1, in tala_outer\n"
                  "    return {}['k']\n"
                  "           ~~^^^^^\n"
                  "KeyError: 'k'\n");
        const Any onThird = run("count = 1\n\ncount = count / 0\nreturn count", noMap(), withOutLocals ? mutableMapArgument(out) : noMutableMap());
        EXPECT_EQ(errorProperty(onThird, "traceback"),
                  "Traceback (most recent call last):\n"
                  "  File \"<string>\", line 3, in tala_outer\n"
                  "    count = count / 0\n"
                  "            ~~~~~~^~~\n"
                  "ZeroDivisionError: division by zero\n");
        EXPECT_EQ(errorMessage(onThird), "division by zero");
    }
}

TEST_F(EvaluateAsWrittenTest, SyntaxErrorsNameTheLinesOfTheCodeAsGiven) {
    for (const bool withOutLocals : {false, true}) {
        Map out{{String("x"), Integer(0)}};
        const MutableMapArgument outLocals = withOutLocals ? mutableMapArgument(out) : noMutableMap();
        const Any onFirst = run("x = (", noMap(), outLocals);
        EXPECT_EQ(errorMessage(onFirst), "  File \"<string>\", line 1\n    x = (\n        ^\nSyntaxError: '(' was never closed\n");
        const Any onThird = run("x = 1\ny = 2\nz = 3 +\nreturn x", noMap(), outLocals);
        EXPECT_EQ(errorMessage(onThird),
                  "  File \"<string>\", line 3\n    z = 3 +\n           ^\nSyntaxError: invalid syntax\n");
        EXPECT_EQ(errorProperty(onThird, "exceptionType"), "SyntaxError");
        EXPECT_EQ(errorProperty(onThird, "traceback"), errorMessage(onThird));
    }
}

TEST_F(EvaluateAsWrittenTest, AFileNameGivenAsDunderFileNamesTheFrames) {
    const Any failed = run("x = 1\nraise ValueError('bad value')", mapArgument(Map{{String("__file__"), String("/scripts/rule.py")}}));
    const std::string traceback = errorProperty(failed, "traceback");
    EXPECT_NE(traceback.find("  File \"/scripts/rule.py\", line 2, in tala_outer\n    raise ValueError('bad value')\n"),
              std::string::npos)
        << traceback;
    EXPECT_TRUE(traceback.ends_with("ValueError: bad value\n")) << traceback;
}

// ---- What errors carry -------------------------------------------------------------------------

TEST_F(EvaluateAsWrittenTest, AnErrorCarriesTheQualifiedTypeName) {
    EXPECT_EQ(errorProperty(run("return {}['k']"), "exceptionType"), "KeyError");
    EXPECT_EQ(errorProperty(run("import json\nreturn json.loads('{')"), "exceptionType"), "json.decoder.JSONDecodeError");
    // A class the code defines is local to the function the code runs in, as its traceback says.
    EXPECT_EQ(errorProperty(run("class Mine(Exception): pass\nraise Mine('x')"), "exceptionType"), "tala_outer.<locals>.Mine");
    // The message stays what it was: the exception's text.
    EXPECT_EQ(errorMessage(run("return {}['k']")), "'k'");
    EXPECT_EQ(errorMessage(run("raise ValueError()")), "");
}

TEST_F(EvaluateAsWrittenTest, ATracebackShowsTheFramesOfFunctionsInTheCode) {
    const Any failed = run("def inner(d):\n    return d['missing']\n\nreturn inner({})");
    EXPECT_EQ(errorProperty(failed, "traceback"),
              "Traceback (most recent call last):\n"
              "  File \"<string>\", line 4, in tala_outer\n"
              "    return inner({})\n"
              "  File \"<string>\", line 2, in inner\n"
              "    return d['missing']\n"
              "           ~^^^^^^^^^^^\n"
              "KeyError: 'missing'\n");
}

TEST_F(EvaluateAsWrittenTest, ExpressionErrorsCarryTypeAndTraceback) {
    const Any failed = tala::python::evaluate_expr(String("1 / 0"), noMap(), noMap());
    EXPECT_EQ(errorProperty(failed, "exceptionType"), "ZeroDivisionError");
    EXPECT_EQ(errorProperty(failed, "traceback"),
              "Traceback (most recent call last):\n"
              "  File \"<string>\", line 1, in <module>\n"
              "    1 / 0\n"
              "    ~~^~~\n"
              "ZeroDivisionError: division by zero\n");
}

TEST_F(EvaluateAsWrittenTest, AnErrorBackInPythonIsTheOriginalException) {
    // Python code calls the host (evaluate), whose code raises: the caller catches that very
    // exception, with its own type and arguments.
    const Any caught = run("inner = \"d = {}\\nreturn d['k']\"\n"
                           "try:\n"
                           "    tala.python.evaluate(inner, None, None, None)\n"
                           "except KeyError as error:\n"
                           "    return (type(error).__name__, error.args)\n"
                           "return 'not caught'");
    EXPECT_EQ(text(caught), "('KeyError', ('k',))");
}

TEST_F(EvaluateAsWrittenTest, AHostErrorThatLeavesTheCodeIsItselfAndTellsWhereTheCodeWas) {
    // A host error of a class of its own, raised by a host function the code calls.
    static const tala::Class_Generic errorClass =
        tala::ClassBuilder("StockError").parent(tala::Error::getClass()).build();
    const tala::Error original(errorClass, String("Out of tea."));
    const tala::I_Invokable_Generic reserve = tala::native_function([original]() -> Any { return original; }, "reserve");
    const Any failed = run("def order():\n    return reserve()\n\norder()", mapArgument(Map{{String("reserve"), reserve}}));
    // The very host error comes back ...
    ASSERT_TRUE(tala::Error::matches(failed)) << text(failed);
    EXPECT_EQ(tala::Error(tala::internal::unchecked, failed).cell(), original.cell());
    EXPECT_EQ(errorMessage(failed), "Out of tea.");
    // ... with the report of where it went through the code; its last line gives the host
    // error's message (the exception's own text is empty).
    EXPECT_EQ(errorProperty(failed, "exceptionType"), "tala.StockError");
    EXPECT_EQ(errorProperty(failed, "traceback"),
              "Traceback (most recent call last):\n"
              "  File \"<string>\", line 4, in tala_outer\n"
              "    order()\n"
              "    ~~~~~^^\n"
              "  File \"<string>\", line 2, in order\n"
              "    return reserve()\n"
              "tala.StockError: Out of tea.\n");
    // Raised into Python again, it makes an exception of its own, whose report is new.
    const Any again = run("try:\n    reserve()\nexcept RuntimeError as error:\n    raise", mapArgument(Map{{String("reserve"), reserve}}));
    ASSERT_TRUE(tala::Error::matches(again)) << text(again);
    EXPECT_EQ(tala::Error(tala::internal::unchecked, again).cell(), original.cell());
    EXPECT_NE(errorProperty(again, "traceback").find("line 2, in tala_outer\n    reserve()\n"), std::string::npos)
        << errorProperty(again, "traceback");
}

// The error keeps its report, not the exception that carried it: the exception refers to the
// error, so keeping it would make a cycle through the host that Python's collector cannot see.
TEST_F(EvaluateAsWrittenTest, AHostErrorThatLeavesTheCodeKeepsNoPythonObjectsAlive) {
    static const tala::Class_Generic errorClass =
        tala::ClassBuilder("ShelfError").parent(tala::Error::getClass()).build();
    const tala::I_Invokable_Generic fetch =
        tala::native_function([]() -> Any { return tala::Error(errorClass, String("Shelf empty.")); }, "fetch");
    const Map locals{{String("fetch"), fetch}};
    const char* code = "rows = [[0] * 100 for _ in range(10)]\nfetch()";
    const char* count = "import gc\ngc.collect()\nreturn len(gc.get_objects())";
    for (int round = 0; round < 20; ++round) (void)run(code, mapArgument(locals));
    const Any before = run(count, mapArgument(Map{}));
    for (int round = 0; round < 200; ++round) {
        const Any failed = run(code, mapArgument(locals));
        ASSERT_EQ(errorMessage(failed), "Shelf empty.");
        ASSERT_NE(errorProperty(failed, "traceback").find("line 2, in tala_outer\n    fetch()\n"), std::string::npos)
            << errorProperty(failed, "traceback");
    }
    const Any after = run(count, mapArgument(Map{}));
    ASSERT_EQ(before.kind(), tala::Kind::Integer) << text(before);
    EXPECT_LT(after.rawInteger() - before.rawInteger(), 100) << "objects before: " << text(before) << ", after: " << text(after);
}

}  // namespace

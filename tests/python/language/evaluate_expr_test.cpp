// tests/python/language/evaluate_expr_test.cpp: evaluating one Python expression against host
// values, and the host namespace that every evaluation sees.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "language/evaluate.hpp"
#include "language/namespace.hpp"
#include "language_test_support.hpp"
#include "proxies/python_proxy.hpp"

namespace {

using tala::Any;
using tala::HashMap;
using tala::Integer;
using tala::Module;
using tala::String;
using tala::python::evaluate_expr;
using tala_language_test::errorMessage;
using tala_language_test::LanguageTest;
using tala_language_test::mapArgument;
using tala_language_test::noMap;
using tala_language_test::pythonErrorPending;
using tala_language_test::text;

class EvaluateExprTest : public LanguageTest {
protected:
    // evaluate_expr without maps; no Python error may be left pending.
    static Any eval(const char* code) { return checked(evaluate_expr(String(code), noMap(), noMap())); }
    static Any eval(const char* code, const HashMap<String, Any>& locals) {
        return checked(evaluate_expr(String(code), mapArgument(locals), noMap()));
    }
    static Any eval(const char* code, const HashMap<String, Any>& locals, const HashMap<String, Any>& globals) {
        return checked(evaluate_expr(String(code), mapArgument(locals), mapArgument(globals)));
    }
    static Any checked(Any result) {
        EXPECT_FALSE(pythonErrorPending());
        return result;
    }
};

// Modules registered for the namespace tests, once per process (modules stay registered).
struct TestModules {
    Module visible;
    Module hidden;
    Module inlined;
    Module inlinedDotted;
    Module firstShared;
    Module secondShared;
    tala::Class_Generic inlinedClass;
};

const TestModules& testModules() {
    static const TestModules modules = [] {
        TestModules made{Module::create("langtest_visible"),     Module::create("langtest_hidden"),
                         Module::create("langtest_inlined"),     Module::create("langtest_pkg.inlined"),
                         Module::create("langtest_first_shared"), Module::create("langtest_second_shared"),
                         tala::Class_Generic(tala::internal::unchecked, Any())};
        made.visible.addFunction(String("answer"), tala::native_function([] { return std::int64_t{42}; }, "answer"));
        made.hidden.addFunction(String("hidden_answer"),
                                tala::native_function([] { return std::int64_t{13}; }, "hidden_answer"));
        made.hidden.markInternal();
        made.hidden.markInlined();  // internal wins: nothing of the module is visible

        made.inlinedClass = tala::ClassBuilder("LangTestInlinedThing")
                                .doc("A class of an inlined module.")
                                .declaringContext(made.inlined)
                                .build();
        made.inlined.addClass(made.inlinedClass);
        made.inlined.addFunction(String("inlined_answer"),
                                 tala::native_function([] { return std::int64_t{7}; }, "inlined_answer"));
        made.inlined.markInlined();

        made.inlinedDotted.addFunction(String("dotted_answer"),
                                       tala::native_function([] { return std::int64_t{8}; }, "dotted_answer"));
        made.inlinedDotted.markInlined();

        made.firstShared.addFunction(String("langtest_shared"),
                                     tala::native_function([] { return String("first"); }, "langtest_shared"));
        made.firstShared.markInlined();
        made.secondShared.addFunction(String("langtest_shared"),
                                      tala::native_function([] { return String("second"); }, "langtest_shared"));
        made.secondShared.markInlined();
        return made;
    }();
    return modules;
}

TEST_F(EvaluateExprTest, ListGivesSequenceProxyWhoseItemsAreHostIntegers) {
    const Any result = eval("[1, 2, 3]");
    ASSERT_TRUE(tala::python::PythonProxySequence::matches(result)) << text(result);
    ASSERT_TRUE(tala::I_Sequence_Generic::matches(result));
    const tala::I_Sequence_Generic sequence(tala::internal::unchecked, result);
    const Any length = tala::resolve(sequence.length());
    ASSERT_EQ(length.kind(), tala::Kind::Integer) << text(length);
    EXPECT_EQ(length.rawInteger(), 3);
    for (std::int64_t index = 0; index < 3; ++index) {
        const Any item = tala::resolve(sequence.at(index));
        ASSERT_EQ(item.kind(), tala::Kind::Integer) << text(item);
        EXPECT_EQ(item.rawInteger(), index + 1);
    }
    EXPECT_FALSE(pythonErrorPending());
}

TEST_F(EvaluateExprTest, PlainValuesComeBackAsHostValues) {
    EXPECT_EQ(eval("1 + 2").rawInteger(), 3);
    const Any text = eval("'ab' * 2");
    ASSERT_TRUE(String::matches(text));
    EXPECT_EQ(String(tala::internal::unchecked, text), "abab");
    const Any half = eval("1 / 2");
    ASSERT_EQ(half.kind(), tala::Kind::Float);
    EXPECT_DOUBLE_EQ(half.rawFloat(), 0.5);
    EXPECT_TRUE(eval("None").isEmpty());
}

TEST_F(EvaluateExprTest, LocalsAreVisibleByName) {
    const Any result = eval("x * 2 + y", HashMap<String, Any>{{String("x"), Integer(20)}, {String("y"), Integer(2)}});
    ASSERT_EQ(result.kind(), tala::Kind::Integer) << text(result);
    EXPECT_EQ(result.rawInteger(), 42);
}

TEST_F(EvaluateExprTest, NameInLocalsAndGlobalsEvaluatesToTheLocalsValue) {
    const Any result = eval("name", HashMap<String, Any>{{String("name"), String("local")}},
                            HashMap<String, Any>{{String("name"), String("global")}, {String("other"), Integer(1)}});
    EXPECT_EQ(text(result), "'local'");
    EXPECT_EQ(eval("other", HashMap<String, Any>{}, HashMap<String, Any>{{String("other"), Integer(1)}}).rawInteger(), 1);
}

TEST_F(EvaluateExprTest, WithoutGlobalsMapTheProcessGlobalsAreVisible) {
    tala::globals().set(String("langtest_process_global"), Integer(99));
    const Any seen = eval("langtest_process_global");
    ASSERT_EQ(seen.kind(), tala::Kind::Integer) << text(seen);
    EXPECT_EQ(seen.rawInteger(), 99);

    // Given a globals map, the process-wide globals are not added at all.
    const Any hidden = eval("langtest_process_global", HashMap<String, Any>{}, HashMap<String, Any>{});
    EXPECT_EQ(errorMessage(hidden), "name 'langtest_process_global' is not defined");
    tala::globals().remove(String("langtest_process_global"));
}

TEST_F(EvaluateExprTest, LocalsBeatTheProcessGlobals) {
    tala::globals().set(String("langtest_shadowed"), Integer(1));
    EXPECT_EQ(eval("langtest_shadowed", HashMap<String, Any>{{String("langtest_shadowed"), Integer(2)}}).rawInteger(), 2);
    tala::globals().remove(String("langtest_shadowed"));
}

TEST_F(EvaluateExprTest, TopLevelHostModuleIsVisibleUnderItsName) {
    (void)testModules();
    const Any answer = eval("langtest_visible.answer()");
    ASSERT_EQ(answer.kind(), tala::Kind::Integer) << text(answer);
    EXPECT_EQ(answer.rawInteger(), 42);
    // The object model's own top-level module is there too.
    EXPECT_EQ(text(eval("tala.get_logger() is not None")), "True");
}

TEST_F(EvaluateExprTest, InternalModuleIsNotVisible) {
    (void)testModules();
    EXPECT_EQ(errorMessage(eval("langtest_hidden")), "name 'langtest_hidden' is not defined");
    EXPECT_EQ(errorMessage(eval("hidden_answer()")), "name 'hidden_answer' is not defined");
}

TEST_F(EvaluateExprTest, InlinedModuleClassesAndFunctionsAreVisibleByTheirOwnNames) {
    const TestModules& modules = testModules();
    const Any answer = eval("inlined_answer()");
    ASSERT_EQ(answer.kind(), tala::Kind::Integer) << text(answer);
    EXPECT_EQ(answer.rawInteger(), 7);
    const Any cls = eval("LangTestInlinedThing");
    EXPECT_TRUE(cls.isSame(modules.inlinedClass)) << text(cls);
    // The module itself is visible too, since its name has no dot.
    EXPECT_EQ(eval("langtest_inlined.inlined_answer()").rawInteger(), 7);
}

TEST_F(EvaluateExprTest, DottedInlinedModuleGivesItsMembersButNotItsName) {
    (void)testModules();
    EXPECT_EQ(eval("dotted_answer()").rawInteger(), 8);
    EXPECT_EQ(errorMessage(eval("langtest_pkg")), "name 'langtest_pkg' is not defined");
}

TEST_F(EvaluateExprTest, LaterModuleWinsASharedName) {
    (void)testModules();
    EXPECT_EQ(text(eval("langtest_shared()")), "'second'");
}

TEST_F(EvaluateExprTest, NamespaceDictionaryHoldsTheModules) {
    (void)testModules();
    tala::python::GilGuard gil;
    tala::python::PyObjectPtr names = tala::python::PyObjectPtr::steal(tala::python::buildHostNamespace());
    ASSERT_TRUE(names);
    EXPECT_NE(PyDict_GetItemString(names.get(), "tala"), nullptr);
    EXPECT_NE(PyDict_GetItemString(names.get(), "langtest_visible"), nullptr);
    EXPECT_NE(PyDict_GetItemString(names.get(), "inlined_answer"), nullptr);
    EXPECT_EQ(PyDict_GetItemString(names.get(), "langtest_hidden"), nullptr);
    EXPECT_EQ(PyDict_GetItemString(names.get(), "langtest_pkg.inlined"), nullptr);
    EXPECT_EQ(PyDict_GetItemString(names.get(), "tala.python"), nullptr);
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST_F(EvaluateExprTest, ExpressionWithANulCharacterIsRefusedNotCut) {
    const Any result = tala::python::evaluate_expr(String(std::string("1\0 + 2", 6)), noMap(), noMap());
    EXPECT_FALSE(pythonErrorPending());
    ASSERT_TRUE(tala::is_error_result(result)) << text(result);
    EXPECT_NE(errorMessage(result).find("source code string cannot contain null bytes"), std::string::npos)
        << errorMessage(result);
}

TEST_F(EvaluateExprTest, ZeroDivisionGivesErrorValueNotThrow) {
    Any result;
    EXPECT_NO_THROW(result = eval("1/0"));
    ASSERT_TRUE(tala::is_error_result(result)) << text(result);
    EXPECT_EQ(errorMessage(result), "division by zero");
}

TEST_F(EvaluateExprTest, SyntaxErrorMessageIsTheFormattedTraceback) {
    const Any result = eval("1 +");
    ASSERT_TRUE(tala::is_error_result(result)) << text(result);
    const std::string message = errorMessage(result);
    EXPECT_EQ(message, tala_language_test::formattedSyntaxError("1 +", "eval"));
    EXPECT_EQ(message.rfind("  File \"<string>\", line 1\n    1 +\n", 0), 0u) << message;
    EXPECT_TRUE(message.ends_with("SyntaxError: invalid syntax\n")) << message;
}

TEST_F(EvaluateExprTest, IntegerBeyondSixtyFourBitsGivesOverflowError) {
    const Any result = eval("2 ** 70");
    ASSERT_TRUE(tala::is_error_result(result)) << text(result);
    const tala::Error expected = tala_language_test::overflowHostError();
    EXPECT_EQ(errorMessage(result), expected.message().toStdString());
    EXPECT_EQ(errorMessage(result), "int too big to convert");
    EXPECT_EQ(tala::raw_class_of(result), tala::raw_class_of(expected));
    // The largest 64-bit integer still fits.
    EXPECT_EQ(eval("2 ** 63 - 1").rawInteger(), INT64_MAX);
}

TEST_F(EvaluateExprTest, NameErrorIsAnErrorValue) {
    EXPECT_EQ(errorMessage(eval("undefined_name")), "name 'undefined_name' is not defined");
}

TEST_F(EvaluateExprTest, MapThatChangesWhileReadThrowsTheIteratorError) {
    // Reading an external value runs its loader, which here adds an entry to the map being read.
    // The loader holds the map's cell without a reference, so no cycle keeps the map alive.
    HashMap<String, Any> locals;
    const tala::internal::Cell* cell = locals.cell();
    locals.set(String("changing"), tala::External([cell] {
        const HashMap<String, Any> map(tala::internal::unchecked, Any::share(tala::Kind::HashMap, cell));
        map.set(String("added" + std::to_string(map.size())), Integer(1));
        return Any(Integer(5));
    }));
    locals.set(String("after"), Integer(6));
    try {
        (void)evaluate_expr(String("changing + after"), mapArgument(locals), noMap());
        ADD_FAILURE() << "no exception was thrown";
    } catch (const tala::Exception& error) {
        EXPECT_STREQ(error.what(), "[iterator_iterable_typed::operator *] The iterator is invalid.");
    }
    EXPECT_FALSE(pythonErrorPending());
    // The lock was given back: another evaluation runs.
    EXPECT_EQ(eval("1 + 1").rawInteger(), 2);
}

TEST_F(EvaluateExprTest, NamespaceDictionaryIsNotLeaked) {
    const HashMap<String, Any> locals{{String("x"), Integer(1)}};
    auto evaluateOnce = [&locals] { return evaluate_expr(String("x + 1"), mapArgument(locals), noMap()); };
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
    // A namespace dictionary left behind by each evaluation would hold dozens of blocks each time.
    EXPECT_LT(after - before, allocations.allowedGrowth())
        << allocations.unit() << " before " << before << ", after " << after;
    EXPECT_FALSE(pythonErrorPending());
}

// ---- Globals and locals of repeated evaluations ------------------------------------------------
//
// Repeated evaluations may use again a dictionary that an earlier one left: what each sees is
// still exactly a fresh copy of the namespace with its own names, whatever the earlier ones did.

TEST_F(EvaluateExprTest, GlobalsAndLocalsAreTheSameInEveryRepeatedEvaluation) {
    const HashMap<String, Any> first{{String("price"), Integer(2)}, {String("qty"), Integer(3)}};
    const HashMap<String, Any> second{{String("price"), Integer(5)}, {String("qty"), Integer(7)}};
    const char* const look = "[price * qty, [name for name in globals() if name in ('price', 'qty', 'x')], locals(), "
                             "len(globals())]";
    const std::string once = text(eval(look, first));
    EXPECT_EQ(once.substr(0, once.rfind(',')), "[6, ['price', 'qty'], {}");
    for (int round = 0; round < 3; ++round) {
        EXPECT_EQ(text(eval(look, first)), once);
        const std::string other = text(eval(look, second));
        EXPECT_EQ(other.substr(0, other.rfind(',')), "[35, ['price', 'qty'], {}");
        EXPECT_EQ(other.substr(other.rfind(',')), once.substr(once.rfind(',')));
    }
    // Other names, or the same in another order: only the names of each evaluation are there.
    const HashMap<String, Any> reordered{{String("qty"), Integer(1)}, {String("x"), Integer(4)}, {String("price"), Integer(1)}};
    const std::string fresh = text(eval(look, reordered));
    EXPECT_EQ(fresh.substr(0, fresh.rfind(',')), "[1, ['qty', 'x', 'price'], {}");
    EXPECT_EQ(text(eval(look, first)), once);
    EXPECT_EQ(text(eval(look, reordered)), fresh);
}

TEST_F(EvaluateExprTest, WhatCodeDoesToItsGlobalsIsNotSeenByTheNextEvaluation) {
    const HashMap<String, Any> locals{{String("price"), Integer(2)}};
    EXPECT_EQ(text(eval("price", locals)), "2");
    EXPECT_EQ(text(eval("globals().update(leak=1, price=9)", locals)), "None");
    EXPECT_EQ(text(eval("['leak' in globals(), price]", locals)), "[False, 2]");
    EXPECT_EQ(text(eval("globals().pop('__name__')", locals)), "'__main__'");
    EXPECT_EQ(text(eval("[__name__, price]", locals)), "['__main__', 2]");
    EXPECT_EQ(text(eval("globals().clear()", locals)), "None");
    EXPECT_EQ(text(eval("[__name__, price, len(globals()) > 2]", locals)), "['__main__', 2, True]");
}

TEST_F(EvaluateExprTest, GlobalsThatCodeKeptAreNeverUsedAgain) {
    const Any kept = eval("globals()", HashMap<String, Any>{{String("price"), Integer(2)}});
    const Any keptLocals = eval("locals()", HashMap<String, Any>{{String("price"), Integer(2)}});
    EXPECT_EQ(text(eval("price", HashMap<String, Any>{{String("price"), Integer(5)}})), "5");
    EXPECT_EQ(text(eval("[kept['price'], len(keptLocals)]",
                        HashMap<String, Any>{{String("kept"), kept}, {String("keptLocals"), keptLocals}})),
              "[2, 0]");
    // A function keeps the globals it was made in.
    const Any function = eval("lambda: price", HashMap<String, Any>{{String("price"), Integer(3)}});
    EXPECT_EQ(text(eval("price", HashMap<String, Any>{{String("price"), Integer(4)}})), "4");
    EXPECT_EQ(text(tala::I_Invokable_Generic(tala::internal::unchecked, function)()), "3");
}

TEST_F(EvaluateExprTest, LocalsThatCodeWroteAreNotSeenByTheNextEvaluation) {
    EXPECT_EQ(text(eval("[(y := 5), locals()]")), "[5, {'y': 5}]");
    EXPECT_EQ(text(eval("locals()")), "{}");
    EXPECT_EQ(text(eval("locals().update(z=1) or locals().pop('z')")), "1");
    EXPECT_EQ(text(eval("[locals(), 'z' in globals()]")), "[{}, False]");
}

TEST_F(EvaluateExprTest, TheValuesOfAnEvaluationGoWhenItEnds) {
    // A Python object that says when it is freed, handed to evaluations as a local and as self.
    Any made = eval("type('Watched', (), {'n': 7})()");
    const Any freed = eval("[]");
    const Any watch = eval("__import__('weakref').finalize(o, f.append, 1)",
                           HashMap<String, Any>{{String("o"), made}, {String("f"), freed}});
    ASSERT_FALSE(tala::is_error_result(watch)) << text(watch);
    {
        Any object = made;
        for (int round = 0; round < 3; ++round) {
            EXPECT_EQ(text(eval("o.n", HashMap<String, Any>{{String("o"), object}})), "7");
            const Any ran = tala::resolve(tala::language_python_evaluate_method(object, String("return self.n"), noMap(), noMap(),
                                                                               tala_language_test::noMutableMap()));
            EXPECT_EQ(text(ran), "7");
        }
    }
    // Read without an evaluation, which could let go of what an earlier one left.
    const auto freedCount = [&freed] { return text(tala::I_Sequence_Generic(tala::internal::unchecked, freed).length()); };
    EXPECT_EQ(freedCount(), "0");
    made = Any();
    // Nothing the evaluations left holds the object: it goes with the host's last reference.
    EXPECT_EQ(freedCount(), "1");
}

}  // namespace

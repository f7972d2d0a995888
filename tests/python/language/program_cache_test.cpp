// tests/python/language/program_cache_test.cpp: evaluated texts are compiled once and reused, the
// host namespace is kept until the modules change, and neither changes what code sees.
#include <gtest/gtest.h>

#include <string>

#include "language/evaluate.hpp"
#include "language/program_cache.hpp"
#include "language_test_support.hpp"

namespace {

using tala::Any;
using tala::HashMap;
using tala::Integer;
using tala::String;
using tala::python::testing::cachedProgramBytes;
using tala::python::testing::cachedPrograms;
using tala::python::testing::programCompilations;
using tala_language_test::errorProperty;
using tala_language_test::LanguageTest;
using tala_language_test::mapArgument;
using tala_language_test::mutableMapArgument;
using tala_language_test::noMap;
using tala_language_test::noMutableMap;
using tala_language_test::pythonErrorPending;
using tala_language_test::text;

using Map = HashMap<String, Any>;

class ProgramCacheTest : public LanguageTest {
protected:
    static Any expression(const std::string& code, const Map& locals) {
        Any result = tala::python::evaluate_expr(String(code), mapArgument(locals), noMap());
        EXPECT_FALSE(pythonErrorPending());
        return result;
    }
    static Any run(const std::string& code, const Map& locals, Map* out = nullptr) {
        Any result = tala::python::evaluate(String(code), mapArgument(locals), noMap(),
                                            out != nullptr ? mutableMapArgument(*out) : noMutableMap());
        EXPECT_FALSE(pythonErrorPending());
        return result;
    }
};

TEST_F(ProgramCacheTest, ARepeatedTextIsCompiledOnceAndSeesNewValuesOfItsLocals) {
    const std::size_t before = programCompilations();
    for (std::int64_t x = 0; x < 5; ++x) EXPECT_EQ(text(expression("x + 1000001", Map{{String("x"), Integer(x)}})), std::to_string(x + 1000001));
    EXPECT_EQ(programCompilations() - before, 1u);
    for (std::int64_t x = 0; x < 5; ++x) {
        Map out{{String("y"), Any()}};
        EXPECT_EQ(text(run("y = x * 2\nreturn y + 1000001", Map{{String("x"), Integer(x)}}, &out)), std::to_string(x * 2 + 1000001));
        EXPECT_EQ(text(*out.get(String("y"))), std::to_string(x * 2));
    }
    EXPECT_EQ(programCompilations() - before, 2u);
}

TEST_F(ProgramCacheTest, TextsThatDifferByOneCharacterGiveTheirOwnResults) {
    const Map locals{{String("x"), Integer(10)}};
    EXPECT_EQ(text(expression("x + 2000001", locals)), "2000011");
    EXPECT_EQ(text(expression("x + 2000002", locals)), "2000012");
    EXPECT_EQ(text(expression("x - 2000001", locals)), "-1999991");
    EXPECT_EQ(text(expression("x + 2000001", locals)), "2000011");
}

TEST_F(ProgramCacheTest, TheOutputNamesArePartOfWhatIsCompiled) {
    Map first{{String("a"), Any()}};
    Map second{{String("b"), Any()}};
    const char* code = "a = 1\nb = 2\nreturn 3000001";
    EXPECT_EQ(text(run(code, Map{}, &first)), "3000001");
    EXPECT_EQ(text(run(code, Map{}, &second)), "3000001");
    EXPECT_EQ(text(*first.get(String("a"))), "1");
    EXPECT_FALSE(first.get(String("b")).has_value());
    EXPECT_EQ(text(*second.get(String("b"))), "2");
    EXPECT_FALSE(second.get(String("a")).has_value());
}

TEST_F(ProgramCacheTest, AModuleRegisteredAfterAnEvaluationIsVisibleToTheNext) {
    EXPECT_EQ(text(expression("'pc_late_module' in globals()", Map{})), "False");
    const tala::Module late = tala::Module::create("pc_late_module");
    late.addFunction(String("answer"), tala::native_function([] { return std::int64_t{42}; }, "answer"));
    EXPECT_EQ(text(expression("pc_late_module.answer()", Map{})), "42");
    // A module that gains a member later shows it at the next evaluation too.
    late.addFunction(String("again"), tala::native_function([] { return std::int64_t{43}; }, "again"));
    EXPECT_EQ(text(expression("pc_late_module.again()", Map{})), "43");
}

TEST_F(ProgramCacheTest, EveryEvaluationHasGlobalsOfItsOwn) {
    EXPECT_EQ(text(run("global pc_leftover\npc_leftover = 1\nreturn 1", Map{})), "1");
    EXPECT_EQ(text(expression("'pc_leftover' in globals()", Map{})), "False");
    EXPECT_EQ(text(run("return 'pc_leftover' in globals()", Map{})), "False");
}

TEST_F(ProgramCacheTest, ATracebackOfACachedEvaluationHasTheRightLines) {
    for (int round = 0; round < 3; ++round) {
        const Any failed = run("total = 0\nfor item in items:\n    total += item['price']\nreturn total",
                               Map{{String("items"), tala::List<Any>{HashMap<String, Any>{{String("cost"), Integer(1)}}}}});
        const std::string shown = errorProperty(failed, "traceback");
        EXPECT_NE(shown.find("line 3, in tala_outer"), std::string::npos) << shown;
        EXPECT_NE(shown.find("total += item['price']"), std::string::npos) << shown;
    }
}

// Compiling runs Python code, and Python's collector may run code of the user's meanwhile (a gc
// callback, a __del__) that evaluates again on the same thread with other output names: the
// outer evaluation still stores its own output locals, and its program is found again under its
// own names.
TEST_F(ProgramCacheTest, AnEvaluationMadeWhileATextCompilesLeavesThatTextItsOwnNames) {
    ASSERT_EQ(text(run("import gc, sys\n"
                       "def reenter(phase, info):\n"
                       "    frame = sys._getframe(1)\n"
                       "    while frame is not None and frame.f_code.co_name != 'build_program':\n"
                       "        frame = frame.f_back\n"
                       "    if frame is None or phase != 'start' or reenter.done:\n"
                       "        return\n"
                       "    reenter.done = True\n"
                       "    out = {'a_much_longer_output_name_than_the_outer_one_' + str(n): None for n in range(8)}\n"
                       "    tala.python.evaluate('return 6000002', None, None, out)\n"
                       "reenter.done = False\n"
                       "gc.callbacks.append(reenter)\n"
                       "sys.modules['pc_reenter_state'] = reenter\n"
                       "return 1",
                       Map{})),
              "1");
    const auto threshold = run("import gc\nold = gc.get_threshold()\ngc.set_threshold(1)\nreturn old[0]", Map{});
    const char* code = "y = 6000001\nreturn y";
    const std::size_t before = programCompilations();
    Map out{{String("y"), Any()}};
    EXPECT_EQ(text(run(code, Map{}, &out)), "6000001");
    const Any reentered = run("import gc, sys\n"
                              "gc.set_threshold(" + text(threshold) + ")\n"
                              "state = sys.modules.pop('pc_reenter_state')\n"
                              "gc.callbacks.remove(state)\n"
                              "return state.done",
                              Map{});
    EXPECT_EQ(text(reentered), "True");
    EXPECT_EQ(text(*out.get(String("y"))), "6000001");
    // Found again under its own names: not compiled a second time.
    const std::size_t compiled = programCompilations();
    Map again{{String("y"), Any()}};
    EXPECT_EQ(text(run(code, Map{}, &again)), "6000001");
    EXPECT_EQ(text(*again.get(String("y"))), "6000001");
    EXPECT_EQ(programCompilations(), compiled);
    EXPECT_GT(compiled, before);
}

TEST_F(ProgramCacheTest, TheCacheStaysWithinItsBounds) {
    for (int index = 0; index < 2500; ++index) {
        EXPECT_EQ(text(expression("n + " + std::to_string(5000000 + index), Map{{String("n"), Integer(0)}})),
                  std::to_string(5000000 + index));
    }
    EXPECT_LE(cachedPrograms(), 2048u);
    EXPECT_GT(cachedPrograms(), 0u);
    // Large texts are bounded by their bytes.
    const std::string padding(200000, ' ');
    for (int index = 0; index < 60; ++index) {
        EXPECT_EQ(text(expression(std::to_string(index) + padding, Map{})), std::to_string(index));
    }
    EXPECT_LE(cachedProgramBytes(), 8u * 1024 * 1024);
}

}  // namespace

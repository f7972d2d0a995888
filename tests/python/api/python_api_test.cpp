// tests/python/api/python_api_test.cpp: every function of tala/python.hpp against the built extension, loaded the way
// an embedding host loads it: evaluation with and without its maps, reading results through views and exact
// conversions, imports, the search path, stubs, errors, and stopping an evaluation.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "api_test_support.hpp"

namespace {

using tala::Any;
using tala::Integer;
using tala::Result;
using tala::String;
using tala_api_test::ApiTest;
using tala_api_test::failure;
using tala_api_test::shown;
namespace py = tala::py;

// The handles that evaluations write into are values, shared by their copies.
static_assert(std::is_copy_constructible_v<py::OutLocals>);
static_assert(std::is_nothrow_default_constructible_v<py::Names>);

// ---- Evaluation ------------------------------------------------------------------------------

using Evaluation = ApiTest;

TEST_F(Evaluation, AnExpressionNeedsNoMaps) {
    EXPECT_EQ(*py::evaluate_expr("1 + 1").to<std::int64_t>(), 2);
    EXPECT_EQ(shown(py::evaluate_expr("'a' * 3")), "'aaa'");
    EXPECT_TRUE(py::evaluate_expr("None")->isEmpty());
}

TEST_F(Evaluation, NamesComeAsPairsOrAsAHostMap) {
    EXPECT_EQ(*py::evaluate_expr("x * y", {{"x", 6}, {"y", 7}}).to<std::int64_t>(), 42);
    EXPECT_EQ(*py::evaluate_expr("name.upper()", {{"name", "tea"}}).to<std::string>(), "TEA");
    EXPECT_EQ(*py::evaluate_expr("sum(prices)", {{"prices", std::vector<double>{1.5, 2.5}}}).to<double>(), 4.0);
    const tala::HashMap<String, Any> locals{{String("n"), Integer(5)}};
    EXPECT_EQ(*py::evaluate_expr("n + 1", locals).to<int>(), 6);
}

TEST_F(Evaluation, ALocalHidesAGlobalOfTheSameName) {
    EXPECT_EQ(*py::evaluate_expr("x", {{"x", 1}}, {{"x", 2}}).to<int>(), 1);
    EXPECT_EQ(*py::evaluate_expr("y", {}, {{"y", 2}}).to<int>(), 2);
}

TEST_F(Evaluation, CodeReturnsItsResultAndHandsOutLocalsBack) {
    py::OutLocals out{"count", "first"};
    const Result<Any> total = py::evaluate("count = len(items)\nfirst = items[0]\nreturn sum(items)",
                                           {{"items", std::vector<int>{4, 5, 6}}}, {}, out);
    EXPECT_EQ(*total.to<std::int64_t>(), 15);
    EXPECT_EQ(*out.get<std::int64_t>("count"), 3);
    EXPECT_EQ(*out.get<int>("first"), 4);
    EXPECT_EQ(failure(out.get("missing")), "There is no output local named 'missing'.");
    EXPECT_TRUE(py::evaluate("x = 1")->isEmpty());
}

TEST_F(Evaluation, OutLocalsMayBeAMapOfYourOwn) {
    const tala::HashMap<String, Any> map{{String("total"), Integer(10)}};
    EXPECT_TRUE(py::evaluate("total += 5", {}, {}, map).ok());
    EXPECT_EQ(shown(*map.get(String("total"))), "15");
    EXPECT_EQ(*py::OutLocals(map).get<int>("total"), 15);
    EXPECT_EQ(failure(py::OutLocals().get("total")), "There is no output local named 'total'.");
}

TEST_F(Evaluation, AMethodBodySeesSelf) {
    EXPECT_EQ(*py::evaluate_method("text", "return self.upper()").to<std::string>(), "TEXT");
    EXPECT_EQ(*py::evaluate_method(20, "return self + extra", {{"extra", 1}}).to<int>(), 21);
    py::OutLocals out{"twice"};
    EXPECT_TRUE(py::evaluate_method(4, "twice = self * 2", {}, {}, out).ok());
    EXPECT_EQ(*out.get<int>("twice"), 8);
}

TEST_F(Evaluation, AValueWithoutAHostValueFailsBeforeRunning) {
    EXPECT_EQ(failure(py::evaluate_expr("x", {{"x", UINT64_MAX}})),
              "The number 18446744073709551615 does not fit in a host integer.");
    EXPECT_EQ(failure(py::evaluate("return x", {}, {{"x", UINT64_MAX}})),
              "The number 18446744073709551615 does not fit in a host integer.");
    EXPECT_EQ(failure(py::evaluate_method(UINT64_MAX, "return self")),
              "The number 18446744073709551615 does not fit in a host integer.");
}

// ---- Reading results -------------------------------------------------------------------------

using Results = ApiTest;

TEST_F(Results, ADictIsReadLikeAHostMap) {
    const Result<tala::MapView> dict = py::evaluate_expr("{'tea': 4.5, 'cake': 3}").to<tala::MapView>();
    ASSERT_TRUE(dict.ok()) << failure(dict);
    EXPECT_EQ(*dict->size(), 2);
    EXPECT_EQ(*dict->get<double>("tea"), 4.5);
    EXPECT_TRUE(*dict->contains("cake"));
    EXPECT_EQ(*dict->find("coffee"), std::nullopt);
    EXPECT_EQ(failure(dict->get("coffee")), "'coffee'");
    std::vector<std::string> keys;
    for (const Result<Any>& key : *dict) keys.push_back(shown(key));
    EXPECT_EQ(keys, (std::vector<std::string>{"'tea'", "'cake'"}));
    EXPECT_EQ((*tala::to<std::map<std::string, double>>(*dict)),
              (std::map<std::string, double>{{"cake", 3}, {"tea", 4.5}}));
}

TEST_F(Results, ListsSetsAndGeneratorsBecomeStandardContainers) {
    EXPECT_EQ(*py::evaluate_expr("[1, 2, 3]").to<std::vector<std::int64_t>>(), (std::vector<std::int64_t>{1, 2, 3}));
    EXPECT_EQ(*py::evaluate_expr("{3, 1}").to<std::set<int>>(), (std::set<int>{1, 3}));
    EXPECT_EQ(*py::evaluate_expr("(x * x for x in range(4))").to<std::vector<int>>(), (std::vector<int>{0, 1, 4, 9}));
    EXPECT_EQ((*py::evaluate_expr("sorted({'b': 2, 'a': 1}.items())").to<std::vector<std::pair<std::string, int>>>()),
              (std::vector<std::pair<std::string, int>>{{"a", 1}, {"b", 2}}));
    const Result<tala::SequenceView> list = py::evaluate_expr("['x', 'y']").to<tala::SequenceView>();
    EXPECT_EQ(*list->at<std::string>(1), "y");
    EXPECT_EQ(*list->size(), 2);
    EXPECT_EQ(*py::evaluate_expr("{1, 2}").to<tala::SetView>()->size(), 2);
}

TEST_F(Results, ConversionsThatFit) {
    // Python's 3.0 arrives as the integer 3; both read as a double.
    EXPECT_EQ(*py::evaluate_expr("3.0").to<double>(), 3.0);
    EXPECT_EQ(*py::evaluate_expr("2 ** 62").to<std::int64_t>(), std::int64_t{1} << 62);
    EXPECT_EQ(*py::evaluate("import decimal\nreturn decimal.Decimal('0.5')").to<double>(), 0.5);
    EXPECT_EQ(*py::evaluate("import decimal\nreturn decimal.Decimal('12.00')").to<int>(), 12);
    EXPECT_EQ(py::evaluate("import decimal\nreturn decimal.Decimal('1.10')").to<tala::Decimal>()->toString(), "1.10");
}

TEST_F(Results, ConversionsThatDoNotFitAreErrors) {
    EXPECT_EQ(failure(py::evaluate("import decimal\nreturn decimal.Decimal('0.1')").to<double>()),
              "Cannot convert 0.1 to double exactly.");
    EXPECT_EQ(failure(py::evaluate_expr("2.5").to<int>()), "Cannot convert 2.5 to int32_t exactly.");
    EXPECT_EQ(failure(py::evaluate_expr("300").to<std::uint8_t>()), "The number 300 does not fit in uint8_t.");
    EXPECT_EQ(failure(py::evaluate_expr("'12'").to<int>()), "Cannot convert '12' to int32_t.");
    EXPECT_EQ(failure(py::evaluate_expr("[1, 'two']").to<std::vector<int>>()),
              "At [1]: Cannot convert 'two' to int32_t.");
    EXPECT_EQ(failure(py::evaluate_expr("{'a': 1}").to<std::vector<int>>()),
              "Cannot convert {'a': 1} to std::vector<int32_t>.");
}

TEST_F(Results, ABigPythonIntIsAnError) {
    const Result<std::int64_t> big = py::evaluate_expr("2 ** 100").to<std::int64_t>();
    ASSERT_FALSE(big.ok());
    EXPECT_EQ(py::exception_type(big.error()), "OverflowError");
    EXPECT_EQ(failure(py::evaluate_expr("[1, 2 ** 100]").to<std::vector<std::int64_t>>()), failure(big));
}

// ---- Modules, the search path, stubs ------------------------------------------------------

using Modules = ApiTest;

TEST_F(Modules, ImportByDottedPath) {
    const Result<Any> dumps = py::import_path("json.dumps");
    ASSERT_TRUE(dumps.ok()) << failure(dumps);
    ASSERT_TRUE(tala::I_Invokable_Generic::matches(*dumps));
    const Any text = tala::I_Invokable_Generic(tala::internal::unchecked, *dumps)(tala::Tuple{Integer(1), Integer(2)});
    EXPECT_EQ(shown(text), "'[1, 2]'");
    EXPECT_EQ(failure(py::import_path("os.nonexistent")), "Unable to find the object: os.nonexistent.");
    const Result<Any> missing = py::import_path("tala_no_such_module");
    EXPECT_EQ(py::exception_type(missing.error()), "ModuleNotFoundError");
    EXPECT_TRUE(py::import_path("")->isEmpty());
}

TEST_F(Modules, AddedPathsAreSearchedOnce) {
    const std::filesystem::path folder = std::filesystem::temp_directory_path() / "tala_api_test_modules";
    std::filesystem::create_directories(folder);
    std::ofstream(folder / "tala_api_test_module.py") << "ANSWER = 42\n";
    ASSERT_TRUE(py::add_sys_path(folder.string()).ok());
    ASSERT_TRUE(py::add_sys_path(folder.string()).ok());
    EXPECT_EQ(*py::import_path("tala_api_test_module.ANSWER").to<int>(), 42);
    EXPECT_EQ(*py::evaluate_expr("__import__('sys').path.count(folder)", {{"folder", folder.string()}}).to<int>(), 1);
    std::filesystem::remove_all(folder);
}

TEST_F(Modules, StubsOfAHostModule) {
    const std::optional<tala::Module> module = tala::Module::find("tala.python");
    ASSERT_TRUE(module.has_value());
    const Result<std::string> stubs = py::generate_stubs(*module);
    ASSERT_TRUE(stubs.ok()) << failure(stubs);
    EXPECT_TRUE(stubs->starts_with("from typing import Any, List, Optional, Self\nimport builtins\n")) << *stubs;
    EXPECT_NE(stubs->find("\nclass LanguagePython:\n"), std::string::npos) << *stubs;
}

// ---- Errors ----------------------------------------------------------------------------------

using Errors = ApiTest;

TEST_F(Errors, APythonExceptionTellsItsTypeAndTraceback) {
    const Result<Any> failed = py::evaluate("def inner():\n    return 1 / 0\nreturn inner()");
    ASSERT_FALSE(failed.ok());
    EXPECT_EQ(py::message(failed.error()), "division by zero");
    EXPECT_EQ(py::exception_type(failed.error()), "ZeroDivisionError");
    const std::optional<std::string> traceback = py::traceback(failed.error());
    ASSERT_TRUE(traceback.has_value());
    EXPECT_TRUE(traceback->starts_with("Traceback (most recent call last):\n")) << *traceback;
    EXPECT_NE(traceback->find("    return 1 / 0\n"), std::string::npos) << *traceback;
    EXPECT_TRUE(traceback->ends_with("ZeroDivisionError: division by zero\n")) << *traceback;
    EXPECT_EQ(py::exit_status(failed.error()), std::nullopt);
    EXPECT_FALSE(py::is_interrupted(failed.error()));
}

TEST_F(Errors, SysExitTellsItsStatus) {
    EXPECT_EQ(py::exit_status(py::evaluate("import sys\nsys.exit(3)").error()), 3);
    EXPECT_EQ(py::exit_status(py::evaluate("import sys\nsys.exit()").error()), 0);
    EXPECT_EQ(py::exit_status(py::evaluate("import sys\nsys.exit('bye')").error()), std::nullopt);
    EXPECT_EQ(py::exception_type(py::evaluate("import sys\nsys.exit(3)").error()), "SystemExit");
}

TEST_F(Errors, AnErrorNoPythonCodeRaisedHasNoPythonDetails) {
    const Result<int> failed = tala::to<int>(String("x"));
    ASSERT_FALSE(failed.ok());
    EXPECT_EQ(py::message(failed.error()), "Cannot convert 'x' to int32_t.");
    EXPECT_EQ(py::exception_type(failed.error()), std::nullopt);
    EXPECT_EQ(py::traceback(failed.error()), std::nullopt);
    EXPECT_EQ(py::exit_status(failed.error()), std::nullopt);
}

// ---- Stopping an evaluation ------------------------------------------------------------------

using Stopping = ApiTest;

TEST_F(Stopping, TheThreadIdIsPythonsIdentOfTheCallingThread) {
    const Result<std::int64_t> id = py::thread_id();
    ASSERT_TRUE(id.ok()) << failure(id);
    EXPECT_EQ(*py::evaluate_expr("__import__('threading').get_ident()").to<std::int64_t>(), *id);
    std::int64_t other = 0;
    std::thread([&other] { other = py::thread_id().value_or(0); }).join();
    EXPECT_NE(other, 0);
    EXPECT_NE(other, *id);
}

TEST_F(Stopping, InterruptStopsTheEvaluationOfAnotherThread) {
    std::atomic<std::int64_t> runnerId{0};
    Result<Any> outcome = Any();
    std::thread runner([&] {
        runnerId = py::thread_id().value_or(-1);
        outcome = py::evaluate("while True:\n    try:\n        pass\n    except BaseException:\n        pass");
    });
    while (runnerId == 0) std::this_thread::yield();
    // Asked until the evaluation runs: before it starts there is nothing to stop.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    bool stopped = false;
    while (!stopped && std::chrono::steady_clock::now() < deadline) {
        stopped = py::interrupt(runnerId).value_or(false);
        if (!stopped) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    runner.join();
    ASSERT_TRUE(stopped);
    ASSERT_FALSE(outcome.ok());
    EXPECT_TRUE(py::is_interrupted(outcome.error()));
    EXPECT_EQ(py::message(outcome.error()), "The evaluation was interrupted.");
    // A thread that runs nothing has nothing to stop.
    EXPECT_FALSE(*py::interrupt(*py::thread_id()));
}

}  // namespace

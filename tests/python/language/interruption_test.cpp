// tests/python/language/interruption_test.cpp: a host thread stops an evaluation that runs on
// another: it ends with an error that says so, the interpreter stays usable, nothing else stops.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "bridge/from_python.hpp"
#include "language/evaluate.hpp"
#include "language/interruption.hpp"
#include "language/language_python.hpp"
#include "language_test_support.hpp"

namespace {

using tala::Any;
using tala::HashMap;
using tala::Integer;
using tala::String;
using tala::python::currentThreadId;
using tala::python::interruptEvaluation;
using tala_language_test::errorMessage;
using tala_language_test::errorProperty;
using tala_language_test::LanguageTest;
using tala_language_test::mapArgument;
using tala_language_test::noMap;
using tala_language_test::noMutableMap;
using tala_language_test::text;

using Map = HashMap<String, Any>;

class InterruptionTest : public LanguageTest {};

// Runs `code` on a thread of its own with a host function `started()` that tells when the code
// runs; interrupts it once it does and answers what the evaluation gave.
struct Runner {
    std::atomic<bool> started{false};
    std::atomic<bool> finished{false};
    std::atomic<std::int64_t> threadId{0};
    Any result;
    std::thread thread;

    explicit Runner(const char* code) {
        thread = std::thread([this, code] {
            threadId = currentThreadId();
            const Map locals{{String("started"), tala::native_function([this] { started = true; }, "started")}};
            result = tala::python::evaluate(String(code), mapArgument(locals), noMap(), noMutableMap());
            finished = true;
        });
    }
    // Waits until the code runs; false, with the evaluation over, when it ended before it ran.
    bool waitUntilStarted() {
        while (!started.load() && !finished.load()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        if (started.load()) return true;
        join();
        return false;
    }
    void join() {
        if (thread.joinable()) thread.join();
    }
};

TEST_F(InterruptionTest, ARunawayLoopEndsWithAnInterruptedError) {
    tala_python_test::Watchdog watchdog(std::chrono::seconds(60));
    Runner runner("started()\nwhile True:\n    pass");
    ASSERT_TRUE(runner.waitUntilStarted()) << text(runner.result);
    EXPECT_TRUE(interruptEvaluation(runner.threadId));
    runner.join();
    EXPECT_EQ(errorMessage(runner.result), "The evaluation was interrupted.");
    EXPECT_EQ(errorProperty(runner.result, "exceptionType"), "tala.python.Interrupted");
    // The report shows the code where it stopped, and nothing of the interruption's own making.
    const std::string traceback = errorProperty(runner.result, "traceback");
    EXPECT_EQ(traceback.find("__init__"), std::string::npos) << traceback;
    EXPECT_NE(traceback.find("line 2, in tala_outer\n"), std::string::npos) << traceback;
    EXPECT_TRUE(traceback.ends_with("\ntala.python.Interrupted: The evaluation was interrupted.\n")) << traceback;
    // The interpreter is usable afterwards, on that thread's successors and here.
    EXPECT_EQ(text(tala::python::evaluate_expr(String("6 * 7"), noMap(), noMap())), "42");
}

TEST_F(InterruptionTest, CodeThatCatchesTheInterruptionWithABareExceptIsStoppedAgain) {
    tala_python_test::Watchdog watchdog(std::chrono::seconds(60));
    Runner runner("started()\n"
                  "caught = 0\n"
                  "while True:\n"
                  "    try:\n"
                  "        while True:\n"
                  "            pass\n"
                  "    except:\n"
                  "        caught += 1\n");
    ASSERT_TRUE(runner.waitUntilStarted()) << text(runner.result);
    EXPECT_TRUE(interruptEvaluation(runner.threadId));
    runner.join();
    EXPECT_EQ(errorProperty(runner.result, "exceptionType"), "tala.python.Interrupted");
}

TEST_F(InterruptionTest, AFunctionCalledFromTheHostCanBeStoppedToo) {
    tala_python_test::Watchdog watchdog(std::chrono::seconds(60));
    std::atomic<bool> started{false};
    std::atomic<std::int64_t> threadId{0};
    const Any function = tala::python::evaluate_expr(String("lambda signal: (signal(), [None for _ in iter(int, 1)])"), noMap(), noMap());
    ASSERT_TRUE(tala::I_Invokable_Generic::matches(function)) << text(function);
    Any result;
    std::thread caller([&] {
        threadId = currentThreadId();
        result = tala::I_Invokable_Generic(tala::internal::unchecked, function)(
            tala::native_function([&started] { started = true; }, "signal"));
    });
    while (!started.load()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_TRUE(interruptEvaluation(threadId));
    caller.join();
    EXPECT_EQ(errorMessage(result), "The evaluation was interrupted.");
}

TEST_F(InterruptionTest, TheInterruptionIsAKeyboardInterruptWithAMessage) {
    tala::python::GilGuard gil;
    PyObject* type = tala::python::interruptedType();
    EXPECT_EQ(PyObject_IsSubclass(type, PyExc_KeyboardInterrupt), 1);
    EXPECT_EQ(PyObject_IsSubclass(type, PyExc_Exception), 0);
    const Map locals{{String("Interrupted"), tala::python::from_python(type)}};
    EXPECT_EQ(text(tala::python::evaluate_expr(
                  String("(str(Interrupted()), Interrupted('at row 7').args, Interrupted.__module__, Interrupted.__name__)"),
                  mapArgument(locals), noMap())),
              "('The evaluation was interrupted.', ('at row 7',), 'tala.python', 'Interrupted')");
}

TEST_F(InterruptionTest, AnIdleThreadIsNotTouched) {
    std::atomic<std::int64_t> threadId{0};
    std::atomic<int> step{0};
    Any before;
    Any after;
    std::thread idle([&] {
        threadId = currentThreadId();
        before = tala::python::evaluate_expr(String("1 + 1"), noMap(), noMap());
        step = 1;
        while (step.load() != 2) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        after = tala::python::evaluate(String("total = 0\nfor i in range(100000):\n    total += i\nreturn total"), noMap(),
                                       noMap(), noMutableMap());
    });
    while (step.load() != 1) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    // Between two evaluations (after a finished one): nothing to stop, and nothing is left
    // behind for the next evaluation.
    EXPECT_FALSE(interruptEvaluation(threadId));
    step = 2;
    idle.join();
    EXPECT_EQ(text(before), "2");
    EXPECT_EQ(text(after), "4999950000");
    // A thread that never evaluated, and one that is gone.
    EXPECT_FALSE(interruptEvaluation(threadId));
    EXPECT_FALSE(interruptEvaluation(currentThreadId()));
}

TEST_F(InterruptionTest, OnlyTheTargetThreadStops) {
    tala_python_test::Watchdog watchdog(std::chrono::seconds(60));
    Runner target("started()\nwhile True:\n    pass");
    Runner other("started()\ntotal = 0\nfor i in range(3000000):\n    total += 1\nreturn total");
    EXPECT_TRUE(target.waitUntilStarted()) << text(target.result);
    EXPECT_TRUE(other.waitUntilStarted()) << text(other.result);
    EXPECT_TRUE(interruptEvaluation(target.threadId));
    target.join();
    other.join();
    EXPECT_EQ(errorMessage(target.result), "The evaluation was interrupted.");
    EXPECT_EQ(text(other.result), "3000000");
}

TEST_F(InterruptionTest, LanguagePythonStopsAnEvaluation) {
    tala_python_test::Watchdog watchdog(std::chrono::seconds(60));
    const tala::Class_Generic language = tala::LanguagePython::getClass();
    auto method = [&](const char* name) {
        return tala::definedMethod(language, tala::Identifier::intern(name)).as<tala::I_Invokable_Generic>();
    };
    Runner runner("started()\nwhile True:\n    pass");
    ASSERT_TRUE(runner.waitUntilStarted()) << text(runner.result);
    const Any interrupted = method("interrupt")(Integer(runner.threadId));
    runner.join();
    EXPECT_EQ(text(interrupted), "True");
    EXPECT_EQ(errorMessage(runner.result), "The evaluation was interrupted.");
    const Any ownId = method("threadId")();
    EXPECT_EQ(ownId.rawInteger(), currentThreadId());
    EXPECT_EQ(text(method("interrupt")(ownId)), "False");
}

}  // namespace

// tests/python/language/interruption_test.cpp: a host thread stops an evaluation that runs on
// another: it ends with an error that says so, the interpreter stays usable, nothing else stops.
#include <gtest/gtest.h>

#include <signal.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <limits>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "bridge/from_python.hpp"
#include "language/evaluate.hpp"
#include "language/interrupt_signal.hpp"
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


// ---- Waits in C, cleanup, the grace period -------------------------------------------------

using Clock = std::chrono::steady_clock;

// Evaluates `code` on the calling thread with a host function `started()`; another thread
// interrupts the evaluation `delay` after the code called it (again after `again`, when given).
// Answers the evaluation's result, and how long it took from the interruption to its end.
struct InterruptedHere {
    Any result;
    double secondsAfterInterruption = 0;
    std::vector<std::string> calls;  // what the code told the host through note(text)
};

InterruptedHere evaluateAndInterrupt(const std::string& code, double graceSeconds = tala::python::kDefaultGraceSeconds,
                                     std::chrono::milliseconds delay = std::chrono::milliseconds(50),
                                     std::chrono::milliseconds again = std::chrono::milliseconds(0)) {
    InterruptedHere outcome;
    std::atomic<bool> started{false};
    std::atomic<bool> finished{false};
    Clock::time_point asked;
    const std::int64_t threadId = currentThreadId();
    std::thread interrupter([&] {
        while (!started.load() && !finished.load()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        if (finished.load()) return;
        std::this_thread::sleep_for(delay);
        asked = Clock::now();
        EXPECT_TRUE(interruptEvaluation(threadId, graceSeconds));
        if (again.count() == 0) return;
        std::this_thread::sleep_for(again);
        if (!finished.load()) {
            EXPECT_TRUE(interruptEvaluation(threadId, graceSeconds));
        }
    });
    const Map locals{{String("started"), tala::native_function([&started] { started = true; }, "started")},
                     {String("note"), tala::native_function([&outcome](const String& what) { outcome.calls.push_back(what.toStdString()); },
                                                            "note", {"what"})}};
    outcome.result = tala::python::evaluate(String(code), mapArgument(locals), noMap(), noMutableMap());
    const auto ended = Clock::now();
    finished = true;
    interrupter.join();
    outcome.secondsAfterInterruption = std::chrono::duration<double>(ended - asked).count();
    return outcome;
}

// Code that runs until it is interrupted, in a try block whose handlers follow.
// started() is inside the try: an interruption that comes while a loaded machine has not yet let
// the code go on from it still lands in the block.
const std::string kLoopInTry = "try:\n"
                               "    started()\n"
                               "    while True:\n"
                               "        pass\n";

// Waits of Python's own in C, each on the interpreter's main thread (the thread of this test,
// which started it): each ends with the interruption long before its own end.
class MainThreadWaitTest : public InterruptionTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(MainThreadWaitTest, EndsWithTheInterruption) {
    tala_python_test::Watchdog watchdog(std::chrono::seconds(50), "A wait in C was not interrupted.");
    const InterruptedHere outcome = evaluateAndInterrupt(GetParam());
    EXPECT_EQ(errorProperty(outcome.result, "exceptionType"), "tala.python.Interrupted") << text(outcome.result);
    EXPECT_LT(outcome.secondsAfterInterruption, 10.0);
}

INSTANTIATE_TEST_SUITE_P(Waits, MainThreadWaitTest,
                         ::testing::Values("import time\nstarted()\ntime.sleep(60)",
                                           "import select, os\nr, w = os.pipe()\nstarted()\nselect.select([r], [], [], 60)",
                                           "import socket\na, b = socket.socketpair()\nstarted()\na.recv(10)",
                                           "import threading\nlock = threading.Lock()\nlock.acquire()\nstarted()\nlock.acquire()",
                                           "import threading\nstarted()\nthreading.Event().wait(60)",
                                           "import os\nr, w = os.pipe()\nstarted()\nos.read(r, 1)",
                                           "import subprocess\nchild = subprocess.Popen(['sleep', '60'])\nstarted()\n"
                                           "try:\n    child.wait()\nfinally:\n    child.kill()\n    child.wait()"));

TEST_F(InterruptionTest, TheSignalInUseIsTheDefaultOneAndSigintStaysWithTheHost) {
    EXPECT_EQ(tala::python::interruptSignalNumber(), SIGRTMAX - 2);
    struct sigaction before {};
    sigaction(SIGINT, nullptr, &before);
    EXPECT_EQ(text(tala::python::evaluate(String("import signal, subprocess\nreturn 1"), noMap(), noMap(), noMutableMap())), "1");
    struct sigaction after {};
    sigaction(SIGINT, nullptr, &after);
    EXPECT_EQ(after.sa_handler, before.sa_handler);
}

TEST_F(InterruptionTest, AWaitInCOnAnotherThreadEndsFirst) {
    tala_python_test::Watchdog watchdog(std::chrono::seconds(60));
    // CPython looks for signals on its main thread only: elsewhere the sleep goes on to its end,
    // and the interruption comes right after it.
    Runner runner("import time\nstarted()\ntime.sleep(0.5)\nwhile True:\n    pass");
    ASSERT_TRUE(runner.waitUntilStarted()) << text(runner.result);
    const auto asked = Clock::now();
    EXPECT_TRUE(interruptEvaluation(runner.threadId));
    runner.join();
    EXPECT_GT(std::chrono::duration<double>(Clock::now() - asked).count(), 0.3);
    EXPECT_EQ(errorProperty(runner.result, "exceptionType"), "tala.python.Interrupted");
}

TEST_F(InterruptionTest, FinallyBlocksRunToTheirEnd) {
    tala_python_test::Watchdog watchdog(std::chrono::seconds(60));
    // A grace period that the loop keeps within also on a loaded machine under the sanitizers,
    // where every jump of the loop calls the interruption's check.
    const InterruptedHere outcome = evaluateAndInterrupt(kLoopInTry + "finally:\n"
                                                         "    total = 0\n"
                                                         "    for i in range(100000):\n"
                                                         "        total += 1\n"
                                                         "    note(f'cleaned up {total}')\n",
                                                         10.0);
    EXPECT_EQ(outcome.calls, std::vector<std::string>{"cleaned up 100000"});
    EXPECT_EQ(errorMessage(outcome.result), "The evaluation was interrupted.");
}

TEST_F(InterruptionTest, TheInterruptionIsRaisedOnceAndHandlersRunToTheirEnd) {
    tala_python_test::Watchdog watchdog(std::chrono::seconds(60));
    const InterruptedHere outcome = evaluateAndInterrupt("import time\n"
                                                         "started()\n"
                                                         "caught = 0\n"
                                                         "try:\n"
                                                         "    time.sleep(60)\n"
                                                         "except KeyboardInterrupt:\n"
                                                         "    caught += 1\n"
                                                         "    time.sleep(0.05)\n"
                                                         "    for i in range(100000):\n"
                                                         "        pass\n"
                                                         "    note(f'caught {caught} time')\n");
    EXPECT_EQ(outcome.calls, std::vector<std::string>{"caught 1 time"});
    EXPECT_EQ(errorProperty(outcome.result, "exceptionType"), "tala.python.Interrupted");
}

TEST_F(InterruptionTest, CodeThatCatchesTheInterruptionAndReturnsStillEndsInterrupted) {
    tala_python_test::Watchdog watchdog(std::chrono::seconds(60));
    const InterruptedHere outcome = evaluateAndInterrupt(kLoopInTry + "except KeyboardInterrupt:\n"
                                                         "    note('caught')\n"
                                                         "return 'swallowed'\n");
    EXPECT_EQ(outcome.calls, std::vector<std::string>{"caught"});
    EXPECT_EQ(errorMessage(outcome.result), "The evaluation was interrupted.");
    // The report shows where the interruption hit the code, as it was first raised.
    const std::string traceback = errorProperty(outcome.result, "traceback");
    EXPECT_NE(traceback.find(", in tala_outer\n"), std::string::npos) << traceback;
    EXPECT_TRUE(traceback.ends_with("\ntala.python.Interrupted: The evaluation was interrupted.\n")) << traceback;
}

TEST_F(InterruptionTest, HandlersRunWhenTheInterruptionComesAtAJumpOnAnyThread) {
    // On a thread other than the interpreter's first no signal reaches the loop: the interruption
    // comes at one of its jumps, and the loop's own except and finally blocks still run.
    tala_python_test::Watchdog watchdog(std::chrono::seconds(60));
    for (const char* loop : {"    while True: pass\n", "    while True:\n        x = 1\n", "    for i in iter(int, 1):\n        pass\n"}) {
        std::atomic<bool> started{false};
        std::vector<std::string> notes;
        std::atomic<std::int64_t> threadId{0};
        Any result;
        std::thread runner([&] {
            threadId = currentThreadId();
            const Map locals{{String("started"), tala::native_function([&started] { started = true; }, "started")},
                             {String("note"), tala::native_function([&notes](const String& what) { notes.push_back(what.toStdString()); },
                                                                    "note", {"what"})}};
            result = tala::python::evaluate(String(std::string("started()\ntry:\n") + loop +
                                                   "except KeyboardInterrupt:\n    note('caught')\nfinally:\n    note('finally')\n"),
                                            mapArgument(locals), noMap(), noMutableMap());
        });
        while (!started.load()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        EXPECT_TRUE(interruptEvaluation(threadId));
        runner.join();
        EXPECT_EQ(notes, (std::vector<std::string>{"caught", "finally"})) << loop;
        EXPECT_EQ(errorMessage(result), "The evaluation was interrupted.") << loop;
        // The report shows where the interruption hit the loop.
        const std::string traceback = errorProperty(result, "traceback");
        EXPECT_NE(traceback.find(", in tala_outer\n"), std::string::npos) << traceback;
    }
}

TEST_F(InterruptionTest, CodeThatRaisesSomethingElseInsteadStillEndsInterrupted) {
    tala_python_test::Watchdog watchdog(std::chrono::seconds(60));
    const InterruptedHere outcome = evaluateAndInterrupt(kLoopInTry + "except BaseException:\n"
                                                         "    raise ValueError('not me')\n");
    EXPECT_EQ(errorProperty(outcome.result, "exceptionType"), "tala.python.Interrupted");
}

TEST_F(InterruptionTest, CodeStillRunningAfterTheGracePeriodIsInterruptedAgain) {
    tala_python_test::Watchdog watchdog(std::chrono::seconds(60));
    const InterruptedHere outcome = evaluateAndInterrupt(kLoopInTry + "except KeyboardInterrupt:\n"
                                                         "    note('caught')\n"
                                                         "    while True:\n"
                                                         "        pass\n",
                                                         0.5);
    EXPECT_EQ(outcome.calls, std::vector<std::string>{"caught"});
    EXPECT_EQ(errorProperty(outcome.result, "exceptionType"), "tala.python.Interrupted");
    EXPECT_GE(outcome.secondsAfterInterruption, 0.5);
}

TEST_F(InterruptionTest, InterruptingAgainEndsTheGracePeriod) {
    tala_python_test::Watchdog watchdog(std::chrono::seconds(60));
    const InterruptedHere outcome = evaluateAndInterrupt("import time\n" + kLoopInTry +
                                                         "finally:\n"
                                                         "    time.sleep(50)\n",
                                                         600, std::chrono::milliseconds(50), std::chrono::milliseconds(200));
    EXPECT_EQ(errorProperty(outcome.result, "exceptionType"), "tala.python.Interrupted");
    EXPECT_LT(outcome.secondsAfterInterruption, 30.0);
}

TEST_F(InterruptionTest, ABlockingHostCallIsStoppedOnAnyThreadAndLaterCallsRun) {
    tala_python_test::Watchdog watchdog(std::chrono::seconds(60));
    // wait() blocks until its cancel function wakes it, then fails with an error of its own;
    // Python sees the interruption instead. The call in the finally block is not stopped.
    struct Gate {
        std::mutex mutex;
        std::condition_variable changed;
        bool open = false;
    };
    auto gate = std::make_shared<Gate>();
    const tala::I_Invokable_Generic wait = tala::blocking(
        tala::native_function(
            [gate]() -> Any {
                std::unique_lock lock(gate->mutex);
                gate->changed.wait_for(lock, std::chrono::seconds(30), [&gate] { return gate->open; });
                return tala::Error(String("The wait was cancelled."));
            },
            "wait"),
        [gate](std::span<const Any>) {
            {
                std::lock_guard lock(gate->mutex);
                gate->open = true;
            }
            gate->changed.notify_all();
        });
    const tala::I_Invokable_Generic pause = tala::blocking(tala::native_function(
        [] {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            return String("paused");
        },
        "pause"));
    std::atomic<std::int64_t> threadId{0};
    std::atomic<bool> started{false};
    Any result;
    std::vector<std::string> notes;
    std::thread runner([&] {
        threadId = currentThreadId();
        const Map locals{{String("started"), tala::native_function([&started] { started = true; }, "started")},
                         {String("wait"), wait},
                         {String("pause"), pause},
                         {String("note"), tala::native_function([&notes](const String& what) { notes.push_back(what.toStdString()); },
                                                                "note", {"what"})}};
        result = tala::python::evaluate(String("started()\n"
                                               "try:\n"
                                               "    wait()\n"
                                               "except KeyboardInterrupt as error:\n"
                                               "    note(type(error).__name__)\n"
                                               "    note(pause())\n"),
                                        mapArgument(locals), noMap(), noMutableMap());
    });
    while (!started.load()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    const auto asked = std::chrono::steady_clock::now();
    EXPECT_TRUE(interruptEvaluation(threadId));
    runner.join();
    // The cancel function ended the wait: it did not run out its 30 seconds.
    EXPECT_TRUE(gate->open);
    EXPECT_LT(std::chrono::steady_clock::now() - asked, std::chrono::seconds(10));
    EXPECT_EQ(notes, (std::vector<std::string>{"Interrupted", "paused"}));
    EXPECT_EQ(errorProperty(result, "exceptionType"), "tala.python.Interrupted");
}

TEST_F(InterruptionTest, TheGracePeriodMustBeANumberOfSeconds) {
    const tala::Class_Generic language = tala::LanguagePython::getClass();
    const auto interrupt = tala::definedMethod(language, tala::Identifier::intern("interrupt")).as<tala::I_Invokable_Generic>();
    EXPECT_EQ(errorMessage(interrupt(Integer(currentThreadId()), Integer(-1))),
              "The grace period must be a number of seconds, not -1.");
    EXPECT_EQ(errorMessage(interrupt(Integer(currentThreadId()), String("soon"))),
              "The grace period must be a number of seconds, not 'soon'.");
    EXPECT_EQ(text(interrupt(Integer(currentThreadId()), tala::Float(0.5))), "False");
    EXPECT_EQ(errorMessage(interrupt(Integer(currentThreadId()), tala::Float(std::nan("")))),
              "The grace period must be a number of seconds, not nan.");
}

TEST_F(InterruptionTest, AnEndlessGracePeriodStillStopsTheEvaluation) {
    // Infinity and a grace too long for the clock: the code is stopped once and never again,
    // so a handler that loops runs to its end (it says so by calling started() again); the
    // evaluation ends interrupted.
    const tala::Class_Generic language = tala::LanguagePython::getClass();
    const auto interrupt = tala::definedMethod(language, tala::Identifier::intern("interrupt")).as<tala::I_Invokable_Generic>();
    for (const double grace : {std::numeric_limits<double>::infinity(), 1e300}) {
        tala_python_test::Watchdog watchdog(std::chrono::seconds(60));
        Runner runner("started()\n"
                      "try:\n"
                      "    while True:\n"
                      "        pass\n"
                      "except KeyboardInterrupt:\n"
                      "    for i in range(100000):\n"
                      "        pass\n"
                      "    started()");
        ASSERT_TRUE(runner.waitUntilStarted()) << text(runner.result);
        runner.started = false;
        EXPECT_EQ(text(interrupt(Integer(runner.threadId.load()), tala::Float(grace))), "True");
        runner.join();
        EXPECT_TRUE(runner.started.load()) << "the handler was stopped again: " << grace;
        EXPECT_EQ(errorMessage(runner.result), "The evaluation was interrupted.");
    }
}

}  // namespace

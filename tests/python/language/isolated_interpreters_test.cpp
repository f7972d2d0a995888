// tests/python/language/isolated_interpreters_test.cpp: host threads in isolated interpreters, and host values that cross between them.
//
// A program of its own: the layout (isolated, four interpreters at most, set as the host's language
// options) is read once, when Python starts.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <latch>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "extension/sys_path.hpp"
#include "language/interruption.hpp"
#include "language_test_support.hpp"

namespace {

using tala::Any;
using tala::HashMap;
using tala::Integer;
using tala::String;
using tala::python::Interpreter;
using tala_language_test::errorMessage;
using tala_language_test::LanguageTest;
using tala_language_test::mapArgument;
using tala_language_test::noMap;
using tala_language_test::noMutableMap;
using tala_language_test::text;

class IsolatedInterpretersTest : public LanguageTest {
protected:
    static void SetUpTestSuite() {
        tala::set_language_option("python.interpreters", String("isolated"));
        tala::set_language_option("python.interpreterCount", Integer(4));
        LanguageTest::SetUpTestSuite();
    }
    void SetUp() override {
        ASSERT_TRUE(tala_python_test::isolatedLayout());
        ASSERT_EQ(tala::python::interpreterBound(), 4);
    }
};

// The interpreter the calling thread enters by default (its home).
Interpreter* homeHere() {
    tala::python::GilGuard gil;
    return tala::python::currentInterpreter();
}

Any eval(const std::string& code, const HashMap<String, Any>& locals = {}) {
    return tala::python::evaluate_expr(String(code), mapArgument(locals), noMap());
}

Any run(const std::string& code, const HashMap<String, Any>& locals = {}) {
    return tala::python::evaluate(String(code), mapArgument(locals), noMap(), noMutableMap());
}

// Runs `work` on `count` threads that all live until every one has run it, so that each is a
// host thread of its own in the pool at the same time.
template <typename Work>
void onThreadsAtOnce(int count, Work work) {
    std::latch done(count);
    std::latch leave(1);
    std::vector<std::thread> threads;
    for (int index = 0; index < count; ++index) {
        threads.emplace_back([&, index] {
            work(index);
            done.count_down();
            leave.wait();
        });
    }
    done.wait();
    leave.count_down();
    for (std::thread& thread : threads) thread.join();
}

TEST_F(IsolatedInterpretersTest, EachThreadHasAnInterpreterOfItsOwnUpToTheBoundAndKeepsIt) {
    Interpreter* mainHome = homeHere();
    ASSERT_NE(mainHome, nullptr);
    EXPECT_TRUE(mainHome->isMain());
    std::vector<Interpreter*> first(3, nullptr);
    std::vector<Interpreter*> again(3, nullptr);
    onThreadsAtOnce(3, [&](int index) {
        first[index] = homeHere();
        (void)eval("1 + 1");
        again[index] = homeHere();
    });
    const std::set<Interpreter*> distinct(first.begin(), first.end());
    EXPECT_EQ(distinct.size(), 3u) << "three threads next to the main one share no interpreter";
    for (int index = 0; index < 3; ++index) {
        EXPECT_NE(first[index], mainHome);
        EXPECT_EQ(first[index], again[index]) << "a thread keeps its interpreter";
    }
    EXPECT_LE(tala::python::allInterpreters().size(), 4u);
}

TEST_F(IsolatedInterpretersTest, ThreadsBeyondTheBoundShareTheLeastLoadedInterpreters) {
    std::vector<Interpreter*> homes(8, nullptr);
    onThreadsAtOnce(8, [&](int index) { homes[index] = homeHere(); });
    const std::set<Interpreter*> distinct(homes.begin(), homes.end());
    EXPECT_LE(distinct.size(), 4u);
    EXPECT_GE(distinct.size(), 3u);
    EXPECT_EQ(tala::python::allInterpreters().size(), 4u);
}

TEST_F(IsolatedInterpretersTest, APythonObjectIsUsedFromAnotherInterpreterThroughTheHost) {
    Any counter;
    Interpreter* maker = nullptr;
    Interpreter* user = nullptr;
    std::string answer;
    std::string answerAtHome;
    std::latch made(1);
    std::latch used(1);
    // Both threads live at once, so that each has an interpreter of its own.
    std::thread making([&] {
        maker = homeHere();
        counter = run("class Counter:\n"
                      "    def __init__(self):\n"
                      "        self.total = 0\n"
                      "    def add(self, n):\n"
                      "        self.total += n\n"
                      "        return self.total\n"
                      "return Counter()");
        made.count_down();
        used.wait();
        // Back in its own interpreter it is the Python object itself.
        answerAtHome = text(eval("(type(c).__name__, c.total)", {{String("c"), counter}}));
    });
    std::thread using_([&] {
        user = homeHere();
        made.wait();
        answer = text(eval("(c.add(20), c.add(22), c.total, type(c).__name__)", {{String("c"), counter}}));
        used.count_down();
    });
    making.join();
    using_.join();
    ASSERT_FALSE(tala::is_error_result(counter)) << text(counter);
    EXPECT_EQ(tala::python::ownerOf(counter), maker);
    EXPECT_NE(user, maker);
    EXPECT_EQ(answer, "(20, 42, 42, 'PythonProxy')");
    EXPECT_EQ(answerAtHome, "('Counter', 42)");
}

TEST_F(IsolatedInterpretersTest, AnErrorWithItsTracebackIsReadOnAnotherThread) {
    // The thread that made the error lives on while another reads it: the two have different
    // interpreters.
    Any error;
    Any shown;
    std::string traceback;
    Interpreter* madeIn = nullptr;
    Interpreter* readIn = nullptr;
    std::latch made(1);
    std::latch read(1);
    std::thread maker([&] {
        error = run("def inner():\n    raise KeyError('lost')\ninner()");
        madeIn = homeHere();
        made.count_down();
        read.wait();
    });
    std::thread reader([&] {
        made.wait();
        readIn = homeHere();
        shown = eval("e", {{String("e"), error}});
        traceback = tala_language_test::errorProperty(error, "traceback");
        read.count_down();
    });
    maker.join();
    reader.join();
    ASSERT_TRUE(tala::Error::matches(error)) << text(error);
    EXPECT_NE(madeIn, readIn);
    // An error handed to Python is raised there, in the reader's interpreter, and comes back.
    EXPECT_EQ(errorMessage(shown), "'lost'");
    EXPECT_NE(traceback.find("in inner"), std::string::npos) << traceback;
    EXPECT_EQ(errorMessage(error), "'lost'");
}

TEST_F(IsolatedInterpretersTest, CallsGoBetweenInterpretersFiftyDeepFromFourThreads) {
    // One function in each of two interpreters; each calls the other, 50 calls deep in all.
    const char* kBounce = "def bounce(n, other, me):\n"
                          "    return 0 if n == 0 else other(n - 1, me, other) + 1\n"
                          "return bounce";
    Any first;
    Any second;
    Interpreter* firstHome = nullptr;
    Interpreter* secondHome = nullptr;
    onThreadsAtOnce(2, [&](int index) {
        (index == 0 ? first : second) = run(kBounce);
        (index == 0 ? firstHome : secondHome) = homeHere();
    });
    ASSERT_FALSE(tala::is_error_result(first)) << text(first);
    ASSERT_FALSE(tala::is_error_result(second)) << text(second);
    ASSERT_NE(firstHome, secondHome);
    std::vector<std::string> results(4);
    onThreadsAtOnce(4, [&](int index) {
        results[index] = text(eval("f(50, g, f)", {{String("f"), first}, {String("g"), second}}));
    });
    for (const std::string& result : results) EXPECT_EQ(result, "50");
}

TEST_F(IsolatedInterpretersTest, ModulesThatCannotBeIsolatedFailWithPythonsImportError) {
    std::string answer;
    std::thread([&] {
        ASSERT_FALSE(homeHere()->isMain());
        answer = text(run("try:\n"
                          "    import readline\n"
                          "except ImportError as e:\n"
                          "    return 'ImportError: ' + str(e)\n"
                          "return 'imported'"));
    }).join();
    EXPECT_EQ(answer.rfind("'ImportError: ", 0), 0u) << answer;
    EXPECT_NE(answer.find("subinterpreters"), std::string::npos) << answer;
}

TEST_F(IsolatedInterpretersTest, ASearchPathAddedLaterReachesEveryInterpreter) {
    // Interpreters made before the path is added, and one made after.
    const std::string folder = (std::filesystem::temp_directory_path() / "tala_isolated_path_test").string();
    std::vector<std::string> before(3);
    onThreadsAtOnce(3, [&](int index) {
        before[index] = text(run("import sys\nreturn sys.path.count(folder)", {{String("folder"), String(folder)}}));
    });
    for (const std::string& count : before) EXPECT_EQ(count, "0");
    std::filesystem::create_directories(folder);
    const Any added = tala::python::python_add_sys_path(String(folder));
    ASSERT_FALSE(tala::is_error_result(added)) << text(added);
    std::vector<std::string> after(5);
    onThreadsAtOnce(5, [&](int index) {
        after[index] = text(run("import sys\nreturn sys.path.count(folder)", {{String("folder"), String(folder)}}));
    });
    for (const std::string& count : after) EXPECT_EQ(count, "1");
    std::filesystem::remove_all(folder);
}

TEST_F(IsolatedInterpretersTest, LoggingFromEveryInterpreterReachesTheHostLogger) {
    std::mutex mutex;
    std::set<std::string> messages;
    const int sink = tala::get_logger().addSink([&](const tala::LogRecord& record) {
        std::lock_guard lock(mutex);
        messages.insert(record.message().toStdString());
    });
    std::set<Interpreter*> homes;
    std::mutex homesMutex;
    onThreadsAtOnce(4, [&](int index) {
        Interpreter* home = homeHere();
        {
            std::lock_guard lock(homesMutex);
            homes.insert(home);
        }
        const Any done = run("import logging\nlogging.getLogger('isolated').warning('from thread %d', n)",
                             {{String("n"), Integer(index)}});
        EXPECT_FALSE(tala::is_error_result(done)) << text(done);
    });
    tala::get_logger().removeSink(sink);
    EXPECT_GE(homes.size(), 3u);
    for (int index = 0; index < 4; ++index) {
        EXPECT_EQ(messages.count("from thread " + std::to_string(index)), 1u) << index;
    }
}

TEST_F(IsolatedInterpretersTest, AnEvaluationInASubInterpreterIsInterrupted) {
    std::atomic<std::int64_t> threadId{0};
    std::atomic<bool> started{false};
    Any result;
    std::thread runner([&] {
        ASSERT_FALSE(homeHere()->isMain());
        threadId = tala::python::currentThreadId();
        const Any signal = tala::native_function([&started] { started = true; }, "started");
        result = run("started()\nwhile True:\n    pass", {{String("started"), signal}});
    });
    while (!started.load()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_TRUE(tala::python::interruptEvaluation(threadId));
    runner.join();
    EXPECT_EQ(tala_language_test::errorProperty(result, "exceptionType"), "tala.python.Interrupted");
}

TEST_F(IsolatedInterpretersTest, ObjectsDroppedOutsideTheirInterpreterAreFreedThere) {
    const Any counted = run("class Counted:\n"
                            "    live = 0\n"
                            "    def __init__(self):\n"
                            "        Counted.live += 1\n"
                            "    def __del__(self):\n"
                            "        Counted.live -= 1\n"
                            "return Counted");
    ASSERT_FALSE(tala::is_error_result(counted)) << text(counted);
    std::vector<Any> made;
    for (int index = 0; index < 100; ++index) made.push_back(eval("Counted()", {{String("Counted"), counted}}));
    EXPECT_EQ(text(eval("Counted.live", {{String("Counted"), counted}})), "100");
    // Dropped on a thread that never ran Python, and on one inside another interpreter.
    std::thread([&] { made.resize(50); }).join();
    Interpreter* owner = homeHere();
    std::thread([&] {
        ASSERT_NE(homeHere(), owner);
        (void)eval("1");
        made.clear();
    }).join();
    // Neither thread could enter the objects' interpreter: they wait there to be freed.
    EXPECT_TRUE(owner->hasPendingReleases());
    tala::python::releasePendingEverywhere();
    EXPECT_FALSE(owner->hasPendingReleases());
    EXPECT_EQ(text(eval("Counted.live", {{String("Counted"), counted}})), "0");
}

}  // namespace

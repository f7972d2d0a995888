// tests/sqlite/threads_test.cpp: one Database used by several host threads at once, directly and
// from Python code that each thread evaluates, and closed while others use it.
#include <atomic>
#include <chrono>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "sqlite_test_support.hpp"
#include "tala/cancellation.hpp"

namespace {

using namespace tala_sqlite_test;

class ThreadsTest : public SqliteTest {
protected:
    void SetUp() override {
        database = memory();
        script(database, "CREATE TABLE events (id INTEGER PRIMARY KEY, thread INTEGER, n INTEGER)");
    }

    tala::sqlite::Database database{tala::internal::unchecked, Any()};
};

TEST_F(ThreadsTest, ThreadsWritingAndReadingOneDatabase) {
    constexpr int kWriters = 4;
    constexpr int kInserts = 250;
    std::atomic<int> failures{0};
    std::atomic<bool> writing{true};
    std::atomic<int> reads{0};
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kWriters; ++thread) {
        threads.emplace_back([&, thread] {
            // Writing starts once the readers are reading, so that the two overlap.
            while (reads.load() < 2) std::this_thread::yield();
            for (int n = 0; n < kInserts; ++n) {
                const Any changed = call(database, "execute", {String("INSERT INTO events (thread, n) VALUES (?, ?)"),
                                                               List<Any>{Integer(thread), Integer(n)}});
                if (text(changed) != "1") ++failures;
            }
        });
    }
    // Readers meanwhile: every count they see is a whole number of rows, never an error.
    for (int reader = 0; reader < 2; ++reader) {
        threads.emplace_back([&] {
            do {
                const Any rows = call(database, "query", {String("SELECT count(*) AS n FROM events")});
                if (!List<Any>::matches(rows)) ++failures;
                ++reads;
            } while (writing.load());
        });
    }
    for (int index = 0; index < kWriters; ++index) threads[static_cast<std::size_t>(index)].join();
    writing = false;
    for (std::size_t index = kWriters; index < threads.size(); ++index) threads[index].join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_GE(reads.load(), 2);
    EXPECT_EQ(text(call(database, "query", {String("SELECT count(*) AS n, count(DISTINCT thread) AS threads FROM events")})),
              "[Row(n=1000, threads=4)]");
    // Each thread's own rows went in in its own order.
    EXPECT_EQ(text(call(database, "query", {String("SELECT count(*) AS n FROM events a JOIN events b ON a.thread = b.thread "
                                                   "AND a.n < b.n AND a.id > b.id")})),
              "[Row(n=0)]");
}

TEST_F(ThreadsTest, ThreadsEvaluatingPythonWithOneDatabase) {
    constexpr int kThreads = 4;
    std::vector<std::string> results(kThreads);
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([&, thread] {
            const Any result = evaluate(R"PY(
db.executeMany("INSERT INTO events (thread, n) VALUES (?, ?)", [(me, n) for n in range(100)])
total = 0
for row in db.query("SELECT n FROM events WHERE thread = ?", [me]):
    total += row.n
return total
)PY", Map{{String("db"), database}, {String("me"), Integer(thread)}});
            results[static_cast<std::size_t>(thread)] = tala::is_error_result(result) ? errorMessage(result) : text(result);
        });
    }
    for (std::thread& thread : threads) thread.join();
    for (const std::string& result : results) EXPECT_EQ(result, "4950");
    EXPECT_EQ(text(call(database, "query", {String("SELECT count(*) AS n FROM events")})), "[Row(n=400)]");
}

TEST_F(ThreadsTest, ClosingWhileOtherThreadsQueryFailsTheirLaterCallsCleanly) {
    script(database, "INSERT INTO events (thread, n) VALUES (0, 1)");
    constexpr int kReaders = 3;
    std::atomic<int> unexpected{0};
    std::atomic<int> closedSeen{0};
    std::atomic<int> reads{0};
    std::vector<std::thread> threads;
    for (int reader = 0; reader < kReaders; ++reader) {
        threads.emplace_back([&] {
            // Until this thread sees the database closed (bounded, should the close never come).
            for (int round = 0; round < 1000000; ++round) {
                const Any rows = call(database, "query", {String("SELECT n FROM events")});
                ++reads;
                if (!tala::is_error_result(rows)) {
                    if (text(rows) != "[Row(n=1)]") ++unexpected;
                    continue;
                }
                if (errorMessage(rows) == "The database is closed.") {
                    ++closedSeen;
                } else {
                    ++unexpected;
                }
                return;
            }
        });
    }
    while (reads.load() < 30) std::this_thread::yield();
    EXPECT_TRUE(call(database, "close").isEmpty());
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(unexpected.load(), 0);
    EXPECT_EQ(closedSeen.load(), kReaders);
}

TEST_F(ThreadsTest, StatementsLetOtherPythonThreadsRunWhileTheyWork) {
    // The statement methods are blocking functions: Python lets go of its lock while they run.
    for (const char* name : {"query", "execute", "executeMany", "executeScript", "close"}) {
        const Any method = tala::method_of(database, tala::Identifier::intern(name));
        ASSERT_FALSE(method.isEmpty()) << name;
        EXPECT_TRUE(tala::I_Invokable_Generic(tala::internal::unchecked, method).isBlocking()) << name;
    }
    // A Python thread counts while a slow query (a recursive count to two million) runs on the
    // thread that started it.
    const Any result = evaluate(R"PY(
import threading
state = {'count': 0, 'stop': False}
def counter(state):
    while not state['stop']:
        state['count'] += 1
t = threading.Thread(target=counter, args=(state,))
t.start()
before = state['count']
rows = db.query("WITH RECURSIVE c(n) AS (SELECT 1 UNION ALL SELECT n + 1 FROM c WHERE n < 2000000) SELECT count(*) AS n FROM c")
during = state['count'] - before
state['stop'] = True
t.join()
return (rows[0].n, during > 1000)
)PY", Map{{String("db"), database}});
    EXPECT_EQ(text(result), "(2000000, True)") << errorMessage(result);
}

// A static method of LanguagePython (threadId, interrupt), called through the object model.
Any languageMethod(const char* name, std::initializer_list<Any> arguments) {
    const auto module = tala::Module::find("tala.python");
    const auto language = tala::Class_Generic::cast(module->classes().get(String("LanguagePython")).value_or(Any()));
    return tala::resolve(tala::definedMethod(*language, tala::Identifier::intern(name)).as<tala::I_Invokable_Generic>().invokeWith(arguments));
}

TEST_F(ThreadsTest, AnInterruptedEvaluationStopsItsRunningStatementAndKeepsTheConnection) {
    // A runaway recursive query, stopped with SQLite's own interrupt: the script sees the
    // interruption, its finally block still writes through the same connection.
    std::atomic<bool> started{false};
    Any threadId;
    Any result;
    std::thread runner([&] {
        threadId = languageMethod("threadId", {});
        result = evaluate(R"PY(
started()
try:
    db.query("WITH RECURSIVE c(x) AS (SELECT 1 UNION ALL SELECT x + 1 FROM c) SELECT count(*) FROM c")
finally:
    db.execute("INSERT INTO events (thread, n) VALUES (7, 7)")
)PY", Map{{String("db"), database}, {String("started"), tala::native_function([&started] { started = true; }, "started")}});
    });
    while (!started.load()) std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(text(languageMethod("interrupt", {threadId})), "True");
    runner.join();
    EXPECT_EQ(errorMessage(result), "The evaluation was interrupted.");
    EXPECT_EQ(text(call(database, "query", {String("SELECT thread, n FROM events")})), "[Row(thread=7, n=7)]");
}

TEST_F(ThreadsTest, AStopAskedAtAnyMomentOfACallEndsItsStatement) {
    // The request comes at a random moment: before the call takes the connection, while it
    // prepares the statement, before the statement's first step or while it runs. Each time the
    // long count ends early as interrupted instead of giving its total.
    const String longCount("WITH RECURSIVE c(x) AS (SELECT 1 UNION ALL SELECT x + 1 FROM c WHERE x < 20000000) SELECT count(*) FROM c");
    std::mt19937 random(20261124);
    std::uniform_int_distribution<int> delayNanoseconds(0, 150000);
    for (int round = 0; round < 1000; ++round) {
        std::atomic<std::uint64_t> key{0};
        Any outcome;
        std::thread caller([&] {
            const tala::BlockingCall blocking;
            key = tala::current_thread_key();
            outcome = call(database, "query", {longCount});
        });
        while (key.load() == 0) std::this_thread::yield();
        const auto until = std::chrono::steady_clock::now() + std::chrono::nanoseconds(delayNanoseconds(random));
        while (std::chrono::steady_clock::now() < until) {
        }
        EXPECT_NE(tala::cancel_blocking_call(key.load()), tala::CancelOutcome::NoCall);
        caller.join();
        ASSERT_EQ(errorMessage(outcome), "interrupted") << "round " << round << ": " << text(outcome);
    }
}

}  // namespace

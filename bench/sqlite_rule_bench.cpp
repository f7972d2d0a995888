// bench/sqlite_rule_bench.cpp: a per-row rule over 100,000 rows of a database: `price * qty`
// evaluated for each row from the host, next to the same loop written in plain Python over the
// standard library's sqlite3 rows in the same process, which is the floor.
//
// Every benchmark reads the 100,000 rows (price DECIMAL(10,2), qty INTEGER) and computes the
// product for each, per iteration:
//   HostRule_RowAsLocals   the host queries through the sqlite module, then calls evaluate_expr
//                          ("price * qty", locals = the row) once per row: a Row is a map, so its
//                          columns are the expression's names
//   HostRule_RowAsLocal    the same with locals {"row": row} and "row.price * row.qty"
//   PythonLoop_HostRows    one evaluated Python loop over db.query(...): row.price * row.qty
//   PythonLoop_Sqlite3Rows one evaluated Python loop over sqlite3 rows (sqlite3.Row, DECIMAL
//                          columns converted to decimal.Decimal as the module does): the floor
// After the benchmarks a summary gives rows per second for each (best of several runs, CPU time
// of this thread) and the ratio of each to the floor.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <string>

#include "database.hpp"
#include "loaded_extension.hpp"
#include "row.hpp"
#include "tala/tala.hpp"

namespace {

using tala::Any;
using tala::HashMap;
using tala::String;

constexpr std::int64_t kRows = 100000;

// The Python extension loaded as a host loads it, and the database filled once.
struct Setup {
    std::string path;
    tala::sqlite::Database database{tala::internal::unchecked, Any()};
    tala::I_Invokable_Generic evaluate{tala::internal::unchecked, Any()};
    tala::I_Invokable_Generic evaluateExpr{tala::internal::unchecked, Any()};
    bool ready = false;

    Setup() {
        if (!tala_bench::loadPythonExtension()) return;
        evaluate = tala::I_Invokable_Generic(tala::internal::unchecked, tala_bench::pythonModuleFunction("evaluate"));
        evaluateExpr = tala::I_Invokable_Generic(tala::internal::unchecked, tala_bench::pythonModuleFunction("evaluate_expr"));
        path = (std::filesystem::temp_directory_path() / ("tala_bench_rule_" + std::to_string(getpid()) + ".db")).string();
        std::filesystem::remove(path);
        const Any opened = tala::sqlite::openDatabase(String(path));
        if (!tala::sqlite::Database::matches(opened)) {
            std::fprintf(stderr, "%s\n", tala::display(opened).c_str());
            return;
        }
        database = tala::sqlite::Database(tala::internal::unchecked, opened);
        const Any filled = run(R"PY(
db.executeScript("CREATE TABLE items (id INTEGER PRIMARY KEY, price DECIMAL(10,2), qty INTEGER)")
return db.executeMany("INSERT INTO items (price, qty) VALUES (?, ?)",
                      [(f"{n % 500}.{n % 100:02d}", n % 13) for n in range(rows)])
)PY");
        if (tala::display(filled) != String(std::to_string(kRows))) {
            std::fprintf(stderr, "filling the database failed: %s\n", tala::display(filled).c_str());
            return;
        }
        ready = true;
    }
    ~Setup() {
        (void)tala::internal::callMember(database, tala::Identifier("$close"), {});
        std::filesystem::remove(path);
    }

    Any run(const char* code) const {
        const HashMap<String, Any> locals{{String("db"), database}, {String("path"), String(path)}, {String("rows"), tala::Integer(kRows)}};
        return tala::resolve(evaluate(String(code), locals, Any(), Any()));
    }
    Any rows() const {
        return tala::resolve(tala::internal::callMember(database, tala::Identifier("$query"),
                                                        {String("SELECT price, qty FROM items")}));
    }
};

Setup& setup() {
    static Setup* instance = new Setup();
    return *instance;
}

// ---- The four ways, each answering the number of rows it computed (0 on failure) ---------------

std::int64_t hostRuleRowAsLocals() {
    const Any rows = setup().rows();
    if (!tala::List_Generic::matches(rows)) return 0;
    const String expression("price * qty");
    std::int64_t count = 0;
    for (const Any& row : tala::List_Generic(tala::internal::unchecked, rows)) {
        const Any total = tala::resolve(setup().evaluateExpr(expression, row, Any()));
        if (tala::is_error_result(total)) return 0;
        ++count;
    }
    return count;
}

std::int64_t hostRuleRowAsLocal() {
    const Any rows = setup().rows();
    if (!tala::List_Generic::matches(rows)) return 0;
    const String expression("row.price * row.qty");
    const String name("row");
    std::int64_t count = 0;
    for (const Any& row : tala::List_Generic(tala::internal::unchecked, rows)) {
        const HashMap<String, Any> locals{{name, row}};
        const Any total = tala::resolve(setup().evaluateExpr(expression, locals, Any()));
        if (tala::is_error_result(total)) return 0;
        ++count;
    }
    return count;
}

std::int64_t pythonLoop(const char* code) {
    const Any count = setup().run(code);
    return count.kind() == tala::Kind::Integer ? count.rawInteger() : 0;
}

const char* const kLoopOverHostRows = R"PY(
count = 0
for row in db.query("SELECT price, qty FROM items"):
    total = row.price * row.qty
    count += 1
return count
)PY";

const char* const kLoopOverSqlite3Rows = R"PY(
import sqlite3
from decimal import Decimal
sqlite3.register_converter("DECIMAL", lambda text: Decimal(text.decode()))
connection = sqlite3.connect(path, detect_types=sqlite3.PARSE_DECLTYPES)
connection.row_factory = sqlite3.Row
count = 0
for row in connection.execute("SELECT price, qty FROM items"):
    total = row["price"] * row["qty"]
    count += 1
connection.close()
return count
)PY";

std::int64_t pythonLoopOverHostRows() { return pythonLoop(kLoopOverHostRows); }
std::int64_t pythonLoopOverSqlite3Rows() { return pythonLoop(kLoopOverSqlite3Rows); }

void runBenchmark(benchmark::State& state, std::int64_t (*way)()) {
    if (!setup().ready) {
        state.SkipWithError("the set-up failed");
        return;
    }
    for (auto _ : state) {
        if (way() != kRows) {
            state.SkipWithError("a row failed");
            return;
        }
    }
    state.SetItemsProcessed(state.iterations() * kRows);
    state.counters["rows/s"] = benchmark::Counter(static_cast<double>(state.iterations() * kRows), benchmark::Counter::kIsRate);
}

void BM_HostRule_RowAsLocals(benchmark::State& state) { runBenchmark(state, hostRuleRowAsLocals); }
BENCHMARK(BM_HostRule_RowAsLocals)->Unit(benchmark::kMillisecond);

void BM_HostRule_RowAsLocal(benchmark::State& state) { runBenchmark(state, hostRuleRowAsLocal); }
BENCHMARK(BM_HostRule_RowAsLocal)->Unit(benchmark::kMillisecond);

void BM_PythonLoop_HostRows(benchmark::State& state) { runBenchmark(state, pythonLoopOverHostRows); }
BENCHMARK(BM_PythonLoop_HostRows)->Unit(benchmark::kMillisecond);

void BM_PythonLoop_Sqlite3Rows(benchmark::State& state) { runBenchmark(state, pythonLoopOverSqlite3Rows); }
BENCHMARK(BM_PythonLoop_Sqlite3Rows)->Unit(benchmark::kMillisecond);

// ---- Summary ----------------------------------------------------------------------------------

// CPU time of this thread: other processes on a busy machine do not count.
double threadCpuSeconds() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// Rows per second, the best of `runs` runs; 0 when a run fails.
double bestRowsPerSecond(std::int64_t (*way)(), int runs) {
    double best = 0;
    for (int run = 0; run < runs; ++run) {
        const double start = threadCpuSeconds();
        if (way() != kRows) return 0;
        best = std::max(best, static_cast<double>(kRows) / (threadCpuSeconds() - start));
    }
    return best;
}

void printSummary() {
    if (!setup().ready) return;
    constexpr int kRuns = 3;
    const double floor = bestRowsPerSecond(pythonLoopOverSqlite3Rows, kRuns);
    const struct {
        const char* name;
        std::int64_t (*way)();
    } ways[] = {
        {"host rule, evaluate_expr(\"price * qty\", locals = row)", hostRuleRowAsLocals},
        {"host rule, evaluate_expr(\"row.price * row.qty\", {row})", hostRuleRowAsLocal},
        {"Python loop over the sqlite module's rows", pythonLoopOverHostRows},
        {"Python loop over sqlite3 rows (the floor)", pythonLoopOverSqlite3Rows},
    };
    std::printf("\nRows per second for price * qty over %lld rows (best of %d runs, CPU time of this thread):\n",
                static_cast<long long>(kRows), kRuns);
    for (const auto& way : ways) {
        const double rate = way.way == pythonLoopOverSqlite3Rows ? floor : bestRowsPerSecond(way.way, kRuns);
        std::printf("  %-58s %10.0f rows/s   %6.2fx the floor's time\n", way.name, rate, rate > 0 ? floor / rate : 0.0);
    }
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    printSummary();
    delete &setup();
    return 0;
}

// tests/sqlite/memory_test.cpp: 10,000 rows queried and iterated from Python, again and again, with
// memory that stays flat: no row outlives its list, and the interpreter keeps nothing per row.
#include "sqlite_test_support.hpp"

namespace {

using namespace tala_sqlite_test;
using tala::sqlite::testing::liveRows;

class MemoryTest : public SqliteTest {};

// Runs the query and the loop `rounds` times after one warm-up round, and measures what the
// interpreter holds before and after: sys.getallocatedblocks() with Python's own allocator, or
// the bytes tracemalloc traces when Python uses the system's malloc (the sanitizer runs).
const char* const kLoops = R"PY(
import gc, sys, tracemalloc

def one_round():
    rows = db.query("SELECT id, price, qty FROM items")
    total = 0
    count = 0
    for row in rows:
        total += row.price * row.qty
        count += 1
    return count, total

count, total = one_round()
gc.collect()
tracing = sys.getallocatedblocks() == 0
if tracing:
    tracemalloc.start()
before = tracemalloc.get_traced_memory()[0] if tracing else sys.getallocatedblocks()
for _ in range(rounds):
    count, total = one_round()
gc.collect()
after = tracemalloc.get_traced_memory()[0] if tracing else sys.getallocatedblocks()
if tracing:
    tracemalloc.stop()
return [count, str(total), after - before, tracing]
)PY";

TEST_F(MemoryTest, TenThousandRowsFromPythonLeaveMemoryFlat) {
    const tala::sqlite::Database database = memory();
    script(database, "CREATE TABLE items (id INTEGER PRIMARY KEY, price DECIMAL(10,2), qty INTEGER)");
    const Any filled = evaluate("return db.executeMany('INSERT INTO items (price, qty) VALUES (?, ?)', "
                                "[(f'{n % 100}.25', n % 7) for n in range(10000)])",
                                Map{{String("db"), database}});
    ASSERT_EQ(text(filled), "10000") << errorMessage(filled);
    const std::int64_t rowsBefore = liveRows();

    const Any result = evaluate(kLoops, Map{{String("db"), database}, {String("rounds"), Integer(3)}});
    ASSERT_TRUE(tala::I_Sequence_Generic::matches(result)) << errorMessage(result);
    const tala::I_Sequence_Generic answer(tala::internal::unchecked, result);
    EXPECT_EQ(text(tala::resolve(answer.at(0))), "10000");
    EXPECT_EQ(text(tala::resolve(answer.at(1))), "'1492202.50'");
    // A few hundred bytes or blocks of caches may move; one per row would be ten thousand.
    const Any grown = tala::resolve(answer.at(2));
    const bool tracing = tala::resolve(answer.at(3)).rawBoolean();
    EXPECT_LT(grown.rawInteger(), tracing ? 20000 : 200) << (tracing ? "bytes" : "blocks") << " kept by 3 rounds";
    // Every row made by the rounds is gone with its list.
    EXPECT_EQ(liveRows(), rowsBefore);
}

TEST_F(MemoryTest, RowsLiveAsLongAsTheirListOnly) {
    const tala::sqlite::Database database = memory();
    const std::int64_t before = liveRows();
    {
        const Any rows = call(database, "query", {String("WITH RECURSIVE n(x) AS (SELECT 1 UNION ALL SELECT x + 1 FROM n "
                                                         "WHERE x < 10000) SELECT x FROM n")});
        ASSERT_TRUE(List<Any>::matches(rows)) << errorMessage(rows);
        EXPECT_EQ(liveRows(), before + 10000);
    }
    EXPECT_EQ(liveRows(), before);
}

TEST_F(MemoryTest, ADatabaseIsClosedWhenItsLastReferenceGoes) {
    const std::int64_t before = tala::sqlite::testing::liveDatabases();
    {
        const Any result = evaluateExpr("sqlite.Database.open(':memory:').query('SELECT 1 AS one')[0].one");
        EXPECT_EQ(text(result), "1");
    }
    EXPECT_EQ(tala::sqlite::testing::liveDatabases(), before);
}

}  // namespace

// tests/sqlite/parameters_test.cpp: statements with parameters by position and by name (host lists
// and maps, Python lists, tuples, dictionaries and generators, rows), their errors, executeMany
// as all or nothing, change counts, and the other statements of a database.
#include "sqlite_test_support.hpp"

namespace {

using namespace tala_sqlite_test;

class ParametersTest : public SqliteTest {
protected:
    void SetUp() override {
        database = memory();
        script(database, "CREATE TABLE items (id INTEGER PRIMARY KEY, name TEXT, qty INTEGER)");
    }

    // The rows of a query, shown.
    std::string rows(const char* sql, const Any& parameters = Any()) {
        return text(call(database, "query", {String(sql), parameters}));
    }
    Any execute(const char* sql, const Any& parameters = Any()) { return call(database, "execute", {String(sql), parameters}); }
    std::string contents() { return rows("SELECT name, qty FROM items ORDER BY id"); }

    tala::sqlite::Database database{tala::internal::unchecked, Any()};
};

TEST_F(ParametersTest, ByPositionFromAHostList) {
    EXPECT_EQ(text(execute("INSERT INTO items (name, qty) VALUES (?, ?)", List<Any>{String("tea"), Integer(3)})), "1");
    EXPECT_EQ(rows("SELECT name, qty FROM items WHERE qty > ?", List<Any>{Integer(2)}), "[Row(name='tea', qty=3)]");
    // Numbered placeholders count by their numbers.
    EXPECT_EQ(rows("SELECT ?2 AS second, ?1 AS first", List<Any>{Integer(1), Integer(2)}), "[Row(second=2, first=1)]");
}

TEST_F(ParametersTest, ByNameFromAHostMap) {
    EXPECT_EQ(text(execute("INSERT INTO items (name, qty) VALUES (:name, @qty)",
                           Map{{String("name"), String("cups")}, {String("qty"), Integer(6)}})), "1");
    EXPECT_EQ(rows("SELECT name FROM items WHERE qty = $qty", Map{{String("qty"), Integer(6)}}), "[Row(name='cups')]");
    // Names the statement does not use are ignored.
    EXPECT_EQ(rows("SELECT :a AS a", Map{{String("a"), Integer(1)}, {String("unused"), Integer(2)}}), "[Row(a=1)]");
}

TEST_F(ParametersTest, ParametersMayBeLeftOutOrNoneWhenTheStatementHasNone) {
    EXPECT_EQ(text(call(database, "query", {String("SELECT 1 AS one")})), "[Row(one=1)]");
    EXPECT_EQ(rows("SELECT 1 AS one", Any()), "[Row(one=1)]");
    EXPECT_EQ(errorMessage(call(database, "query", {String("SELECT ? AS one, ? AS two")})),
              "The statement takes 2 parameters, none given.");
}

TEST_F(ParametersTest, CountsMustAgree) {
    EXPECT_EQ(errorMessage(execute("INSERT INTO items (name, qty) VALUES (?, ?)",
                                   List<Any>{String("a"), Integer(1), Integer(2)})),
              "The statement takes 2 parameters, 3 given.");
    EXPECT_EQ(errorMessage(execute("INSERT INTO items (name) VALUES (?)", List<Any>())),
              "The statement takes 1 parameters, 0 given.");
    EXPECT_EQ(contents(), "[]");
}

TEST_F(ParametersTest, EveryNameNeedsAValue) {
    EXPECT_EQ(errorMessage(execute("INSERT INTO items (name, qty) VALUES (:name, :qty)", Map{{String("name"), String("a")}})),
              "No value was given for the parameter :qty.");
    EXPECT_EQ(errorMessage(execute("INSERT INTO items (name) VALUES (?)", Map{{String("name"), String("a")}})),
              "The parameter ?1 has no name, and parameters were given by name.");
}

TEST_F(ParametersTest, ParametersAreAListOrAMap) {
    EXPECT_EQ(errorMessage(call(database, "query", {String("SELECT ?"), Integer(5)})),
              "Parameters are given as a list (by position) or a map (by name), not as Integer.");
    EXPECT_EQ(errorMessage(call(database, "query", {String("SELECT ?"), String("abc")})),
              "Parameters are given as a list (by position) or a map (by name), not as String.");
}

TEST_F(ParametersTest, ARowBindsByNameOrByPositionAsTheStatementAsks) {
    const Any found = call(database, "query", {String("SELECT 'tea' AS name, 4 AS qty")});
    ASSERT_TRUE(List<Any>::matches(found)) << errorMessage(found);
    const Any row = List<Any>(tala::internal::unchecked, found)[0];
    EXPECT_EQ(text(execute("INSERT INTO items (qty, name) VALUES (:qty, :name)", row)), "1");
    EXPECT_EQ(text(execute("INSERT INTO items (name, qty) VALUES (?, ?)", row)), "1");
    EXPECT_EQ(contents(), "[Row(name='tea', qty=4), Row(name='tea', qty=4)]");
}

TEST_F(ParametersTest, PythonListsTuplesDictionariesAndGenerators) {
    const Any result = evaluate(R"PY(
db.execute("INSERT INTO items (name, qty) VALUES (?, ?)", ["list", 1])
db.execute("INSERT INTO items (name, qty) VALUES (?, ?)", ("tuple", 2))
db.execute("INSERT INTO items (name, qty) VALUES (:name, :qty)", {"name": "dict", "qty": 3})
db.execute("INSERT INTO items (name, qty) VALUES (?, ?)", (value for value in ["generator", 4]))
return [(row.name, row.qty) for row in db.query("SELECT name, qty FROM items ORDER BY id")]
)PY", Map{{String("db"), database}});
    EXPECT_EQ(text(result), "[('list', 1), ('tuple', 2), ('dict', 3), ('generator', 4)]");
}

TEST_F(ParametersTest, PythonCallsByNameBindTheSameParameters) {
    const Any result = evaluate(R"PY(
db.execute(sql="INSERT INTO items (name, qty) VALUES (:name, :qty)", parameters={"name": "named", "qty": 9})
return db.query(sql="SELECT name FROM items WHERE qty = ?", parameters=[9])[0].name
)PY", Map{{String("db"), database}});
    EXPECT_EQ(text(result), "'named'");
}

// ---- executeMany ----------------------------------------------------------------------------------

TEST_F(ParametersTest, ExecuteManyRunsOnceForEachSet) {
    const List<Any> good{List<Any>{String("a"), Integer(1)}, List<Any>{String("b"), Integer(2)}, List<Any>{String("c"), Integer(3)}};
    EXPECT_EQ(text(call(database, "executeMany", {String("INSERT INTO items (name, qty) VALUES (?, ?)"), good})), "3");
    EXPECT_EQ(text(call(database, "executeMany", {String("UPDATE items SET qty = qty * 10 WHERE name = :name"),
                                                  List<Any>{Map{{String("name"), String("a")}}, Map{{String("name"), String("c")}}}})),
              "2");
    EXPECT_EQ(contents(), "[Row(name='a', qty=10), Row(name='b', qty=2), Row(name='c', qty=30)]");
}

TEST_F(ParametersTest, ExecuteManyIsAllOrNothing) {
    script(database, "CREATE UNIQUE INDEX one_name ON items (name)");
    const List<Any> sets{List<Any>{String("a"), Integer(1)}, List<Any>{String("b"), Integer(2)}, List<Any>{String("a"), Integer(3)}};
    EXPECT_EQ(errorMessage(call(database, "executeMany", {String("INSERT INTO items (name, qty) VALUES (?, ?)"), sets})),
              "UNIQUE constraint failed: items.name");
    EXPECT_EQ(contents(), "[]");
    // Inside a transaction of the caller's, only the failed call's own sets are undone.
    script(database, "BEGIN; INSERT INTO items (name, qty) VALUES ('kept', 0)");
    EXPECT_TRUE(tala::is_error_result(call(database, "executeMany", {String("INSERT INTO items (name, qty) VALUES (?, ?)"), sets})));
    script(database, "COMMIT");
    EXPECT_EQ(contents(), "[Row(name='kept', qty=0)]");
}

TEST_F(ParametersTest, ExecuteManyTakesAListOfSets) {
    EXPECT_EQ(errorMessage(call(database, "executeMany", {String("SELECT ?"), Map{{String("a"), Integer(1)}}})),
              "The rows of executeMany are given as a list of parameter lists or maps, not as HashMap.");
    EXPECT_EQ(errorMessage(call(database, "executeMany", {String("SELECT ?"), List<Any>{Integer(1)}})),
              "Parameters are given as a list (by position) or a map (by name), not as Integer.");
}

// ---- Change counts and the other statements ----------------------------------------------------------

TEST_F(ParametersTest, ExecuteCountsTheRowsTheStatementChanged) {
    ASSERT_EQ(text(call(database, "executeMany", {String("INSERT INTO items (name, qty) VALUES (?, ?)"),
                                                  List<Any>{List<Any>{String("a"), Integer(1)}, List<Any>{String("b"), Integer(2)}}})),
              "2");
    EXPECT_EQ(text(execute("UPDATE items SET qty = qty + 1")), "2");
    // Statements that change no rows count none, even right after ones that did.
    EXPECT_EQ(text(execute("CREATE TABLE other (x)")), "0");
    EXPECT_EQ(text(execute("SELECT * FROM items")), "0");
    EXPECT_EQ(text(execute("DELETE FROM items WHERE qty > 2")), "1");
}

TEST_F(ParametersTest, LastInsertRowIdAndReturning) {
    EXPECT_EQ(rows("INSERT INTO items (name, qty) VALUES ('x', 1) RETURNING id, name"), "[Row(id=1, name='x')]");
    ASSERT_EQ(text(execute("INSERT INTO items (name, qty) VALUES ('y', 2)")), "1");
    EXPECT_EQ(text(call(database, "lastInsertRowId")), "2");
}

TEST_F(ParametersTest, ExecuteScriptRunsEveryStatementAndTablesListsThem) {
    script(database, "CREATE TABLE zebras (x); CREATE TABLE apples (y); INSERT INTO apples VALUES (1);");
    EXPECT_EQ(text(call(database, "tables")), "['apples', 'items', 'zebras']");
    EXPECT_EQ(rows("SELECT y FROM apples"), "[Row(y=1)]");
}

}  // namespace

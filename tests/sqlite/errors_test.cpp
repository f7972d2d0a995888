// tests/sqlite/errors_test.cpp: SqlError: SQLite's own messages and result codes, misuse of the
// module, a closed database, and the same errors raised into Python and back.
#include <vector>

#include "errors.hpp"
#include "sqlite_module.hpp"
#include "sqlite_test_support.hpp"

namespace {

using namespace tala_sqlite_test;

class ErrorsTest : public SqliteTest {
protected:
    void SetUp() override {
        database = memory();
        script(database, "CREATE TABLE products (sku TEXT UNIQUE NOT NULL, price DECIMAL(10,2))");
    }

    tala::sqlite::Database database{tala::internal::unchecked, Any()};
};

// "sqlite.SqlError: message (code N)" of a result that should be an SqlError.
std::string described(const Any& result) {
    if (!tala::Error::matches(result)) return "<not an error: " + text(result) + ">";
    return className(result) + ": " + errorMessage(result) + " (code " + text(call(result, "code")) + ")";
}

TEST_F(ErrorsTest, SqlErrorIsAnErrorClassOfTheModule) {
    const tala::Class_Generic cls = tala::sqlite::sqlErrorClass();
    EXPECT_EQ(cls.qualname(), "sqlite.SqlError");
    EXPECT_TRUE(cls.derivesFrom(tala::Error::getClass()));
    EXPECT_TRUE(cls.hasFlag(tala::class_flags::Error));
    EXPECT_TRUE(tala::sqlite::sqliteModule().classes().contains(String("SqlError")));
}

TEST_F(ErrorsTest, SyntaxErrorsCarrySqlitesMessage) {
    EXPECT_EQ(described(call(database, "query", {String("SELEC 1")})), "sqlite.SqlError: near \"SELEC\": syntax error (code 1)");
}

TEST_F(ErrorsTest, UnknownTablesAndColumnsCarrySqlitesMessage) {
    EXPECT_EQ(described(call(database, "query", {String("SELECT * FROM nowhere")})),
              "sqlite.SqlError: no such table: nowhere (code 1)");
    EXPECT_EQ(described(call(database, "execute", {String("UPDATE products SET weight = 1")})),
              "sqlite.SqlError: no such column: weight (code 1)");
}

TEST_F(ErrorsTest, ConstraintViolationsCarryTheExtendedCode) {
    ASSERT_EQ(text(call(database, "execute", {String("INSERT INTO products VALUES ('T-1', 4.5)")})), "1");
    EXPECT_EQ(described(call(database, "execute", {String("INSERT INTO products VALUES ('T-1', 5)")})),
              "sqlite.SqlError: UNIQUE constraint failed: products.sku (code 2067)");
    EXPECT_EQ(described(call(database, "execute", {String("INSERT INTO products (price) VALUES (1)")})),
              "sqlite.SqlError: NOT NULL constraint failed: products.sku (code 1299)");
}

TEST_F(ErrorsTest, AFileThatCannotBeOpenedIsAnError) {
    EXPECT_EQ(described(tala::sqlite::openDatabase(String("/nonexistent/folder/shop.db"))),
              "sqlite.SqlError: unable to open database file (code 14)");
}

TEST_F(ErrorsTest, OnlyOneStatementRunsAtATime) {
    EXPECT_EQ(described(call(database, "execute", {String("DELETE FROM products; DROP TABLE products")})),
              "sqlite.SqlError: The SQL text holds more than one statement: run one at a time, or several without "
              "parameters with executeScript. (code 21)");
    // Also when the second could not be prepared yet, or is no statement at all.
    EXPECT_EQ(described(call(database, "execute", {String("CREATE TABLE later(a); INSERT INTO later VALUES (1)")})),
              "sqlite.SqlError: The SQL text holds more than one statement: run one at a time, or several without "
              "parameters with executeScript. (code 21)");
    EXPECT_EQ(described(call(database, "query", {String("SELECT 1; garbage")})),
              "sqlite.SqlError: The SQL text holds more than one statement: run one at a time, or several without "
              "parameters with executeScript. (code 21)");
    EXPECT_TRUE(tala::is_error_result(call(database, "query", {String("SELECT * FROM later")})));  // never made
    // Comments and blanks after the statement are no second statement.
    EXPECT_EQ(text(call(database, "execute", {String("DELETE FROM products; -- all of them\n  ")})), "0");
    EXPECT_EQ(described(call(database, "execute", {String("-- nothing")})),
              "sqlite.SqlError: The SQL text holds no statement. (code 21)");
}

TEST_F(ErrorsTest, ScriptErrorsCarrySqlitesMessage) {
    EXPECT_EQ(described(call(database, "executeScript", {String("CREATE TABLE a (x); CREATE TABLE a (y)")})),
              "sqlite.SqlError: table a already exists (code 1)");
}

TEST_F(ErrorsTest, EveryUseOfAClosedDatabaseFails) {
    EXPECT_EQ(text(call(database, "isOpen")), "True");
    EXPECT_TRUE(call(database, "close").isEmpty());
    EXPECT_EQ(text(call(database, "isOpen")), "False");
    EXPECT_EQ(text(database), "Database(':memory:', closed)");
    const std::string closed = "sqlite.SqlError: The database is closed. (code 21)";
    EXPECT_EQ(described(call(database, "query", {String("SELECT 1")})), closed);
    EXPECT_EQ(described(call(database, "execute", {String("SELECT 1")})), closed);
    EXPECT_EQ(described(call(database, "executeMany", {String("SELECT ?"), List<Any>{List<Any>{Integer(1)}}})), closed);
    EXPECT_EQ(described(call(database, "executeScript", {String("SELECT 1")})), closed);
    EXPECT_EQ(described(call(database, "tables")), closed);
    EXPECT_EQ(described(call(database, "lastInsertRowId")), closed);
    // Closing again does nothing; the path stays readable.
    EXPECT_TRUE(call(database, "close").isEmpty());
    EXPECT_EQ(text(call(database, "path")), "':memory:'");
}

TEST_F(ErrorsTest, ARowIsNoDatabase) {
    const Any rows = call(database, "query", {String("SELECT 1 AS one")});
    ASSERT_TRUE(List<Any>::matches(rows)) << errorMessage(rows);
    const Any row = List<Any>(tala::internal::unchecked, rows)[0];
    const auto query = tala::method_of(database, "query").as<tala::I_Invokable_Generic>();
    EXPECT_EQ(errorMessage(query(row, String("SELECT 1"))), "query() argument 'self' must be Database, not sqlite.Row");
    // Counted as every method counts them: the receiver is the first argument.
    EXPECT_EQ(errorMessage(query(database)), "query() missing 1 required argument: 'sql'");
}

TEST_F(ErrorsTest, TheClassOpensADatabaseWhenGivenAPath) {
    const Any opened = tala::sqlite::Database::getClass().instantiate(std::vector<Any>{String(":memory:")});
    EXPECT_EQ(text(opened), "Database(':memory:')");
    EXPECT_EQ(described(tala::sqlite::Database::getClass().instantiate({})),
              "sqlite.SqlError: A database is opened with Database.open(path), or Database(path). (code 21)");
}

// ---- In Python ------------------------------------------------------------------------------------

TEST_F(ErrorsTest, PythonCatchesSqlErrorsWithExceptRuntimeError) {
    const Any result = evaluate(R"PY(
try:
    db.query("SELECT * FROM nowhere")
except RuntimeError as error:
    kind = type(error)
    return [f"{kind.__module__}.{kind.__qualname__}", str(error.tala), isinstance(error, RuntimeError)]
return "nothing raised"
)PY", Map{{String("db"), database}});
    EXPECT_EQ(text(result), "['sqlite.SqlError', 'no such table: nowhere', True]");
}

TEST_F(ErrorsTest, AnUncaughtSqlErrorReachesTheHostAsItself) {
    const Any result = evaluate("db.execute(\"INSERT INTO products VALUES (NULL, 1)\")", Map{{String("db"), database}});
    EXPECT_EQ(described(result), "sqlite.SqlError: NOT NULL constraint failed: products.sku (code 1299)");
}

TEST_F(ErrorsTest, PythonSeesTheClosedDatabase) {
    const Any result = evaluate(R"PY(
db.close()
try:
    db.query("SELECT 1")
except RuntimeError as error:
    return [db.isOpen, str(error.tala)]
)PY", Map{{String("db"), database}});
    EXPECT_EQ(text(result), "[False, 'The database is closed.']");
}

}  // namespace

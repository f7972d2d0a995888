// tests/sqlite/row_test.cpp: Row as the host sees it (a map and a sequence, immutable, displayed like
// a record, compared and hashed by value) and as Python sees it (attributes, subscripts, len,
// iteration, dict(), str(), hash()).
#include <optional>
#include <string>

#include "sqlite_test_support.hpp"

namespace {

using namespace tala_sqlite_test;
using tala::sqlite::Row;

class RowTest : public SqliteTest {
protected:
    void SetUp() override {
        database = memory();
        script(database, "CREATE TABLE products (id INTEGER PRIMARY KEY, name TEXT, price DECIMAL(10,2), length REAL, "
                         "keys TEXT);"
                         "INSERT INTO products VALUES (1, 'Tea', 4.5, 0.2, 'k1'), (2, 'Cups', 12, NULL, 'k2');");
    }

    // The rows of a query.
    List<Any> rows(const char* sql) {
        const Any found = call(database, "query", {String(sql)});
        EXPECT_TRUE(List<Any>::matches(found)) << errorMessage(found);
        if (!List<Any>::matches(found)) return List<Any>();
        return List<Any>(tala::internal::unchecked, found);
    }
    Row first(const char* sql) {
        const List<Any> found = rows(sql);
        if (found.isEmpty()) {
            ADD_FAILURE() << "no row";
            return tala::sqlite::makeRow(std::make_shared<tala::sqlite::Columns>(), {});
        }
        return Row(tala::internal::unchecked, found[0]);
    }
    Any python(const char* code) { return evaluate(code, Map{{String("db"), database}}); }

    tala::sqlite::Database database{tala::internal::unchecked, Any()};
};

TEST_F(RowTest, DisplaysLikeARecord) {
    EXPECT_EQ(text(rows("SELECT id, name, price FROM products ORDER BY id")),
              "[Row(id=1, name='Tea', price=4.50), Row(id=2, name='Cups', price=12.00)]");
    EXPECT_EQ(text(first("SELECT NULL AS missing, x'00ff' AS bytes")), "Row(missing=None, bytes=b'\\x00\\xff')");
}

TEST_F(RowTest, IsAMapFromColumnNameAndASequenceByPosition) {
    const Row row = first("SELECT id, name, price FROM products WHERE id = 1");
    EXPECT_TRUE(tala::I_Map_Generic::matches(row));
    EXPECT_TRUE(tala::I_Sequence_Generic::matches(row));
    EXPECT_TRUE(tala::I_Immutable::matches(row));
    EXPECT_EQ(text(call(row, "length")), "3");
    EXPECT_EQ(text(call(row, "get", {String("name")})), "'Tea'");
    EXPECT_EQ(text(call(row, "get", {Integer(-1)})), "4.50");
    EXPECT_EQ(text(call(row, "at", {Integer(0)})), "1");
    EXPECT_EQ(text(call(row, "keys")), "['id', 'name', 'price']");
    EXPECT_EQ(text(call(row, "values")), "[1, 'Tea', 4.50]");
    EXPECT_EQ(text(call(row, "toMap")), "{'id': 1, 'name': 'Tea', 'price': 4.50}");
    EXPECT_EQ(text(call(row, "contains", {String("price")})), "True");
    EXPECT_EQ(text(call(row, "contains", {Integer(2)})), "True");
    EXPECT_EQ(text(call(row, "contains", {String("weight")})), "False");
    EXPECT_EQ(text(call(row, "contains", {Integer(3)})), "False");
}

TEST_F(RowTest, MissingColumnsAndPositionsAreErrors) {
    const Row row = first("SELECT id, name FROM products WHERE id = 1");
    EXPECT_EQ(errorMessage(call(row, "get", {String("weight")})), "No such column: 'weight'.");
    EXPECT_EQ(errorMessage(call(row, "at", {Integer(2)})), "Index out of range: 2, size: 2.");
    EXPECT_EQ(errorMessage(call(row, "at", {Integer(-3)})), "Index out of range: -3, size: 2.");
}

TEST_F(RowTest, IteratesOverItsValues) {
    const Row row = first("SELECT id, name FROM products WHERE id = 2");
    const Any iterator = call(row, "iter");
    EXPECT_EQ(text(call(iterator, "next")), "2");
    EXPECT_EQ(text(call(iterator, "next")), "'Cups'");
    EXPECT_TRUE(tala::StopIteration::matches(call(iterator, "next")));
}

TEST_F(RowTest, RowsWithEqualColumnsAndValuesAreEqualAndHashEqual) {
    const Row first = this->first("SELECT id, name FROM products WHERE id = 1");
    const Row again = this->first("SELECT id, name FROM products WHERE id = 1");
    const Row other = this->first("SELECT id, name FROM products WHERE id = 2");
    const Row renamed = this->first("SELECT id, name AS title FROM products WHERE id = 1");
    EXPECT_NE(first.cell(), again.cell());
    EXPECT_EQ(tala::compare_objects(first, again), 0);
    EXPECT_EQ(tala::hash_of(first), tala::hash_of(again));
    EXPECT_LT(tala::compare_objects(first, other), 0);
    EXPECT_GT(tala::compare_objects(other, first), 0);
    EXPECT_NE(tala::compare_objects(first, renamed), 0);
    EXPECT_NE(tala::hash_of(first), tala::hash_of(other));
    EXPECT_NE(tala::compare_objects(first, List<Any>{Integer(1), String("Tea")}), 0);
}

TEST_F(RowTest, TheFirstOfColumnsWithTheSameNameIsTheOneReadByName) {
    const Row row = first("SELECT 1 AS x, 2 AS x");
    EXPECT_EQ(text(row), "Row(x=1, x=2)");
    EXPECT_EQ(text(call(row, "get", {String("x")})), "1");
    EXPECT_EQ(text(call(row, "toMap")), "{'x': 1}");
}

TEST_F(RowTest, ARowMadeByItsClassIsEmpty) {
    const Any row = Row::getClass().instantiate({});
    EXPECT_EQ(text(row), "Row()");
    EXPECT_EQ(text(call(row, "length")), "0");
}

// Reading a column as a property without making the property, and reading all the entries at once,
// give what the general look-ups give: for columns, for the row's own members and for names that
// are neither.
TEST_F(RowTest, NativeReadsGiveWhatTheGeneralLookUpsGive) {
    const Row row = first("SELECT id, 1 AS x, 2 AS x, length, keys, price FROM products WHERE id = 1");
    for (const char* name : {"id", "x", "length", "keys", "price", "get", "weight"}) {
        const tala::Identifier id = tala::Identifier::intern(name);
        auto general = tala::property_of(row, id);
        std::optional<Any> native = tala::property_value_of(row, id);
        ASSERT_EQ(native.has_value(), general.is<tala::Property>()) << name;
        if (native) {
            EXPECT_EQ(text(*native), text(general.as<tala::Property>().get(row))) << name;
        }
    }
    std::string entries;
    ASSERT_TRUE(tala::read_map_entries(row, [&entries](const Any& key, const Any& value) {
        entries += text(key) + ": " + text(value) + ", ";
        return true;
    }));
    std::string byCalls;
    const Any keys = call(row, "keys");
    for (const Any& key : List<Any>(tala::internal::unchecked, keys)) byCalls += text(key) + ": " + text(call(row, "get", {key})) + ", ";
    EXPECT_EQ(entries, byCalls);
    EXPECT_EQ(entries, "'id': 1, 'x': 1, 'x': 1, 'length': 0.2, 'keys': 'k1', 'price': 4.50, ");
}

// ---- From Python ----------------------------------------------------------------------------------

// A row as the locals of an expression: its columns are the names (the first of columns with the
// same name), they are in the globals the code sees and the locals are empty, as for any map.
TEST_F(RowTest, ARowIsTheLocalsOfAnExpression) {
    const Row row = first("SELECT 1 AS x, 2 AS x, price, length, keys FROM products WHERE id = 1");
    const tala::I_Invokable_Generic evaluateExpr(tala::internal::unchecked, tala_sqlite_test::pythonFunction("evaluate_expr"));
    const Any result = tala::resolve(evaluateExpr(
        String("[x, price * 2, length, keys, sorted(k for k in globals() if k in ('x', 'price', 'length', 'keys')), locals()]"),
        row, Any()));
    EXPECT_EQ(text(result), "[1, Decimal('9.00'), 0.2, 'k1', ['keys', 'length', 'price', 'x'], {}]");
}

TEST_F(RowTest, PythonReadsColumnsAsAttributesAndBySubscript) {
    const Any result = python(R"PY(
row = db.query("SELECT id, name, price FROM products WHERE id = 1")[0]
return [row.name, row["price"], row[0], row[-1], len(row), row.price * 2]
)PY");
    EXPECT_EQ(text(result), "['Tea', Decimal('4.50'), 1, Decimal('4.50'), 3, Decimal('9.00')]");
}

TEST_F(RowTest, PythonIteratesConvertsAndShowsARow) {
    const Any result = python(R"PY(
row = db.query("SELECT id, name, price FROM products WHERE id = 2")[0]
first, name, price = row
return [list(row), dict(row), str(row), repr(row), name, "name" in row, "weight" in row]
)PY");
    EXPECT_EQ(text(result), "[[2, 'Cups', Decimal('12.00')], {'id': 2, 'name': 'Cups', 'price': Decimal('12.00')}, "
                            "\"Row(id=2, name='Cups', price=12.00)\", \"Row(id=2, name='Cups', price=12.00)\", 'Cups', "
                            "True, False]");
}

TEST_F(RowTest, PythonSeesEqualRowsAsEqualAndHashEqual) {
    const Any result = python(R"PY(
one = db.query("SELECT id, name FROM products WHERE id = 1")[0]
again = db.query("SELECT id, name FROM products WHERE id = 1")[0]
other = db.query("SELECT id, name FROM products WHERE id = 2")[0]
return [one == again, one != other, hash(one) == hash(again), len({one, again, other})]
)PY");
    EXPECT_EQ(text(result), "[True, True, True, 2]");
}

TEST_F(RowTest, ColumnsNamedLikeTheRowsOwnMembersAreReadBySubscript) {
    const Any result = python(R"PY(
row = db.query("SELECT id, length, keys FROM products WHERE id = 1")[0]
return [len(row), row["length"], row["keys"], list(row.keys())]
)PY");
    EXPECT_EQ(text(result), "[3, 0.2, 'k1', ['id', 'length', 'keys']]");
}

TEST_F(RowTest, PythonMissingColumnsRaise) {
    const Any result = python(R"PY(
row = db.query("SELECT id FROM products WHERE id = 1")[0]
outcomes = []
for attempt in (lambda: row["weight"], lambda: row[5], lambda: row.weight):
    try:
        attempt()
        outcomes.append("no error")
    except KeyError as error:
        outcomes.append(f"KeyError {error.args[0]}")
    except Exception as error:
        outcomes.append(type(error).__name__)
return outcomes
)PY");
    EXPECT_EQ(text(result), "[\"KeyError 'weight'\", 'KeyError 5', 'MissingMemberError']");
}

TEST_F(RowTest, PythonListsTheColumnsAmongTheRowsNames) {
    const Any result = python(R"PY(
row = db.query("SELECT id, name FROM products WHERE id = 1")[0]
return sorted(name for name in row.__dir__ if name in ("id", "name", "keys", "price"))
)PY");
    EXPECT_EQ(text(result), "['id', 'keys', 'name']");
}

TEST_F(RowTest, RowsCannotBeChangedFromPython) {
    const Any result = python(R"PY(
row = db.query("SELECT id, name FROM products WHERE id = 1")[0]
try:
    row["name"] = "Coffee"
except Exception as error:
    return [type(error).__name__, row.name]
return "changed"
)PY");
    EXPECT_EQ(text(result), "['RuntimeError', 'Tea']");
}

}  // namespace

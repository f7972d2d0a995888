// tests/sqlite/values_test.cpp: every kind of value into the database and back: storage classes,
// the declared types that give decimals, dates, date-times and booleans, the texts stored for
// them, and the same round trip made from Python.
#include <cstdint>
#include <limits>
#include <string>

#include "sqlite_test_support.hpp"

namespace {

using namespace tala_sqlite_test;
using tala::ByteArray;
using tala::Date;
using tala::DateTime;
using tala::Decimal;
using tala::Time;
using tala::sqlite::Row;

Decimal decimal(const char* text) { return Decimal::fromString(text).as<Decimal>(); }

class ValuesTest : public SqliteTest {
protected:
    void SetUp() override {
        database = memory();
        script(database, "CREATE TABLE v (i INTEGER, r REAL, t TEXT, b BLOB, n, price DECIMAL(10,2), amount NUMERIC, "
                         "day DATE, moment DATETIME, stamp TIMESTAMP, flag BOOLEAN)");
    }
    void TearDown() override { (void)call(database, "close"); }

    // The only row of `sql`; a row without columns, after a failure, when there is no such row.
    Row single(const char* sql) {
        const Any rows = call(database, "query", {String(sql)});
        if (auto list = List<Any>::cast(rows); list && list->size() == 1 && Row::matches((*list)[0])) {
            return Row(tala::internal::unchecked, (*list)[0]);
        }
        ADD_FAILURE() << "not one row: " << text(rows);
        return tala::sqlite::makeRow(std::make_shared<tala::sqlite::Columns>(), {});
    }
    void insert(const char* columns, std::initializer_list<Any> values) {
        std::string marks;
        for (std::size_t index = 0; index < values.size(); ++index) marks += index == 0 ? "?" : ", ?";
        const std::string sql = std::string("INSERT INTO v (") + columns + ") VALUES (" + marks + ")";
        List<Any> parameters;
        for (const Any& value : values) parameters.append(value);
        const Any changed = call(database, "execute", {String(sql), parameters});
        ASSERT_EQ(text(changed), "1") << errorMessage(changed);
    }

    tala::sqlite::Database database{tala::internal::unchecked, Any()};
};

TEST_F(ValuesTest, StorageClassesComeBackAsTheirHostKinds) {
    insert("i, r, t, b, n", {Integer(42), tala::Float(2.5), String("h\xC3\xA9llo"), ByteArray(std::string_view("\0\x01\xFF", 3)), Any()});
    const Row row = single("SELECT i, r, t, b, n FROM v");
    ASSERT_EQ(row.size(), 5u);
    EXPECT_EQ(row.values()[0].kind(), tala::Kind::Integer);
    EXPECT_EQ(row.values()[0].rawInteger(), 42);
    EXPECT_EQ(row.values()[1].kind(), tala::Kind::Float);
    EXPECT_EQ(row.values()[1].rawFloat(), 2.5);
    EXPECT_EQ(row.values()[2].kind(), tala::Kind::String);
    EXPECT_EQ(text(row.values()[2]), "'h\xC3\xA9llo'");
    ASSERT_EQ(row.values()[3].kind(), tala::Kind::ByteArray);
    EXPECT_EQ(ByteArray(tala::internal::unchecked, row.values()[3]).view(), std::string_view("\0\x01\xFF", 3));
    EXPECT_TRUE(row.values()[4].isEmpty());
}

TEST_F(ValuesTest, IntegersKeepTheirWholeRange) {
    insert("i, n", {Integer(std::numeric_limits<std::int64_t>::min()), Integer(std::numeric_limits<std::int64_t>::max())});
    const Row row = single("SELECT i, n FROM v");
    ASSERT_EQ(row.size(), 2u);
    EXPECT_EQ(row.values()[0].rawInteger(), std::numeric_limits<std::int64_t>::min());
    EXPECT_EQ(row.values()[1].rawInteger(), std::numeric_limits<std::int64_t>::max());
}

TEST_F(ValuesTest, EmptyTextAndEmptyBytesStayWhatTheyAre) {
    insert("t, b", {String(""), ByteArray()});
    const Row row = single("SELECT t, b, typeof(t) AS tk, typeof(b) AS bk FROM v");
    ASSERT_EQ(row.size(), 4u);
    EXPECT_EQ(text(row.values()[0]), "''");
    EXPECT_EQ(row.values()[1].kind(), tala::Kind::ByteArray);
    EXPECT_EQ(text(row.values()[2]), "'text'");
    EXPECT_EQ(text(row.values()[3]), "'blob'");
}

TEST_F(ValuesTest, BooleansAreStoredAsOneAndZeroAndReadBackFromBooleanColumns) {
    insert("flag, i", {tala::Boolean(true), tala::Boolean(false)});
    const Row row = single("SELECT flag, i FROM v");
    ASSERT_EQ(row.size(), 2u);
    ASSERT_EQ(row.values()[0].kind(), tala::Kind::Boolean);
    EXPECT_TRUE(row.values()[0].rawBoolean());
    // An INTEGER column gives the number that was stored.
    EXPECT_EQ(text(row.values()[1]), "0");
}

TEST_F(ValuesTest, DecimalColumnsGiveDecimalsWithTheDeclaredScale) {
    insert("price, amount", {decimal("19.90"), decimal("1234.5")});
    const Row row = single("SELECT price, amount, typeof(price) AS kind FROM v");
    ASSERT_EQ(row.size(), 3u);
    ASSERT_TRUE(Decimal::matches(row.values()[0])) << className(row.values()[0]);
    EXPECT_EQ(text(row.values()[0]), "19.90");
    ASSERT_TRUE(Decimal::matches(row.values()[1]));
    EXPECT_EQ(text(row.values()[1]), "1234.5");
    // SQLite's numeric affinity keeps the number, not the text that was bound.
    EXPECT_EQ(text(row.values()[2]), "'real'");
}

TEST_F(ValuesTest, WholeNumbersInDecimalColumnsGetTheScaleToo) {
    insert("price, amount", {Integer(10), decimal("3.0")});
    const Row row = single("SELECT price, amount FROM v");
    ASSERT_EQ(row.size(), 2u);
    EXPECT_EQ(text(row.values()[0]), "10.00");
    // "3.0" becomes the integer 3 in a NUMERIC column without a scale.
    EXPECT_EQ(text(row.values()[1]), "3");
    EXPECT_TRUE(Decimal::matches(row.values()[1]));
}

TEST_F(ValuesTest, DecimalsAreBoundAsTheirExactText) {
    insert("t", {decimal("12345678901234567890.123456789")});
    const Row row = single("SELECT t FROM v");
    ASSERT_EQ(row.size(), 1u);
    EXPECT_EQ(text(row.values()[0]), "'12345678901234567890.123456789'");
}

TEST_F(ValuesTest, TextThatIsNoNumberStaysTextInADecimalColumn) {
    insert("price", {String("n/a")});
    const Row row = single("SELECT price FROM v");
    ASSERT_EQ(row.size(), 1u);
    EXPECT_EQ(text(row.values()[0]), "'n/a'");
}

TEST_F(ValuesTest, DatesAndDateTimesAreStoredAsIsoText) {
    const Date day(2024, 2, 29);
    const DateTime moment(day, Time(12, 30, 15, 250000000));
    const DateTime stamp(day, Time(8, 5, 0, 0, 2 * 3600 + 30 * 60));
    insert("day, moment, stamp, t", {day, moment, stamp, Time(23, 59, 58, 500)});
    const Row raw = single("SELECT day || '' AS day, moment || '' AS moment, stamp || '' AS stamp, t FROM v");
    ASSERT_EQ(raw.size(), 4u);
    EXPECT_EQ(text(raw.values()[0]), "'2024-02-29'");
    EXPECT_EQ(text(raw.values()[1]), "'2024-02-29 12:30:15.25'");
    EXPECT_EQ(text(raw.values()[2]), "'2024-02-29 08:05:00+02:30'");
    EXPECT_EQ(text(raw.values()[3]), "'23:59:58.0000005'");
}

TEST_F(ValuesTest, DateColumnsGiveDatesAndDateTimeColumnsGiveDateTimes) {
    const Date day(2024, 2, 29);
    const DateTime moment(day, Time(12, 30, 15, 250000000));
    const DateTime stamp(day, Time(8, 5, 0, 0, -3600));
    insert("day, moment, stamp", {day, moment, stamp});
    const Row row = single("SELECT day, moment, stamp FROM v");
    ASSERT_EQ(row.size(), 3u);
    ASSERT_TRUE(Date::matches(row.values()[0])) << className(row.values()[0]);
    EXPECT_EQ(tala::compare_objects(row.values()[0], day), 0);
    ASSERT_TRUE(DateTime::matches(row.values()[1])) << className(row.values()[1]);
    EXPECT_EQ(tala::compare_objects(row.values()[1], moment), 0);
    ASSERT_TRUE(DateTime::matches(row.values()[2]));
    EXPECT_EQ(DateTime(tala::internal::unchecked, row.values()[2]).time().offsetSeconds(), std::optional<std::int32_t>(-3600));
}

TEST_F(ValuesTest, DateTimeColumnsReadTheFormsOfSqliteAndIso) {
    script(database, "INSERT INTO v (moment, stamp, day) VALUES ('2024-03-01T09:15:00Z', '2024-03-01', '2024-02-30')");
    const Row row = single("SELECT moment, stamp, day, datetime('2024-03-01 10:00') AS computed FROM v");
    ASSERT_EQ(row.size(), 4u);
    ASSERT_TRUE(DateTime::matches(row.values()[0])) << className(row.values()[0]);
    EXPECT_EQ(DateTime(tala::internal::unchecked, row.values()[0]).time().offsetSeconds(), std::optional<std::int32_t>(0));
    EXPECT_EQ(text(row.values()[1]), "2024-03-01T00:00:00");
    // Text that is no date stays text; so does a computed column, which has no declared type.
    EXPECT_EQ(text(row.values()[2]), "'2024-02-30'");
    EXPECT_EQ(text(row.values()[3]), "'2024-03-01 10:00:00'");
}

TEST_F(ValuesTest, AValueWithoutSqlFormIsRefused) {
    const Any result = call(database, "execute", {String("INSERT INTO v (n) VALUES (?)"), List<Any>{List<Any>{Integer(1)}}});
    EXPECT_EQ(className(result), "sqlite.SqlError");
    EXPECT_EQ(errorMessage(result), "Parameter 1: a value of type 'List' cannot be bound.");
    const Any named = call(database, "execute", {String("INSERT INTO v (n) VALUES (:n)"),
                                                 tala::HashMap<String, Any>{{String("n"), tala::Set<Any>{}}}});
    EXPECT_EQ(errorMessage(named), "Parameter :n: a value of type 'Set' cannot be bound.");
}

// ---- The same from Python ------------------------------------------------------------------------

TEST_F(ValuesTest, PythonValuesGoInAndComeBackAsPythonValues) {
    const Any result = evaluate(R"PY(
import datetime
from decimal import Decimal
db.execute("INSERT INTO v (i, r, t, b, n, price, day, moment, flag) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?)",
           [7, 0.5, "tea", b"\x00\xff", None, Decimal("4.50"), datetime.date(2024, 2, 29),
            datetime.datetime(2024, 2, 29, 12, 30, 15, 500000), True])
row = db.query("SELECT i, r, t, b, n, price, day, moment, flag FROM v")[0]
return [repr(value) for value in row]
)PY", Map{{String("db"), database}});
    EXPECT_EQ(text(result), "['7', '0.5', \"'tea'\", \"b'\\\\x00\\\\xff'\", 'None', \"Decimal('4.50')\", "
                            "'datetime.date(2024, 2, 29)', 'datetime.datetime(2024, 2, 29, 12, 30, 15, 500000)', 'True']");
}

TEST_F(ValuesTest, PythonDecimalsStayExactThroughATextColumn) {
    const Any result = evaluate(R"PY(
from decimal import Decimal
db.execute("INSERT INTO v (t) VALUES (?)", [Decimal("0.1") + Decimal("0.2")])
return db.query("SELECT t FROM v")[0].t
)PY", Map{{String("db"), database}});
    EXPECT_EQ(text(result), "'0.3'");
}

}  // namespace

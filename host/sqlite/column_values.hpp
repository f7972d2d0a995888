// host/sqlite/column_values.hpp: SQLite values into host values and back, guided by the declared
// type of a column.
#pragma once

#include <sqlite3.h>

#include <optional>
#include <string>
#include <string_view>

#include "tala/tala.hpp"

namespace tala::sqlite {

// What the declared type of a result column asks for beyond SQLite's storage classes. SQLite
// stores any value in any column; the declared type ("DECIMAL(10,2)", "DATE") is all that says a
// REAL is money or a TEXT is a date.
enum class DeclaredKind : std::uint8_t {
    Plain,     // the storage class decides: INTEGER, REAL, TEXT, BLOB, NULL
    Decimal,   // DECIMAL, NUMERIC
    Date,      // DATE
    DateTime,  // DATETIME, TIMESTAMP
    Boolean,   // BOOLEAN, BOOL
};

struct DeclaredType {
    DeclaredKind kind = DeclaredKind::Plain;
    int scale = -1;  // the digits after the point of DECIMAL(p,s); -1 when not declared
};

// Classifies a declared type; null (an expression, an aggregate) is Plain.
DeclaredType classifyDeclaredType(const char* declared);

// The value of `column` in the current row of `statement`, as a host value.
Any readColumn(sqlite3_stmt* statement, int column, const DeclaredType& type);

// Binds a host value to the parameter `index` (from 1) of `statement`: None, or an SqlError
// for a value that has no SQL form or that SQLite refuses. The value must be plain data
// (collected before the connection's lock is taken); nothing here calls into other languages.
Any bindValue(sqlite3_stmt* statement, int index, const Any& value);

// The text forms stored for dates and times: "2024-02-29", "12:30:15.5", "2024-02-29 12:30:15"
// with the fraction only when there is one and "+02:00" only when there is an offset. A space
// separates date and time, as in the text of SQLite's own date functions, so that the stored
// texts compare and sort with theirs.
std::string dateText(const Date& date);
std::string timeText(const Time& time);
std::string dateTimeText(const DateTime& dateTime);

// Parses the forms above; also "T" between date and time, "Z" for UTC, a time without seconds,
// and for a date-time a bare date (midnight). Nothing for any other text or an invalid date.
std::optional<Date> parseDate(std::string_view text);
std::optional<DateTime> parseDateTime(std::string_view text);

}  // namespace tala::sqlite

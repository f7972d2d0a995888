// host/sqlite/column_values.cpp: SQLite values into host values and back, guided by the declared
// type of a column.
#include "column_values.hpp"

#include <charconv>
#include <cmath>
#include <cstdio>

#include "errors.hpp"

namespace tala::sqlite {

namespace {

// ---- Declared types ----------------------------------------------------------------------------

std::string upperFirstWord(std::string_view declared) {
    std::string word;
    for (char c : declared) {
        if (c == '(' || c == ' ' || c == '\t') {
            if (word.empty()) continue;
            break;
        }
        word.push_back(c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c);
    }
    return word;
}

// The s of "DECIMAL(p,s)", or -1.
int declaredScale(std::string_view declared) {
    const std::size_t comma = declared.find(',');
    if (declared.find('(') == std::string_view::npos || comma == std::string_view::npos) return -1;
    std::size_t start = comma + 1;
    while (start < declared.size() && declared[start] == ' ') ++start;
    int scale = -1;
    const auto [end, error] = std::from_chars(declared.data() + start, declared.data() + declared.size(), scale);
    if (error != std::errc() || scale < 0 || scale > 30) return -1;
    return scale;
}

bool contains(std::string_view text, std::string_view part) { return text.find(part) != std::string_view::npos; }

// ---- Reading -----------------------------------------------------------------------------------

Any decimalFromText(std::string_view text, const Any& otherwise) {
    Union<Decimal, Error> parsed = Decimal::fromString(text);
    if (parsed.is<Decimal>()) return parsed;
    return otherwise;
}

// A whole number in a decimal column: its digits, with the declared scale's zeros ("10.00").
Any decimalFromInteger(std::int64_t value, int scale) {
    std::string text = std::to_string(value);
    if (scale > 0) text += "." + std::string(static_cast<std::size_t>(scale), '0');
    return decimalFromText(text, Integer(value));
}

// SQLite keeps a decimal column's numbers as REAL (its numeric affinity turns the text "19.99"
// into 19.99): the declared scale, or else the shortest text that reads back as the same
// double, gives the digits that were stored.
Any decimalFromReal(double value, int scale) {
    if (!std::isfinite(value)) return Float(value);
    char buffer[64];
    if (scale >= 0) {
        // The declared scale writes the number out ("4.50"), but never changes it: a value with
        // more digits than the scale (4.567 in a DECIMAL(10,2) column) keeps them all.
        // (to_chars and from_chars: the C locale always, whatever a script set.)
        const auto [written, failed] = std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::fixed, scale);
        double back = 0.0;
        if (failed == std::errc() && std::from_chars(buffer, written, back).ec == std::errc() && back == value) {
            return decimalFromText(std::string_view(buffer, static_cast<std::size_t>(written - buffer)), Float(value));
        }
    }
    const auto [end, error] = std::to_chars(buffer, buffer + sizeof buffer, value);
    if (error != std::errc()) return Float(value);
    return decimalFromText(std::string_view(buffer, static_cast<std::size_t>(end - buffer)), Float(value));
}

Any readInteger(std::int64_t value, const DeclaredType& type) {
    switch (type.kind) {
        case DeclaredKind::Decimal: return decimalFromInteger(value, type.scale);
        case DeclaredKind::Boolean: return Boolean(value != 0);
        default: return Integer(value);
    }
}

// A text that does not read as its declared type comes back as the text it is.
Any readText(std::string_view text, const DeclaredType& type) {
    switch (type.kind) {
        case DeclaredKind::Decimal:
            if (Union<Decimal, Error> parsed = Decimal::fromString(text); parsed.is<Decimal>()) return parsed;
            break;
        case DeclaredKind::Date:
            if (auto date = parseDate(text)) return *date;
            break;
        case DeclaredKind::DateTime:
            if (auto dateTime = parseDateTime(text)) return *dateTime;
            break;
        default: break;
    }
    return String(text);
}

// ---- Parsing dates and times -------------------------------------------------------------------

// Reads exactly `count` digits at `position`, advancing it.
std::optional<int> digits(std::string_view text, std::size_t& position, std::size_t count) {
    if (position + count > text.size()) return std::nullopt;
    int value = 0;
    for (std::size_t index = 0; index < count; ++index) {
        const char c = text[position + index];
        if (c < '0' || c > '9') return std::nullopt;
        value = value * 10 + (c - '0');
    }
    position += count;
    return value;
}

bool expect(std::string_view text, std::size_t& position, char wanted) {
    if (position >= text.size() || text[position] != wanted) return false;
    ++position;
    return true;
}

std::optional<Date> parseDateAt(std::string_view text, std::size_t& position) {
    const auto year = digits(text, position, 4);
    if (!year || !expect(text, position, '-')) return std::nullopt;
    const auto month = digits(text, position, 2);
    if (!month || !expect(text, position, '-')) return std::nullopt;
    const auto day = digits(text, position, 2);
    if (!day) return std::nullopt;
    const Date date(*year, static_cast<std::uint8_t>(*month), static_cast<std::uint8_t>(*day));
    if (!date.isValid()) return std::nullopt;
    return date;
}

// "HH:MM[:SS[.fraction]][Z|+HH:MM|-HH:MM|+HHMM]" to the end of the text.
std::optional<Time> parseTimeAt(std::string_view text, std::size_t& position) {
    const auto hour = digits(text, position, 2);
    if (!hour || !expect(text, position, ':')) return std::nullopt;
    const auto minute = digits(text, position, 2);
    if (!minute) return std::nullopt;
    int second = 0;
    std::uint32_t nanoseconds = 0;
    if (expect(text, position, ':')) {
        const auto parsed = digits(text, position, 2);
        if (!parsed) return std::nullopt;
        second = *parsed;
        if (expect(text, position, '.')) {
            // Up to nine digits count; further ones are below a nanosecond.
            std::size_t count = 0;
            while (position < text.size() && text[position] >= '0' && text[position] <= '9') {
                if (count < 9) nanoseconds = nanoseconds * 10 + static_cast<std::uint32_t>(text[position] - '0');
                ++count;
                ++position;
            }
            if (count == 0) return std::nullopt;
            for (std::size_t pad = count; pad < 9; ++pad) nanoseconds *= 10;
        }
    }
    if (*hour > 23 || *minute > 59 || second > 59) return std::nullopt;
    const auto hours = static_cast<std::uint8_t>(*hour);
    const auto minutes = static_cast<std::uint8_t>(*minute);
    const auto seconds = static_cast<std::uint8_t>(second);
    if (position == text.size()) return Time(hours, minutes, seconds, nanoseconds);
    if (text[position] == 'Z' && position + 1 == text.size()) return Time(hours, minutes, seconds, nanoseconds, 0);
    if (text[position] != '+' && text[position] != '-') return std::nullopt;
    const int sign = text[position++] == '-' ? -1 : 1;
    const auto offsetHours = digits(text, position, 2);
    if (!offsetHours) return std::nullopt;
    (void)expect(text, position, ':');
    const auto offsetMinutes = digits(text, position, 2);
    if (!offsetMinutes || position != text.size() || *offsetHours > 23 || *offsetMinutes > 59) return std::nullopt;
    return Time(hours, minutes, seconds, nanoseconds, sign * (*offsetHours * 3600 + *offsetMinutes * 60));
}

void appendTwoDigits(std::string& text, int value) {
    text.push_back(static_cast<char>('0' + value / 10 % 10));
    text.push_back(static_cast<char>('0' + value % 10));
}

// ---- Binding -----------------------------------------------------------------------------------

Any bound(sqlite3_stmt* statement, int code) {
    if (code == SQLITE_OK) return Any();
    return connectionError(sqlite3_db_handle(statement));
}

Any bindText(sqlite3_stmt* statement, int index, std::string_view text) {
    return bound(statement, sqlite3_bind_text64(statement, index, text.data(), text.size(), SQLITE_TRANSIENT, SQLITE_UTF8));
}

// A parameter as a message names it: by its name when it has one (":price"), else by its position.
String parameterLabel(sqlite3_stmt* statement, int index) {
    const char* name = sqlite3_bind_parameter_name(statement, index);
    if (name != nullptr && name[0] != '?') return String(name);
    return String(std::to_string(index));
}

Error unbindable(sqlite3_stmt* statement, int index, const Any& value) {
    return sqlError(SQLITE_MISMATCH, String("Parameter {}: a value of type '{}' cannot be bound.")
                                         .arg(parameterLabel(statement, index), type_name_of(value)));
}

Any bindObject(sqlite3_stmt* statement, int index, const Any& value) {
    if (auto decimal = Decimal::cast(value)) return bindText(statement, index, decimal->toString().view());
    if (auto date = Date::cast(value)) return bindText(statement, index, dateText(*date));
    if (auto dateTime = DateTime::cast(value)) return bindText(statement, index, dateTimeText(*dateTime));
    if (auto time = Time::cast(value)) return bindText(statement, index, timeText(*time));
    if (auto text = String::cast(value)) return bindText(statement, index, text->view());
    return unbindable(statement, index, value);
}

}  // namespace

DeclaredType classifyDeclaredType(const char* declared) {
    if (declared == nullptr) return {};
    const std::string_view text(declared);
    const std::string word = upperFirstWord(text);
    if (contains(word, "DATETIME") || contains(word, "TIMESTAMP")) return {DeclaredKind::DateTime};
    if (word == "DATE") return {DeclaredKind::Date};
    if (word == "DECIMAL" || word == "NUMERIC") return {DeclaredKind::Decimal, declaredScale(text)};
    if (word == "BOOLEAN" || word == "BOOL") return {DeclaredKind::Boolean};
    return {};
}

Any readColumn(sqlite3_stmt* statement, int column, const DeclaredType& type) {
    switch (sqlite3_column_type(statement, column)) {
        case SQLITE_INTEGER: return readInteger(sqlite3_column_int64(statement, column), type);
        case SQLITE_FLOAT: {
            const double value = sqlite3_column_double(statement, column);
            if (type.kind == DeclaredKind::Decimal) return decimalFromReal(value, type.scale);
            return Float(value);
        }
        case SQLITE_TEXT: {
            const auto* data = reinterpret_cast<const char*>(sqlite3_column_text(statement, column));
            const auto size = static_cast<std::size_t>(sqlite3_column_bytes(statement, column));
            return readText(std::string_view(data == nullptr ? "" : data, size), type);
        }
        case SQLITE_BLOB: {
            const auto* data = static_cast<const char*>(sqlite3_column_blob(statement, column));
            const auto size = static_cast<std::size_t>(sqlite3_column_bytes(statement, column));
            return ByteArray(std::string_view(data == nullptr ? "" : data, size));
        }
        default: return Any();
    }
}

Any bindValue(sqlite3_stmt* statement, int index, const Any& value) {
    switch (value.kind()) {
        case Kind::Empty: return bound(statement, sqlite3_bind_null(statement, index));
        case Kind::Boolean: return bound(statement, sqlite3_bind_int64(statement, index, value.rawBoolean() ? 1 : 0));
        case Kind::Integer: return bound(statement, sqlite3_bind_int64(statement, index, value.rawInteger()));
        case Kind::Float: return bound(statement, sqlite3_bind_double(statement, index, value.rawFloat()));
        case Kind::String: return bindText(statement, index, String(internal::unchecked, value).view());
        case Kind::ByteArray: {
            const ByteArray bytes(internal::unchecked, value);
            // A null pointer would bind NULL: an empty byte array stays an empty BLOB.
            if (bytes.size() == 0) return bound(statement, sqlite3_bind_zeroblob(statement, index, 0));
            return bound(statement, sqlite3_bind_blob64(statement, index, bytes.data(), bytes.size(), SQLITE_TRANSIENT));
        }
        case Kind::Object: return bindObject(statement, index, value);
        default: return unbindable(statement, index, value);
    }
}

std::string dateText(const Date& date) {
    char buffer[32];
    const int length = std::snprintf(buffer, sizeof buffer, "%04d-%02u-%02u", static_cast<int>(date.year()),
                                     static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()));
    return std::string(buffer, static_cast<std::size_t>(length));
}

std::string timeText(const Time& time) {
    std::string text;
    appendTwoDigits(text, time.hour());
    text.push_back(':');
    appendTwoDigits(text, time.minute());
    text.push_back(':');
    appendTwoDigits(text, time.second());
    if (std::uint32_t fraction = time.nanoseconds(); fraction != 0) {
        std::string digits = std::to_string(fraction);
        digits.insert(0, 9 - digits.size(), '0');
        digits.erase(digits.find_last_not_of('0') + 1);
        text += "." + digits;
    }
    if (const auto offset = time.offsetSeconds()) {
        const int magnitude = *offset < 0 ? -*offset : *offset;
        text.push_back(*offset < 0 ? '-' : '+');
        appendTwoDigits(text, magnitude / 3600);
        text.push_back(':');
        appendTwoDigits(text, magnitude / 60 % 60);
    }
    return text;
}

std::string dateTimeText(const DateTime& dateTime) { return dateText(dateTime.date()) + " " + timeText(dateTime.time()); }

std::optional<Date> parseDate(std::string_view text) {
    std::size_t position = 0;
    auto date = parseDateAt(text, position);
    if (!date || position != text.size()) return std::nullopt;
    return date;
}

std::optional<DateTime> parseDateTime(std::string_view text) {
    std::size_t position = 0;
    const auto date = parseDateAt(text, position);
    if (!date) return std::nullopt;
    if (position == text.size()) return DateTime(*date, Time(0, 0, 0));
    if (text[position] != ' ' && text[position] != 'T') return std::nullopt;
    ++position;
    const auto time = parseTimeAt(text, position);
    if (!time) return std::nullopt;
    return DateTime(*date, *time);
}

}  // namespace tala::sqlite

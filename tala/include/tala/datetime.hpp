// tala/datetime.hpp: dates, times of day (nanoseconds, optional UTC offset, zone, fold), date-times.
#pragma once

#include <cstdint>
#include <optional>

#include "tala/object.hpp"
#include "tala/string.hpp"

namespace tala {

namespace internal {
struct DateFields {
    std::int32_t year;
    std::uint8_t month;
    std::uint8_t day;
};
struct TimeFields {
    std::uint8_t hour;
    std::uint8_t minute;
    std::uint8_t second;
    std::uint8_t fold;
    std::uint32_t nanoseconds;
    std::optional<std::int32_t> offsetSeconds;
    String zoneName;
};
class DateCell final : public ObjectCell {
public:
    explicit DateCell(DateFields fields);
    DateFields fields;
};
class TimeCell final : public ObjectCell {
public:
    explicit TimeCell(TimeFields fields);
    TimeFields fields;
};
class DateTimeCell final : public ObjectCell {
public:
    DateTimeCell(DateFields date, TimeFields time);
    DateFields date;
    TimeFields time;
};
}  // namespace internal

class Date : public internal::View<Date> {
public:
    using View::View;
    Date(std::int32_t year, std::uint8_t month, std::uint8_t day);
    static bool matches(const Any& value) noexcept { return internal::hasTag(value, internal::NativeTag::Date); }

    std::int32_t year() const noexcept { return fields().year; }
    std::uint8_t month() const noexcept { return fields().month; }
    std::uint8_t day() const noexcept { return fields().day; }
    // A real calendar date (proleptic Gregorian).
    bool isValid() const noexcept;
    const internal::DateFields& fields() const noexcept { return cellAs<internal::DateCell>()->fields; }
    static Class_Generic getClass();
    static Type getType();
};

class Time : public internal::View<Time> {
public:
    using View::View;
    Time(std::uint8_t hour, std::uint8_t minute, std::uint8_t second, std::uint32_t nanoseconds = 0);
    Time(std::uint8_t hour, std::uint8_t minute, std::uint8_t second, std::uint32_t nanoseconds,
         std::int32_t offsetSeconds, String zoneName = String(), std::uint8_t fold = 0);
    static bool matches(const Any& value) noexcept { return internal::hasTag(value, internal::NativeTag::Time); }

    std::uint8_t hour() const noexcept { return fields().hour; }
    std::uint8_t minute() const noexcept { return fields().minute; }
    std::uint8_t second() const noexcept { return fields().second; }
    std::uint32_t nanoseconds() const noexcept { return fields().nanoseconds; }
    std::optional<std::int32_t> offsetSeconds() const noexcept { return fields().offsetSeconds; }
    const String& zoneName() const noexcept { return fields().zoneName; }
    std::uint8_t fold() const noexcept { return fields().fold; }
    const internal::TimeFields& fields() const noexcept { return cellAs<internal::TimeCell>()->fields; }
    static Class_Generic getClass();
    static Type getType();
};

class DateTime : public internal::View<DateTime> {
public:
    using View::View;
    DateTime(const Date& date, const Time& time);
    static bool matches(const Any& value) noexcept { return internal::hasTag(value, internal::NativeTag::DateTime); }

    Date date() const;
    Time time() const;
    const internal::DateTimeCell* cell() const noexcept { return cellAs<internal::DateTimeCell>(); }
    static Class_Generic getClass();
    static Type getType();
};

}  // namespace tala

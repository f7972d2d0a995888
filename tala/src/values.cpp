// tala/src/values.cpp: errors, dates and times, decimals, lazy values and boxes.
#include <cstdio>

#include "decimal_value.hpp"
#include "tala/boxed.hpp"
#include "tala/datetime.hpp"
#include "tala/decimal.hpp"
#include "tala/error.hpp"
#include "tala/lazy.hpp"
#include "tala/type.hpp"

namespace tala {

// ---- Errors ---------------------------------------------------------------------------------

internal::ErrorCell::ErrorCell(const ClassCell* errorClass, String message, std::exception_ptr exception)
    : ObjectCell(errorClass, NativeTag::Error), message(std::move(message)), exception(std::move(exception)) {}

Error::Error(String message) : Error(Error::getClass(), std::move(message)) {}

Error::Error(const Class_Generic& errorClass, String message, std::exception_ptr exception)
    : View(internal::unchecked, Any::adopt(Kind::Object, new internal::ErrorCell(errorClass.cell(), std::move(message),
                                                                               std::move(exception)))) {}

Error Error::fromException(std::exception_ptr exception) {
    String message("Unknown native exception.");
    try {
        if (exception) std::rethrow_exception(exception);
    } catch (const std::exception& caught) {
        message = String(caught.what());
    } catch (...) {
    }
    return Error(Error::getClass(), std::move(message), std::move(exception));
}

Class_Generic Error::errorClass() const { return Class_Generic(cell()->objectClass()); }

bool is_error_result(const Any& value) noexcept { return Error::matches(value); }

StopIteration::StopIteration() : Error(StopIteration::getClass(), String("StopIteration")) {}

bool StopIteration::matches(const Any& value) noexcept {
    return Error::matches(value) && value.cellAs<internal::ErrorCell>()->objectClass()->derivesFrom(getClass().cell());
}

// ---- Dates and times ------------------------------------------------------------------------

internal::DateCell::DateCell(DateFields fields) : ObjectCell(Date::getClass().cell(), NativeTag::Date), fields(fields) {}
internal::TimeCell::TimeCell(TimeFields fields)
    : ObjectCell(Time::getClass().cell(), NativeTag::Time), fields(std::move(fields)) {}
internal::DateTimeCell::DateTimeCell(DateFields date, TimeFields time)
    : ObjectCell(DateTime::getClass().cell(), NativeTag::DateTime), date(date), time(std::move(time)) {}

Date::Date(std::int32_t year, std::uint8_t month, std::uint8_t day)
    : View(internal::unchecked, Any::adopt(Kind::Object, new internal::DateCell({year, month, day}))) {}

bool Date::isValid() const noexcept {
    const auto& date = fields();
    if (date.month < 1 || date.month > 12 || date.day < 1) return false;
    static constexpr std::uint8_t kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    const bool leap = (date.year % 4 == 0 && date.year % 100 != 0) || date.year % 400 == 0;
    const std::uint8_t last = date.month == 2 && leap ? 29 : kDays[date.month - 1];
    return date.day <= last;
}

Time::Time(std::uint8_t hour, std::uint8_t minute, std::uint8_t second, std::uint32_t nanoseconds)
    : View(internal::unchecked,
           Any::adopt(Kind::Object, new internal::TimeCell({hour, minute, second, 0, nanoseconds, std::nullopt, String()}))) {}

Time::Time(std::uint8_t hour, std::uint8_t minute, std::uint8_t second, std::uint32_t nanoseconds,
           std::int32_t offsetSeconds, String zoneName, std::uint8_t fold)
    : View(internal::unchecked,
           Any::adopt(Kind::Object, new internal::TimeCell({hour, minute, second, fold, nanoseconds, offsetSeconds,
                                                            std::move(zoneName)}))) {}

DateTime::DateTime(const Date& date, const Time& time)
    : View(internal::unchecked, Any::adopt(Kind::Object, new internal::DateTimeCell(date.fields(), time.fields()))) {}

Date DateTime::date() const {
    const auto& date = cell()->date;
    return Date(date.year, date.month, date.day);
}

Time DateTime::time() const {
    return Time(internal::unchecked, Any::adopt(Kind::Object, new internal::TimeCell(cell()->time)));
}

// ---- Decimals -------------------------------------------------------------------------------

namespace internal {
class DecimalCell final : public ObjectCell {
public:
    explicit DecimalCell(DecimalValue value) : ObjectCell(Decimal::getClass().cell(), NativeTag::Decimal), value(std::move(value)) {}
    DecimalValue value;
};
}  // namespace internal

Union<Decimal, Error> Decimal::fromString(std::string_view text) {
    auto parsed = internal::DecimalValue::parse(text);
    if (!parsed) return Error(String("Invalid decimal text: '{}'.").arg(String(text)));
    return Decimal(internal::unchecked, Any::adopt(Kind::Object, new internal::DecimalCell(std::move(*parsed))));
}

String Decimal::toString() const { return String(cellAs<internal::DecimalCell>()->value.toString()); }

std::optional<Decimal::Finite> Decimal::finite() const {
    const internal::DecimalValue& value = cellAs<internal::DecimalCell>()->value;
    if (value.special != internal::DecimalValue::Special::Finite) return std::nullopt;
    return Finite{value.negative, value.digits, value.exponent};
}

int Decimal::compare(const Decimal& other) const {
    return cellAs<internal::DecimalCell>()->value.compare(other.cellAs<internal::DecimalCell>()->value);
}

std::uint64_t Decimal::hash() const { return cellAs<internal::DecimalCell>()->value.hash(); }

// ---- Lazy values, boxes ---------------------------------------------------------------------

const Any& internal::LazyCell::resolve() const {
    std::call_once(once_, [this] {
        value_ = producer_();
        producer_ = nullptr;  // drop what the producer captured
    });
    return value_;
}

Any resolve(Any value) {
    while (value.kind() == Kind::Lazy) value = Lazy_Generic(internal::unchecked, value).resolve();
    return value;
}

Any internal::typesMismatchError() { return Error(String("Types mismatch.")); }

}  // namespace tala

// tala/src/convert.cpp: the exact readings of host numbers and collections behind tala::to, and its error texts.
#include "tala/convert.hpp"

#include <charconv>
#include <cmath>
#include <exception>
#include <limits>

#include "decimal_value.hpp"
#include "tala/decimal.hpp"
#include "tala/display.hpp"
#include "tala/interfaces.hpp"
#include "tala/lazy.hpp"

namespace tala::internal {

namespace {

// Display texts longer than this are cut in error messages: a conversion error names the value,
// it does not print a whole container.
constexpr std::size_t kLongestShownValue = 80;

std::string shown(const Any& value) {
    std::string text;
    try {
        text = display(value).toStdString();
    } catch (...) {
        return "a value that cannot be shown";
    }
    if (text.size() <= kLongestShownValue) return text;
    std::size_t cut = kLongestShownValue - 3;
    // Never in the middle of a UTF-8 sequence: back up over continuation bytes.
    while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80) --cut;
    return text.substr(0, cut) + "...";
}

Error message(std::string text) { return Error(String(text)); }

Error errorFromException() { return Error::fromException(std::current_exception()); }

ExactInteger integerOf(std::int64_t number) {
    ExactInteger read{ExactInteger::Ok, number < 0, 0};
    // The magnitude of the least int64 is 2^63, which only the unsigned type holds.
    read.magnitude = number < 0 ? ~static_cast<std::uint64_t>(number) + 1 : static_cast<std::uint64_t>(number);
    return read;
}

ExactInteger integerOfFloat(double number) {
    if (std::isnan(number)) return {ExactInteger::Inexact};
    if (std::isinf(number)) return {ExactInteger::TooLarge};
    if (std::trunc(number) != number) return {ExactInteger::Inexact};
    const double magnitude = std::fabs(number);
    if (magnitude >= 18446744073709551616.0) return {ExactInteger::TooLarge};
    return {ExactInteger::Ok, std::signbit(number) && magnitude != 0.0, static_cast<std::uint64_t>(magnitude)};
}

std::optional<DecimalValue> decimalValueOf(const Any& value) {
    return DecimalValue::parse(Decimal(unchecked, value).toString().view());
}

ExactInteger integerOfDecimal(const Any& value) {
    const std::optional<DecimalValue> decimal = decimalValueOf(value);
    if (!decimal) return {ExactInteger::WrongKind};
    switch (decimal->special) {
        case DecimalValue::Special::Finite: break;
        case DecimalValue::Special::Infinity: return {ExactInteger::TooLarge};
        default: return {ExactInteger::Inexact};
    }
    std::string digits = decimal->digits;
    std::int64_t exponent = decimal->exponent;
    // Trailing zeros of the coefficient move into the exponent: 2.00 is 2.
    while (digits.size() > 1 && digits.back() == '0' && exponent < 0) {
        digits.pop_back();
        ++exponent;
    }
    if (digits == "0") return {ExactInteger::Ok};
    if (exponent < 0) return {ExactInteger::Inexact};
    // 2^64 has 20 digits.
    if (exponent > 20 || digits.size() + static_cast<std::size_t>(exponent) > 20) return {ExactInteger::TooLarge};
    digits.append(static_cast<std::size_t>(exponent), '0');
    std::uint64_t magnitude = 0;
    for (const char digit : digits) {
        const auto next = static_cast<std::uint64_t>(digit - '0');
        if (magnitude > (std::numeric_limits<std::uint64_t>::max() - next) / 10) return {ExactInteger::TooLarge};
        magnitude = magnitude * 10 + next;
    }
    return {ExactInteger::Ok, decimal->negative, magnitude};
}

ExactDouble doubleOfInteger(std::int64_t number) {
    const auto converted = static_cast<double>(number);
    // 2^63 itself is no int64: a number that rounded up to it was not held exactly.
    if (converted >= 9223372036854775808.0 || static_cast<std::int64_t>(converted) != number) {
        return {ExactDouble::Inexact};
    }
    return {ExactDouble::Ok, converted};
}

// A decimal that a double holds exactly: the nearest double, written out with all its digits
// (a double's exact expansion has at most 767 significant digits), is the decimal itself.
ExactDouble doubleOfDecimal(const Any& value) {
    const std::optional<DecimalValue> decimal = decimalValueOf(value);
    if (!decimal) return {ExactDouble::WrongKind};
    switch (decimal->special) {
        case DecimalValue::Special::Finite: break;
        case DecimalValue::Special::Infinity:
            return {ExactDouble::Ok, decimal->negative ? -std::numeric_limits<double>::infinity()
                                                       : std::numeric_limits<double>::infinity()};
        case DecimalValue::Special::QuietNaN: return {ExactDouble::Ok, std::numeric_limits<double>::quiet_NaN()};
        case DecimalValue::Special::SignalingNaN: return {ExactDouble::Inexact};
    }
    if (decimal->isZero()) return {ExactDouble::Ok, decimal->negative ? -0.0 : 0.0};
    const std::string text = decimal->toString();
    double nearest = 0.0;
    const auto parsed = std::from_chars(text.data(), text.data() + text.size(), nearest);
    if (parsed.ec != std::errc() || !std::isfinite(nearest) || nearest == 0.0) return {ExactDouble::Inexact};
    char expansion[800];
    const auto written =
        std::to_chars(expansion, expansion + sizeof expansion, nearest, std::chars_format::scientific, 767);
    if (written.ec != std::errc()) return {ExactDouble::Inexact};
    const std::optional<DecimalValue> exact = DecimalValue::parse(std::string_view(expansion, written.ptr - expansion));
    if (!exact || exact->compare(*decimal) != 0) return {ExactDouble::Inexact};
    return {ExactDouble::Ok, nearest};
}

bool isText(const Any& value) {
    return value.kind() == Kind::String || value.kind() == Kind::ByteArray || String::matches(value);
}

// Calls next() until the end: every item into `items`; the Error of a step that failed.
Any drain(const Any& iterator, std::vector<Any>& items) {
    for (;;) {
        Any item = resolve(I_Iterator_Generic(unchecked, iterator).next());
        if (StopIteration::matches(item)) return Any();
        if (is_error_result(item)) return item;
        items.push_back(std::move(item));
    }
}

Any readIterable(const Any& iterable, std::vector<Any>& items) {
    Any iterator = resolve(I_Iterable_Generic(unchecked, iterable).iter());
    if (is_error_result(iterator)) return iterator;
    if (!I_Iterator_Generic::matches(iterator)) {
        return message("The iterator of " + shown(iterable) + " is no iterator: " + shown(iterator) + ".");
    }
    return drain(iterator, items);
}

// By position: sequences that are not iterable in their own right answer length and at.
Any readSequence(const Any& sequence, std::vector<Any>& items) {
    const I_Sequence_Generic view(unchecked, sequence);
    const Any length = resolve(view.length());
    if (is_error_result(length)) return length;
    if (length.kind() != Kind::Integer || length.rawInteger() < 0) {
        return message("The length of " + shown(sequence) + " is no count: " + shown(length) + ".");
    }
    items.reserve(static_cast<std::size_t>(length.rawInteger()));
    for (std::int64_t index = 0; index < length.rawInteger(); ++index) {
        Any item = resolve(view.at(index));
        if (is_error_result(item)) return item;
        items.push_back(std::move(item));
    }
    return Any();
}

void readTable(const OrderedTable& table, std::vector<Any>& items) {
    items.reserve(table.size());
    for (std::size_t slot = 0; slot < table.slotCount(); ++slot) {
        if (table.slot(slot).alive) items.push_back(table.slot(slot).key);
    }
}

ItemsRead readItemsUnguarded(const Any& value, ItemSource source, std::vector<Any>& items) {
    const bool wantsSet = source == ItemSource::Set;
    const bool wantsSequence = source != ItemSource::Set;
    switch (value.kind()) {
        case Kind::List:
        case Kind::Tuple: {
            if (!wantsSequence) return {false, Any()};
            const std::span<const Any> all = value.kind() == Kind::List ? List_Generic(unchecked, value).items()
                                                                        : Tuple(unchecked, value).items();
            items.assign(all.begin(), all.end());
            return {true, Any()};
        }
        case Kind::Set:
            if (source == ItemSource::Sequence) return {false, Any()};
            readTable(Set_Generic(unchecked, value).table(), items);
            return {true, Any()};
        case Kind::HashMap: return {false, Any()};
        default: break;
    }
    if (isText(value) || I_Map_Generic::matches(value)) return {false, Any()};
    if (I_Set_Generic::matches(value)) {
        if (source == ItemSource::Sequence) return {false, Any()};
        return {true, readIterable(value, items)};
    }
    if (wantsSet) return {false, Any()};
    if (I_Sequence_Generic::matches(value)) return {true, readSequence(value, items)};
    if (source != ItemSource::Iterable) return {false, Any()};
    if (I_Iterator_Generic::matches(value)) return {true, drain(value, items)};
    if (I_Iterable_Generic::matches(value)) return {true, readIterable(value, items)};
    return {false, Any()};
}

ItemsRead readEntriesUnguarded(const Any& value, std::vector<std::pair<Any, Any>>& entries) {
    if (value.kind() == Kind::HashMap) {
        const OrderedTable& table = HashMap_Generic(unchecked, value).table();
        entries.reserve(table.size());
        for (std::size_t slot = 0; slot < table.slotCount(); ++slot) {
            const OrderedTable::Entry& entry = table.slot(slot);
            if (entry.alive) entries.emplace_back(entry.key, entry.value);
        }
        return {true, Any()};
    }
    if (!I_Map_Generic::matches(value)) return {false, Any()};
    const I_Map_Generic map(unchecked, value);
    const Any keys = resolve(map.keys());
    if (is_error_result(keys)) return {true, keys};
    std::vector<Any> keyItems;
    const ItemsRead read = readItemsUnguarded(keys, ItemSource::Iterable, keyItems);
    if (!read.isCollection) {
        return {true, message("The keys of " + shown(value) + " are no collection: " + shown(keys) + ".")};
    }
    if (read.error.hasValue()) return {true, read.error};
    entries.reserve(keyItems.size());
    for (Any& key : keyItems) {
        Any item = resolve(map.get(key));
        if (is_error_result(item)) return {true, item};
        entries.emplace_back(std::move(key), std::move(item));
    }
    return {true, Any()};
}

// "At [1]" and a message that begins "At ['a']: ..." make "At [1]['a']: ...".
Error withPlace(const std::string& place, const Error& inner) {
    const std::string_view text = inner.message().view();
    if (text.starts_with("At [")) return message("At " + place + std::string(text.substr(3)));
    return message("At " + place + ": " + std::string(text));
}

}  // namespace

Any conversionInput(const Any& value) {
    try {
        return unwrap(value);
    } catch (...) {
        return errorFromException();
    }
}

Error cannotConvert(const Any& value, std::string_view target) {
    return message("Cannot convert " + shown(value) + " to " + std::string(target) + ".");
}

Error cannotConvertExactly(const Any& value, std::string_view target) {
    return message("Cannot convert " + shown(value) + " to " + std::string(target) + " exactly.");
}

Error doesNotFit(const Any& value, std::string_view target) {
    return message("The number " + shown(value) + " does not fit in " + std::string(target) + ".");
}

Error wrongItemCount(const Any& value, std::string_view target, std::size_t count, std::size_t expected) {
    return message("Cannot convert " + shown(value) + " to " + std::string(target) + ": it has " + std::to_string(count) +
                   " items, not " + std::to_string(expected) + ".");
}

Error duplicateAfterConversion(const Any& value, std::string_view target) {
    return message("Duplicate key after conversion to " + std::string(target) + ": " + shown(value) + ".");
}

Error tooLargeForHost(std::uint64_t value) {
    return message("The number " + std::to_string(value) + " does not fit in a host integer.");
}

Error atIndex(std::size_t index, const Error& inner) { return withPlace("[" + std::to_string(index) + "]", inner); }

Error atKey(const Any& key, const Error& inner) { return withPlace("[" + shown(key) + "]", inner); }

ExactInteger readInteger(const Any& value) {
    switch (value.kind()) {
        case Kind::Integer: return integerOf(value.rawInteger());
        case Kind::Float: return integerOfFloat(value.rawFloat());
        default: break;
    }
    if (Decimal::matches(value)) return integerOfDecimal(value);
    return {ExactInteger::WrongKind};
}

ExactDouble readDouble(const Any& value) {
    switch (value.kind()) {
        case Kind::Float: return {ExactDouble::Ok, value.rawFloat()};
        case Kind::Integer: return doubleOfInteger(value.rawInteger());
        default: break;
    }
    if (Decimal::matches(value)) return doubleOfDecimal(value);
    return {ExactDouble::WrongKind};
}

ItemsRead readItems(const Any& value, ItemSource source, std::vector<Any>& items) {
    // Host functions and language bridges answer errors; what throws is the object model's own
    // failure (a host set changed while it was read), which a conversion reports as its error.
    try {
        return readItemsUnguarded(value, source, items);
    } catch (...) {
        return {true, errorFromException()};
    }
}

ItemsRead readEntries(const Any& value, std::vector<std::pair<Any, Any>>& entries) {
    try {
        return readEntriesUnguarded(value, entries);
    } catch (...) {
        return {true, errorFromException()};
    }
}

}  // namespace tala::internal

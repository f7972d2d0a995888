#pragma once

// Exact decimal number representation backing tala::Decimal.
//
// The value is kept as a sign, a string of coefficient digits and a 64-bit
// exponent so that any decimal text can be held without rounding; arithmetic
// on exponents is done in 128-bit integers so that extreme exponents never
// overflow silently.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tala::internal {

struct DecimalValue {
    enum class Special : std::uint8_t { Finite, Infinity, QuietNaN, SignalingNaN };

    bool negative = false;
    Special special = Special::Finite;
    // Coefficient digits without leading zeros (a lone "0" for zero). For NaNs
    // this holds the diagnostic payload instead, which may be empty.
    std::string digits = "0";
    // value = (-1)^negative * digits * 10^exponent
    std::int64_t exponent = 0;

    // Accepts the textual forms Python's decimal.Decimal constructor accepts:
    // surrounding whitespace, an optional sign, digits with an optional '.',
    // an optional exponent introduced by 'e'/'E', and the words "Inf",
    // "Infinity", "NaN" and "sNaN" (any case) with optional NaN payload digits.
    // Single underscores may group digits, as in Python numeric literals.
    // Anything else (including exponents beyond the int64 range) yields nullopt.
    static std::optional<DecimalValue> parse(std::string_view text);

    // Python's str(Decimal): scientific notation when the exponent is positive
    // or the value is very small, plain notation otherwise. Canonical texts
    // round-trip exactly through parse().
    std::string toString() const;

    // Numeric three-way comparison returning -1, 0 or 1. Trailing zeros and the
    // sign of zero do not matter. NaNs sort after every number (including
    // +Infinity) and compare equal to each other, giving a total order suitable
    // for sorting.
    int compare(const DecimalValue& other) const;

    // Consistent with compare(): numerically equal values hash equal.
    std::size_t hash() const;

    bool isZero() const;
};

}  // namespace tala::internal

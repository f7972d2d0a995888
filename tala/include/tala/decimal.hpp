// tala/decimal.hpp: exact decimal numbers that keep their text ("1.10" stays "1.10").
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "tala/object.hpp"
#include "tala/string.hpp"
#include "tala/union.hpp"

namespace tala {

class Error;

class Decimal : public internal::View<Decimal> {
public:
    using View::View;
    static bool matches(const Any& value) noexcept { return internal::hasTag(value, internal::NativeTag::Decimal); }

    // Parses the decimal forms Python's decimal module reads; bad text gives an Error.
    static Union<Decimal, Error> fromString(std::string_view text);
    // The exact text (scientific notation where the exponent calls for it: "1E+1000").
    String toString() const;
    // A finite value as its sign, coefficient digits (no leading zeros; "0" for zero) and
    // exponent: value = (-1)^negative * digits * 10^exponent. The digits live as long as the
    // decimal. Nothing for an infinity or a NaN.
    struct Finite {
        bool negative;
        std::string_view digits;
        std::int64_t exponent;
    };
    std::optional<Finite> finite() const;
    // Numeric three-way comparison; 1.10 equals 1.1.
    int compare(const Decimal& other) const;
    std::uint64_t hash() const;

    static Class_Generic getClass();
    static Type getType();
};

}  // namespace tala

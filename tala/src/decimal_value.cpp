#include "decimal_value.hpp"

#include <algorithm>
#include <array>
#include <functional>

namespace tala::internal {

namespace {

// Wide enough to hold any exponent plus any digit count without overflow.
// __extension__ keeps -Wpedantic builds quiet about the non-standard type.
__extension__ typedef __int128 Int128;
__extension__ typedef unsigned __int128 UInt128;

constexpr Int128 kInt64Min = static_cast<Int128>(INT64_MIN);
constexpr Int128 kInt64Max = static_cast<Int128>(INT64_MAX);

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

char toLowerAscii(char c) {
    return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

bool equalsIgnoreCase(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) {
        return false;
    }
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (toLowerAscii(a[i]) != toLowerAscii(b[i])) {
            return false;
        }
    }
    return true;
}

bool startsWithIgnoreCase(std::string_view text, std::string_view prefix) {
    return text.size() >= prefix.size() && equalsIgnoreCase(text.substr(0, prefix.size()), prefix);
}

// Python strips with str.strip(), which knows about Unicode whitespace. Text
// reaches us as UTF-8, so the non-ASCII whitespace code points are matched as
// their encoded byte sequences.
constexpr std::array<std::string_view, 19> kUnicodeSpaces = {
    "\xC2\x85",          // U+0085 NEXT LINE
    "\xC2\xA0",          // U+00A0 NO-BREAK SPACE
    "\xE1\x9A\x80",      // U+1680 OGHAM SPACE MARK
    "\xE2\x80\x80", "\xE2\x80\x81", "\xE2\x80\x82", "\xE2\x80\x83", "\xE2\x80\x84",
    "\xE2\x80\x85", "\xE2\x80\x86", "\xE2\x80\x87", "\xE2\x80\x88", "\xE2\x80\x89",
    "\xE2\x80\x8A",      // U+2000..U+200A
    "\xE2\x80\xA8",      // U+2028 LINE SEPARATOR
    "\xE2\x80\xA9",      // U+2029 PARAGRAPH SEPARATOR
    "\xE2\x80\xAF",      // U+202F NARROW NO-BREAK SPACE
    "\xE2\x81\x9F",      // U+205F MEDIUM MATHEMATICAL SPACE
    "\xE3\x80\x80",      // U+3000 IDEOGRAPHIC SPACE
};

bool isAsciiSpace(char c) {
    // Matches str.isspace() for ASCII, which includes the separators 0x1C-0x1F.
    return c == ' ' || (c >= '\t' && c <= '\r') || (c >= '\x1c' && c <= '\x1f');
}

// Every Unicode space above starts with a byte of 0xC2 or more and ends with a continuation
// byte (0x80 to 0xBF): text that starts and ends with ASCII has none at its ends to compare.
bool mayEndInUnicodeSpace(unsigned char c) { return c >= 0x80; }

std::string_view trimSpace(std::string_view text) {
    if (!text.empty() && !isAsciiSpace(text.front()) && !isAsciiSpace(text.back()) &&
        !mayEndInUnicodeSpace(static_cast<unsigned char>(text.front())) &&
        !mayEndInUnicodeSpace(static_cast<unsigned char>(text.back()))) {
        return text;
    }
    for (bool changed = true; changed && !text.empty();) {
        changed = false;
        if (isAsciiSpace(text.front())) {
            text.remove_prefix(1);
            changed = true;
            continue;
        }
        for (std::string_view space : kUnicodeSpaces) {
            if (text.starts_with(space)) {
                text.remove_prefix(space.size());
                changed = true;
                break;
            }
        }
    }
    for (bool changed = true; changed && !text.empty();) {
        changed = false;
        if (isAsciiSpace(text.back())) {
            text.remove_suffix(1);
            changed = true;
            continue;
        }
        for (std::string_view space : kUnicodeSpaces) {
            if (text.ends_with(space)) {
                text.remove_suffix(space.size());
                changed = true;
                break;
            }
        }
    }
    return text;
}

// Consumes a run of digits starting at `pos`, appending them to `out`. An
// underscore is only accepted with a digit on both sides, as in Python
// literals; anything else stops the run and is left for the caller to reject.
void readDigits(std::string_view text, std::size_t& pos, std::string& out) {
    while (pos < text.size()) {
        const char c = text[pos];
        if (isDigit(c)) {
            out.push_back(c);
            ++pos;
        } else if (c == '_' && pos > 0 && isDigit(text[pos - 1]) && pos + 1 < text.size() &&
                   isDigit(text[pos + 1])) {
            ++pos;
        } else {
            break;
        }
    }
}

std::string_view stripLeadingZeros(std::string_view digits) {
    const std::size_t first = digits.find_first_not_of('0');
    return first == std::string_view::npos ? std::string_view{} : digits.substr(first);
}

std::string_view stripTrailingZeros(std::string_view digits) {
    const std::size_t last = digits.find_last_not_of('0');
    return last == std::string_view::npos ? std::string_view{} : digits.substr(0, last + 1);
}

bool isNaN(DecimalValue::Special special) {
    return special == DecimalValue::Special::QuietNaN || special == DecimalValue::Special::SignalingNaN;
}

std::string int128ToString(Int128 value) {
    const bool negative = value < 0;
    // Work with the magnitude as unsigned so that the minimum value is safe.
    UInt128 magnitude = negative ? static_cast<UInt128>(-(value + 1)) + 1
                                   : static_cast<UInt128>(value);
    std::string out;
    do {
        out.push_back(static_cast<char>('0' + static_cast<int>(magnitude % 10)));
        magnitude /= 10;
    } while (magnitude != 0);
    if (negative) {
        out.push_back('-');
    }
    std::reverse(out.begin(), out.end());
    return out;
}

// Exponent of the most significant digit: the value lies in
// [10^adjusted, 10^(adjusted+1)) in magnitude. `significand` must be non-empty.
Int128 adjustedExponent(std::string_view significand, std::int64_t exponent) {
    return static_cast<Int128>(exponent) + static_cast<Int128>(significand.size()) - 1;
}

// -1, 0 or 1 for finite and infinite values (never NaN).
int signOf(const DecimalValue& value) {
    if (value.special == DecimalValue::Special::Finite && value.isZero()) {
        return 0;
    }
    return value.negative ? -1 : 1;
}

void hashCombine(std::size_t& seed, std::size_t value) {
    seed ^= value + static_cast<std::size_t>(0x9e3779b97f4a7c15ULL) + (seed << 6) + (seed >> 2);
}

}  // namespace

std::optional<DecimalValue> DecimalValue::parse(std::string_view text) {
    text = trimSpace(text);
    DecimalValue result;
    std::size_t pos = 0;
    if (pos < text.size() && (text[pos] == '+' || text[pos] == '-')) {
        result.negative = text[pos] == '-';
        ++pos;
    }
    std::string_view rest = text.substr(pos);
    if (rest.empty()) {
        return std::nullopt;
    }

    if (equalsIgnoreCase(rest, "inf") || equalsIgnoreCase(rest, "infinity")) {
        result.special = Special::Infinity;
        result.digits = "0";
        return result;
    }

    const bool signaling = startsWithIgnoreCase(rest, "snan");
    if (signaling || startsWithIgnoreCase(rest, "nan")) {
        result.special = signaling ? Special::SignalingNaN : Special::QuietNaN;
        const std::size_t payloadPos = signaling ? 4 : 3;
        std::string payload;
        // Underscores are only legal between payload digits, never right after
        // the word, so read from a view that starts at the payload.
        std::string_view payloadText = rest.substr(payloadPos);
        std::size_t p = 0;
        readDigits(payloadText, p, payload);
        if (p != payloadText.size()) {
            return std::nullopt;
        }
        result.digits = std::string(stripLeadingZeros(payload));
        return result;
    }

    // Numeric form. Restart the position relative to `rest` so underscores at
    // the very start (after a sign) are rejected like in Python literals.
    std::size_t p = 0;
    std::string coefficient;
    readDigits(rest, p, coefficient);
    std::size_t fractionLength = 0;
    if (p < rest.size() && rest[p] == '.') {
        ++p;
        // A fresh view so that "1._5" does not treat '.' as a digit neighbour.
        std::string_view fractionText = rest.substr(p);
        std::size_t q = 0;
        const std::size_t before = coefficient.size();
        readDigits(fractionText, q, coefficient);
        fractionLength = coefficient.size() - before;
        p += q;
    }
    if (coefficient.empty()) {
        return std::nullopt;
    }

    Int128 exponent = 0;
    if (p < rest.size() && (rest[p] == 'e' || rest[p] == 'E')) {
        ++p;
        bool exponentNegative = false;
        if (p < rest.size() && (rest[p] == '+' || rest[p] == '-')) {
            exponentNegative = rest[p] == '-';
            ++p;
        }
        std::string_view exponentText = rest.substr(p);
        std::size_t q = 0;
        std::string exponentDigits;
        readDigits(exponentText, q, exponentDigits);
        if (exponentDigits.empty()) {
            return std::nullopt;
        }
        p += q;
        const std::string_view significant = stripLeadingZeros(exponentDigits);
        // Far beyond int64 even after subtracting any in-memory fraction length.
        if (significant.size() > 30) {
            return std::nullopt;
        }
        for (char c : significant) {
            exponent = exponent * 10 + (c - '0');
        }
        if (exponentNegative) {
            exponent = -exponent;
        }
    }
    if (p != rest.size()) {
        return std::nullopt;
    }

    exponent -= static_cast<Int128>(fractionLength);
    if (exponent < kInt64Min || exponent > kInt64Max) {
        return std::nullopt;
    }
    result.exponent = static_cast<std::int64_t>(exponent);
    const std::string_view significand = stripLeadingZeros(coefficient);
    result.digits = significand.empty() ? std::string("0") : std::string(significand);
    return result;
}

std::string DecimalValue::toString() const {
    std::string out;
    if (negative) {
        out.push_back('-');
    }
    if (special == Special::Infinity) {
        out += "Infinity";
        return out;
    }
    if (isNaN(special)) {
        out += special == Special::SignalingNaN ? "sNaN" : "NaN";
        // A zero payload carries no diagnostic information and is not shown.
        out += stripLeadingZeros(digits);
        return out;
    }

    std::string_view coefficient = stripLeadingZeros(digits);
    if (coefficient.empty()) {
        coefficient = "0";
    }
    const Int128 adjusted = adjustedExponent(coefficient, exponent);

    if (exponent <= 0 && adjusted >= -6) {
        // Plain notation. adjusted >= -6 bounds the number of padding zeros,
        // so this never produces huge strings.
        if (exponent == 0) {
            out += coefficient;
            return out;
        }
        const Int128 pointPosition = static_cast<Int128>(coefficient.size()) + exponent;
        if (pointPosition > 0) {
            const auto split = static_cast<std::size_t>(pointPosition);
            out += coefficient.substr(0, split);
            out.push_back('.');
            out += coefficient.substr(split);
        } else {
            out += "0.";
            out.append(static_cast<std::size_t>(-pointPosition), '0');
            out += coefficient;
        }
        return out;
    }

    // Scientific notation: one digit before the point, explicit exponent sign.
    out.push_back(coefficient.front());
    if (coefficient.size() > 1) {
        out.push_back('.');
        out += coefficient.substr(1);
    }
    out.push_back('E');
    if (adjusted >= 0) {
        out.push_back('+');
    }
    out += int128ToString(adjusted);
    return out;
}

bool DecimalValue::isZero() const {
    return special == Special::Finite && stripLeadingZeros(digits).empty();
}

int DecimalValue::compare(const DecimalValue& other) const {
    const bool thisNaN = isNaN(special);
    const bool otherNaN = isNaN(other.special);
    if (thisNaN || otherNaN) {
        if (thisNaN && otherNaN) {
            return 0;
        }
        return thisNaN ? 1 : -1;
    }

    const int thisSign = signOf(*this);
    const int otherSign = signOf(other);
    if (thisSign != otherSign) {
        return thisSign < otherSign ? -1 : 1;
    }
    if (thisSign == 0) {
        return 0;
    }

    // Same non-zero sign: compare magnitudes, then flip for negatives.
    int magnitude = 0;
    const bool thisInf = special == Special::Infinity;
    const bool otherInf = other.special == Special::Infinity;
    if (thisInf || otherInf) {
        magnitude = thisInf == otherInf ? 0 : (thisInf ? 1 : -1);
    } else {
        const std::string_view a = stripTrailingZeros(stripLeadingZeros(digits));
        const std::string_view b = stripTrailingZeros(stripLeadingZeros(other.digits));
        // Trailing zeros were removed from the digits only, so the adjusted
        // exponent must come from the original digit count.
        const Int128 adjA = adjustedExponent(stripLeadingZeros(digits), exponent);
        const Int128 adjB = adjustedExponent(stripLeadingZeros(other.digits), other.exponent);
        if (adjA != adjB) {
            magnitude = adjA < adjB ? -1 : 1;
        } else {
            // Leading digits share the same power of ten, so compare position by
            // position; a missing digit counts as zero, and since both have no
            // trailing zeros the shorter one is smaller once a prefix matches.
            const std::size_t common = std::min(a.size(), b.size());
            const int cmp = a.substr(0, common).compare(b.substr(0, common));
            if (cmp != 0) {
                magnitude = cmp < 0 ? -1 : 1;
            } else if (a.size() != b.size()) {
                magnitude = a.size() < b.size() ? -1 : 1;
            }
        }
    }
    return thisSign < 0 ? -magnitude : magnitude;
}

std::size_t DecimalValue::hash() const {
    if (isNaN(special)) {
        return static_cast<std::size_t>(0x6e614eULL);  // every NaN compares equal
    }
    if (special == Special::Infinity) {
        return negative ? static_cast<std::size_t>(0x2d696e66ULL) : static_cast<std::size_t>(0x2b696e66ULL);
    }
    const std::string_view leading = stripLeadingZeros(digits);
    if (leading.empty()) {
        return 0;  // +0 and -0 with any exponent
    }
    // Canonical form: digits without trailing zeros plus the adjusted exponent,
    // which is unchanged by adding or removing trailing zeros.
    const std::string_view significand = stripTrailingZeros(leading);
    const Int128 adjusted = adjustedExponent(leading, exponent);
    const auto bits = static_cast<UInt128>(adjusted);
    std::size_t seed = std::hash<std::string_view>{}(significand);
    hashCombine(seed, std::hash<std::uint64_t>{}(static_cast<std::uint64_t>(bits)));
    hashCombine(seed, std::hash<std::uint64_t>{}(static_cast<std::uint64_t>(bits >> 64)));
    hashCombine(seed, negative ? 1U : 2U);
    return seed;
}

}  // namespace tala::internal

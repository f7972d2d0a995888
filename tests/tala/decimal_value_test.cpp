#include "decimal_value.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

namespace {

using tala::internal::DecimalValue;

DecimalValue dec(std::string_view text) {
    std::optional<DecimalValue> value = DecimalValue::parse(text);
    EXPECT_TRUE(value.has_value()) << "failed to parse: " << text;
    return value.value_or(DecimalValue{});
}

std::string roundTrip(std::string_view text) {
    std::optional<DecimalValue> value = DecimalValue::parse(text);
    return value ? value->toString() : std::string("<nullopt>");
}

int cmp(std::string_view a, std::string_view b) {
    return dec(a).compare(dec(b));
}

TEST(DecimalValueTest, CanonicalTextsRoundTrip) {
    for (const char* text : {"1.10", "-0.00", "1E+1000", "0E-7", "1.23E-8", "123", "-Infinity", "NaN",
                             "sNaN12", "0.000001", "1E-7", "0", "-0", "Infinity", "-sNaN", "-NaN7",
                             "0.1", "123.456", "1.234E+5", "0E+2", "-1.5E-10", "12.3400", "0.00"}) {
        EXPECT_EQ(roundTrip(text), text);
    }
}

TEST(DecimalValueTest, NonCanonicalInputsNormaliseLikePython) {
    EXPECT_EQ(roundTrip("  1.5  "), "1.5");
    EXPECT_EQ(roundTrip("\t1\n"), "1");
    EXPECT_EQ(roundTrip("+2"), "2");
    EXPECT_EQ(roundTrip("1e3"), "1E+3");
    EXPECT_EQ(roundTrip("1_000"), "1000");
    EXPECT_EQ(roundTrip("1_0.0_1"), "10.01");
    EXPECT_EQ(roundTrip("1e1_0"), "1E+10");
    EXPECT_EQ(roundTrip(".5"), "0.5");
    EXPECT_EQ(roundTrip("+.5"), "0.5");
    EXPECT_EQ(roundTrip("5."), "5");
    EXPECT_EQ(roundTrip("-0"), "-0");
    EXPECT_EQ(roundTrip("inf"), "Infinity");
    EXPECT_EQ(roundTrip("INFINITY"), "Infinity");
    EXPECT_EQ(roundTrip("-nan"), "-NaN");
    EXPECT_EQ(roundTrip("snan012"), "sNaN12");
    EXPECT_EQ(roundTrip("NaN000"), "NaN");
    EXPECT_EQ(roundTrip("00012.3400"), "12.3400");
    EXPECT_EQ(roundTrip("-0.0e-5"), "-0.000000");
    EXPECT_EQ(roundTrip("100e-2"), "1.00");
    EXPECT_EQ(roundTrip("1.0E+1"), "10");
    EXPECT_EQ(roundTrip("0.0000001"), "1E-7");
    EXPECT_EQ(roundTrip("1e0000000000000000000000000005"), "1E+5");
    EXPECT_EQ(roundTrip("1\xC2\xA0"), "1");  // U+00A0 is whitespace to Python
    EXPECT_EQ(roundTrip("\xE3\x80\x80 \xE2\x80\xAF-2.5\xE2\x80\xA9\t"), "-2.5");  // spaces of both kinds at both ends
}

TEST(DecimalValueTest, OtherCharactersAtTheEndsAreNotSpace) {
    for (const char* text : {"1.5\xC3\xA9", "\xC3\xA9" "1.5", "1.5\xE2\x80", "\xE2\x80\xA8\xE2\x80"}) {
        EXPECT_FALSE(tala::internal::DecimalValue::parse(text).has_value()) << text;
    }
}

TEST(DecimalValueTest, InvalidInputsAreRejected) {
    for (const char* text : {"", "   ", "abc", "1.2.3", "1e", "1e+", "e5", ".", "--1", "+-1", "1__0",
                             "_1", "1_", "-_1", "1_.5", "1._5", "1e_1", "1e1_", "1 0", "infini", "infinityx",
                             "nan_1", "nan1_", "snan-1", "0x10", "1e9223372036854775808",
                             "1e-9223372036854775809", "0.1e-9223372036854775808",
                             "1e100000000000000000000000000000000"}) {
        EXPECT_FALSE(DecimalValue::parse(text).has_value()) << "accepted: '" << text << "'";
    }
}

TEST(DecimalValueTest, ParsedFieldsAreCanonical) {
    DecimalValue value = dec("-001.2300");
    EXPECT_TRUE(value.negative);
    EXPECT_EQ(value.special, DecimalValue::Special::Finite);
    EXPECT_EQ(value.digits, "12300");
    EXPECT_EQ(value.exponent, -4);

    DecimalValue zero = dec("0.000");
    EXPECT_EQ(zero.digits, "0");
    EXPECT_EQ(zero.exponent, -3);
    EXPECT_TRUE(zero.isZero());

    DecimalValue nan = dec("NaN");
    EXPECT_EQ(nan.special, DecimalValue::Special::QuietNaN);
    EXPECT_TRUE(nan.digits.empty());
    EXPECT_FALSE(nan.isZero());
    EXPECT_FALSE(dec("Infinity").isZero());
    EXPECT_FALSE(dec("0.001").isZero());
}

TEST(DecimalValueTest, ExtremeExponents) {
    DecimalValue max = dec("1e9223372036854775807");
    EXPECT_EQ(max.exponent, INT64_MAX);
    // The adjusted exponent exceeds int64 and must still print exactly.
    EXPECT_EQ(dec("12e9223372036854775807").toString(), "1.2E+9223372036854775808");
    EXPECT_EQ(dec("1e-9223372036854775808").toString(), "1E-9223372036854775808");
    EXPECT_EQ(dec("0.1e9223372036854775807").exponent, INT64_MAX - 1);
    EXPECT_GT(cmp("1e9223372036854775807", "1e-9223372036854775808"), 0);
    EXPECT_LT(cmp("-1e9223372036854775807", "1e-9223372036854775808"), 0);
}

TEST(DecimalValueTest, Compare) {
    EXPECT_EQ(cmp("1.10", "1.1"), 0);
    EXPECT_EQ(cmp("1.1", "1.100"), 0);
    EXPECT_EQ(cmp("-0", "0"), 0);
    EXPECT_EQ(cmp("0E+5", "-0.000"), 0);
    EXPECT_EQ(cmp("100", "1E+2"), 0);
    EXPECT_GT(cmp("1E+1000", "999"), 0);
    EXPECT_LT(cmp("999", "1E+1000"), 0);
    EXPECT_LT(cmp("-1E+1000", "-999"), 0);
    EXPECT_GT(cmp("1E-1000", "0"), 0);
    EXPECT_LT(cmp("-1E-1000", "0"), 0);
    EXPECT_GT(cmp("1.2", "1.19999"), 0);
    EXPECT_LT(cmp("1.2", "1.20001"), 0);
    EXPECT_GT(cmp("-1.2", "-1.20001"), 0);
    EXPECT_LT(cmp("9.99", "10"), 0);
    EXPECT_GT(cmp("2", "-3"), 0);

    EXPECT_LT(cmp("-Infinity", "-1E+999999"), 0);
    EXPECT_GT(cmp("Infinity", "1E+999999"), 0);
    EXPECT_EQ(cmp("Infinity", "inf"), 0);
    EXPECT_EQ(cmp("-Infinity", "-inf"), 0);
    EXPECT_LT(cmp("-Infinity", "Infinity"), 0);

    // NaNs come after every number and are all equal to each other.
    EXPECT_GT(cmp("NaN", "Infinity"), 0);
    EXPECT_GT(cmp("-NaN", "-Infinity"), 0);
    EXPECT_GT(cmp("sNaN", "1E+1000"), 0);
    EXPECT_LT(cmp("1", "NaN"), 0);
    EXPECT_EQ(cmp("NaN", "NaN"), 0);
    EXPECT_EQ(cmp("NaN", "-sNaN5"), 0);
}

TEST(DecimalValueTest, SortingGivesTotalOrder) {
    std::vector<DecimalValue> values;
    for (const char* text : {"NaN", "1", "-Infinity", "0.5", "Infinity", "-2", "sNaN", "0", "1E+100"}) {
        values.push_back(dec(text));
    }
    std::sort(values.begin(), values.end(),
              [](const DecimalValue& a, const DecimalValue& b) { return a.compare(b) < 0; });
    std::vector<std::string> texts;
    for (const DecimalValue& value : values) {
        texts.push_back(value.toString());
    }
    ASSERT_EQ(texts.size(), 9U);
    const std::vector<std::string> numbers(texts.begin(), texts.begin() + 7);
    EXPECT_EQ(numbers, (std::vector<std::string>{"-Infinity", "-2", "0", "0.5", "1", "1E+100", "Infinity"}));
    EXPECT_EQ(values[7].special == DecimalValue::Special::Finite, false);
    EXPECT_EQ(values[8].special == DecimalValue::Special::Finite, false);
}

TEST(DecimalValueTest, HashConsistentWithCompare) {
    EXPECT_EQ(dec("1.10").hash(), dec("1.1").hash());
    EXPECT_EQ(dec("1.1").hash(), dec("1.100").hash());
    EXPECT_EQ(dec("0").hash(), dec("-0.00").hash());
    EXPECT_EQ(dec("0E+10").hash(), dec("0").hash());
    EXPECT_EQ(dec("100").hash(), dec("1E+2").hash());
    EXPECT_EQ(dec("NaN").hash(), dec("-sNaN3").hash());
    EXPECT_EQ(dec("Infinity").hash(), dec("inf").hash());
    EXPECT_NE(dec("1.1").hash(), dec("-1.1").hash());
    EXPECT_NE(dec("1.1").hash(), dec("11").hash());
}

TEST(DecimalValueTest, ToleratesUnnormalisedFields) {
    // Values built by hand rather than parsed may carry leading zeros.
    DecimalValue value;
    value.digits = "00120";
    value.exponent = -1;
    EXPECT_EQ(value.toString(), "12.0");
    EXPECT_EQ(value.compare(dec("12")), 0);
    EXPECT_EQ(value.hash(), dec("12").hash());

    DecimalValue zero;
    zero.digits = "000";
    EXPECT_TRUE(zero.isZero());
    EXPECT_EQ(zero.toString(), "0");
}

}  // namespace

// tests/tala/convert_test.cpp: tala::to and tala::to_any, exact conversions between host values and standard C++ types.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <unordered_map>
#include <utility>
#include <vector>

#include "tala/convert.hpp"
#include "tala/result.hpp"
#include "tala/tala.hpp"
#include "value_test_support.hpp"

namespace {

using tala::Any;
using tala::Decimal;
using tala::Float;
using tala::HashMap;
using tala::Integer;
using tala::List;
using tala::Result;
using tala::String;
using tala_test::failure;
using tala_test::shown;

using tala_test::decimal;


// ---- Result ---------------------------------------------------------------------------------

TEST(Result, HoldsAValueOrAnError) {
    const Result<int> value = 5;
    ASSERT_TRUE(value.ok());
    EXPECT_TRUE(static_cast<bool>(value));
    EXPECT_EQ(*value, 5);
    EXPECT_EQ(value.value_or(7), 5);

    const Result<int> error = tala::Error(String("It failed."));
    EXPECT_FALSE(error.ok());
    EXPECT_EQ(error.error().message(), "It failed.");
    EXPECT_EQ(error.value_or(7), 7);
}

TEST(Result, AHostErrorValueIsTheResultsError) {
    const Any error = tala::Error(String("Read failed."));
    const Result<Any> result = error;
    ASSERT_FALSE(result.ok());
    EXPECT_TRUE(result.error().isSame(error));
    EXPECT_TRUE(result.toAny().isSame(error));
}

TEST(Result, ReadingTheWrongSideThrowsTheObjectModelsException) {
    const Result<int> error = tala::Error(String("It failed."));
    try {
        (void)error.value();
        FAIL() << "no exception";
    } catch (const tala::Exception& exception) {
        EXPECT_STREQ(exception.what(), "The result holds an error, not a value: It failed.");
    }
    const Result<int> value = 5;
    try {
        (void)value.error();
        FAIL() << "no exception";
    } catch (const tala::Exception& exception) {
        EXPECT_STREQ(exception.what(), "The result holds a value, not an error.");
    }
    const Result<void> nothing = tala::Error(String("Nothing."));
    EXPECT_THROW(nothing.value(), tala::Exception);
    EXPECT_NO_THROW(Result<void>().value());
}

// ---- Numbers --------------------------------------------------------------------------------

TEST(ConvertNumbers, IntegersThatFit) {
    EXPECT_EQ(*tala::to<std::int64_t>(Integer(42)), 42);
    EXPECT_EQ(*tala::to<std::int64_t>(Integer(INT64_MIN)), INT64_MIN);
    EXPECT_EQ(*tala::to<std::int8_t>(Integer(-128)), -128);
    EXPECT_EQ(*tala::to<std::uint8_t>(Integer(255)), 255);
    EXPECT_EQ(*tala::to<std::uint64_t>(Integer(INT64_MAX)), static_cast<std::uint64_t>(INT64_MAX));
    EXPECT_EQ(*tala::to<int>(Integer(-7)), -7);
}

TEST(ConvertNumbers, IntegersThatDoNotFit) {
    EXPECT_EQ(failure(tala::to<std::uint8_t>(Integer(300))), "The number 300 does not fit in uint8_t.");
    EXPECT_EQ(failure(tala::to<std::int8_t>(Integer(-129))), "The number -129 does not fit in int8_t.");
    EXPECT_EQ(failure(tala::to<std::uint32_t>(Integer(-1))), "The number -1 does not fit in uint32_t.");
    EXPECT_EQ(failure(tala::to<std::int32_t>(Integer(INT64_MAX))),
              "The number 9223372036854775807 does not fit in int32_t.");
}

TEST(ConvertNumbers, WholeFloatsAndDecimalsAreIntegers) {
    EXPECT_EQ(*tala::to<std::int64_t>(Float(3.0)), 3);
    EXPECT_EQ(*tala::to<std::int64_t>(Float(-0.0)), 0);
    EXPECT_EQ(*tala::to<std::int64_t>(decimal("2.00")), 2);
    EXPECT_EQ(*tala::to<std::int64_t>(decimal("-12E+3")), -12000);
    EXPECT_EQ(*tala::to<std::uint64_t>(decimal("18446744073709551615")), UINT64_MAX);
    EXPECT_EQ(*tala::to<std::int64_t>(decimal("-9223372036854775808")), INT64_MIN);
}

TEST(ConvertNumbers, FractionsAreNoIntegers) {
    EXPECT_EQ(failure(tala::to<std::int64_t>(Float(2.5))), "Cannot convert 2.5 to int64_t exactly.");
    EXPECT_EQ(failure(tala::to<std::int64_t>(decimal("1.10"))), "Cannot convert 1.10 to int64_t exactly.");
    EXPECT_EQ(failure(tala::to<std::int64_t>(Float(std::nan("")))), "Cannot convert nan to int64_t exactly.");
    EXPECT_EQ(failure(tala::to<std::int64_t>(decimal("NaN"))), "Cannot convert NaN to int64_t exactly.");
}

TEST(ConvertNumbers, NumbersBeyondSixtyFourBitsDoNotFit) {
    EXPECT_EQ(failure(tala::to<std::int64_t>(decimal("9223372036854775808"))),
              "The number 9223372036854775808 does not fit in int64_t.");
    EXPECT_EQ(failure(tala::to<std::uint64_t>(decimal("18446744073709551616"))),
              "The number 18446744073709551616 does not fit in uint64_t.");
    EXPECT_EQ(failure(tala::to<std::int64_t>(decimal("1E+1000"))), "The number 1E+1000 does not fit in int64_t.");
    EXPECT_EQ(failure(tala::to<std::int64_t>(Float(1e300))), "The number 1e+300 does not fit in int64_t.");
    EXPECT_EQ(failure(tala::to<std::int64_t>(Float(INFINITY))), "The number inf does not fit in int64_t.");
}

TEST(ConvertNumbers, OtherKindsAreNoNumbers) {
    EXPECT_EQ(failure(tala::to<std::int64_t>(String("12"))), "Cannot convert '12' to int64_t.");
    EXPECT_EQ(failure(tala::to<std::int64_t>(tala::Boolean(true))), "Cannot convert True to int64_t.");
    EXPECT_EQ(failure(tala::to<double>(Any())), "Cannot convert None to double.");
    EXPECT_EQ(failure(tala::to<bool>(Integer(1))), "Cannot convert 1 to bool.");
    EXPECT_EQ(*tala::to<bool>(tala::Boolean(true)), true);
}

TEST(ConvertNumbers, DoublesAreExact) {
    EXPECT_EQ(*tala::to<double>(Float(0.1)), 0.1);
    EXPECT_EQ(*tala::to<double>(Integer(1)), 1.0);
    EXPECT_EQ(*tala::to<double>(Integer(9007199254740992)), 9007199254740992.0);
    EXPECT_EQ(failure(tala::to<double>(Integer(9007199254740993))),
              "Cannot convert 9007199254740993 to double exactly.");
    EXPECT_EQ(failure(tala::to<double>(Integer(INT64_MAX))), "Cannot convert 9223372036854775807 to double exactly.");
    EXPECT_EQ(*tala::to<double>(Integer(INT64_MIN)), -9223372036854775808.0);
}

TEST(ConvertNumbers, ADecimalBecomesADoubleOnlyWhenExact) {
    EXPECT_EQ(*tala::to<double>(decimal("4.50")), 4.5);
    EXPECT_EQ(*tala::to<double>(decimal("0.125")), 0.125);
    EXPECT_EQ(*tala::to<double>(decimal("-1E+22")), -1e22);
    // The least double, whose decimal expansion has 751 significant digits.
    const double least = std::numeric_limits<double>::denorm_min();
    char text[1200];
    std::snprintf(text, sizeof text, "%.1074e", least);
    EXPECT_EQ(*tala::to<double>(decimal(text)), least);
    EXPECT_EQ(failure(tala::to<double>(decimal("0.1"))), "Cannot convert 0.1 to double exactly.");
    EXPECT_EQ(failure(tala::to<double>(decimal("9007199254740993"))),
              "Cannot convert 9007199254740993 to double exactly.");
    EXPECT_EQ(failure(tala::to<double>(decimal("1E+400"))), "Cannot convert 1E+400 to double exactly.");
    EXPECT_EQ(failure(tala::to<double>(decimal("1E-400"))), "Cannot convert 1E-400 to double exactly.");
    EXPECT_TRUE(std::isinf(*tala::to<double>(decimal("-Infinity"))));
    EXPECT_TRUE(std::isnan(*tala::to<double>(decimal("NaN"))));
    EXPECT_EQ(failure(tala::to<double>(decimal("sNaN"))), "Cannot convert sNaN to double exactly.");
}

TEST(ConvertNumbers, FloatsNarrowOnlyWhenExact) {
    EXPECT_EQ(*tala::to<float>(Float(0.5)), 0.5f);
    EXPECT_EQ(failure(tala::to<float>(Float(0.1))), "Cannot convert 0.1 to float exactly.");
    EXPECT_EQ(failure(tala::to<float>(Float(1e300))), "The number 1e+300 does not fit in float.");
    EXPECT_TRUE(std::isinf(*tala::to<float>(Float(-INFINITY))));
}

// ---- Text -----------------------------------------------------------------------------------

TEST(ConvertText, StringsAndBytesAreStdStrings) {
    EXPECT_EQ(*tala::to<std::string>(String("h\xc3\xa9")), "h\xc3\xa9");
    EXPECT_EQ(*tala::to<std::string>(tala::ByteArray(std::string_view("a\0b", 3))), std::string("a\0b", 3));
    EXPECT_EQ(failure(tala::to<std::string>(Integer(5))), "Cannot convert 5 to std::string.");
}

TEST(ConvertText, LongValuesAreCutInMessages) {
    const String longText(std::string(200, 'x'));
    const std::string message = failure(tala::to<std::int64_t>(longText));
    EXPECT_EQ(message, "Cannot convert '" + std::string(76, 'x') + "... to int64_t.");
}

// ---- Containers -----------------------------------------------------------------------------

TEST(ConvertContainers, ListsTuplesAndSetsAreVectors) {
    EXPECT_EQ(*tala::to<std::vector<std::int64_t>>(List<Integer>{1, 2, 3}), (std::vector<std::int64_t>{1, 2, 3}));
    EXPECT_EQ(*tala::to<std::vector<double>>(tala::Tuple{Integer(1), Float(2.5)}), (std::vector<double>{1.0, 2.5}));
    EXPECT_EQ(*tala::to<std::vector<std::string>>(tala::Set<String>{String("a"), String("b")}),
              (std::vector<std::string>{"a", "b"}));
    EXPECT_TRUE(tala::to<std::vector<int>>(List<Any>{})->empty());
}

TEST(ConvertContainers, MapsAndTextAreNoVectors) {
    EXPECT_EQ(failure(tala::to<std::vector<std::int64_t>>(HashMap<String, Any>{{String("a"), Integer(1)}})),
              "Cannot convert {'a': 1} to std::vector<int64_t>.");
    EXPECT_EQ(failure(tala::to<std::vector<std::string>>(String("abc"))),
              "Cannot convert 'abc' to std::vector<std::string>.");
}

TEST(ConvertContainers, AFailedItemSaysWhereItIs) {
    const List<Any> list{Integer(1), String("x")};
    EXPECT_EQ(failure(tala::to<std::vector<std::int64_t>>(list)), "At [1]: Cannot convert 'x' to int64_t.");
    const List<Any> nested{List<Any>{Integer(1)}, List<Any>{Integer(2), Float(2.5)}};
    EXPECT_EQ(failure(tala::to<std::vector<std::vector<std::int64_t>>>(nested)),
              "At [1][1]: Cannot convert 2.5 to int64_t exactly.");
    const HashMap<String, Any> map{{String("prices"), List<Any>{Float(1.5), String("free")}}};
    EXPECT_EQ(failure(tala::to<std::map<std::string, std::vector<double>>>(map)),
              "At ['prices'][1]: Cannot convert 'free' to double.");
}

TEST(ConvertContainers, MapsBecomeStdMaps) {
    const HashMap<String, Any> map{{String("b"), Integer(2)}, {String("a"), Integer(1)}};
    EXPECT_EQ((*tala::to<std::map<std::string, std::int64_t>>(map)),
              (std::map<std::string, std::int64_t>{{"a", 1}, {"b", 2}}));
    EXPECT_EQ((*tala::to<std::unordered_map<std::string, double>>(map)).at("b"), 2.0);
    EXPECT_EQ(failure(tala::to<std::map<std::string, int>>(List<Any>{})),
              "Cannot convert [] to std::map<std::string, int32_t>.");
}

TEST(ConvertContainers, KeysThatMeetAfterConversionAreAnError) {
    HashMap<Any, Any> map;
    map.set(Integer(1), String("one"));
    map.set(Float(1.5), String("one and a half"));
    map.set(decimal("1.0"), String("one again"));
    EXPECT_EQ(failure(tala::to<std::map<double, std::string>>(map)), "Duplicate key after conversion to double: 1.0.");
}

TEST(ConvertContainers, SetsBecomeStdSets) {
    EXPECT_EQ(*tala::to<std::set<std::int64_t>>(tala::Set<Integer>{3, 1}), (std::set<std::int64_t>{1, 3}));
    EXPECT_EQ(failure(tala::to<std::set<std::int64_t>>(List<Integer>{1})), "Cannot convert [1] to std::set<int64_t>.");
}

TEST(ConvertContainers, PairsAndTuplesNeedTheirLength) {
    const tala::Tuple tuple{String("FR"), decimal("27.30")};
    const auto pair = tala::to<std::pair<std::string, Decimal>>(tuple);
    ASSERT_TRUE(pair.ok()) << failure(pair);
    EXPECT_EQ(pair->first, "FR");
    EXPECT_EQ(pair->second.toString(), "27.30");
    const auto triple = tala::to<std::tuple<int, double, std::string>>(List<Any>{Integer(1), Float(0.5), String("x")});
    EXPECT_EQ(*triple, std::make_tuple(1, 0.5, std::string("x")));
    EXPECT_EQ(failure(tala::to<std::pair<int, int>>(List<Integer>{1, 2, 3})),
              "Cannot convert [1, 2, 3] to std::pair<int32_t, int32_t>: it has 3 items, not 2.");
    EXPECT_EQ(failure(tala::to<std::pair<int, int>>(List<Any>{Integer(1), String("2")})),
              "At [1]: Cannot convert '2' to int32_t.");
}

TEST(ConvertContainers, NoneIsAnEmptyOptional) {
    EXPECT_EQ(*tala::to<std::optional<std::int64_t>>(Any()), std::nullopt);
    EXPECT_EQ(*tala::to<std::optional<std::int64_t>>(Integer(3)), 3);
    EXPECT_EQ(*tala::to<std::vector<std::optional<int>>>(List<Any>{Integer(1), Any()}),
              (std::vector<std::optional<int>>{1, std::nullopt}));
}

// ---- Host views, errors, lazy values --------------------------------------------------------

TEST(ConvertViews, HostViewsAreChecked) {
    EXPECT_EQ(tala::to<Decimal>(decimal("1.10"))->toString(), "1.10");
    EXPECT_EQ(failure(tala::to<Decimal>(Float(1.1))), "Cannot convert 1.1 to tala::Decimal.");
    EXPECT_EQ(failure(tala::to<String>(Integer(1))), "Cannot convert 1 to tala::String.");
    EXPECT_TRUE(tala::to<Any>(Any())->isEmpty());
}

TEST(ConvertViews, AnErrorValueIsTheResultsErrorAsItIs) {
    const tala::Error error(String("division by zero"));
    const auto converted = tala::to<std::vector<double>>(error);
    ASSERT_FALSE(converted.ok());
    EXPECT_TRUE(converted.error().isSame(error));
    // Inside a container, an error is a failed item.
    EXPECT_EQ(failure(tala::to<std::vector<double>>(List<Any>{Float(1), error})), "At [1]: division by zero");
}

TEST(ConvertViews, LazyAndExternalValuesAreResolvedFirst) {
    EXPECT_EQ(*tala::to<std::int64_t>(tala::Lazy_Generic([] { return Any(Integer(7)); })), 7);
    EXPECT_EQ(*tala::to<std::string>(tala::External([] { return Any(String("loaded")); })), "loaded");
    const auto thrown = tala::to<std::int64_t>(tala::External([]() -> Any { throw std::runtime_error("no row"); }));
    EXPECT_EQ(failure(thrown), "no row");
}

// ---- Into host values -----------------------------------------------------------------------

TEST(ConvertToAny, StandardValuesBecomeHostValues) {
    EXPECT_EQ(shown(tala::to_any(std::int64_t{42})), "42");
    EXPECT_EQ(shown(tala::to_any(2.5)), "2.5");
    EXPECT_EQ(shown(tala::to_any(true)), "True");
    EXPECT_EQ(shown(tala::to_any(std::string("text"))), "'text'");
    EXPECT_EQ(shown(tala::to_any("literal")), "'literal'");
    EXPECT_EQ(shown(tala::to_any(std::vector<int>{1, 2})), "[1, 2]");
    EXPECT_EQ(shown(tala::to_any(std::map<std::string, double>{{"a", 0.5}})), "{'a': 0.5}");
    EXPECT_EQ(shown(tala::to_any(std::set<int>{2, 1})), "Set([1, 2])");
    EXPECT_EQ(shown(tala::to_any(std::make_pair(std::string("FR"), 3))), "('FR', 3)");
    EXPECT_EQ(shown(tala::to_any(std::optional<int>())), "None");
    EXPECT_EQ(shown(tala::to_any(decimal("1.10"))), "1.10");
}

TEST(ConvertToAny, AnUnsignedNumberBeyondTheHostsIntegersIsAnError) {
    const Any tooLarge = tala::to_any(std::uint64_t{UINT64_MAX});
    ASSERT_TRUE(tala::is_error_result(tooLarge));
    EXPECT_EQ(shown(tooLarge), "The number 18446744073709551615 does not fit in a host integer.");
    EXPECT_TRUE(tala::is_error_result(tala::to_any(std::vector<std::uint64_t>{1, UINT64_MAX})));
}

TEST(ConvertToAny, RoundTripsKeepTheValue) {
    using Orders = std::map<std::string, std::vector<std::pair<std::int64_t, std::string>>>;
    const Orders original{{"a", {{1, "one"}, {2, "two"}}}, {"b", {}}};
    EXPECT_EQ(*tala::to<Orders>(tala::to_any(original)), original);
}

TEST(ConvertToAny, ArgumentsTakeAnyConvertibleValue) {
    const std::vector<tala::Arg> arguments{6, "text", 2.5, Integer(1), std::vector<int>{1}};
    std::vector<std::string> shownArguments;
    for (const tala::Arg& argument : arguments) shownArguments.push_back(shown(argument.value()));
    EXPECT_EQ(shownArguments, (std::vector<std::string>{"6", "'text'", "2.5", "1", "[1]"}));
}

TEST(ConvertToAny, TypeNamesAreSaidAsInCpp) {
    EXPECT_EQ((tala::type_name<std::map<std::string, std::vector<std::optional<double>>>>()),
              "std::map<std::string, std::vector<std::optional<double>>>");
    EXPECT_EQ(tala::type_name<long long>(), "int64_t");
    EXPECT_EQ(tala::type_name<unsigned char>(), "uint8_t");
    EXPECT_EQ((tala::type_name<std::tuple<bool, float, Any>>()), "std::tuple<bool, float, tala::Any>");
}

}  // namespace

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "asset/search/value_forms.h"

using namespace kelvo;

namespace {

// Checks parse(text) against the expected result of each case.
template <typename T, typename F>
void ExpectParsed(const std::vector<std::pair<const char*, std::optional<T>>>& cases, F parse) {
  for (const auto& [text, expected] : cases) EXPECT_EQ(parse(text), expected) << text;
}

} // namespace

TEST(ValueForms, ComparisonPrefixes) {
  using V = VALUEOPERATOR;
  struct PrefixCase {
    const char* value;
    bool numeric; // whether a numeric row accepts the value
    V op;
    const char* operand;
    bool hasPrefix;
  };
  const std::vector<PrefixCase> cases = {
      {"<=5", true, V::LESS_EQUAL, "5", true},   {">=5", true, V::GREATER_EQUAL, "5", true},
      {"<5", true, V::LESS, "5", true},          {">5", true, V::GREATER, "5", true},
      {"=5", true, V::EQUAL, "5", true},         {"5", true, V::EQUAL, "5", false},
      {"-5", true, V::EQUAL, "-5", false},       {"=<5", true, V::EQUAL, "<5", true},
      {">", true, V::GREATER, "", true},         {"A5", false, V::EQUAL, "A5", false},
      {".5", false, V::EQUAL, ".5", false},      {"", false, V::EQUAL, "", false},
      {"+5", false, V::EQUAL, "+5", false},
  };
  for (const PrefixCase& c : cases) {
    const ValueComparison split = SplitComparison(c.value);
    EXPECT_EQ(split.op, c.op) << c.value;
    EXPECT_EQ(split.operand, c.operand) << c.value;
    EXPECT_EQ(split.hasPrefix, c.hasPrefix) << c.value;
    EXPECT_EQ(SplitNumericComparison(c.value).has_value(), c.numeric) << c.value;
  }
  EXPECT_TRUE(Compare(V::LESS_EQUAL, 3, 3));
  EXPECT_FALSE(Compare(V::LESS, 3, 3));
  EXPECT_TRUE(Compare(V::GREATER_EQUAL, 4, 3));
  EXPECT_FALSE(Compare(V::GREATER, 3, 4));
}

TEST(ValueForms, Numbers) {
  const std::vector<std::pair<const char*, std::optional<std::int64_t>>> cases = {
      {"0", 0},
      {"42", 42},
      {"-17", -17},
      {"9223372036854775807", std::numeric_limits<std::int64_t>::max()},
      {"-9223372036854775808", std::numeric_limits<std::int64_t>::min()},
      {"9223372036854775808", std::nullopt},
      {"", std::nullopt},
      {"-", std::nullopt},
      {"1.5", std::nullopt},
      {"12AB", std::nullopt},
      {" 1", std::nullopt},
  };
  ExpectParsed(cases, ParseNumber);
}

TEST(ValueForms, RealNumbersRoundTrip) {
  const std::vector<std::pair<const char*, std::optional<double>>> cases = {
      {"1.5", 1.5}, {"-0.25", -0.25}, {"3", 3.0}, {"1E3", 1000.0}, {"2.", 2.0},
      {"INF", std::nullopt}, {"-INF", std::nullopt}, {"NAN", std::nullopt}, {"1E999", std::nullopt},
      {"", std::nullopt}, {"1,5", std::nullopt}, {"0X10", std::nullopt},
  };
  ExpectParsed(cases, ParseReal);
  for (double v : {0.0, 1.0, 200.0, 0.1, 1.0 / 3.0, 60.96, 150000.0, 1e20, -2.5e-7, 1.7976931348623157e308}) {
    const std::string text = FormatReal(v);
    EXPECT_EQ(ParseReal(text), v) << text;
  }
  EXPECT_EQ(FormatReal(200.0), "200");
  EXPECT_EQ(FormatReal(1.5), "1.5");
}

TEST(ValueForms, Dates) {
  const std::vector<std::pair<const char*, std::optional<FilterDate>>> cases = {
      {"2024-01-31", FilterDate{2024, 1, 31}},
      {"2024-2-29", FilterDate{2024, 2, 29}},
      {"0001-01-01", FilterDate{1, 1, 1}},
      {"2023-02-29", std::nullopt},
      {"2024-13-01", std::nullopt},
      {"2024-00-10", std::nullopt},
      {"2024-01-32", std::nullopt},
      {"2024-01", std::nullopt},
      {"2024-01-01-01", std::nullopt},
      {"2024--01", std::nullopt},
      {"-2024-01-01", std::nullopt},
      {"2024-01-01T", std::nullopt},
      {"99999999999-01-01", std::nullopt},
      {"", std::nullopt},
  };
  ExpectParsed(cases, ParseDate);
  EXPECT_LT(*ParseDate("2023-12-31"), *ParseDate("2024-01-01"));
}

TEST(ValueForms, ByteSizes) {
  const std::vector<std::pair<const char*, std::optional<std::int64_t>>> cases = {
      {"100", 100},
      {"2K", 2048},
      {"2M", 2097152},
      {"1.5K", 1536},
      {"0.3", 0},
      {"0.5", 1},
      {"1G", 1073741824},
      {"1T", 1099511627776},
      {"4096T", 4503599627370496},
      {"8388608T", std::nullopt},
      {"-1K", -1023},
      {"2KB", std::nullopt},
      {"2X", std::nullopt},
      {"K", std::nullopt},
      {"", std::nullopt},
      {"1E30", std::nullopt},
  };
  ExpectParsed(cases, ParseByteSize);
}

TEST(ValueForms, Booleans) {
  const std::vector<std::pair<const char*, std::optional<bool>>> cases = {
      {"YES", true}, {"TRUE", true}, {"1", true}, {"NO", false}, {"FALSE", false}, {"0", false},
      {"MAYBE", std::nullopt}, {"YESS", std::nullopt}, {"yes", std::nullopt}, {"", std::nullopt},
  };
  ExpectParsed(cases, ParseBoolean);
}

TEST(ValueForms, TextWithNumbersComparesDigitRunsByValue) {
  const auto sign = [](int v) { return (v > 0) - (v < 0); };
  struct OrderCase {
    const char* a;
    const char* b;
    int order;
  };
  const std::vector<OrderCase> cases = {
      {"V2", "V10", -1}, {"V10", "V2", 1},  {"V010", "V10", 0}, {"A", "B", -1},      {"ABC", "AB", 1},
      {"", "", 0},       {"", "A", -1},     {"1.10", "1.9", 1}, {"X9Y", "X9Z", -1}, {"PNG 16", "PNG 8", 1},
  };
  for (const OrderCase& c : cases) EXPECT_EQ(sign(CompareWithNumbers(c.a, c.b)), c.order) << c.a << " " << c.b;
}

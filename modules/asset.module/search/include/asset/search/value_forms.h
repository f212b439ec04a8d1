#pragma once
// The value forms of filter terms: comparison prefixes, numbers, real numbers, dates, byte sizes
// and Booleans. Values arrive in upper case. Every parser here is total: text that does not fit
// gives an empty optional, which makes the value match nothing; none of them fails otherwise.
// All functions are pure and safe from any thread.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kelvo {

enum class VALUEOPERATOR : std::int32_t { EQUAL = 0, LESS = 1, GREATER = 2, LESS_EQUAL = 3, GREATER_EQUAL = 4 };

struct ValueComparison {
  VALUEOPERATOR op = VALUEOPERATOR::EQUAL;
  std::string_view operand;  // the value without its prefix; a view into the value
  bool hasPrefix = false;    // false: the value had no "=", "<", ">", "<=" or ">=" in front
};

// Splits an optional prefix "=", "<", ">", "<=" or ">=" from value ("<=" and ">=" first). Without
// a prefix the comparison is EQUAL on the whole value.
ValueComparison SplitComparison(std::string_view value);

// The comparison of a number, real number, date or byte size row: a prefix, or a first character
// that is a decimal digit or a minus sign (meaning "="). Any other value gives nothing.
std::optional<ValueComparison> SplitNumericComparison(std::string_view value);

// Applies op to candidate and operand.
template <typename T> bool Compare(VALUEOPERATOR op, const T& candidate, const T& operand) {
  switch (op) {
  case VALUEOPERATOR::EQUAL: return candidate == operand;
  case VALUEOPERATOR::LESS: return candidate < operand;
  case VALUEOPERATOR::GREATER: return candidate > operand;
  case VALUEOPERATOR::LESS_EQUAL: return candidate <= operand;
  case VALUEOPERATOR::GREATER_EQUAL: return candidate >= operand;
  }
  return false;
}

// A whole decimal integer that fits a signed 64-bit value.
std::optional<std::int64_t> ParseNumber(std::string_view text);

// A whole finite decimal number, with optional fraction and exponent.
std::optional<double> ParseReal(std::string_view text);

// The shortest decimal text that ParseReal reads back as the same value.
std::string FormatReal(double value);

// A calendar day "YYYY-MM-DD": three decimal integers joined by "-" that name an existing day.
struct FilterDate {
  std::int32_t year = 0;
  std::int32_t month = 0;
  std::int32_t day = 0;
  friend auto operator<=>(const FilterDate&, const FilterDate&) = default;
};
std::optional<FilterDate> ParseDate(std::string_view text);

// A byte size: a decimal number with an optional suffix K, M, G or T (factors of 1024), multiplied
// out, plus 0.5, truncated. Sizes outside the signed 64-bit range give nothing.
std::optional<std::int64_t> ParseByteSize(std::string_view text);

// Exactly YES, TRUE or 1 for true; NO, FALSE or 0 for false.
std::optional<bool> ParseBoolean(std::string_view text);

// Three-way comparison of two texts in which runs of decimal digits compare by their number
// ("V2" < "V10"); all other bytes compare by code. Returns a negative, zero or positive value.
int CompareWithNumbers(std::string_view a, std::string_view b);

} // namespace kelvo

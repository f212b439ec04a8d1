#include "asset/search/value_forms.h"

#include <charconv>
#include <chrono>
#include <cmath>

namespace kelvo {
namespace {

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

template <typename T> std::optional<T> ParseWhole(std::string_view text) {
  T value{};
  const char* end = text.data() + text.size();
  auto [ptr, ec] = std::from_chars(text.data(), end, value);
  if (ec != std::errc() || ptr != end || text.empty()) return std::nullopt;
  return value;
}

} // namespace

ValueComparison SplitComparison(std::string_view value) {
  if (value.starts_with("<=")) return {VALUEOPERATOR::LESS_EQUAL, value.substr(2), true};
  if (value.starts_with(">=")) return {VALUEOPERATOR::GREATER_EQUAL, value.substr(2), true};
  if (value.starts_with('=')) return {VALUEOPERATOR::EQUAL, value.substr(1), true};
  if (value.starts_with('<')) return {VALUEOPERATOR::LESS, value.substr(1), true};
  if (value.starts_with('>')) return {VALUEOPERATOR::GREATER, value.substr(1), true};
  return {VALUEOPERATOR::EQUAL, value, false};
}

std::optional<ValueComparison> SplitNumericComparison(std::string_view value) {
  ValueComparison comparison = SplitComparison(value);
  if (!comparison.hasPrefix && (value.empty() || !(IsDigit(value[0]) || value[0] == '-'))) return std::nullopt;
  return comparison;
}

std::optional<std::int64_t> ParseNumber(std::string_view text) { return ParseWhole<std::int64_t>(text); }

std::optional<double> ParseReal(std::string_view text) {
  // from_chars also reads "inf" and "nan"; neither is a decimal number.
  std::optional<double> value = ParseWhole<double>(text);
  if (value && !std::isfinite(*value)) return std::nullopt;
  return value;
}

std::string FormatReal(double value) {
  char buffer[64];
  auto [ptr, ec] = std::to_chars(buffer, buffer + sizeof buffer, value);
  return ec == std::errc() ? std::string(buffer, ptr) : std::string();
}

std::optional<FilterDate> ParseDate(std::string_view text) {
  const std::size_t first = text.find('-');
  if (first == std::string_view::npos) return std::nullopt;
  const std::size_t second = text.find('-', first + 1);
  if (second == std::string_view::npos) return std::nullopt;
  const auto digitsOnly = [](std::string_view part) {
    if (part.empty()) return false;
    for (char c : part)
      if (!IsDigit(c)) return false;
    return true;
  };
  const std::string_view parts[3] = {text.substr(0, first), text.substr(first + 1, second - first - 1),
                                     text.substr(second + 1)};
  for (std::string_view part : parts)
    if (!digitsOnly(part)) return std::nullopt;
  const auto year = ParseWhole<std::int32_t>(parts[0]);
  const auto month = ParseWhole<std::int32_t>(parts[1]);
  const auto day = ParseWhole<std::int32_t>(parts[2]);
  if (!year || !month || !day || *year > 32767 || *month > 12 || *day > 31) return std::nullopt;
  const std::chrono::year_month_day ymd{std::chrono::year(*year), std::chrono::month(static_cast<unsigned>(*month)),
                                       std::chrono::day(static_cast<unsigned>(*day))};
  if (!ymd.ok()) return std::nullopt;
  return FilterDate{*year, *month, *day};
}

std::optional<std::int64_t> ParseByteSize(std::string_view text) {
  double factor = 1.0;
  if (!text.empty()) {
    switch (text.back()) {
    case 'K': factor = 1024.0; break;
    case 'M': factor = 1024.0 * 1024.0; break;
    case 'G': factor = 1024.0 * 1024.0 * 1024.0; break;
    case 'T': factor = 1024.0 * 1024.0 * 1024.0 * 1024.0; break;
    default: break;
    }
    if (factor != 1.0) text.remove_suffix(1);
  }
  const std::optional<double> number = ParseReal(text);
  if (!number) return std::nullopt;
  const double bytes = *number * factor + 0.5;
  // The range test keeps the conversion defined: 2^63 is the first double past the range.
  if (!(bytes > -9223372036854775808.0 && bytes < 9223372036854775808.0)) return std::nullopt;
  return static_cast<std::int64_t>(bytes);
}

std::optional<bool> ParseBoolean(std::string_view text) {
  if (text == "YES" || text == "TRUE" || text == "1") return true;
  if (text == "NO" || text == "FALSE" || text == "0") return false;
  return std::nullopt;
}

int CompareWithNumbers(std::string_view a, std::string_view b) {
  std::size_t i = 0, j = 0;
  while (i < a.size() && j < b.size()) {
    if (IsDigit(a[i]) && IsDigit(b[j])) {
      std::size_t ie = i, je = j;
      while (ie < a.size() && IsDigit(a[ie])) ++ie;
      while (je < b.size() && IsDigit(b[je])) ++je;
      std::string_view x = a.substr(i, ie - i), y = b.substr(j, je - j);
      while (x.size() > 1 && x[0] == '0') x.remove_prefix(1);
      while (y.size() > 1 && y[0] == '0') y.remove_prefix(1);
      if (x.size() != y.size()) return x.size() < y.size() ? -1 : 1;
      if (int c = x.compare(y); c != 0) return c < 0 ? -1 : 1;
      i = ie;
      j = je;
      continue;
    }
    const auto ca = static_cast<unsigned char>(a[i]), cb = static_cast<unsigned char>(b[j]);
    if (ca != cb) return ca < cb ? -1 : 1;
    ++i;
    ++j;
  }
  if (i == a.size() && j == b.size()) return 0;
  return i == a.size() ? -1 : 1;
}

} // namespace kelvo

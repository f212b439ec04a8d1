#pragma once
// UniversalDateTime: a 64-bit UTC time in nanoseconds since 1970-01-01.

#include <compare>
#include <cstdint>
#include <string>
#include <string_view>

namespace kelvo {

class UniversalDateTime {
public:
  UniversalDateTime() = default;
  static UniversalDateTime FromValue(std::uint64_t nanoseconds) { return UniversalDateTime(nanoseconds); }
  static UniversalDateTime FromUnixSeconds(std::int64_t seconds);
  // The current time. Strictly increasing within the process, so that two calls never give one tick.
  static UniversalDateTime GetNow();

  std::uint64_t GetValue() const { return _value; }
  bool IsEmpty() const { return _value == 0; }
  std::int64_t ToUnixSeconds() const { return static_cast<std::int64_t>(_value / 1000000000ull); }
  // Formats with strftime-style patterns, in local time or UTC.
  std::string FormatLocal(std::string_view pattern) const;
  std::string FormatUtc(std::string_view pattern) const;
  // ISO 8601 UTC text with nanoseconds, e.g. "2026-11-23T06:41:30.123456789Z".
  std::string ToString() const;

  auto operator<=>(const UniversalDateTime&) const = default;

private:
  explicit UniversalDateTime(std::uint64_t v) : _value(v) {}
  std::uint64_t _value = 0;
};

inline std::string ToString(const UniversalDateTime& t) { return t.ToString(); }

} // namespace kelvo

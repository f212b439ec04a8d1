#include "kelvo/datetime.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <ctime>

namespace kelvo {

UniversalDateTime UniversalDateTime::FromUnixSeconds(std::int64_t seconds) {
  return UniversalDateTime(seconds < 0 ? 0 : static_cast<std::uint64_t>(seconds) * 1000000000ull);
}

UniversalDateTime UniversalDateTime::GetNow() {
  static std::atomic<std::uint64_t> last{0};
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  std::uint64_t v = static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(now).count());
  std::uint64_t prev = last.load(std::memory_order_relaxed);
  for (;;) {
    const std::uint64_t next = v > prev ? v : prev + 1;
    if (last.compare_exchange_weak(prev, next, std::memory_order_relaxed)) return UniversalDateTime(next);
  }
}

static std::string Format(std::uint64_t value, std::string_view pattern, bool local) {
  const std::time_t secs = static_cast<std::time_t>(value / 1000000000ull);
  std::tm parts{};
  if (local)
    localtime_r(&secs, &parts);
  else
    gmtime_r(&secs, &parts);
  char buffer[256];
  const std::string fmt(pattern);
  const std::size_t n = std::strftime(buffer, sizeof(buffer), fmt.c_str(), &parts);
  return std::string(buffer, n);
}

std::string UniversalDateTime::FormatLocal(std::string_view pattern) const { return Format(_value, pattern, true); }
std::string UniversalDateTime::FormatUtc(std::string_view pattern) const { return Format(_value, pattern, false); }

std::string UniversalDateTime::ToString() const {
  char frac[16];
  std::snprintf(frac, sizeof(frac), ".%09llu", static_cast<unsigned long long>(_value % 1000000000ull));
  return FormatUtc("%Y-%m-%dT%H:%M:%S") + frac + "Z";
}

} // namespace kelvo

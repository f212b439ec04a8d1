#pragma once
// Small helpers the benchmarks share: wall and CPU clocks, and sizes from the environment.

#include <sys/resource.h>

#include <chrono>
#include <cstdlib>

namespace kelvo::bench {

using Clock = std::chrono::steady_clock;

inline double Seconds(Clock::time_point since) {
  return std::chrono::duration<double>(Clock::now() - since).count();
}

// CPU seconds (user and system) of this process (RUSAGE_SELF) or of its finished children
// (RUSAGE_CHILDREN).
inline double CpuSeconds(int who) {
  rusage u{};
  ::getrusage(who, &u);
  return static_cast<double>(u.ru_utime.tv_sec + u.ru_stime.tv_sec) +
         static_cast<double>(u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

// The number in the environment variable name, or fallback when it is unset or empty.
inline std::size_t EnvNumber(const char* name, std::size_t fallback) {
  const char* v = std::getenv(name);
  return v && *v ? static_cast<std::size_t>(std::strtoull(v, nullptr, 10)) : fallback;
}

} // namespace kelvo::bench

#pragma once
// Small helpers the benchmarks share: wall and CPU clocks, sizes from the environment, failing.

#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "kelvo/result.h"

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

// Ends the benchmark with what failed and why.
[[noreturn]] inline void Die(const std::string& what, const kelvo::Error& error) {
  std::fprintf(stderr, "%s: %s\n", what.c_str(), error.IsSet() ? error.ToString().c_str() : "failed");
  std::exit(1);
}

} // namespace kelvo::bench

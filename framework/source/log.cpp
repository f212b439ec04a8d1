#include "kelvo/log.h"

#include <cstdio>
#include <mutex>

namespace kelvo {

namespace {
std::mutex g_logLock;
LogSink& Sink() {
  static auto* sink = new LogSink();
  return *sink;
}
} // namespace

LogSink SetLogSink(LogSink sink) {
  std::lock_guard guard(g_logLock);
  LogSink old = std::move(Sink());
  Sink() = std::move(sink);
  return old;
}

void WriteLog(LOGLEVEL level, const std::string& line) {
  LogSink sink;
  {
    std::lock_guard guard(g_logLock);
    sink = Sink();
  }
  if (sink) {
    sink(level, line);
    return;
  }
  static const char* prefixes[] = {"", "warning: ", "critical: "};
  std::fprintf(stderr, "%s%s\n", prefixes[static_cast<int>(level)], line.c_str());
}

} // namespace kelvo

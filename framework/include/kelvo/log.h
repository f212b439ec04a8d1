#pragma once
// Diagnostic, warning and critical lines, each a format text with "@" per argument. Lines go to
// stderr unless a sink is set (tests capture them with SetLogSink).

#include <functional>
#include <string>
#include <string_view>

#include "kelvo/result.h"

namespace kelvo {

enum class LOGLEVEL { DIAGNOSTIC, WARNING, CRITICAL };

using LogSink = std::function<void(LOGLEVEL, const std::string&)>;
// Replaces the sink; returns the previous one. An empty sink restores stderr.
LogSink SetLogSink(LogSink sink);
void WriteLog(LOGLEVEL level, const std::string& line);

template <typename... A> void DiagnosticOutput(std::string_view fmt, const A&... args) {
  WriteLog(LOGLEVEL::DIAGNOSTIC, FormatString(fmt, args...));
}
template <typename... A> void WarningOutput(std::string_view fmt, const A&... args) {
  WriteLog(LOGLEVEL::WARNING, FormatString(fmt, args...));
}
template <typename... A> void CriticalOutput(std::string_view fmt, const A&... args) {
  WriteLog(LOGLEVEL::CRITICAL, FormatString(fmt, args...));
}

} // namespace kelvo

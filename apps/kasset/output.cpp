// Errors, tables and the progress bar of kasset.

#include "output.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <iostream>

namespace kasset {

namespace {

// Work below this size and item count finishes too fast for a bar to help.
constexpr std::uint64_t kBarMinBytes = 16ull << 20;
constexpr std::size_t kBarMinItems = 8;
constexpr int kBarWidth = 30;

std::string OneLine(std::string text) {
  for (char& c : text)
    if (c == '\n' || c == '\r') c = ' ';
  return text;
}

} // namespace

int Fail(int code, const std::string& message) {
  std::cerr << "kasset: error: " << OneLine(message) << std::endl;
  return code;
}

void Note(const std::string& message) { std::cerr << "kasset: " << OneLine(message) << std::endl; }

std::string Table::Format() const {
  std::vector<std::size_t> widths;
  std::size_t total = 0;
  for (std::size_t r = 0, begin = 0; r < _rowEnds.size(); begin = _rowEnds[r++]) {
    if (widths.size() < _rowEnds[r] - begin) widths.resize(_rowEnds[r] - begin, 0);
    for (std::size_t i = begin; i < _rowEnds[r]; ++i) widths[i - begin] = std::max(widths[i - begin], _cells[i].size());
  }
  for (std::size_t w : widths) total += w + 2;
  std::string out;
  out.reserve(total * _rowEnds.size());
  for (std::size_t r = 0, begin = 0; r < _rowEnds.size(); begin = _rowEnds[r++]) {
    for (std::size_t i = begin; i < _rowEnds[r]; ++i) {
      out += _cells[i];
      if (i + 1 < _rowEnds[r]) out.append(widths[i - begin] - _cells[i].size() + 2, ' ');
    }
    while (!out.empty() && out.back() == ' ') out.pop_back();
    out += '\n';
  }
  return out;
}

Progress::Progress(std::string label, std::uint64_t totalBytes, std::size_t totalItems, bool always)
    : _label(std::move(label)), _totalBytes(totalBytes), _totalItems(totalItems),
      _enabled(::isatty(STDERR_FILENO) == 1 && (always || totalBytes >= kBarMinBytes || totalItems >= kBarMinItems)) {}

Progress::~Progress() { Finish(); }

void Progress::Advance(std::uint64_t bytes, const std::string& item) {
  _doneBytes += bytes;
  ++_doneItems;
  Draw(item);
}

void Progress::SetDone(std::uint64_t bytes, std::size_t items, const std::string& item) {
  _doneBytes = bytes;
  _doneItems = items;
  Draw(item);
}

void Progress::Draw(const std::string& item) {
  if (!_enabled) return;
  const double fraction =
      _totalBytes > 0 ? double(_doneBytes) / double(_totalBytes) : double(_doneItems) / double(std::max<std::size_t>(_totalItems, 1));
  const int filled = std::clamp(static_cast<int>(fraction * kBarWidth), 0, kBarWidth);
  std::string name = item.size() > 24 ? "..." + item.substr(item.size() - 21) : item;
  char line[256];
  std::snprintf(line, sizeof(line), "\r%s [%s%s] %3d%% %zu/%zu %-24s", _label.c_str(), std::string(filled, '#').c_str(),
                std::string(kBarWidth - filled, '.').c_str(), static_cast<int>(fraction * 100), _doneItems,
                _totalItems, name.c_str());
  std::cerr << line << std::flush;
  _drawn = true;
}

void Progress::Finish() {
  if (!_drawn) return;
  std::cerr << "\r" << std::string(kBarWidth + 70, ' ') << "\r" << std::flush;
  _drawn = false;
}

std::string FormatSize(std::uint64_t bytes) {
  static const char* units[] = {"B", "KB", "MB", "GB", "TB"};
  double value = static_cast<double>(bytes);
  int unit = 0;
  while (value >= 1024.0 && unit < 4) {
    value /= 1024.0;
    ++unit;
  }
  char text[32];
  if (unit == 0)
    std::snprintf(text, sizeof(text), "%llu B", static_cast<unsigned long long>(bytes));
  else
    std::snprintf(text, sizeof(text), "%.1f %s", value, units[unit]);
  return text;
}

} // namespace kasset

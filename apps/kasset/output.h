#pragma once
// What kasset prints: exit codes, one-line errors on stderr, aligned tables and a progress bar.

#include <cstdint>
#include <string>
#include <vector>

namespace kasset {

// Exit codes that scripts can rely on.
enum EXITCODE : int {
  EXIT_OK = 0,
  EXIT_FAILED = 1,    // the operation failed
  EXIT_USAGE = 2,     // bad command line
  EXIT_NOT_FOUND = 3, // a named asset, version, file or repository doesn't exist
};

// Prints "kasset: error: <message>" on stderr (newlines in message become blanks) and returns
// code, so that a command can `return Fail(...)`.
int Fail(int code, const std::string& message);
// Prints "kasset: <message>" on stderr.
void Note(const std::string& message);

// Rows of text printed with each column as wide as its widest cell; the last column is not
// padded.
class Table {
public:
  void AddRow(std::vector<std::string> row) {
    for (std::string& cell : row) _cells.push_back(std::move(cell));
    _rowEnds.push_back(_cells.size());
  }
  bool IsEmpty() const { return _rowEnds.empty(); }
  std::string Format() const;

private:
  // The cells of all rows one after the other, and where each row ends: one allocation per cell
  // at most, which keeps tables of 100,000 rows cheap.
  std::vector<std::string> _cells;
  std::vector<std::size_t> _rowEnds;
};

// A one-line progress bar on stderr, drawn only when stderr is a terminal and the work is big
// enough to be worth it. Totals are in bytes.
class Progress {
public:
  // With always the bar is drawn on a terminal however small the work (a download's time
  // depends on the network, not on its size).
  Progress(std::string label, std::uint64_t totalBytes, std::size_t totalItems, bool always = false);
  ~Progress();
  // Shows item as the one being worked on.
  void Begin(const std::string& item) { Draw(item); }
  void Advance(std::uint64_t bytes, const std::string& item);
  // Sets what is done so far, for work whose progress is read from elsewhere.
  void SetDone(std::uint64_t bytes, std::size_t items, const std::string& item);
  bool IsDrawing() const { return _enabled; }
  // Clears the bar, so that later output starts on a clean line.
  void Finish();

private:
  void Draw(const std::string& item);
  std::string _label;
  std::uint64_t _totalBytes;
  std::uint64_t _doneBytes = 0;
  std::size_t _totalItems;
  std::size_t _doneItems = 0;
  bool _enabled;
  bool _drawn = false;
};

// "1.5 MB" and the like.
std::string FormatSize(std::uint64_t bytes);

} // namespace kasset

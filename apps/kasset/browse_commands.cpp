// browse: runs an asset browser of the asset list over the target repository and prints what its
// entry delegate receives: a header per group, then the group's rows with their description and
// what made the filter pass them.

#include "browse_commands.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <iostream>
#include <mutex>

#include "asset/search/asset_browser.h"
#include "asset/search/control_tokens.h"
#include "output.h"

namespace kasset {

using namespace kelvo;

namespace {

struct Row {
  bool isGroup = false;
  std::string group; // the group of a row
  std::string name;
  std::string id;
  std::string description;
  std::string reason;
  std::string repository;
};

// Collects the rows of the browser's jobs; the rows of the last job that ended without being
// cancelled are the result.
class RowCollector {
public:
  BuildEntryDelegate Delegate() {
    return [this](const AssetBrowserRef&, BUILDBROWSERENTRYCOMMAND command, const Data&, const Data& payload,
                  const BrowserEntry& entry) -> Result<Data> {
      std::lock_guard guard(_lock);
      switch (command) {
      case BUILDBROWSERENTRYCOMMAND::RESET: _building.clear(); break;
      case BUILDBROWSERENTRYCOMMAND::ADD: {
        Row row{entry.isGroup, std::string(), entry.name, entry.id.ToString(), entry.descriptionText, entry.reasonText,
                entry.repository ? entry.repository->GetId().ToString() : std::string()};
        if (row.isGroup) _group = row.name;
        else row.group = _group;
        _building.push_back(std::move(row));
        break;
      }
      case BUILDBROWSERENTRYCOMMAND::END:
        if (payload == Data(false)) {
          _result = std::move(_building);
          ++_finished;
          _changed.notify_all();
        }
        _building.clear();
        break;
      default: break;
      }
      return Data();
    };
  }

  // Waits until more than seen jobs have finished; false after timeout.
  bool Wait(std::size_t seen, std::chrono::milliseconds timeout) {
    std::unique_lock locked(_lock);
    return _changed.wait_for(locked, timeout, [&] { return _finished > seen; });
  }
  std::size_t Finished() {
    std::lock_guard guard(_lock);
    return _finished;
  }
  std::vector<Row> Rows() {
    std::lock_guard guard(_lock);
    return _result;
  }

private:
  std::mutex _lock;
  std::condition_variable _changed;
  std::vector<Row> _building;
  std::vector<Row> _result;
  std::string _group;
  std::size_t _finished = 0;
};

const std::vector<std::string> kGroups{"category", "creationdate", "usedate", "usecount", "type", "database", "none"};
const std::vector<std::string> kSorts{"name",     "modificationdate", "creationdate", "usedate",
                                      "usecount", "size",             "relevance"};
const std::vector<std::string> kContexts{"objectom", "objectvp", "mesh", "spline", "material",
                                         "uveditor", "uvvp",     "node", "other"};

std::string Upper(std::string text) {
  for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return text;
}

std::string Lower(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

std::string JsonText(const std::string& text) {
  std::string out = "\"";
  for (const char c : text) {
    switch (c) {
    case '"': out += "\\\""; break;
    case '\\': out += "\\\\"; break;
    case '\n': out += "\\n"; break;
    case '\t': out += "\\t"; break;
    case '\r': out += "\\r"; break;
    default:
      if (static_cast<unsigned char>(c) < 0x20) {
        char escaped[8];
        std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned>(c));
        out += escaped;
      } else {
        out += c;
      }
    }
  }
  return out + "\"";
}

// The group and sort filter strings of the options; an error text for a value not in its list.
struct Tokens {
  std::string group;
  std::string sort;
};

bool Known(const std::vector<std::string>& words, const std::string& value) {
  return std::find(words.begin(), words.end(), value) != words.end();
}

std::string Join(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& w : words) text += (text.empty() ? "" : ", ") + w;
  return text;
}

std::optional<Tokens> ReadTokens(const CommandLine& line, std::string& error) {
  Tokens tokens;
  const std::string group = Lower(line.Get("group").value_or("type"));
  const std::string sort = Lower(line.Get("sort").value_or("name"));
  const std::string order = Lower(line.Get("order").value_or(""));
  const std::string context = Lower(line.Get("context").value_or("other"));
  if (!Known(kGroups, group)) error = "--group takes one of: " + Join(kGroups);
  else if (!Known(kSorts, sort)) error = "--sort takes one of: " + Join(kSorts);
  else if (!order.empty() && order != "asc" && order != "desc") error = "--order takes asc or desc";
  else if (!Known(kContexts, context)) error = "--context takes one of: " + Join(kContexts);
  if (!error.empty()) return std::nullopt;
  tokens.group = "GROUPBY:" + Upper(group);
  tokens.sort = "SORTBY:" + Upper(sort) + " CONTEXT:" + Upper(context);
  if (!order.empty()) {
    // The filter language knows each key's natural order and a switch to reverse it.
    std::string probe = tokens.group + " " + tokens.sort;
    Result<ControlSettings> settings = ReadControlTokens(probe, ASSETGROUPBY::TYPE);
    const ASSETSORTORDER wanted = order == "asc" ? ASSETSORTORDER::ASCENDING : ASSETSORTORDER::DESCENDING;
    if (settings.HasValue() && settings->sortOrder != wanted && settings->sortBy != ASSETSORTBY::RELEVANCE)
      tokens.sort += " REVERSEORDER:YES";
  }
  return tokens;
}

void PrintText(const std::vector<Row>& rows) {
  Table table;
  const auto flush = [&] {
    if (!table.IsEmpty()) std::cout << table.Format();
    table = Table();
  };
  for (const Row& row : rows) {
    if (row.isGroup) {
      flush();
      std::cout << (row.name.empty() ? "(all)" : row.name) << "\n";
      continue;
    }
    table.AddRow({"  " + row.name, row.id, row.description, row.reason.empty() ? "" : "(" + row.reason + ")"});
  }
  flush();
}

void PrintJson(const std::vector<Row>& rows) {
  for (const Row& row : rows) {
    if (row.isGroup) continue;
    std::cout << "{\"group\":" << JsonText(row.group) << ",\"name\":" << JsonText(row.name)
              << ",\"id\":" << JsonText(row.id) << ",\"description\":" << JsonText(row.description)
              << ",\"reason\":" << JsonText(row.reason) << ",\"repository\":" << JsonText(row.repository) << "}\n";
  }
}

// Puts the terminal into a mode without echo and line buffering, and back.
class RawTerminal {
public:
  RawTerminal() {
    if (::tcgetattr(STDIN_FILENO, &_saved) != 0) return;
    termios raw = _saved;
    raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    raw.c_cc[VMIN] = 0;
    raw.c_cc[VTIME] = 0;
    _active = ::tcsetattr(STDIN_FILENO, TCSANOW, &raw) == 0;
  }
  ~RawTerminal() {
    if (_active) ::tcsetattr(STDIN_FILENO, TCSANOW, &_saved);
  }
  bool IsActive() const { return _active; }

private:
  termios _saved{};
  bool _active = false;
};

int TerminalRows() {
  winsize size{};
  if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 3) return size.ws_row;
  return 24;
}

// The first rows under the prompt, the selected one marked; the cursor goes back to the prompt.
void Draw(const std::string& filter, const std::vector<Row>& rows, std::size_t selected, bool searching) {
  std::string screen = "\r\x1b[J" + std::string("filter> ") + filter;
  const std::size_t room = static_cast<std::size_t>(TerminalRows() - 2);
  std::size_t shown = 0, index = 0;
  for (const Row& row : rows) {
    if (shown >= room) break;
    if (row.isGroup) {
      screen += "\r\n\x1b[1m" + (row.name.empty() ? std::string("(all)") : row.name) + "\x1b[0m";
    } else {
      const bool mark = index++ == selected;
      screen += "\r\n" + std::string(mark ? "\x1b[7m> " : "  ") + row.name + "\x1b[0m  \x1b[2m" + row.description +
                (row.reason.empty() ? "" : " (" + row.reason + ")") + "\x1b[0m";
    }
    ++shown;
  }
  if (searching) screen += "\r\n\x1b[2m...\x1b[0m", ++shown;
  if (shown > 0) screen += "\x1b[" + std::to_string(shown) + "A";
  screen += "\r\x1b[" + std::to_string(8 + filter.size()) + "C";
  std::fputs(screen.c_str(), stdout);
  std::fflush(stdout);
}

int RunInteractive(const AssetBrowserRef& browser, RowCollector& collector, const Tokens& tokens,
                   std::string filter) {
  if (!::isatty(STDIN_FILENO) || !::isatty(STDOUT_FILENO))
    return Fail(EXIT_USAGE, "--interactive needs a terminal on stdin and stdout");
  RawTerminal terminal;
  if (!terminal.IsActive()) return Fail(EXIT_FAILED, "can't switch the terminal to raw input");
  std::vector<Row> rows;
  std::size_t selected = 0, seen = collector.Finished();
  bool searching = true;
  browser->DoFiltering("", tokens.group, tokens.sort, filter, false, false);
  Draw(filter, rows, selected, searching);
  const auto leaves = [&] {
    std::vector<const Row*> list;
    for (const Row& row : rows)
      if (!row.isGroup) list.push_back(&row);
    return list;
  };
  for (;;) {
    pollfd input{STDIN_FILENO, POLLIN, 0};
    const int ready = ::poll(&input, 1, 15);
    if (collector.Finished() != seen) {
      seen = collector.Finished();
      rows = collector.Rows();
      selected = 0;
      searching = false;
      Draw(filter, rows, selected, searching);
    }
    if (ready <= 0) continue;
    char keys[16];
    const ssize_t n = ::read(STDIN_FILENO, keys, sizeof keys);
    if (n <= 0) break;
    bool changed = false;
    for (ssize_t i = 0; i < n; ++i) {
      const char c = keys[i];
      if (c == '\n' || c == '\r') {
        const std::vector<const Row*> list = leaves();
        std::fputs("\r\x1b[J", stdout);
        std::fflush(stdout);
        if (selected < list.size()) std::cout << list[selected]->id << "\n";
        return selected < list.size() ? EXIT_OK : EXIT_NOT_FOUND;
      }
      if (c == 27 && i + 2 < n && keys[i + 1] == '[') {
        const char arrow = keys[i + 2];
        const std::size_t count = leaves().size();
        if (arrow == 'A' && selected > 0) --selected;
        if (arrow == 'B' && selected + 1 < count) ++selected;
        i += 2;
        Draw(filter, rows, selected, searching);
        continue;
      }
      if (c == 27 || c == 3 || c == 4) { // Escape, Ctrl-C, Ctrl-D
        std::fputs("\r\x1b[J", stdout);
        std::fflush(stdout);
        return EXIT_NOT_FOUND;
      }
      if (c == 127 || c == 8) {
        if (!filter.empty()) filter.pop_back();
        changed = true;
      } else if (static_cast<unsigned char>(c) >= 32) {
        filter += c;
        changed = true;
      }
    }
    if (changed) {
      searching = true;
      browser->DoFiltering("", tokens.group, tokens.sort, filter, false, false);
      Draw(filter, rows, selected, searching);
    }
  }
  return EXIT_OK;
}

} // namespace

const std::vector<CommandSpec>& GetBrowseCommands() {
  static const std::vector<CommandSpec> commands{
      {"browse", "[FILTER]", 0, SIZE_MAX, "The grouped, sorted result of a filter as an asset panel shows it.",
       "Runs an asset browser over the target repository and everything mounted beneath it. FILTER is a\n"
       "search text as for find; several arguments are joined by blanks. Prints a header per group and\n"
       "below it each asset's name, Id, type and place, and in parentheses what made the filter pass it.\n"
       "Favourites come first in each group. With --interactive (a terminal only) the list follows each\n"
       "keystroke; arrow keys choose a row, Enter prints its Id, Escape leaves without one (exit 3).",
       {{"group", "GROUP", "category, creationdate, usedate, usecount, type (default), database or none"},
        {"sort", "KEY", "name (default), modificationdate, creationdate, usedate, usecount, size or relevance"},
        {"order", "ORDER", "asc or desc (default: the key's own; a relevance list is always ascending)"},
        {"context", "CONTEXT", "where the assets are used, for relevance: objectom, objectvp, mesh, spline, "
                               "material, uveditor, uvvp, node or other (default)"},
        {"json", "", "one JSON object per asset and line: group, name, id, description, reason, repository"},
        {"interactive", "", "type the filter and see the first results on every keystroke"}}},
  };
  return commands;
}

bool IsBrowseCommand(const std::string& command) { return command == "browse"; }

int RunBrowseCommand(const CommandLine& line, Session& session) {
  std::string error;
  const std::optional<Tokens> tokens = ReadTokens(line, error);
  if (!tokens) return Fail(EXIT_USAGE, error);
  if (line.Has("json") && line.Has("interactive")) return Fail(EXIT_USAGE, "--json and --interactive exclude each other");
  if (line.Has("interactive") && (!::isatty(STDIN_FILENO) || !::isatty(STDOUT_FILENO)))
    return Fail(EXIT_USAGE, "--interactive needs a terminal on stdin and stdout");
  std::string filter;
  for (const std::string& arg : line.args) filter += (filter.empty() ? "" : " ") + arg;

  Result<AssetBrowserRef> created = AssetBrowserInterface::Create(ASSETBROWSERMODE::ASSETS);
  if (created.HasError()) return Fail(EXIT_FAILED, created.GetError().ToString());
  const AssetBrowserRef browser = *created;
  RowCollector collector;
  browser->SetGraphModel(std::make_shared<RepositoryGraphModelImpl>(session.repository));
  browser->SetBuildEntryDelegate(collector.Delegate());
  if (line.Has("interactive")) {
    browser->EnableUpdates(true);
    const int code = RunInteractive(browser, collector, *tokens, filter);
    browser->JobRefReset(true);
    return code;
  }
  browser->DoFiltering("", tokens->group, tokens->sort, filter, false, false);
  browser->EnableUpdates(true);
  if (!collector.Wait(0, std::chrono::hours(1))) return Fail(EXIT_FAILED, "the browser gave no result");
  browser->JobRefReset(true);
  const std::vector<Row> rows = collector.Rows();
  if (line.Has("json")) {
    PrintJson(rows);
  } else if (rows.empty()) {
    Note(filter.empty() ? "no assets" : "no assets match the filter");
  } else {
    PrintText(rows);
  }
  return EXIT_OK;
}

} // namespace kasset

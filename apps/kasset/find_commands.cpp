// ls and find: the selection options walk the repository graph; a filter text then decides for
// each asset found, as an asset browser does, and --why shows what made each one pass.

#include "find_commands.h"

#include <algorithm>
#include <cstdint>
#include <iostream>
#include <string_view>

#include "asset/search/control_tokens.h"
#include "asset/storage/database_asset.h"
#include "asset/search/search_filter.h"
#include "output.h"

namespace kasset {

using namespace kelvo;

namespace {


// One listed version, with what the sort compares read once: comparing descriptions directly
// costs virtual calls and reference count updates in each of the n log n comparisons.
struct Row {
  std::string name;
  AssetDescription asset;
  std::string reason;
  Id id;
  VersionKey key;
};

// "file" -> net.kelvo.assettype.file; a dotted Id stays as it is.
Id TypeIdOf(const std::string& text) {
  if (text.find('.') != std::string::npos) return Id(text);
  return Id("net.kelvo.assettype." + text);
}

// The filter text of the arguments, joined by blanks, with the control tokens (grouping and
// sorting of a browser) cut out.
std::string FilterText(const CommandLine& line) {
  std::string text;
  for (const std::string& arg : line.args) text += (text.empty() ? "" : " ") + arg;
  // Fails only when memory runs out, and then leaves the text as it was.
  (void)ReadControlTokens(text, ASSETGROUPBY::TYPE).HasValue();
  return text;
}

// rows in the given order.
void PrintRows(const CommandLine& line, const std::vector<Row>& rows, const std::vector<std::size_t>& order, bool why) {
  if (line.Has("ids")) {
    std::string out;
    std::string_view last;
    for (std::size_t at : order) {
      const Row& row = rows[at];
      if (row.id.View() == last && !last.empty()) continue;
      last = row.id.View();
      out.append(last);
      if (why) out.append("\t").append(row.reason);
      out += '\n';
    }
    std::cout << out;
    return;
  }
  Table table;
  std::vector<std::string> head{"ID", "VERSION", "DATE", "NAME"};
  if (why) head.push_back("WHY");
  table.AddRow(head);
  for (std::size_t at : order) {
    const Row& row = rows[at];
    std::vector<std::string> cells{row.id.ToString(), ShortVersion(row.asset),
                                   DateOf(row.asset), row.name};
    if (why) cells.push_back(row.reason.empty() ? "-" : row.reason);
    table.AddRow(std::move(cells));
  }
  std::cout << table.Format();
}

// The first eight bytes of text as a big-endian number, zeros past its end: two texts whose
// numbers differ compare as their numbers do.
std::uint64_t PrefixNumber(std::string_view text) {
  std::uint64_t n = 0;
  for (std::size_t i = 0; i < 8; ++i) n = n << 8 | (i < text.size() ? static_cast<unsigned char>(text[i]) : 0u);
  return n;
}

// The positions of rows by name, then Id, then version key (versions of one Id by key alone).
// Positions are sorted with a name prefix and an Id hash beside them, so that most comparisons
// read neither row: a sort of 100,000 rows makes some 1.7 million of them.
std::vector<std::size_t> SortedOrder(const std::vector<Row>& rows) {
  struct Key {
    std::uint64_t namePrefix;
    std::size_t idHash;
    std::size_t row;
  };
  std::vector<Key> keys(rows.size());
  for (std::size_t i = 0; i < rows.size(); ++i) keys[i] = Key{PrefixNumber(rows[i].name), rows[i].id.GetHashCode(), i};
  std::stable_sort(keys.begin(), keys.end(), [&rows](const Key& a, const Key& b) {
    const Row& ra = rows[a.row];
    const Row& rb = rows[b.row];
    if (a.idHash != b.idHash || ra.id.View() != rb.id.View()) {
      if (a.namePrefix != b.namePrefix) return a.namePrefix < b.namePrefix;
      return ra.name != rb.name ? ra.name < rb.name : ra.id.View() < rb.id.View();
    }
    return ra.key < rb.key;
  });
  std::vector<std::size_t> order(keys.size());
  for (std::size_t i = 0; i < keys.size(); ++i) order[i] = keys[i].row;
  return order;
}

} // namespace

const std::vector<CommandSpec>& GetFindCommands() {
  static const std::vector<OptionSpec> options{
      {"type", "TYPE", "only assets of this type: file, database or a full type Id (repeatable)", true},
      {"id", "ID", "only the asset with this Id"},
      {"prefix", "TEXT", "only assets whose Id begins with TEXT"},
      {"all-versions", "", "every stored version instead of the latest one"},
      {"deleted", "", "include deleted assets and deletion marks"},
      {"all", "", "include the repository's own information assets"},
      {"ids", "", "print only the asset Ids, one per line"},
      {"why", "", "print what made each asset pass the filter (a WHY column; a tab and the reason with --ids)"}};
  static const std::string details =
      "FILTER is a search text in the asset browser's language, over the target repository and every\n"
      "repository mounted beneath it. Words must all match (in names, keywords, tags); a|b matches\n"
      "either; \"two words\" is one word; KEY:VALUE tests one property, e.g. TYPE:FILE, KEYWORD:wood,\n"
      "NAME:oak, SIZE:>2M, CREATIONDATE:>=2026-01-01, DIMENSIONS:>2m, FAVORITE:yes, VERSIONCOUNT:>1,\n"
      "DATABASE:name, CATEGORYID:id. Several arguments are joined by blanks. Prints ID, VERSION (the\n"
      "first 12 characters of the version Id), DATE and NAME. Exits with 3 when --id or --prefix\n"
      "matches nothing.";
  static const std::vector<CommandSpec> commands{
      {"ls", "[FILTER]", 0, SIZE_MAX, "List the latest version of every asset, or those FILTER passes.", details,
       options},
      {"find", "[FILTER]", 0, SIZE_MAX, "Find assets by a filter text, type, Id or Id prefix.", details, options},
  };
  return commands;
}

bool IsFindCommand(const std::string& command) { return command == "ls" || command == "find"; }

int RunFindCommand(const CommandLine& line, Session& session) {
  TypeArray types;
  for (const std::string& t : line.GetAll("type")) types.push_back(TypeIdOf(t));
  Id aid;
  ASSET_FIND_MODE mode = line.Has("all-versions") ? ALL : LATEST;
  if (line.Has("id") && line.Has("prefix")) return Fail(EXIT_USAGE, "--id and --prefix exclude each other");
  if (auto v = line.Get("id")) aid = Id(*v);
  if (auto v = line.Get("prefix")) {
    aid = Id(*v);
    mode = mode | PREFIX;
  }
  if (line.Has("deleted")) mode = mode | WITH_DELETED;
  const bool showInternal = line.Has("all") || !types.empty();

  const std::string filterText = FilterText(line);
  SearchFilter filter;
  if (!filterText.empty()) {
    if (auto parsed = filter.Parse(session.repository, filterText); parsed.HasError())
      return Fail(EXIT_FAILED, parsed.GetError().ToString());
  }
  const bool filtered = !filter.GetTerms().empty();
  const bool why = line.Has("why");
  if (why && !filtered) return Fail(EXIT_USAGE, "--why needs a FILTER");

  TypeNameCache cache;
  std::vector<Row> rows;
  std::size_t failures = 0;
  std::string firstFailure;
  auto r = session.repository->FindAssets(types, aid, Id(), mode, [&](const AssetDescription& d) -> Result<bool> {
    if (!showInternal && d->GetTypeId() == g_databaseAssetTypeId) return true;
    Row row{NameOf(d), d, std::string(), d->GetIdAndVersion().first, d->GetKey()};
    if (filtered) {
      // An asset that can't be evaluated is left out and the search goes on, as in a browser.
      Result<bool> rejected = filter.Evaluate(d, row.reason, cache);
      if (rejected.HasError() && failures++ == 0) firstFailure = rejected.GetError().ToString();
      if (rejected.HasError() || *rejected) return true;
    }
    rows.push_back(std::move(row));
    return true;
  });
  if (r.HasError()) return Fail(EXIT_FAILED, r.GetError().ToString());
  if (failures > 0) Note(std::to_string(failures) + " asset(s) left out, they could not be read: " + firstFailure);
  std::vector<std::size_t> order = SortedOrder(rows);
  if (rows.empty()) {
    if (!aid.IsEmpty()) return Fail(EXIT_NOT_FOUND, "no asset matches " + aid.ToString());
    Note(filtered ? "no assets match the filter" : "no assets");
    return EXIT_OK;
  }
  PrintRows(line, rows, order, why);
  return EXIT_OK;
}

} // namespace kasset

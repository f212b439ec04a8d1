// The database subcommands of kasset. They change the user's list through AssetDataBases, wait
// for the mount pass that the change starts, and report what it mounted.

#include "db_commands.h"

#include <algorithm>
#include <iostream>

#include "asset/databases/asset_databases.h"
#include "asset/standard/assets.h"
#include "kelvo/application.h"
#include "output.h"

namespace kasset {

using namespace kelvo;

namespace {

bool IsRemoteText(const std::string& text) { return text.starts_with("http://") || text.starts_with("https://"); }

// A database URL from the command line: a remote URL, any other URL text, or a local path.
Url DatabaseUrlOf(const std::string& text) {
  if (IsRemoteText(text)) {
    const auto sep = text.find("://");
    return Url(text.substr(0, sep), text.substr(sep + 3));
  }
  if (text.find("://") != std::string::npos) return Url(text);
  return Url::FromFile(AbsolutePath(text));
}

std::string UrlText(const Url& url) {
  if (url.GetScheme() == "file") return url.GetPath();
  if (url.GetScheme() == "http" || url.GetScheme() == "https") return url.GetScheme() + "://" + url.GetPath();
  return url.ToString();
}

int WaitForPass() {
  auto done = AssetDataBases::WaitForDatabaseLoading();
  if (done.HasError()) return Fail(EXIT_FAILED, "can't wait for the databases: " + done.GetError().ToString());
  return EXIT_OK;
}

std::string SourceOf(std::int64_t priority) {
  if (priority >= 1000000) return "plugin";
  if (priority >= 100000) return "user";
  if (priority >= 20000) return "link";
  if (priority >= 10000) return "archive";
  return "library";
}

std::string StatusOf(const AssetDatabaseState& state) {
  if (!state.active) return "inactive";
  if (!state.mounted) return "not mounted";
  return state.skipInSearch ? "hidden" : "mounted";
}

// What the last pass did with url, for the line printed after a change.
std::optional<AssetDatabaseState> FindState(const Url& url) {
  for (const AssetDatabaseState& state : AssetDataBases::GetDatabaseStates())
    if (state.url == url) return state;
  return std::nullopt;
}

int CmdDbList(const CommandLine&) {
  if (int code = WaitForPass(); code != EXIT_OK) return code;
  auto list = AssetDataBases::GetDatabaseList();
  if (list.HasError()) return Fail(EXIT_FAILED, "can't read the list of databases: " + list.GetError().ToString());
  std::vector<AssetDatabaseState> states = AssetDataBases::GetDatabaseStates();
  // The user's entries the registry doesn't know yet (the module only stores a list before start).
  for (const AssetDatabaseStruct& db : *list) {
    const bool known = std::any_of(states.begin(), states.end(), [&](const AssetDatabaseState& s) { return s.url == db._dbUrl; });
    if (!known) {
      AssetDatabaseState s;
      s.url = db._dbUrl;
      s.priority = 100000;
      s.active = db._active;
      states.push_back(s);
    }
  }
  Table table;
  table.AddRow({"SOURCE", "STATUS", "REPOSITORY", "DATABASE"});
  std::vector<std::string> problems;
  for (const AssetDatabaseState& s : states) {
    table.AddRow({SourceOf(s.priority), StatusOf(s), s.repositoryId.IsEmpty() ? "-" : s.repositoryId.ToString(), UrlText(s.url)});
    if (s.active && !s.error.empty()) problems.push_back(UrlText(s.url) + ": " + s.error);
  }
  if (states.empty()) {
    std::cout << "No asset databases (library: "
              << UrlText(AssetDataBases::GetAssetsDirectory()) << ", user list empty).\n";
    return EXIT_OK;
  }
  std::cout << table.Format();
  if (!problems.empty()) {
    std::cout << "\nNot mounted:\n";
    for (const std::string& p : problems) std::cout << "  " << p << "\n";
  }
  return EXIT_OK;
}

// Stores the changed list, waits for the pass and reports the state of url.
int StoreAndReport(const std::vector<AssetDatabaseStruct>& list, const Url& url, const std::string& done) {
  if (auto r = AssetDataBases::SetDatabases(list); r.HasError())
    return Fail(EXIT_FAILED, "can't store the list of databases: " + r.GetError().ToString());
  if (int code = WaitForPass(); code != EXIT_OK) return code;
  std::cout << done << ": " << UrlText(url) << "\n";
  if (auto state = FindState(url); state && state->active) {
    if (state->mounted)
      std::cout << "mounted as " << state->repositoryId.ToString() << (state->skipInSearch ? " (hidden by a later database with the same Id)" : "") << "\n";
    else if (!state->error.empty())
      Note("kept in the list, but not mounted: " + state->error);
  }
  return EXIT_OK;
}

Result<std::vector<AssetDatabaseStruct>> ReadList() { return AssetDataBases::GetDatabaseList(); }

std::vector<AssetDatabaseStruct>::iterator FindInList(std::vector<AssetDatabaseStruct>& list, const Url& url) {
  return std::find_if(list.begin(), list.end(), [&](const AssetDatabaseStruct& db) { return db._dbUrl == url; });
}

int CmdDbAdd(const CommandLine& line, const std::string& path) {
  Url url = DatabaseUrlOf(path);
  if (url.GetScheme() == "file" && url.IoDetect() == IODETECT::NONE)
    return Fail(EXIT_NOT_FOUND, "no such file or directory: " + url.GetPath());
  auto list = ReadList();
  if (list.HasError()) return Fail(EXIT_FAILED, "can't read the list of databases: " + list.GetError().ToString());
  if (FindInList(*list, url) != list->end()) return Fail(EXIT_FAILED, UrlText(url) + " is in the list already");
  if (url.GetScheme() == "file") url.SetData(assetdatabasekeys::assetdatabasetype, Data(repositorytypes::database));
  list->push_back(AssetDatabaseStruct(url, !line.Has("inactive"), !line.Has("no-export")));
  return StoreAndReport(*list, url, "added");
}

int CmdDbRemove(const std::string& path) {
  const Url url = DatabaseUrlOf(path);
  auto list = ReadList();
  if (list.HasError()) return Fail(EXIT_FAILED, "can't read the list of databases: " + list.GetError().ToString());
  auto it = FindInList(*list, url);
  if (it == list->end()) return Fail(EXIT_NOT_FOUND, UrlText(url) + " is not in the list of databases");
  list->erase(it);
  return StoreAndReport(*list, url, "removed");
}

int CmdDbActivate(const std::string& path, bool active) {
  const Url url = DatabaseUrlOf(path);
  auto list = ReadList();
  if (list.HasError()) return Fail(EXIT_FAILED, "can't read the list of databases: " + list.GetError().ToString());
  auto it = FindInList(*list, url);
  if (it == list->end()) return Fail(EXIT_NOT_FOUND, UrlText(url) + " is not in the list of databases");
  it->_active = active;
  return StoreAndReport(*list, url, active ? "activated" : "deactivated");
}

int CmdDb(const CommandLine& line) {
  const std::string& sub = line.args.front();
  const bool hasPath = line.args.size() > 1;
  if (sub == "list") {
    if (hasPath) return Fail(EXIT_USAGE, "'db list' takes no PATH");
    return CmdDbList(line);
  }
  if (sub != "add" && sub != "remove" && sub != "activate" && sub != "deactivate")
    return Fail(EXIT_USAGE, "unknown db subcommand '" + sub + "' (see 'kasset db --help')");
  if (!hasPath) return Fail(EXIT_USAGE, "'db " + sub + "' needs a PATH");
  const std::string& path = line.args[1];
  if (sub == "add") return CmdDbAdd(line, path);
  if (sub == "remove") return CmdDbRemove(path);
  return CmdDbActivate(path, sub == "activate");
}

int CmdGraph() {
  if (int code = WaitForPass(); code != EXIT_OK) return code;
  // Written for this call whatever the variable says.
  ScopedConfig on(g_generateAssetRepositoryGml, true);
  if (auto r = AssetDataBases::WriteGmlDependencies(); r.HasError())
    return Fail(EXIT_FAILED, "can't write the repository graph: " + r.GetError().ToString());
  std::cout << Application::PrivateGetUrl(APPLICATION_URLTYPE::PREFS_DIR).Append("assetrepository_deps.gml").GetPath()
            << "\n";
  return EXIT_OK;
}

} // namespace

const std::vector<CommandSpec>& GetDbCommands() {
  static const std::vector<CommandSpec> commands{
      {"db", "list|add|remove|activate|deactivate [PATH]", 1, 2,
       "List the asset databases, or change the user's list of databases.",
       "'db list' shows every database of the last mount pass: the folders, archives and link files\n"
       "of <LIBRARY>/assets and the user's list, each with its status (mounted, hidden behind a later\n"
       "database with the same Id, not mounted, inactive) and why it could not be mounted.\n"
       "'db add PATH' adds a folder, an archive or a URL to the user's list and mounts it;\n"
       "'db remove PATH' takes it out; 'db activate PATH' and 'db deactivate PATH' keep it in the list\n"
       "but switch its mounting on or off. A remote database (an http or https URL of a served\n"
       "repository tree with its _index) is mounted from a local cache: see 'kasset cache --help';\n"
       "'kasset get ID' downloads its assets.",
       {{"inactive", "", "db add: add the database switched off"},
        {"no-export", "", "db add: don't export the database when a project is saved"}}},
      {"graph", "", 0, 0, "Write the repository graph (GML) to <PREFS>/assetrepository_deps.gml and print its path.",
       "One node per repository (name, Id, writability, references, whether searches pass over it)\n"
       "and one edge per base; red nodes are passed over in searches, darker ones are read-only.",
       {}},
  };
  return commands;
}

bool IsDbCommand(const std::string& command) { return command == "db" || command == "graph"; }

int RunDbCommand(const CommandLine& line, Session&) {
  if (line.command == "graph") return CmdGraph();
  return CmdDb(line);
}

} // namespace kasset

// The watch folder subcommands of kasset. Adding and removing change the user's list of
// databases and wait for the mount pass; following opens the folder on its own and prints each
// change that a rescan applies until the process is interrupted.

#include "watch_commands.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <condition_variable>
#include <iostream>
#include <mutex>

#include "asset/databases/asset_databases.h"
#include "asset/standard/assets.h"
#include "asset/watchfolder/asset_watchfolder.h"
#include "asset/watchfolder/filewatchassetrepository.h"
#include "output.h"

namespace kasset {

using namespace kelvo;

namespace {

bool IsWatchFolderEntry(const AssetDatabaseStruct& db) {
  return db._dbUrl.GetData(assetdatabasekeys::assetdatabasetype).Get<Id>() == repositorytypes::watchfolder;
}

Result<Url> FolderUrlOf(const std::string& path) {
  const Url url = Url::FromFile(AbsolutePath(path));
  if (url.IoDetect() != IODETECT::DIRECTORY) return IoError("no such directory: @", url.GetPath());
  return url;
}

int WaitForPass() {
  auto done = AssetDataBases::WaitForDatabaseLoading();
  if (done.HasError()) return Fail(EXIT_FAILED, "can't wait for the databases: " + done.GetError().ToString());
  return EXIT_OK;
}

// The assets and folders the mounted repository of url lists, or why it isn't mounted.
std::string StateText(const Url& url) {
  for (const AssetDatabaseState& state : AssetDataBases::GetDatabaseStates()) {
    if (!(state.url == url)) continue;
    if (!state.active) return "inactive";
    if (!state.mounted) return "not mounted" + (state.error.empty() ? std::string() : ": " + state.error);
    auto repository = AssetDataBases::FindRepository(url);
    if (repository.HasError() || !*repository) return "mounted";
    const auto files = (*repository)->GetData(watchfolderkeys::assetcount).Get<std::uint64_t>();
    const auto folders = (*repository)->GetData(watchfolderkeys::categorycount).Get<std::uint64_t>();
    std::string text = FormatString("mounted as @: @ files, @ folders", state.repositoryId, files.value_or(0),
                                    folders.value_or(1) - 1);
    if ((*repository)->GetData(watchfolderkeys::watchlimitreached).Get<bool>().value_or(false))
      text += " (watch limit reached: rescanned periodically)";
    return text;
  }
  return "not mounted";
}

int CmdWatchAdd(const std::string& path) {
  auto url = FolderUrlOf(path);
  if (url.HasError()) return Fail(EXIT_NOT_FOUND, url.GetError().GetMessage());
  if (auto r = WatchFolderAssetRepositoryInterface::AddWatchFolder(*url, true); r.HasError())
    return Fail(EXIT_FAILED, "can't add the watch folder: " + r.GetError().ToString());
  if (int code = WaitForPass(); code != EXIT_OK) return code;
  std::cout << "watching: " << url->GetPath() << "\n" << StateText(*url) << "\n";
  return EXIT_OK;
}

int CmdWatchRemove(const std::string& path) {
  const Url url = Url::FromFile(AbsolutePath(path));
  auto list = AssetDataBases::GetDatabaseList();
  if (list.HasError()) return Fail(EXIT_FAILED, "can't read the list of databases: " + list.GetError().ToString());
  auto it = std::find_if(list->begin(), list->end(),
                         [&](const AssetDatabaseStruct& db) { return db._dbUrl == url && IsWatchFolderEntry(db); });
  if (it == list->end()) return Fail(EXIT_NOT_FOUND, url.GetPath() + " is not a watch folder");
  list->erase(it);
  if (auto r = AssetDataBases::SetDatabases(*list); r.HasError())
    return Fail(EXIT_FAILED, "can't store the list of databases: " + r.GetError().ToString());
  if (int code = WaitForPass(); code != EXIT_OK) return code;
  std::cout << "no longer watching: " << url.GetPath() << "\n";
  return EXIT_OK;
}

int CmdWatchList() {
  if (int code = WaitForPass(); code != EXIT_OK) return code;
  auto list = AssetDataBases::GetDatabaseList();
  if (list.HasError()) return Fail(EXIT_FAILED, "can't read the list of databases: " + list.GetError().ToString());
  Table table;
  table.AddRow({"FOLDER", "STATE"});
  for (const AssetDatabaseStruct& db : *list)
    if (IsWatchFolderEntry(db)) table.AddRow({db._dbUrl.GetPath(), StateText(db._dbUrl)});
  std::cout << table.Format();
  return EXIT_OK;
}

std::atomic<bool> g_interrupted{false};
std::mutex g_followLock;
std::condition_variable g_followWake;

void OnInterrupt(int) { g_interrupted = true; }

int CmdWatchFollow(const std::string& path) {
  auto url = FolderUrlOf(path);
  if (url.HasError()) return Fail(EXIT_NOT_FOUND, url.GetError().GetMessage());
  auto repository = FileWatchAssetRepositoryImpl::Create(*url, {});
  if (repository.HasError()) return Fail(EXIT_FAILED, "can't watch the folder: " + repository.GetError().ToString());
  std::shared_ptr<FileWatchAssetRepositoryImpl> repo = *repository;
  if (auto r = repo->WaitForScan(); r.HasError()) return Fail(EXIT_FAILED, r.GetError().ToString());
  std::cout << "watching " << url->GetPath() << ": " << repo->GetNodeCount() - 1 << " files and folders (Ctrl-C ends)"
            << std::endl;
  repo->SetChangeReceiver([](const WatchFolderChanges& changes) {
    std::lock_guard guard(g_followLock);
    for (const std::string& p : changes.added) std::cout << "+ " << p << "\n";
    for (const std::string& p : changes.changed) std::cout << "~ " << p << "\n";
    for (const std::string& p : changes.removed) std::cout << "- " << p << "\n";
    std::cout.flush();
  });
  std::signal(SIGINT, OnInterrupt);
  std::signal(SIGTERM, OnInterrupt);
  // The handler only sets the flag; this loop notices it within a tenth of a second.
  std::unique_lock guard(g_followLock);
  while (!g_interrupted) g_followWake.wait_for(guard, std::chrono::milliseconds(100));
  guard.unlock();
  repo->SetChangeReceiver(nullptr);
  if (repo->IsWatchLimitReached()) Note("the watch limit was reached: parts of the folder were rescanned periodically");
  return EXIT_OK;
}

} // namespace

const std::vector<CommandSpec>& GetWatchCommands() {
  static const std::vector<CommandSpec> commands{
      {"watch", "add|remove DIR | list | DIR --follow", 1, 2,
       "Watch plain folders as asset databases, or follow the changes in one.",
       "'watch add DIR' adds DIR to the user's list of databases as a watch folder and mounts it:\n"
       "its files become file assets and its directories categories, searched like any database\n"
       "(e.g. by 'kasset ls'). The folder is never written to; its listing and the metadata given\n"
       "to its assets are kept in a store under <GLOBALPREFS>/_assets/watchfolder.\n"
       "'watch remove DIR' takes it out of the list; 'watch list' shows the watch folders with their\n"
       "state. 'watch DIR --follow' opens DIR on its own and prints each change it picks up\n"
       "(+ added, ~ changed, - removed) until interrupted.",
       {{"follow", "", "watch DIR: keep running and print the changes"}}},
  };
  return commands;
}

bool IsWatchCommand(const std::string& command) { return command == "watch"; }

int RunWatchCommand(const CommandLine& line, Session&) {
  const std::string& first = line.args.front();
  const bool hasSecond = line.args.size() > 1;
  if (first == "list") {
    if (hasSecond) return Fail(EXIT_USAGE, "'watch list' takes no DIR");
    return CmdWatchList();
  }
  if (first == "add" || first == "remove") {
    if (!hasSecond) return Fail(EXIT_USAGE, "'watch " + first + "' needs a DIR");
    return first == "add" ? CmdWatchAdd(line.args[1]) : CmdWatchRemove(line.args[1]);
  }
  if (hasSecond) return Fail(EXIT_USAGE, "unknown watch subcommand '" + first + "' (see 'kasset watch --help')");
  if (!line.Has("follow")) return Fail(EXIT_USAGE, "'watch DIR' needs --follow (see 'kasset watch --help')");
  return CmdWatchFollow(first);
}

} // namespace kasset

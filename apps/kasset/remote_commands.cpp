// kasset's commands for remote databases. "get" finds the named assets, works out what of their
// closure is not here yet, starts the download manager on it and follows each asset's state until
// the manager is idle: a bar on a terminal, one line per asset otherwise. "cache" reports, clears
// or moves the cache of remote databases.

#include "remote_commands.h"

#include <chrono>
#include <iostream>
#include <thread>

#include "asset/databases/asset_databases.h"
#include "asset/downloads/asset_downloads.h"
#include "asset/standard/assets.h"
#include "kelvo/language.h"
#include "output.h"

namespace kasset {

using namespace kelvo;

namespace {

// How often a running download is looked at; short enough for a bar that moves smoothly.
constexpr std::chrono::milliseconds kPollInterval{100};

std::string AssetIdOf(const AssetDescription& d) { return d->GetIdAndVersion().first.ToString(); }

std::string PathText(const Url& url) { return url.GetScheme() == "file" ? url.GetPath() : url.ToString(); }

// One asset of the closure that needed a download, and what became of it.
struct Pending {
  AssetDescription asset;
  std::string name;
  bool settled = false;
  bool failed = false;
};

// Looks at the pending assets once; marks those whose job has ended and prints a line for each
// when plain is set. Returns the name of an asset still running, for the bar.
std::string Settle(std::vector<Pending>& pending, bool plain, std::size_t& settledCount) {
  std::string running;
  for (Pending& p : pending) {
    if (p.settled) continue;
    const DOWNLOADSTATE state = AssetDownloads::GetDownloadState(p.asset, {}).GetValueOr(DOWNLOADSTATE::ERROR);
    if (state == DOWNLOADSTATE::INPROGRESS) {
      if (running.empty()) running = p.name;
      continue;
    }
    p.settled = true;
    p.failed = state != DOWNLOADSTATE::YES;
    ++settledCount;
    if (plain) std::cout << (p.failed ? "failed     " : "downloaded ") << AssetIdOf(p.asset) << "  " << p.name << std::endl;
  }
  return running;
}

int CmdGet(const CommandLine& line, Session& session) {
  std::vector<AssetDescription> requested;
  for (const std::string& aid : line.args) {
    auto found = session.repository->FindLatestAsset(Id(), Id(aid), Id(), NONE);
    if (found.HasError()) return Fail(EXIT_FAILED, found.GetError().ToString());
    if (!*found) return Fail(EXIT_NOT_FOUND, "no asset " + aid);
    requested.push_back(*found);
  }
  std::vector<AssetDescription> closure;
  IdAndVersionSet processed;
  for (const AssetDescription& d : requested)
    if (auto added = AssetDownloads::AddAssetWithDependencies(d, session.repository, closure, processed); added.HasError())
      return Fail(EXIT_FAILED, "can't collect what " + AssetIdOf(d) + " depends on: " + added.GetError().ToString());

  std::vector<Pending> pending;
  std::uint64_t totalBytes = 0;
  for (const AssetDescription& d : closure) {
    auto state = AssetDownloads::GetDownloadState(d, {});
    if (state.HasError()) return Fail(EXIT_FAILED, AssetIdOf(d) + ": " + state.GetError().ToString());
    if (*state != DOWNLOADSTATE::NO && *state != DOWNLOADSTATE::ERROR) continue;
    const std::int64_t size = AssetDownloads::GetAssetFileSize(d).GetValueOr(-1);
    if (size > 0) totalBytes += static_cast<std::uint64_t>(size);
    pending.push_back({d, d->GetMetaString(stringkeys::name, Language::GetDefaultLanguage(), "").GetValueOr("")});
  }

  auto started = AssetDownloads::DownloadMultipleAssets(requested, session.repository);
  if (started.HasError()) return Fail(EXIT_FAILED, "can't start the download: " + started.GetError().ToString());
  Progress bar("get", totalBytes, pending.size(), true);
  const bool plain = !bar.IsDrawing();
  std::size_t settled = 0;
  for (;;) {
    const bool busy = AssetDownloads::DownloadManagerIsDownloading();
    const std::string running = Settle(pending, plain, settled);
    if (!busy) break;
    double fraction = started->progress ? started->progress->GetProgress() : 0.0;
    if (fraction > 1.0) fraction = 0.0; // unknown
    bar.SetDone(static_cast<std::uint64_t>(fraction * static_cast<double>(totalBytes)), settled, running);
    std::this_thread::sleep_for(kPollInterval);
  }
  bar.Finish();

  std::size_t failed = 0;
  for (const Pending& p : pending) failed += p.failed ? 1 : 0;
  if (started->progress)
    for (const auto& message : started->progress->GetMessages())
      if (message.state == BACKGROUNDPROGRESSSTATE::ERROR) Note(message.text);
  std::cout << pending.size() - failed << " downloaded, " << closure.size() - pending.size() << " here already, "
            << failed << " failed" << std::endl;
  return failed ? EXIT_FAILED : EXIT_OK;
}

int CmdCache(const CommandLine& line) {
  const std::string& sub = line.args.front();
  const Url path = AssetDataBases::GetAssetDatabaseCachePath();
  if (sub == "path" && line.args.size() == 2) {
    const Url target = Url::FromFile(AbsolutePath(line.args[1]));
    if (auto set = AssetDataBases::SetAssetDatabaseCachePath(target); set.HasError())
      return Fail(EXIT_FAILED, PathText(target) + ": " + set.GetError().GetMessage());
    std::cout << PathText(AssetDataBases::GetAssetDatabaseCachePath()) << "\n";
    return EXIT_OK;
  }
  if (line.args.size() > 1) return Fail(EXIT_USAGE, "'cache " + sub + "' takes no DIR");
  if (sub == "path") {
    std::cout << PathText(path) << "\n";
  } else if (sub == "size") {
    const std::uint64_t bytes = AssetDataBases::GetAssetDatabaseCacheSize();
    std::cout << bytes << " bytes (" << FormatSize(bytes) << ") in " << PathText(path) << "\n";
  } else if (sub == "clear") {
    if (auto cleared = AssetDataBases::ClearAssetDatabaseCache(); cleared.HasError())
      return Fail(EXIT_FAILED, "can't clear the cache: " + cleared.GetError().ToString());
    std::cout << "cleared " << PathText(path) << "\n";
  } else {
    return Fail(EXIT_USAGE, "unknown cache subcommand '" + sub + "' (see 'kasset cache --help')");
  }
  return EXIT_OK;
}

} // namespace

const std::vector<CommandSpec>& GetRemoteCommands() {
  static const std::vector<CommandSpec> commands{
      {"get", "ID...", 1, SIZE_MAX, "Download assets of remote databases with everything they depend on.",
       "Each asset comes with its dependencies, its category and its keywords; what is here already\n"
       "is skipped. Every downloaded version is checked against its version Id (SHA-256) and not kept\n"
       "when it differs. A bar shows the progress on a terminal; otherwise each asset gets a line\n"
       "when it is done. Exits with 1 when an asset failed (the others are kept) and 3 when an ID\n"
       "is not found.",
       {}},
      {"cache", "size|clear|path [DIR]", 1, 2, "Show, clear or move the cache of remote databases.",
       "'cache size' prints the bytes below the cache path, 'cache clear' deletes the cache (files are\n"
       "fetched again when next read), 'cache path' prints the cache path and 'cache path DIR' makes\n"
       "DIR the cache path: DIR must be missing, empty or a cache already. Cached files are not moved.",
       {}},
  };
  return commands;
}

bool IsRemoteCommand(const std::string& command) { return command == "get" || command == "cache"; }

int RunRemoteCommand(const CommandLine& line, Session& session) {
  if (line.command == "get") return CmdGet(line, session);
  return CmdCache(line);
}

} // namespace kasset

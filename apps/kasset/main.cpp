// kasset: the asset module from a shell. It starts and ends the module as a host application
// does, opens the repository to work on and runs one subcommand.

#include <exception>
#include <iostream>
#include <string>
#include <vector>

#include "args.h"
#include "check_commands.h"
#include "asset/module/asset_module.h"
#include "asset/databases/asset_databases.h"
#include "asset/standard/assets.h"
#include "commands.h"
#include "find_commands.h"
#include "asset/storage/compactableassetrepository.h"
#include "kelvo/application.h"
#include "kelvo/log.h"
#include "output.h"

namespace {

using namespace kasset;

// Diagnostic lines of the module are for developers; warnings and worse reach the user.
void QuietLog() {
  kelvo::SetLogSink([](kelvo::LOGLEVEL level, const std::string& line) {
    if (level != kelvo::LOGLEVEL::DIAGNOSTIC) std::cerr << "kasset: " << line << "\n";
  });
}

void ApplyDirectories(const CommandLine& line) {
  using kelvo::APPLICATION_URLTYPE;
  if (auto dir = line.Get("prefs")) kelvo::Application::SetUrl(APPLICATION_URLTYPE::PREFS_DIR, kelvo::Url::FromFile(AbsolutePath(*dir)));
  if (auto dir = line.Get("globalprefs"))
    kelvo::Application::SetUrl(APPLICATION_URLTYPE::GLOBALPREFS_DIR, kelvo::Url::FromFile(AbsolutePath(*dir)));
  if (auto dir = line.Get("library"))
    kelvo::Application::SetUrl(APPLICATION_URLTYPE::LIBRARY_DIR, kelvo::Url::FromFile(AbsolutePath(*dir)));
}

// A listing that changed nothing leaves its repository graph alive to the end of the process:
// freeing 100,000 assets piece by piece takes about a sixth of an `ls`. Not while index work is
// pending or running, since a repository that is never destroyed never waits for its jobs. The
// holder is reachable, so leak checkers do not count it.
void KeepUntilExit(const kelvo::AssetRepositoryRef& repository) {
  if (!repository) return;
  if (auto compactable = std::dynamic_pointer_cast<kelvo::CompactableAssetRepositoryInterface>(repository)) {
    const kelvo::REPOSITORYINDEXSTATE state = compactable->GetIndexState();
    if (state == kelvo::REPOSITORYINDEXSTATE::PENDING || state == kelvo::REPOSITORYINDEXSTATE::RUNNING) return;
  }
  static auto* const kept = new std::vector<kelvo::AssetRepositoryRef>();
  kept->push_back(repository);
}

int Run(const std::vector<std::string>& argv) {
  std::string error;
  const CommandLine line = ParseCommandLine(argv, GetGlobalOptions(), GetCommands(), error);
  if (!error.empty()) return Fail(EXIT_USAGE, error + " (see 'kasset --help')");
  if (line.help) {
    if (const CommandSpec* command = FindCommand(GetCommands(), line.command))
      std::cout << CommandHelp(*command);
    else
      std::cout << GlobalHelp();
    return EXIT_OK;
  }
  if (line.command.empty()) return Fail(EXIT_USAGE, "no command given (see 'kasset --help')");

  QuietLog();
  ApplyDirectories(line);
  if (auto r = kelvo::StartAssetModule(); r.HasError())
    return Fail(EXIT_FAILED, "can't start the asset module: " + r.GetError().ToString());
  // Searches of the user repository reach the asset databases once the first mount pass is done.
  (void)kelvo::AssetDataBases::WaitForDatabaseLoading();

  int code = EXIT_OK;
  {
    Session session;
    if (auto repo = line.Get("repo")) session.repositoryPath = AbsolutePath(*repo);
    if (NeedsRepository(line.command)) {
      if (!session.repositoryPath.empty()) {
        code = OpenRepositoryDirectory(session.repositoryPath, true, session.repository);
      } else {
        session.repository = kelvo::AssetInterface::GetUserPrefsRepository();
      }
      for (const std::string& dir : line.GetAll("mount")) {
        if (code != EXIT_OK) break;
        kelvo::AssetRepositoryRef mounted;
        code = OpenRepositoryDirectory(AbsolutePath(dir), false, mounted);
        if (code == EXIT_OK) {
          if (auto r = session.repository->AddBase(mounted); r.HasError()) code = Fail(EXIT_FAILED, r.GetError().ToString());
        }
      }
    }
    if (code == EXIT_OK) {
      IndexUpkeep upkeep(session.repository);
      code = RunCommand(line, session);
      upkeep.Finish();
      if (IsFindCommand(line.command) && !upkeep.SawChanges()) KeepUntilExit(session.repository);
    }
  }
  kelvo::EndAssetModule();
  return code;
}

} // namespace

int main(int argc, char** argv) {
  try {
    return Run(std::vector<std::string>(argv + 1, argv + argc));
  } catch (const std::exception& e) {
    return Fail(EXIT_FAILED, std::string("unexpected failure: ") + e.what());
  } catch (...) {
    return Fail(EXIT_FAILED, "unexpected failure");
  }
}

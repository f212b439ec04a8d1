// "kasset check" over the storage's tree verification, and the index upkeep of a kasset process.

#include "check_commands.h"

#include <atomic>
#include <iostream>

#include "asset/storage/compactableassetrepository.h"
#include "asset/storage/url_repository_check.h"
#include "asset/storage/urlassetrepository.h"
#include "output.h"

namespace kasset {

using namespace kelvo;

namespace {

int CmdCheck(const CommandLine& line, Session& session) {
  auto urlRepository = std::dynamic_pointer_cast<UrlAssetRepositoryInterface>(session.repository);
  if (!urlRepository) return Fail(EXIT_FAILED, "the repository has no directory tree to check");
  const bool repair = line.Has("repair");
  const Url root = urlRepository->GetUrl(false);
  auto checked = CheckUrlRepositoryTree(root, repair && session.repository->IsWritable());
  if (checked.HasError()) return Fail(EXIT_FAILED, checked.GetError().ToString());
  std::size_t problems = 0;
  Table table;
  for (const RepositoryFinding& f : checked->findings) {
    if (!f.repaired) ++problems;
    table.AddRow({RepositoryFindingName(f.kind), f.path.GetPath(), f.detail + (f.repaired ? " (removed)" : "")});
  }
  std::cout << table.Format();
  if (repair) {
    if (!session.repository->IsWritable()) return Fail(EXIT_FAILED, "the repository is read-only; nothing was repaired");
    // The index is made anew from the tree as it stands now.
    if (auto compactable = std::dynamic_pointer_cast<CompactableAssetRepositoryInterface>(session.repository)) {
      if (auto r = compactable->Compact(); r.HasError())
        return Fail(EXIT_FAILED, "can't rebuild the index: " + r.GetError().ToString());
    }
  }
  std::cout << checked->versionsVerified << " versions verified, " << checked->findings.size() << " findings";
  if (repair) std::cout << ", " << (checked->findings.size() - problems) << " removed";
  std::cout << "\n";
  return problems == 0 ? EXIT_OK : EXIT_FAILED;
}

} // namespace

const std::vector<CommandSpec>& GetCheckCommands() {
  static const std::vector<CommandSpec> commands{
      {"check", "", 0, 0, "Verify every version's content against its digest and report damaged, hidden, duplicate and left-over entries.",
       "Each finding is printed as one line: its kind, its path and what is wrong. Leftovers are what\n"
       "killed stores, erasures and compactions left behind; --repair removes those older than a\n"
       "minute and writes the index anew. The exit code is 1 while findings remain.",
       {{"repair", "", "remove leftovers and rebuild the index"}}},
  };
  return commands;
}

bool IsCheckCommand(const std::string& command) { return command == "check"; }

int RunCheckCommand(const CommandLine& line, Session& session) { return CmdCheck(line, session); }

struct IndexUpkeep::State {
  AssetRepositoryRef repository;
  std::atomic<bool> changed{false};
  std::atomic<bool> sawChanges{false};
  std::uint64_t tokens[4] = {0, 0, 0, 0};
};

IndexUpkeep::IndexUpkeep(const AssetRepositoryRef& repository) : _state(std::make_shared<State>()) {
  _state->repository = repository;
  if (!repository || !std::dynamic_pointer_cast<CompactableAssetRepositoryInterface>(repository)) return;
  std::weak_ptr<State> weak = _state;
  auto mark = [weak](const AssetDescription& d) {
    auto state = weak.lock();
    if (state && d && d->GetRepository() == state->repository) state->changed = state->sawChanges = true;
  };
  _state->tokens[0] = repository->ObservableAssetStored(true)->AddObserver(mark);
  _state->tokens[1] = repository->ObservableAssetErased(true)->AddObserver(mark);
  _state->tokens[2] = repository->ObservableAssetUpdated(true)->AddObserver(mark);
  _state->tokens[3] = repository->ObservableMetaDataStored(true)->AddObserver(
      [mark](const AssetDescription& d, const InternedId&, std::uint32_t, const Data&, const Data&) { mark(d); });
}

IndexUpkeep::~IndexUpkeep() {
  const AssetRepositoryRef& r = _state->repository;
  if (!r || !std::dynamic_pointer_cast<CompactableAssetRepositoryInterface>(r)) return;
  r->ObservableAssetStored(true)->RemoveObserver(_state->tokens[0]);
  r->ObservableAssetErased(true)->RemoveObserver(_state->tokens[1]);
  r->ObservableAssetUpdated(true)->RemoveObserver(_state->tokens[2]);
  r->ObservableMetaDataStored(true)->RemoveObserver(_state->tokens[3]);
}

bool IndexUpkeep::SawChanges() const { return _state->sawChanges; }

void IndexUpkeep::Finish() {
  if (!_state->changed || !_state->repository->IsWritable()) return;
  auto compactable = std::dynamic_pointer_cast<CompactableAssetRepositoryInterface>(_state->repository);
  if (!compactable) return;
  if (auto r = compactable->Compact(); r.HasError()) Note("can't write the index of the repository: " + r.GetError().ToString());
  _state->changed = false;
}

} // namespace kasset

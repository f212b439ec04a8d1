// "kasset deps", "kasset rdeps" and "kasset update" over the dependency records and references of
// assets, and the repository's link updates.

#include "link_commands.h"

#include <algorithm>
#include <charconv>
#include <functional>
#include <iostream>
#include <map>
#include <set>
#include <sstream>
#include <unordered_map>

#include "asset/core/baseassetrepository.h"
#include "output.h"

namespace kasset {

using namespace kelvo;

namespace {

// One thing an asset depends on.
struct Dependency {
  IdAndVersion target;
  ASSET_UPDATE_POLICY policy = ASSET_UPDATE_POLICY::NEVER;
};

const char* PolicyName(ASSET_UPDATE_POLICY policy) {
  switch (policy) {
  case ASSET_UPDATE_POLICY::EXPLICIT: return "explicit";
  case ASSET_UPDATE_POLICY::IMPLICIT: return "implicit";
  default: return "never";
  }
}

std::string Short(const Id& version) {
  const std::string v = version.ToString();
  return v.size() > 12 ? v.substr(0, 12) : v;
}

// What version d depends on: its dependency records, then the references that its loaded asset
// reports, one entry per target asset. Loading with link updates also lets the repository record
// the links. An asset that can't be loaded has its records only.
Result<std::vector<Dependency>> DependenciesOf(const AssetDescription& d) {
  std::vector<Dependency> result;
  auto add = [&](const IdAndVersion& target, ASSET_UPDATE_POLICY policy) {
    if (target.first.IsEmpty()) return;
    for (const Dependency& e : result)
      if (e.target.first == target.first) return;
    result.push_back(Dependency{target, policy});
  };
  if (d->IsDeleted()) return result;
  KELVO_ASSIGN_OR_RETURN(std::optional<Data> records, d->GetMetaData()->Get(metaids::dependencies));
  if (records)
    if (const DataArray* array = records->GetPtr<DataArray>())
      for (const Data& item : *array)
        if (const auto* record = item.GetPtr<AssetDependencyStruct>()) add(record->assetIdAndVersion, record->updatePolicy);
  Result<Asset> asset = d->Load(true);
  if (asset.HasValue() && *asset) {
    KELVO_RETURN_ON_ERROR((*asset)->GetReferencedAssets(false, [&](const AssetReferenceRef& r) -> Result<bool> {
      if (!r) return true;
      const AssetLink link = r->GetLink();
      add(r->GetIdAndVersion(), link ? link->GetUpdatePolicy() : ASSET_UPDATE_POLICY::NEVER);
      return true;
    }));
  }
  return result;
}

Result<AssetDescription> Latest(const Session& session, const Id& aid) {
  return session.repository->FindLatestAsset(Id(), aid, Id(), NONE);
}

// Prints a tree of assets, each asset's subtree once: a repeated asset is marked instead of being
// expanded again, so that a cycle ends and a shared subtree isn't printed twice.
class TreePrinter {
public:
  using Children = std::function<Result<void>(const AssetDescription&, std::vector<std::pair<AssetDescription, std::string>>&)>;
  TreePrinter(std::size_t maxDepth, Children children) : _maxDepth(maxDepth), _children(std::move(children)) {}

  Result<void> Print(const AssetDescription& node, const std::string& notes, std::size_t depth) {
    const Id aid = node->GetIdAndVersion().first;
    const bool onPath = std::find(_path.begin(), _path.end(), aid) != _path.end();
    const bool seen = !onPath && _expanded.count(aid);
    std::string line = std::string(depth * 2, ' ') + (depth ? "- " : "") + aid.ToString() + "  " +
                       (node->IsDeleted() ? std::string("deleted") : Short(node->GetIdAndVersion().second)) + "  " +
                       NameOf(node) + notes;
    if (onPath) line += "  (cycle)";
    if (seen) line += "  (see above)";
    _out << line << "\n";
    if (onPath || seen || depth >= _maxDepth) return {};
    _expanded.insert(aid);
    std::vector<std::pair<AssetDescription, std::string>> children;
    KELVO_RETURN_ON_ERROR(_children(node, children));
    _path.push_back(aid);
    for (const auto& [child, childNotes] : children) KELVO_RETURN_ON_ERROR(Print(child, childNotes, depth + 1));
    _path.pop_back();
    return {};
  }
  std::string Text() const { return _out.str(); }

private:
  std::size_t _maxDepth;
  Children _children;
  std::vector<Id> _path;
  std::set<Id> _expanded;
  std::ostringstream _out;
};

// The --depth option: levels below the asset, all when not given. Sets code on a bad value.
std::size_t DepthOption(const CommandLine& line, int& code) {
  const auto text = line.Get("depth");
  if (!text) return SIZE_MAX;
  std::size_t depth = 0;
  auto [end, ec] = std::from_chars(text->data(), text->data() + text->size(), depth);
  if (ec != std::errc() || end != text->data() + text->size() || depth == 0) {
    code = Fail(EXIT_USAGE, "--depth needs a whole number of at least 1");
    return 0;
  }
  return depth;
}

// The root of a tree: the latest version of the asset named on the command line.
AssetDescription RootOf(const CommandLine& line, const Session& session, int& code) {
  auto root = Latest(session, Id(line.args[0]));
  if (root.HasError()) {
    code = Fail(EXIT_FAILED, root.GetError().ToString());
    return nullptr;
  }
  if (!*root) code = Fail(EXIT_NOT_FOUND, "no asset " + line.args[0]);
  return *root;
}

// The marks of one edge of a tree: "(depends on V)" when the edge names another version than the
// one shown, and the update policy.
std::string EdgeNotes(const Dependency& dependency, const Id& shownVersion) {
  std::string notes;
  if (!dependency.target.second.IsEmpty() && dependency.target.second != shownVersion)
    notes = "  (depends on " + Short(dependency.target.second) + ")";
  return notes + "  [" + PolicyName(dependency.policy) + "]";
}

// Prints the tree of the asset named on the command line, to --depth; prepare runs once the
// asset is known, before the tree is walked.
int PrintTree(const CommandLine& line, const Session& session, const std::function<Result<void>()>& prepare,
              TreePrinter::Children children) {
  int code = EXIT_OK;
  const std::size_t depth = DepthOption(line, code);
  if (code != EXIT_OK) return code;
  AssetDescription root = RootOf(line, session, code);
  if (!root) return code;
  if (prepare)
    if (auto r = prepare(); r.HasError()) return Fail(EXIT_FAILED, r.GetError().ToString());
  TreePrinter printer(depth, std::move(children));
  if (auto r = printer.Print(root, "", 0); r.HasError()) return Fail(EXIT_FAILED, r.GetError().ToString());
  std::cout << printer.Text();
  return EXIT_OK;
}

int CmdDeps(const CommandLine& line, Session& session) {
  return PrintTree(line, session, nullptr,
                   [&](const AssetDescription& d, std::vector<std::pair<AssetDescription, std::string>>& children)
                       -> Result<void> {
                     KELVO_ASSIGN_OR_RETURN(std::vector<Dependency> dependencies, DependenciesOf(d));
                     for (const Dependency& dependency : dependencies) {
                       KELVO_ASSIGN_OR_RETURN(AssetDescription latest, Latest(session, dependency.target.first));
                       if (latest) {
                         children.emplace_back(latest, EdgeNotes(dependency, latest->GetIdAndVersion().second));
                         continue;
                       }
                       // Shown by its record alone: a description that knows only the Id and the version.
                       children.emplace_back(std::make_shared<AssetDescriptionImpl>(dependency.target, Id(), VersionKey(),
                                                                                    nullptr, false, nullptr, Url()),
                                             EdgeNotes(dependency, dependency.target.second) + "  (missing)");
                     }
                     return {};
                   });
}

int CmdRdeps(const CommandLine& line, Session& session) {
  // Nothing on disk says who depends on whom: every asset the repository reaches is read.
  std::unordered_map<Id, std::vector<std::pair<AssetDescription, Dependency>>> dependents;
  auto collect = [&]() -> Result<void> {
    auto walk = session.repository->FindAssets(TypeArray{}, Id(), Id(), LATEST, [&](const AssetDescription& d) -> Result<bool> {
      KELVO_ASSIGN_OR_RETURN(std::vector<Dependency> dependencies, DependenciesOf(d));
      for (const Dependency& dependency : dependencies) dependents[dependency.target.first].emplace_back(d, dependency);
      return true;
    });
    if (walk.HasError()) return walk.GetError();
    for (auto& [target, list] : dependents)
      std::sort(list.begin(), list.end(), [](const auto& a, const auto& b) {
        return a.first->GetIdAndVersion().first.ToString() < b.first->GetIdAndVersion().first.ToString();
      });
    return {};
  };
  return PrintTree(line, session, collect,
                   [&](const AssetDescription& d, std::vector<std::pair<AssetDescription, std::string>>& children)
                       -> Result<void> {
                     auto it = dependents.find(d->GetIdAndVersion().first);
                     if (it == dependents.end()) return {};
                     for (const auto& [dependent, dependency] : it->second)
                       children.emplace_back(dependent, EdgeNotes(dependency, d->GetIdAndVersion().second));
                     return {};
                   });
}

int CmdUpdate(const CommandLine& line, Session& session) {
  auto* repository = dynamic_cast<BaseAssetRepositoryImpl*>(session.repository.get());
  if (!repository) return Fail(EXIT_FAILED, "the repository keeps no links between its assets");
  std::vector<AssetDescription> changed;
  if (!line.args.empty()) {
    int code = EXIT_OK;
    AssetDescription target = RootOf(line, session, code);
    if (!target) return code;
    changed.push_back(target);
  }
  // Links are recorded as assets load, and only in memory: every asset of the repository is loaded
  // first. Without an ID every asset reached counts as changed, so every link is brought up to date.
  std::map<Id, std::uint64_t> before;
  auto own = session.repository->FindAssets(TypeArray{}, Id(), Id(), LATEST | WITHOUT_BASES,
                                            [&](const AssetDescription& d) -> Result<bool> {
                                              Result<Asset> asset = d->Load(true);
                                              if (asset.HasValue() && *asset)
                                                before[d->GetIdAndVersion().first] = (*asset)->GetUpdate();
                                              return true;
                                            });
  if (own.HasError()) return Fail(EXIT_FAILED, own.GetError().ToString());
  if (line.args.empty()) {
    auto all = session.repository->FindAssets(TypeArray{}, Id(), Id(), LATEST, [&](const AssetDescription& d) -> Result<bool> {
      changed.push_back(d);
      return true;
    });
    if (all.HasError()) return Fail(EXIT_FAILED, all.GetError().ToString());
  }
  for (const AssetDescription& d : changed) repository->AddPendingAsset(d);
  auto pending = repository->GetPendingUpdates(true);
  if (pending.HasError()) return Fail(EXIT_FAILED, pending.GetError().ToString());
  if (auto r = repository->Update(*pending); r.HasError()) return Fail(EXIT_FAILED, r.GetError().ToString());

  // An asset changed when the object that loads of its version now get has a newer update count.
  Table table;
  for (const PendingUpdate& p : *pending) {
    const Id aid = p.description->GetIdAndVersion().first;
    auto latest = session.repository->FindLatestAsset(Id(), aid, Id(), WITHOUT_BASES);
    if (latest.HasError() || !*latest) continue;
    Result<Asset> asset = (*latest)->Load(true);
    if (asset.HasError() || !*asset || (*asset)->GetUpdate() <= before[aid]) continue;
    std::string follows;
    for (const AssetDescription& u : p.updates) {
      const IdAndVersion target = u->GetIdAndVersion();
      follows += (follows.empty() ? "" : ", ") + target.first.ToString() +
                 (target.second == g_newVersion ? "" : " " + Short(target.second));
    }
    table.AddRow({aid.ToString(), "follows " + follows});
  }
  std::cout << (table.IsEmpty() ? "nothing to update\n" : table.Format());
  return EXIT_OK;
}

} // namespace

Data MakeDependencyRecords(const Session& session, const std::vector<std::string>& ids, int& code) {
  DataArray records;
  for (const std::string& id : ids) {
    auto target = Latest(session, Id(id));
    if (target.HasError()) {
      code = Fail(EXIT_FAILED, target.GetError().ToString());
      return Data();
    }
    if (!*target || (*target)->IsDeleted()) {
      code = Fail(EXIT_NOT_FOUND, "no asset " + id + " to depend on");
      return Data();
    }
    const AssetDescription& d = *target;
    auto stamp = d->GetMetaData()->GetValue<UniversalDateTime>(metaids::timestamp);
    records.push_back(Data(AssetDependencyStruct{d->GetIdAndVersion(), d->GetTypeId(),
                                                 stamp.HasValue() && *stamp ? **stamp : UniversalDateTime(), NameOf(d),
                                                 ASSET_UPDATE_POLICY::EXPLICIT}));
  }
  return Data(std::move(records));
}

const std::vector<CommandSpec>& GetLinkCommands() {
  static const std::vector<OptionSpec> depth{{"depth", "N", "show N levels below the asset (default: all)"}};
  static const std::vector<CommandSpec> commands{
      {"deps", "ID", 1, 1, "Show what an asset depends on, as a tree.",
       "What an asset depends on are its dependency records (see 'kasset add --depends') and the\n"
       "references that its content makes. Each line shows the Id, the version, the name and the\n"
       "update policy of a dependency, which is shown in its latest version; \"(depends on V)\" marks a\n"
       "dependency on an older version V. An asset already shown is marked \"(see above)\", one that\n"
       "closes a cycle \"(cycle)\", and neither is expanded again; \"(missing)\" marks one not found.",
       depth},
      {"rdeps", "ID", 1, 1, "Show what depends on an asset, as a tree.",
       "Who depends on whom is kept nowhere on disk: rdeps reads the dependencies of the latest version\n"
       "of every asset that the repository reaches, mounted repositories included. The marks are those\n"
       "of 'kasset deps'.",
       depth},
      {"update", "[ID]", 0, 1, "Bring assets that follow their links up to date, in memory only, and print what each follows.",
       "With ID, the assets that depend on ID, directly or through others, follow its latest version;\n"
       "without, every asset of the repository follows the latest versions of what it refers to. An\n"
       "asset is updated after everything it depends on. Links are known only for loaded assets, so\n"
       "update first loads the latest version of every asset of the repository. A link update changes\n"
       "the loaded assets and stores no new version: it lasts for this invocation, and what is printed\n"
       "is what a host application holding these assets would update. Assets whose class doesn't follow\n"
       "links (file assets and the asset types of this module) stay as they are; \"nothing to update\"\n"
       "is printed when no asset changed. Assets that follow each other in a cycle are an error.",
       {}},
  };
  return commands;
}

bool IsLinkCommand(const std::string& command) { return command == "deps" || command == "rdeps" || command == "update"; }

int RunLinkCommand(const CommandLine& line, Session& session) {
  if (line.command == "deps") return CmdDeps(line, session);
  if (line.command == "rdeps") return CmdRdeps(line, session);
  return CmdUpdate(line, session);
}

} // namespace kasset

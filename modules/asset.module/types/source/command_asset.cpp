// Command assets: execution and state through the host's delegates, scopes, types, and the
// tables of the host's numeric command identifiers.

#include "asset/types/command_asset.h"

#include <algorithm>
#include <cctype>
#include <mutex>
#include <unordered_map>

#include "asset/types/marker_assets.h"
#include "asset/types/metadata_asset_type.h"

namespace kelvo {

namespace {

struct ScopeName {
  const char* id;
  const char* name;
};

constexpr ScopeName kScopes[] = {
    {"net.kelvo.asset.command.scope.mesh", "Mesh"},
    {"net.kelvo.asset.command.scope.model", "Model"},
    {"net.kelvo.asset.command.scope.spline", "Spline"},
    {"net.kelvo.asset.command.scope.sculpting", "Sculpting"},
    {"net.kelvo.asset.command.scope.painting", "Painting"},
    {"net.kelvo.asset.command.scope.uvs", "UV"},
    {"net.kelvo.asset.command.scope.rigging", "Rigging"},
    {"net.kelvo.asset.command.scope.exchange", "Exchange"},
    {"net.kelvo.asset.command.scope.materials", "Material"},
    {"net.kelvo.asset.command.scope.nodes", "Node Editor"},
    {"net.kelvo.asset.command.scope.particles", "Particles"},
    {"net.kelvo.asset.command.scope.cloth", "Cloth"},
    {"net.kelvo.asset.command.scope.pyro", "Pyro"},
    {"net.kelvo.asset.command.scope.bullet", "Bullet"},
    {"net.kelvo.asset.command.scope.camera", "Camera"},
    {"net.kelvo.asset.command.scope.lighting", "Lighting"},
    {"net.kelvo.asset.command.scope.animation", "Animation"},
    {"net.kelvo.asset.command.scope.keystrip", "Keystrip"},
    {"net.kelvo.asset.command.scope.clonework", "Clonework"},
    {"net.kelvo.asset.command.scope.tracker", "Tracker"},
    {"net.kelvo.asset.command.scope.viewport", "Viewport"},
    {"net.kelvo.asset.command.scope.assetbrowser", "Asset Browser"},
    {"net.kelvo.asset.command.scope.rendering", "Rendering"},
    {"net.kelvo.asset.command.scope.farmdispatch", "Farm Dispatch"},
    {"net.kelvo.asset.command.scope.lumora", "Lumora"},
    {"net.kelvo.asset.command.scope.substance", "Substance"},
    {"net.kelvo.asset.command.scope.objects", "Object Manager"},
    {"net.kelvo.asset.command.scope.python", "Python"},
    {"net.kelvo.asset.command.scope.other", "Other"},
};

constexpr const char* kTypeSuffixes[] = {
    "command",         "hotkey",         "tool",          "object.generator", "object.deformer", "object.effector",
    "object.force",    "object.filter",  "object.primitive", "object.field",  "object.scene",    "object.other",
    "tag",             "script",         "mode",          "manager",
};

const std::string kOther = "Other";

// Hash of a command identifier as the legacy tables spread them.
struct LegacyIdHash {
  std::size_t operator()(std::int32_t id) const noexcept {
    std::uint32_t x = static_cast<std::uint32_t>(id);
    std::uint32_t h = x ^ (x >> 12) ^ (x >> 20);
    return h ^ (h >> 7) ^ (h >> 4);
  }
};

struct LegacyTables {
  std::mutex lock;
  std::unordered_map<std::int32_t, std::vector<Id>, LegacyIdHash> scopes;
  std::unordered_map<std::int32_t, Id, LegacyIdHash> types;
};

LegacyTables& Tables() {
  static LegacyTables tables;
  return tables;
}

Result<void> CheckCommand(const AssetDescription& commandAsset) {
  const Id type = commandAsset ? commandAsset->GetTypeId() : Id();
  if (type != CommandAssetInterface::TypeId())
    return IllegalArgumentError("Asset input argument must be of type: '@'", CommandAssetInterface::TypeId());
  return {};
}

// Compares case-insensitively, runs of digits by their numeric value.
bool LessCaseInsensitiveNumbers(const std::string& a, const std::string& b) {
  std::size_t i = 0, j = 0;
  while (i < a.size() && j < b.size()) {
    const unsigned char ca = static_cast<unsigned char>(a[i]), cb = static_cast<unsigned char>(b[j]);
    if (std::isdigit(ca) && std::isdigit(cb)) {
      std::size_t ei = i, ej = j;
      while (ei < a.size() && a[ei] == '0') ++ei;
      while (ej < b.size() && b[ej] == '0') ++ej;
      std::size_t ni = ei, nj = ej;
      while (ni < a.size() && std::isdigit(static_cast<unsigned char>(a[ni]))) ++ni;
      while (nj < b.size() && std::isdigit(static_cast<unsigned char>(b[nj]))) ++nj;
      if (ni - ei != nj - ej) return ni - ei < nj - ej;
      const int c = a.compare(ei, ni - ei, b, ej, nj - ej);
      if (c != 0) return c < 0;
      i = ni;
      j = nj;
      continue;
    }
    const int la = std::tolower(ca), lb = std::tolower(cb);
    if (la != lb) return la < lb;
    ++i;
    ++j;
  }
  return a.size() - i < b.size() - j;
}

} // namespace

std::size_t HashValue(const CommandExecuteDelegate& d) { return std::hash<const void*>()(d.call.get()); }
std::size_t HashValue(const CommandQueryStateDelegate& d) { return std::hash<const void*>()(d.call.get()); }

const Id& DataTypeTraits<CommandExecuteDelegate>::TypeId() {
  static const Id id{"net.kelvo.datatype.commandexecutedelegate"};
  return id;
}
const Id& DataTypeTraits<CommandQueryStateDelegate>::TypeId() {
  static const Id id{"net.kelvo.datatype.commandquerystatedelegate"};
  return id;
}

const Id& CommandAssetInterface::TypeId() {
  static const Id id{"net.kelvo.assettype.command"};
  return id;
}

Asset CommandAssetInterface::Create() { return CreateTypedAsset<CommandAssetInterface>(); }

Result<COMMAND_ASSET_STATE> CommandAssetInterface::QueryState(const AssetDescription& commandAsset) {
  KELVO_RETURN_ON_ERROR(CheckCommand(commandAsset));
  KELVO_ASSIGN_OR_RETURN(auto query, ReadMeta<CommandQueryStateDelegate>(commandAsset, commandids::querystate));
  if (!query || !query->call || !*query->call) return IllegalStateError("Command asset error: no query delegate");
  return (*query->call)();
}

Result<void> CommandAssetInterface::Execute(const AssetDescription& commandAsset, bool withOptions) {
  KELVO_RETURN_ON_ERROR(CheckCommand(commandAsset));
  KELVO_ASSIGN_OR_RETURN(COMMAND_ASSET_STATE state, QueryState(commandAsset));
  if (!(state & ENABLED)) return {};
  KELVO_ASSIGN_OR_RETURN(auto execute, ReadMeta<CommandExecuteDelegate>(commandAsset, commandids::execute));
  if (!execute || !execute->call || !*execute->call) return IllegalStateError("Command asset error: no execute delegate");
  return (*execute->call)(withOptions && (state & HAS_OPTIONS) != 0);
}

Result<std::int64_t> CommandAssetInterface::GetLegacyId(const AssetDescription& commandAsset) {
  KELVO_RETURN_ON_ERROR(CheckCommand(commandAsset));
  KELVO_ASSIGN_OR_RETURN(auto id, ReadMeta<std::int64_t>(commandAsset, commandids::legacyid));
  return id.value_or(-1);
}

Result<std::vector<Id>> CommandAssetInterface::GetCommandScopes(const AssetDescription& commandAsset) {
  KELVO_RETURN_ON_ERROR(CheckCommand(commandAsset));
  KELVO_ASSIGN_OR_RETURN(auto scopes, ReadMeta<DataArray>(commandAsset, commandids::scopes));
  return IdsOf(scopes);
}

bool CommandAssetInterface::AddCommandScope(const Id& scope, std::vector<Id>& scopeArray) {
  if (std::find(scopeArray.begin(), scopeArray.end(), scope) != scopeArray.end()) return false;
  scopeArray.push_back(scope);
  return true;
}

bool CommandAssetInterface::EraseCommandScope(const Id& scope, std::vector<Id>& scopeArray) {
  auto it = std::find(scopeArray.begin(), scopeArray.end(), scope);
  if (it == scopeArray.end()) return false;
  scopeArray.erase(it);
  return true;
}

Result<void> CommandAssetInterface::StoreCommandScopes(const AssetDescription& commandAsset,
                                                       const std::vector<Id>& scopeArray) {
  KELVO_RETURN_ON_ERROR(CheckCommand(commandAsset));
  return StoreAssetMeta(commandAsset, commandids::scopes, Data(ToDataArray(scopeArray)), AssetMetaData::PERSISTENT);
}

Result<bool> CommandAssetInterface::ContainsCommandScope(const AssetDescription& commandAsset, const Id& scope) {
  KELVO_ASSIGN_OR_RETURN(std::vector<Id> scopes, GetCommandScopes(commandAsset));
  return std::find(scopes.begin(), scopes.end(), scope) != scopes.end();
}

Result<std::vector<std::string>> CommandAssetInterface::GetCommandScopeNames(const AssetDescription& commandAsset) {
  KELVO_ASSIGN_OR_RETURN(std::vector<Id> scopes, GetCommandScopes(commandAsset));
  std::vector<std::string> names;
  names.reserve(scopes.size() + 1);
  for (const Id& scope : scopes) names.push_back(GetCommandScopeName(scope));
  KELVO_ASSIGN_OR_RETURN(auto legacy, ReadMeta<std::string>(commandAsset, commandids::legacyscope));
  if (legacy && !legacy->empty()) names.push_back(*legacy);
  if (names.empty()) names.push_back(kOther);
  std::stable_sort(names.begin(), names.end(), LessCaseInsensitiveNumbers);
  return names;
}

std::string CommandAssetInterface::GetCommandScopeName(const Id& scope) {
  for (const ScopeName& s : kScopes)
    if (scope.View() == s.id) return s.name;
  return kOther;
}

const std::vector<Id>& CommandAssetInterface::GetCommandScopeIds() {
  static const std::vector<Id> ids = [] {
    std::vector<Id> v;
    for (const ScopeName& s : kScopes) v.emplace_back(s.id);
    return v;
  }();
  return ids;
}

const std::vector<Id>& CommandAssetInterface::GetCommandTypeIds() {
  static const std::vector<Id> ids = [] {
    std::vector<Id> v;
    for (const char* suffix : kTypeSuffixes) v.emplace_back(commandids::typePrefix + suffix);
    return v;
  }();
  return ids;
}

Result<Id> CommandAssetInterface::GetCommandType(const AssetDescription& commandAsset) {
  KELVO_RETURN_ON_ERROR(CheckCommand(commandAsset));
  KELVO_ASSIGN_OR_RETURN(auto type, ReadMeta<Id>(commandAsset, metaids::subtype));
  return type.value_or(Id());
}

Result<std::string> CommandAssetInterface::GetCommandTypeName(const Id& commandType,
                                                              const AssetRepositoryRef& repository) {
  if (!repository) return commandType.ToString();
  KELVO_ASSIGN_OR_RETURN(AssetDescription subtype,
                         repository->FindLatestAsset(SubTypeAssetInterface::TypeId(), commandType, Id(), NONE));
  if (!subtype) return commandType.ToString();
  KELVO_ASSIGN_OR_RETURN(std::string name, subtype->GetMetaString(stringkeys::name, nullptr, std::string()));
  return name.empty() || name == commandType.ToString() ? commandType.ToString() : name;
}

Result<bool> CommandAssetInterface::AssetIsObjectCommandType(const AssetDescription& commandAsset) {
  KELVO_ASSIGN_OR_RETURN(Id type, GetCommandType(commandAsset));
  return IsObjectCommandType(type);
}

bool CommandAssetInterface::IsObjectCommandType(const Id& commandType) {
  return commandType.View().starts_with(commandids::objectTypePrefix);
}

void CommandAssetInterface::RegisterLegacyCommandScopes(std::int32_t commandId, std::vector<Id> scopes) {
  std::lock_guard guard(Tables().lock);
  Tables().scopes[commandId] = std::move(scopes);
}

std::vector<Id> CommandAssetInterface::GetRegisteredLegacyCommandScopes(std::int32_t commandId) {
  std::lock_guard guard(Tables().lock);
  auto it = Tables().scopes.find(commandId);
  return it == Tables().scopes.end() ? std::vector<Id>() : it->second;
}

void CommandAssetInterface::RegisterLegacyCommandType(std::int32_t commandId, const Id& type) {
  std::lock_guard guard(Tables().lock);
  Tables().types[commandId] = type;
}

Id CommandAssetInterface::GetRegisteredLegacyCommandType(std::int32_t commandId) {
  std::lock_guard guard(Tables().lock);
  auto it = Tables().types.find(commandId);
  return it == Tables().types.end() ? Id() : it->second;
}

void CommandAssetInterface::PrivateClearLegacyTables() {
  std::lock_guard guard(Tables().lock);
  Tables().scopes.clear();
  Tables().types.clear();
}

} // namespace kelvo

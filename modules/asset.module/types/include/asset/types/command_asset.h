#pragma once
// Command assets: an action of the host made findable and runnable from the asset browser. The
// content is empty; the action and its state are two delegates that the host puts into the
// asset's metadata (kind NONE, so they live in memory only), beside stored scopes, a type
// (net.kelvo.asset.subtype) and the host's numeric identifier.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "asset/core/assetrepository.h"
#include "asset/types/typed_assets.h"

namespace kelvo {

enum COMMAND_ASSET_STATE : std::uint32_t {
  COMMAND_NONE = 0,
  ENABLED = 1,
  CHECKED = 2,
  HIDDEN = 4,
  HAS_OPTIONS = 8,
};

// The delegates, held in Data by shared function objects; two delegates are equal when they
// share the function object.
struct CommandExecuteDelegate {
  std::shared_ptr<const std::function<Result<void>(bool withOptions)>> call;
  friend bool operator==(const CommandExecuteDelegate&, const CommandExecuteDelegate&) = default;
};
struct CommandQueryStateDelegate {
  std::shared_ptr<const std::function<Result<COMMAND_ASSET_STATE>()>> call;
  friend bool operator==(const CommandQueryStateDelegate&, const CommandQueryStateDelegate&) = default;
};
std::size_t HashValue(const CommandExecuteDelegate& d);
std::size_t HashValue(const CommandQueryStateDelegate& d);
template <> struct DataTypeTraits<CommandExecuteDelegate> {
  static const Id& TypeId();
};
template <> struct DataTypeTraits<CommandQueryStateDelegate> {
  static const Id& TypeId();
};

namespace commandids {
inline const InternedId execute{"net.kelvo.asset.command.metadata.execute"};
inline const InternedId querystate{"net.kelvo.asset.command.metadata.querystate"};
inline const InternedId legacyid{"net.kelvo.asset.command.metadata.legacyid"};
inline const InternedId scopes{"net.kelvo.asset.command.metadata.scopes"};
inline const InternedId legacyscope{"net.kelvo.asset.command.metadata.legacyscope"};
inline const InternedId hidden{"net.kelvo.asset.command.metadata.hidden"};
inline const InternedId shortcuts{"net.kelvo.asset.command.metadata.shortcuts"};
inline const InternedId help{"net.kelvo.asset.command.metadata.help"};
inline const std::string typePrefix{"net.kelvo.asset.command.type."};
inline const std::string objectTypePrefix{"net.kelvo.asset.command.type.object."};
} // namespace commandids

// The operations below that take a command description first check that its type is
// net.kelvo.assettype.command (else an illegal argument error); errors of the metadata service
// pass through. They run on the caller's thread; so do the host's delegates.
class CommandAssetInterface : public AssetBaseImpl {
public:
  static const Id& TypeId();
  static Asset Create();
  // Runs the command when its state has ENABLED, with options only when asked and HAS_OPTIONS is
  // set; success without a call when it is disabled. Illegal state errors for a missing delegate.
  static Result<void> Execute(const AssetDescription& commandAsset, bool withOptions);
  static Result<COMMAND_ASSET_STATE> QueryState(const AssetDescription& commandAsset);
  // The host's identifier; -1 when there is none.
  static Result<std::int64_t> GetLegacyId(const AssetDescription& commandAsset);
  static Result<std::vector<Id>> GetCommandScopes(const AssetDescription& commandAsset);
  // Array edits, not stored: false and no change when scope is there (Add) or isn't (Erase).
  static bool AddCommandScope(const Id& scope, std::vector<Id>& scopeArray);
  static bool EraseCommandScope(const Id& scope, std::vector<Id>& scopeArray);
  static Result<void> StoreCommandScopes(const AssetDescription& commandAsset, const std::vector<Id>& scopeArray);
  static Result<bool> ContainsCommandScope(const AssetDescription& commandAsset, const Id& scope);
  // The display names of the scopes and the legacy scope, sorted case-insensitively with numbers
  // in order; "Other" alone when there is none.
  static Result<std::vector<std::string>> GetCommandScopeNames(const AssetDescription& commandAsset);
  // The display name of a published scope; "Other" for any other Id.
  static std::string GetCommandScopeName(const Id& scope);
  // The published scopes, in table order.
  static const std::vector<Id>& GetCommandScopeIds();
  // The published command types, in table order.
  static const std::vector<Id>& GetCommandTypeIds();
  static Result<Id> GetCommandType(const AssetDescription& commandAsset);
  // The name of the subtype asset of commandType in repository; the Id's text without one.
  static Result<std::string> GetCommandTypeName(const Id& commandType, const AssetRepositoryRef& repository);
  static Result<bool> AssetIsObjectCommandType(const AssetDescription& commandAsset);
  static bool IsObjectCommandType(const Id& commandType);

  // Tables of the host's numeric command identifiers; a second registration replaces the first.
  // Thread safe; emptied at module end.
  static void RegisterLegacyCommandScopes(std::int32_t commandId, std::vector<Id> scopes);
  static std::vector<Id> GetRegisteredLegacyCommandScopes(std::int32_t commandId);
  static void RegisterLegacyCommandType(std::int32_t commandId, const Id& type);
  static Id GetRegisteredLegacyCommandType(std::int32_t commandId);
  static void PrivateClearLegacyTables();
};

using CommandAssetImpl = TypedAssetImpl<CommandAssetInterface>;

} // namespace kelvo

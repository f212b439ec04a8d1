#pragma once
// The built-in repository: stores nothing itself; it answers from the loaders that other modules
// enter in the two built-in loader registries and keeps one description per asset Id in memory.
// Metadata that users or derived computations add to a built-in asset lives in files under the
// preference trees (<PREFS_DIR>/dc/builtinrepository and <GLOBALPREFS_DIR>/_assets/user.db).

#include <memory>
#include <unordered_map>

#include "asset/core/assetrepository.h"
#include "asset/standard/assets.h"

namespace kelvo {

class BuiltinRepository final : public RepositoryBaseClass {
public:
  // The repository with the metadata trees of the current application directories.
  static std::shared_ptr<BuiltinRepository> Create();
  BuiltinRepository(Url derivedDirectory, Url userDirectory);

  const Url& GetDerivedDirectory() const { return _derivedDirectory; }
  const Url& GetUserDirectory() const { return _userDirectory; }

  Id GetId() const override { return repositoryids::builtin; }
  // Itself for its own Id, else null: it has no bases.
  AssetRepositoryRef FindRepository(const Id& repoId) const override;
  bool IsWritable() const override;
  Result<bool> PrivateFindAssets(const TypeArray& types, const Id& aid, const Id& version, ASSET_FIND_MODE findMode,
                                 const AssetReceiver& receiver, FindState& state) override;
  // The known description of the asset Id (the version plays no part); null when unknown.
  Result<AssetDescription> GetDescription(const AssetIdentifier& asset) const override;
  COMPARERESULT CompareVersions(const std::shared_ptr<const AssetBase>& first,
                                const std::shared_ptr<const AssetBase>& second) const override;
  Id GetDescriptionDatabaseId() const override { return Id(); }

  // Every writer but StoreMetaData fails: built-in assets come from code, not from storage.
  Result<AssetDescription> StoreAsset(const Id& aid, const Asset& asset, const AssetMetaDataRef& metaData) override;
  Result<AssetDescription> OverwriteAsset(const Id& aid, const Asset& asset,
                                          const AssetMetaDataRef& metaData) override;
  Result<AssetDescription> DeleteAsset(const Id& aid) override;
  Result<void> EraseAsset(const AssetDescription& asset) override;
  Result<AssetDescription> CopyAsset(const Id& aid, const AssetDescription& source, bool addEncryption,
                                     bool overwrite) override;
  // DERIVED values go to the derived tree, USER values to the user tree; other kinds only with
  // g_builtinRepositoryWritable, into the folder that the loader gave.
  Result<void> StoreMetaData(const AssetDescription& asset, const InternedId& metaId, const Data& data,
                             std::uint32_t kind) override;
  Result<void> StoreUrlMetaData(const AssetDescription& asset, const InternedId& metaId, const Url& source,
                                std::uint32_t kind) override;
  Result<std::string> GetRepositoryName(const LanguageRef& language, bool addDetails) override;
  Result<void> SetRepositoryName(const std::string& name, const LanguageRef& language) override;

private:
  struct Entry {
    AssetDescription description;
    std::shared_ptr<AssetMetaDataImpl> metaData;
    Url metaDirectory; // the folder the loader gave; empty when none
  };

  // The description of asset, made on first sight. REQUIRES: not holding _descriptionsLock.
  Result<AssetDescription> MakeDescription(const Asset& asset, const DataDictionary& metaData, const Url& url);
  // Adds the metadata files of one version folder to entries.
  void ScanMetaDirectory(const Url& dir, std::uint32_t baseKind, MetaEntryMap& entries) const;

  const Url _derivedDirectory;
  const Url _userDirectory;
  mutable ARWLock _descriptionsLock;
  std::unordered_map<Id, Entry> _descriptions;
};

} // namespace kelvo

#pragma once
// Database assets: a repository's display name is kept as the translated name of an asset of
// type net.kelvo.assettype.database, "databaseinfo_<repository Id>", whose content is empty.

#include <functional>
#include <string>

#include "asset/core/asset_description.h"
#include "asset/core/assetrepository.h"

namespace kelvo {

extern const Id g_databaseAssetTypeId; // net.kelvo.assettype.database

class DataBaseAssetInterface : public AssetBaseImpl {
public:
  // A new database asset.
  static Asset Create();
  // "databaseinfo_" and the repository Id.
  static Id GetDatabaseAssetId(const Id& repositoryId);
  // The name of the repository's database asset in language; else fallbackName; else the
  // repository's Id. The asset is looked up in searched, or in the repository itself when that is
  // null (the built-in repository keeps its name in the application repository). addDetails is
  // for the callers that add details to the name; it changes nothing here.
  static Result<std::string> GetRepositoryName(const AssetRepositoryRef& repository, const LanguageRef& language,
                                               const std::string& fallbackName, bool addDetails,
                                               const AssetRepositoryRef& searched = nullptr);
  // Stores name as the database asset's name in language; makes the asset when the repository
  // has none of its own.
  static Result<void> SetRepositoryName(const AssetRepositoryRef& repository, const std::string& name,
                                        const LanguageRef& language);
};

class DataBaseAssetImpl final : public DataBaseAssetInterface {
public:
  AssetType GetType() const override;
  Asset Clone() const override { return std::make_shared<DataBaseAssetImpl>(*this); }
};

// Content: zero bytes. The type does not keep versions (support.versions is false).
class DataBaseAssetType final : public AssetTypeBase {
public:
  Id GetId() const override { return g_databaseAssetTypeId; }
  Id GetAssetDataType() const override { return Id("net.kelvo.datatype.databaseasset"); }
  std::string GetUrlSuffix(const Asset&) const override { return std::string(); }
  Result<Asset> Load(const AssetRepositoryRef& repo, const AssetDescription& description, const Url& url,
                     bool updateLinks) const override;
  Result<MetaValueMap> Store(const Asset& asset, const Url& url, Digest* hash) const override;
  Result<Data> GetData(const Id& key) const override;
};

// Enters the database asset type into net.kelvo.registry.assettypes (once per process) and
// returns it.
AssetType RegisterDataBaseAssetType();

} // namespace kelvo

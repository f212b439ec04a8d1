// Database assets and the repository name operations built on them.

#include "asset/storage/database_asset.h"

#include "kelvo/hash.h"

namespace kelvo {

const Id g_databaseAssetTypeId{"net.kelvo.assettype.database"};

AssetType RegisterDataBaseAssetType() {
  static const AssetType type = [] {
    AssetType t = std::make_shared<DataBaseAssetType>();
    if (auto registry = GetAssetTypeRegistry()) registry->InsertEntry(g_databaseAssetTypeId, t);
    return t;
  }();
  return type;
}

Asset DataBaseAssetInterface::Create() {
  RegisterDataBaseAssetType();
  return std::make_shared<DataBaseAssetImpl>();
}

Id DataBaseAssetInterface::GetDatabaseAssetId(const Id& repositoryId) {
  return Id("databaseinfo_" + repositoryId.ToString());
}

AssetType DataBaseAssetImpl::GetType() const { return RegisterDataBaseAssetType(); }

Result<Asset> DataBaseAssetType::Load(const AssetRepositoryRef&, const AssetDescription&, const Url&, bool) const {
  return DataBaseAssetInterface::Create();
}

Result<MetaValueMap> DataBaseAssetType::Store(const Asset& asset, const Url& url, Digest* hash) const {
  if (!dynamic_cast<const DataBaseAssetInterface*>(asset.get()))
    return IllegalArgumentError("Given asset is not a valid database.");
  if (!url.IsEmpty()) {
    KELVO_ASSIGN_OR_RETURN(auto out, url.OpenOutputStream());
    KELVO_RETURN_ON_ERROR(out->Close());
  }
  if (hash) *hash = Sha256().Finish();
  return MetaValueMap();
}

Result<Data> DataBaseAssetType::GetData(const Id& key) const {
  if (key == assettypeproperties::supportVersions) return Data(false);
  return AssetTypeBase::GetData(key);
}

Result<std::string> DataBaseAssetInterface::GetRepositoryName(const AssetRepositoryRef& repository,
                                                              const LanguageRef& language,
                                                              const std::string& fallbackName, bool,
                                                              const AssetRepositoryRef& searchedIn) {
  if (!repository) return NullptrError("Repository is nullptr.");
  RegisterDataBaseAssetType();
  const Id aid = GetDatabaseAssetId(repository->GetId());
  std::string name = fallbackName.empty() ? repository->GetId().ToString() : fallbackName;
  const AssetRepositoryRef& searched = searchedIn ? searchedIn : repository;
  auto r = searched->FindAssets(TypeArray{g_databaseAssetTypeId}, aid, Id(), LATEST,
                                [&](const AssetDescription& description) -> Result<bool> {
                                  auto text = description->GetMetaString(stringkeys::name, language, name);
                                  if (text.HasError()) return text.GetError();
                                  name = *text;
                                  return true;
                                });
  if (r.HasError()) return r.GetError();
  return name;
}

Result<void> DataBaseAssetInterface::SetRepositoryName(const AssetRepositoryRef& repository, const std::string& name,
                                                       const LanguageRef& language) {
  if (!repository) return NullptrError("Repository is nullptr.");
  RegisterDataBaseAssetType();
  const Id aid = GetDatabaseAssetId(repository->GetId());
  bool found = false;
  KELVO_ASSIGN_OR_RETURN(bool completed,
                         repository->FindAssets(TypeArray{g_databaseAssetTypeId}, aid, Id(), LATEST | WITHOUT_BASES,
                                                [&](const AssetDescription& description) -> Result<bool> {
                                                  found = true;
                                                  KELVO_RETURN_ON_ERROR(
                                                      description->StoreMetaString(stringkeys::name, name, language));
                                                  return false;
                                                }));
  if (found || !completed) return {};
  KELVO_ASSIGN_OR_RETURN(AssetDescription stored, repository->StoreAsset(aid, Create(), nullptr));
  if (!stored) return UnexpectedError("Assertion failed: Condition stored not fulfilled. ");
  return stored->StoreMetaString(stringkeys::name, name, language);
}

} // namespace kelvo

// Forwarding of every repository operation to the decorated repository.

#include "asset/core/assetrepositorydecorator.h"

namespace kelvo {

namespace {
Error NoRepository() { return NullptrError("The decorated repository is gone."); }
} // namespace

// Forwards a fallible call, or gives the nullptr error when there is nothing to forward to.
#define KELVO_FORWARD(call)                                                                        \
  if (AssetRepositoryRef r = PrivateGetDecoratedObject()) return r->call;                          \
  return NoRepository()

// Forwards a call that can't fail, or gives `fallback`.
#define KELVO_FORWARD_OR(call, fallback)                                                           \
  if (AssetRepositoryRef r = PrivateGetDecoratedObject()) return r->call;                          \
  return fallback

AssetRecordLoaderRef AssetRepositoryDecoratorBase::GetRecordLoader() { KELVO_FORWARD_OR(GetRecordLoader(), nullptr); }
Result<void> AssetRepositoryDecoratorBase::SetData(const Id& key, const Data& value) { KELVO_FORWARD(SetData(key, value)); }
Data AssetRepositoryDecoratorBase::GetData(const Id& key) const { KELVO_FORWARD_OR(GetData(key), Data()); }
Result<void> AssetRepositoryDecoratorBase::EraseData(const Id& key) { KELVO_FORWARD(EraseData(key)); }

Id AssetRepositoryDecoratorBase::GetId() const { KELVO_FORWARD_OR(GetId(), Id()); }
RepositoryArrayRef AssetRepositoryDecoratorBase::GetBases() const {
  KELVO_FORWARD_OR(GetBases(), std::make_shared<const RepositoryArray>());
}
Result<bool> AssetRepositoryDecoratorBase::GetDerived(const RepositoryReceiver& receiver) const {
  KELVO_FORWARD(GetDerived(receiver));
}
Result<void> AssetRepositoryDecoratorBase::InitBases(const RepositoryArray& bases) { KELVO_FORWARD(InitBases(bases)); }
Result<void> AssetRepositoryDecoratorBase::AddBase(const AssetRepositoryRef& base) { KELVO_FORWARD(AddBase(base)); }
Result<void> AssetRepositoryDecoratorBase::RemoveBase(const AssetRepositoryRef& base) { KELVO_FORWARD(RemoveBase(base)); }
AssetRepositoryRef AssetRepositoryDecoratorBase::FindRepository(const Id& repoId) const {
  KELVO_FORWARD_OR(FindRepository(repoId), nullptr);
}
bool AssetRepositoryDecoratorBase::IsWritable() const { KELVO_FORWARD_OR(IsWritable(), false); }
Result<bool> AssetRepositoryDecoratorBase::PrivateFindAssets(const TypeArray& types, const Id& aid, const Id& version,
                                                             ASSET_FIND_MODE findMode, const AssetReceiver& receiver,
                                                             FindState& state) {
  KELVO_FORWARD(PrivateFindAssets(types, aid, version, findMode, receiver, state));
}
Result<void> AssetRepositoryDecoratorBase::PrivatePrefetchMetaData(
    const InternedId& metaId, std::uint32_t kind, ASSET_FIND_MODE findMode,
    std::unordered_set<const AssetRepositoryInterface*>& visited) {
  KELVO_FORWARD(PrivatePrefetchMetaData(metaId, kind, findMode, visited));
}
Result<bool> AssetRepositoryDecoratorBase::FindAssets(const TypeArray& types, const Id& aid, const Id& version,
                                                      ASSET_FIND_MODE findMode, const AssetReceiver& receiver,
                                                      const RepositoryVisibilityReceiver& visibility) {
  KELVO_FORWARD(FindAssets(types, aid, version, findMode, receiver, visibility));
}
Result<AssetDescription> AssetRepositoryDecoratorBase::FindLatestAsset(const Id& type, const Id& aid, const Id& version,
                                                                       ASSET_FIND_MODE findMode) {
  KELVO_FORWARD(FindLatestAsset(type, aid, version, findMode));
}
Result<AssetDescription> AssetRepositoryDecoratorBase::GetDescription(const AssetIdentifier& asset) const {
  KELVO_FORWARD(GetDescription(asset));
}
COMPARERESULT AssetRepositoryDecoratorBase::CompareVersions(const std::shared_ptr<const AssetBase>& first,
                                                            const std::shared_ptr<const AssetBase>& second) const {
  KELVO_FORWARD_OR(CompareVersions(first, second), INCOMPARABLE);
}
Result<AssetDescription> AssetRepositoryDecoratorBase::StoreAsset(const Id& aid, const Asset& asset,
                                                                  const AssetMetaDataRef& metaData) {
  KELVO_FORWARD(StoreAsset(aid, asset, metaData));
}
Result<AssetDescription> AssetRepositoryDecoratorBase::OverwriteAsset(const Id& aid, const Asset& asset,
                                                                      const AssetMetaDataRef& metaData) {
  KELVO_FORWARD(OverwriteAsset(aid, asset, metaData));
}
Result<AssetDescription> AssetRepositoryDecoratorBase::DeleteAsset(const Id& aid) { KELVO_FORWARD(DeleteAsset(aid)); }
Result<void> AssetRepositoryDecoratorBase::EraseAsset(const AssetDescription& asset) { KELVO_FORWARD(EraseAsset(asset)); }
Result<AssetDescription> AssetRepositoryDecoratorBase::CopyAsset(const Id& aid, const AssetDescription& source,
                                                                 bool addEncryption, bool overwrite) {
  KELVO_FORWARD(CopyAsset(aid, source, addEncryption, overwrite));
}
Result<void> AssetRepositoryDecoratorBase::StoreMetaData(const AssetDescription& asset, const InternedId& metaId,
                                                         const Data& data, std::uint32_t kind) {
  KELVO_FORWARD(StoreMetaData(asset, metaId, data, kind));
}
Result<void> AssetRepositoryDecoratorBase::StoreUrlMetaData(const AssetDescription& asset, const InternedId& metaId,
                                                            const Url& source, std::uint32_t kind) {
  KELVO_FORWARD(StoreUrlMetaData(asset, metaId, source, kind));
}
std::shared_ptr<ObservableBaseChangedType> AssetRepositoryDecoratorBase::ObservableBaseChanged(bool create) {
  KELVO_FORWARD_OR(ObservableBaseChanged(create), nullptr);
}
std::shared_ptr<ObservableAssetType> AssetRepositoryDecoratorBase::ObservableAssetStored(bool create) {
  KELVO_FORWARD_OR(ObservableAssetStored(create), nullptr);
}
std::shared_ptr<ObservableAssetType> AssetRepositoryDecoratorBase::ObservableAssetErased(bool create) {
  KELVO_FORWARD_OR(ObservableAssetErased(create), nullptr);
}
std::shared_ptr<ObservableAssetType> AssetRepositoryDecoratorBase::ObservableAssetUpdated(bool create) {
  KELVO_FORWARD_OR(ObservableAssetUpdated(create), nullptr);
}
std::shared_ptr<ObservableMetaDataStoredType> AssetRepositoryDecoratorBase::ObservableMetaDataStored(bool create) {
  KELVO_FORWARD_OR(ObservableMetaDataStored(create), nullptr);
}
std::shared_ptr<ObservableDownloadStateChangedType> AssetRepositoryDecoratorBase::ObservableDownloadStateChanged(
    bool create) {
  KELVO_FORWARD_OR(ObservableDownloadStateChanged(create), nullptr);
}
Result<CachedValue> AssetRepositoryDecoratorBase::GetCachedData(const Data& key,
                                                                const std::function<Result<CachedValue>()>& callback) {
  KELVO_FORWARD(GetCachedData(key, callback));
}
Id AssetRepositoryDecoratorBase::GetDescriptionDatabaseId() const { KELVO_FORWARD_OR(GetDescriptionDatabaseId(), Id()); }
Result<std::string> AssetRepositoryDecoratorBase::GetRepositoryName(const LanguageRef& language, bool addDetails) {
  KELVO_FORWARD(GetRepositoryName(language, addDetails));
}
Result<void> AssetRepositoryDecoratorBase::SetRepositoryName(const std::string& name, const LanguageRef& language) {
  KELVO_FORWARD(SetRepositoryName(name, language));
}
Result<DerivedAssetRepositoryDataRef> AssetRepositoryDecoratorBase::GetDerivedCachedData(
    const Data& key, const std::function<Result<DerivedAssetRepositoryDataRef>()>& callback) {
  KELVO_FORWARD(GetDerivedCachedData(key, callback));
}

#undef KELVO_FORWARD
#undef KELVO_FORWARD_OR

} // namespace kelvo

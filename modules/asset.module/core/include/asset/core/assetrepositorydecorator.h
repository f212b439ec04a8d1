#pragma once
// Repository decorators: objects that look like a repository and forward every operation to
// another one. They carry no repository base, so they can't be used as a base; their own Handle
// operations do nothing (observers reach the decorated repository's observables instead).

#include <memory>

#include "asset/core/assetrepository.h"

namespace kelvo {

class AssetRepositoryDecoratorBase : public AssetRepositoryInterface {
public:
  // The repository to forward to; null when there is none (any longer).
  virtual AssetRepositoryRef PrivateGetDecoratedObject() const = 0;

  // The decorated repository's loader; null without one.
  AssetRecordLoaderRef GetRecordLoader() override;
  Result<void> SetData(const Id& key, const Data& value) override;
  Data GetData(const Id& key) const override;
  Result<void> EraseData(const Id& key) override;

  // Without a decorated repository: the empty Id.
  Id GetId() const override;
  // Without a decorated repository: an empty array.
  RepositoryArrayRef GetBases() const override;
  Result<bool> GetDerived(const RepositoryReceiver& receiver) const override;
  Result<void> InitBases(const RepositoryArray& bases) override;
  Result<void> AddBase(const AssetRepositoryRef& base) override;
  Result<void> RemoveBase(const AssetRepositoryRef& base) override;
  AssetRepositoryRef FindRepository(const Id& repoId) const override;
  // Without a decorated repository: false.
  bool IsWritable() const override;
  Result<bool> PrivateFindAssets(const TypeArray& types, const Id& aid, const Id& version, ASSET_FIND_MODE findMode,
                                 const AssetReceiver& receiver, FindState& state) override;
  Result<void> PrivatePrefetchMetaData(const InternedId& metaId, std::uint32_t kind, ASSET_FIND_MODE findMode,
                                       std::unordered_set<const AssetRepositoryInterface*>& visited) override;
  Result<bool> FindAssets(const TypeArray& types, const Id& aid, const Id& version, ASSET_FIND_MODE findMode,
                          const AssetReceiver& receiver,
                          const RepositoryVisibilityReceiver& visibility = nullptr) override;
  Result<AssetDescription> FindLatestAsset(const Id& type, const Id& aid, const Id& version,
                                           ASSET_FIND_MODE findMode) override;
  Result<AssetDescription> GetDescription(const AssetIdentifier& asset) const override;
  COMPARERESULT CompareVersions(const std::shared_ptr<const AssetBase>& first,
                                const std::shared_ptr<const AssetBase>& second) const override;
  Result<AssetDescription> StoreAsset(const Id& aid, const Asset& asset, const AssetMetaDataRef& metaData) override;
  Result<AssetDescription> OverwriteAsset(const Id& aid, const Asset& asset,
                                          const AssetMetaDataRef& metaData) override;
  Result<AssetDescription> DeleteAsset(const Id& aid) override;
  Result<void> EraseAsset(const AssetDescription& asset) override;
  Result<AssetDescription> CopyAsset(const Id& aid, const AssetDescription& source, bool addEncryption,
                                     bool overwrite) override;
  Result<void> StoreMetaData(const AssetDescription& asset, const InternedId& metaId, const Data& data,
                             std::uint32_t kind) override;
  Result<void> StoreUrlMetaData(const AssetDescription& asset, const InternedId& metaId, const Url& source,
                                std::uint32_t kind) override;
  std::shared_ptr<ObservableBaseChangedType> ObservableBaseChanged(bool create) override;
  std::shared_ptr<ObservableAssetType> ObservableAssetStored(bool create) override;
  std::shared_ptr<ObservableAssetType> ObservableAssetErased(bool create) override;
  std::shared_ptr<ObservableAssetType> ObservableAssetUpdated(bool create) override;
  std::shared_ptr<ObservableMetaDataStoredType> ObservableMetaDataStored(bool create) override;
  std::shared_ptr<ObservableDownloadStateChangedType> ObservableDownloadStateChanged(bool create) override;
  Result<CachedValue> GetCachedData(const Data& key, const std::function<Result<CachedValue>()>& callback) override;
  Id GetDescriptionDatabaseId() const override;
  Result<std::string> GetRepositoryName(const LanguageRef& language, bool addDetails) override;
  Result<void> SetRepositoryName(const std::string& name, const LanguageRef& language) override;
  Result<DerivedAssetRepositoryDataRef> GetDerivedCachedData(
      const Data& key, const std::function<Result<DerivedAssetRepositoryDataRef>()>& callback) override;

  void HandleBaseChanged(const AssetRepositoryRef&, bool) override {}
  void HandleAssetStored(const AssetDescription&) override {}
  void HandleAssetErased(const AssetDescription&) override {}
  void HandleAssetUpdated(const AssetDescription&) override {}
  void HandleMetaDataStored(const AssetDescription&, const InternedId&, std::uint32_t, const Data&,
                            const Data&) override {}
  void HandleDownloadStateChanged(const AssetRepositoryRef&, bool) override {}
  void RequestUnloadRepository() override {}
};

// Holds the decorated repository by a weak reference.
class WeakAssetRepositoryDecorator final : public AssetRepositoryDecoratorBase {
public:
  explicit WeakAssetRepositoryDecorator(const AssetRepositoryRef& repository) : _repository(repository) {}
  static std::shared_ptr<WeakAssetRepositoryDecorator> Create(const AssetRepositoryRef& repository) {
    return std::make_shared<WeakAssetRepositoryDecorator>(repository);
  }
  AssetRepositoryRef PrivateGetDecoratedObject() const override { return _repository.lock(); }

private:
  std::weak_ptr<AssetRepositoryInterface> _repository;
};

} // namespace kelvo

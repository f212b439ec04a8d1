#pragma once
// A test asset that refers to other assets and follows their new versions: a label and a list of
// references, stored as text. Nothing in the module offers link updates, so the tests and
// benchmarks bring this class.

#include <string>
#include <vector>

#include "asset/core/asset_link_updates.h"

namespace kelvo::testing {

extern const Id kLinkedType;

// One reference: the asset version it points at, the update counter it saw, the repository in
// which it was made, and its policy.
class LinkReference final : public AssetReference {
public:
  LinkReference(IdAndVersion target, std::uint64_t update, Id repositoryId, AssetRepositoryRef repository,
                ASSET_UPDATE_POLICY policy);
  Id GetTypeId() const override { return kLinkedType; }
  IdAndVersion GetIdAndVersion() const override { return _target; }
  Id GetRepositoryId() const override { return _repositoryId; }
  AssetRepositoryRef GetRepository() const override { return _repository.lock(); }
  std::uint64_t GetUpdate() const override { return _update; }
  AssetLink GetLink() const override { return _link; }

private:
  IdAndVersion _target;
  std::uint64_t _update;
  Id _repositoryId;
  std::weak_ptr<AssetRepositoryInterface> _repository;
  AssetLink _link;
};
using LinkReferenceRef = std::shared_ptr<const LinkReference>;

class LinkedAsset final : public AssetBaseImpl, public UpdatableAssetInterface {
public:
  LinkedAsset(std::string label, std::vector<LinkReferenceRef> references)
      : label(std::move(label)), references(std::move(references)) {}
  AssetType GetType() const override;
  Asset Clone() const override { return std::make_shared<LinkedAsset>(*this); }
  // Reports every reference, NEVER ones too, so that the repository's own filtering is what counts.
  Result<bool> GetReferencedAssets(bool onlyUpdatable, const AssetReferenceReceiver& receiver) const override;
  // Points each given reference at its updated asset; a pending one (g_newVersion) at the latest
  // stored version with the update counter of its loaded object.
  Result<void> Update(const std::vector<AssetUpdatePair>& updates, const AssetRepositoryRef& repository) override;

  std::string label;
  std::vector<LinkReferenceRef> references;
  int updatesApplied = 0; // in-memory only: the number of Update calls in this object's history
};

class LinkedAssetType final : public AssetTypeBase {
public:
  Id GetId() const override { return kLinkedType; }
  Id GetAssetDataType() const override { return Id("net.kelvo.datatype.test.linked"); }
  std::string GetUrlSuffix(const Asset&) const override { return "links"; }
  Result<Asset> Load(const AssetRepositoryRef& repo, const AssetDescription& description, const Url& url,
                     bool updateLinks) const override;
  Result<MetaValueMap> Store(const Asset& asset, const Url& url, Digest* hash) const override;
};

AssetType RegisterLinkedAssetType();

// A reference to the version that d describes, made in d's repository.
LinkReferenceRef LinkTo(const AssetDescription& d, ASSET_UPDATE_POLICY policy = ASSET_UPDATE_POLICY::IMPLICIT);
Asset MakeLinked(const std::string& label, std::vector<LinkReferenceRef> references = {});

} // namespace kelvo::testing

#include "linked_asset.h"

#include <algorithm>
#include <sstream>

#include "asset/core/assetrepository.h"
#include "kelvo/hash.h"

namespace kelvo::testing {

const Id kLinkedType{"net.kelvo.assettype.test.linked"};

LinkReference::LinkReference(IdAndVersion target, std::uint64_t update, Id repositoryId,
                             AssetRepositoryRef repository, ASSET_UPDATE_POLICY policy)
    : _target(std::move(target)), _update(update), _repositoryId(std::move(repositoryId)), _repository(repository),
      _link(std::make_shared<AssetLinkImpl>(kLinkedType, _target, policy, Url())) {}

AssetType LinkedAsset::GetType() const { return RegisterLinkedAssetType(); }

Result<bool> LinkedAsset::GetReferencedAssets(bool, const AssetReferenceReceiver& receiver) const {
  for (const LinkReferenceRef& reference : references) {
    KELVO_ASSIGN_OR_RETURN(bool goOn, receiver(reference));
    if (!goOn) return false;
  }
  return true;
}

Result<void> LinkedAsset::Update(const std::vector<AssetUpdatePair>& updates, const AssetRepositoryRef&) {
  for (const AssetUpdatePair& pair : updates) {
    const AssetReferenceRef& reference = pair.first;
    const AssetDescription& updated = pair.second;
    auto it = std::find_if(references.begin(), references.end(),
                           [&](const LinkReferenceRef& r) { return r.get() == reference.get(); });
    if (it == references.end()) return IllegalArgumentError("Not a reference of @.", label);
    AssetDescription target = updated;
    std::uint64_t update = 0;
    if (updated->GetIdAndVersion().second == g_newVersion) {
      AssetRepositoryRef repository = updated->GetRepository();
      if (!repository) return IllegalStateError("Repository gone.");
      KELVO_ASSIGN_OR_RETURN(target, repository->FindLatestAsset(updated->GetTypeId(), updated->GetIdAndVersion().first,
                                                                  Id(), LATEST));
      if (!target) return IllegalStateError("No version of @.", updated->GetIdAndVersion().first);
      KELVO_ASSIGN_OR_RETURN(Asset loaded, target->Load(true));
      update = loaded->GetUpdate();
    }
    // A new reference object: the old one may be shared with the object this one was cloned from.
    *it = std::make_shared<LinkReference>(target->GetIdAndVersion(), update, target->GetRepositoryId(),
                                          target->GetRepository(), (*it)->GetLink()->GetUpdatePolicy());
  }
  ++updatesApplied;
  return {};
}

Result<Asset> LinkedAssetType::Load(const AssetRepositoryRef& repo, const AssetDescription&, const Url& url,
                                    bool) const {
  KELVO_ASSIGN_OR_RETURN(std::string text, url.ReadAll());
  std::istringstream in(text);
  std::string label, line;
  std::getline(in, label);
  std::vector<LinkReferenceRef> references;
  while (std::getline(in, line)) {
    std::istringstream fields(line);
    std::string aid, version, repositoryId;
    std::uint64_t update = 0;
    int policy = 0;
    if (!(fields >> aid >> version >> update >> repositoryId >> policy))
      return FileFormatError("Bad reference line @.", line);
    const Id rid(repositoryId);
    references.push_back(std::make_shared<LinkReference>(IdAndVersion{Id(aid), Id(version)}, update, rid,
                                                         repo ? repo->FindRepository(rid) : nullptr,
                                                         static_cast<ASSET_UPDATE_POLICY>(policy)));
  }
  return Asset(std::make_shared<LinkedAsset>(std::move(label), std::move(references)));
}

Result<MetaValueMap> LinkedAssetType::Store(const Asset& asset, const Url& url, Digest* hash) const {
  auto* linked = dynamic_cast<LinkedAsset*>(asset.get());
  if (!linked) return IllegalArgumentError("Asset is of unsupported class @.", "?");
  std::string text = linked->label + "\n";
  for (const LinkReferenceRef& r : linked->references)
    text += FormatString("@ @ @ @ @\n", r->GetIdAndVersion().first, r->GetIdAndVersion().second, r->GetUpdate(),
                         r->GetRepositoryId(), static_cast<int>(r->GetLink()->GetUpdatePolicy()));
  if (!url.IsEmpty()) KELVO_RETURN_ON_ERROR(url.WriteAll(text));
  if (hash) {
    Sha256 h;
    h.Update(text.data(), text.size());
    *hash = h.Finish();
  }
  return MetaValueMap{};
}

AssetType RegisterLinkedAssetType() {
  static AssetType type = [] {
    AssetType t = std::make_shared<LinkedAssetType>();
    GetAssetTypeRegistry()->InsertEntry(kLinkedType, t);
    return t;
  }();
  return type;
}

LinkReferenceRef LinkTo(const AssetDescription& d, ASSET_UPDATE_POLICY policy) {
  return std::make_shared<LinkReference>(d->GetIdAndVersion(), 0, d->GetRepositoryId(), d->GetRepository(), policy);
}

Asset MakeLinked(const std::string& label, std::vector<LinkReferenceRef> references) {
  RegisterLinkedAssetType();
  return std::make_shared<LinkedAsset>(label, std::move(references));
}

} // namespace kelvo::testing

// Asset types: the defaults of the type base, the asset type registry, and file assets, whose
// content is one file or a directory tree.

#include <algorithm>
#include <mutex>

#include "asset/core/asset_description.h"
#include "asset/core/assetrepository.h"
#include "class_name.h"
#include "kelvo/application.h"
#include "kelvo/hash.h"
#include "meta_strings.h"
#include "asset/core/standard_asset_types.h"
#include "asset/core/content_digest.h"

namespace kelvo {

const Id g_assetTypesRegistryId{"net.kelvo.registry.assettypes"};
const Id g_fileAssetTypeId{"net.kelvo.assettype.file"};

namespace {

const Id kBuiltinRepositoryId{"net.kelvo.repository.builtin"};
const InternedId& kNodeCategory = metaids::category;
const Id kUncategorized{"net.kelvo.assetcategory.uncategorized"};
const InternedId kTagsMetaId{"net.kelvo.object.base.tags"};
const InternedId& kNodeBaseCategory = metaids::baseCategory;

Url IconUrl(std::string_view name) {
  return Application::PrivateGetUrl(APPLICATION_URLTYPE::CURRENT_MODULE_RESOURCE_DIR).Append("icons").Append(name);
}

} // namespace

// ---- registry ----------------------------------------------------------------------------------

std::shared_ptr<AssetTypeRegistry> GetAssetTypeRegistry() {
  static const std::shared_ptr<AssetTypeRegistry> registry = [] {
    auto r = GetRegistry<AssetType>(g_assetTypesRegistryId);
    return r.HasValue() ? *r : nullptr;
  }();
  return registry;
}

AssetType FindAssetType(const Id& typeId) {
  (void)RegisterStandardAssetTypes();
  std::shared_ptr<AssetTypeRegistry> registry = GetAssetTypeRegistry();
  if (!registry) return nullptr;
  return registry->FindEntryValue(typeId).value_or(nullptr);
}

Result<void> RegisterStandardAssetTypes() {
  static std::once_flag once;
  static Result<void> outcome;
  std::call_once(once, [] {
    std::shared_ptr<AssetTypeRegistry> registry = GetAssetTypeRegistry();
    if (!registry) {
      outcome = IllegalStateError("Registry @ has values of another type.", g_assetTypesRegistryId);
      return;
    }
    registry->InsertEntry(g_fileAssetTypeId, std::make_shared<FileAssetType>());
  });
  return outcome;
}

// ---- AssetTypeBase -------------------------------------------------------------------------------

Url AssetTypeBase::GetDefaultIcon(const AssetRepositoryRef&, const Asset&, const AssetMetaDataRef&) const {
  return IconUrl("genericasset.svg");
}

Result<void> AssetTypeBase::CopyWithEncryption(const AssetDescription&, const Url& from, const Url& to) const {
  return CopyContent(from, to);
}

Result<std::string> AssetTypeBase::GetMetaString(const AssetDescription& asset, const Id& key,
                                                 const LanguageRef& language, const std::string& fallback) const {
  return GetDefaultMetaString(asset, key, language, fallback);
}

Result<void> AssetTypeBase::StoreMetaString(const AssetDescription& asset, const Id& key, const std::string& value,
                                            const LanguageRef& language) const {
  return StoreDefaultMetaString(asset, key, value, language);
}

Result<ComputedMetaData> AssetTypeBase::ComputeMetaData(const AssetRepositoryRef& repository, const Asset&,
                                                        const AssetMetaDataRef&, const InternedId& metaId) const {
  // Built-in assets carry no description info of their own, so their node category is the
  // uncategorized one.
  if (metaId == kNodeCategory && repository && repository->GetId() == kBuiltinRepositoryId)
    return ComputedMetaData{Data(kUncategorized), false};
  return ComputedMetaData{};
}

Result<Data> AssetTypeBase::GetData(const Id& key) const {
  if (key == assettypeproperties::supportVersions) return Data(true);
  return IllegalArgumentError("Asset type @ has no property @.", GetId(), key);
}

// ---- file assets ---------------------------------------------------------------------------------

Asset FileAssetInterface::Create(const Url& url) { return std::make_shared<FileAssetImpl>(url); }

AssetType FileAssetImpl::GetType() const { return FindAssetType(g_fileAssetTypeId); }

void FileAssetImpl::SetId(const IdAndVersion& aid, std::uint64_t update, const AssetRepositoryRef& repository,
                          const Url& url) {
  AssetBaseImpl::SetId(aid, update, repository, url);
  if (!url.IsEmpty()) _url = url;
}

std::string FileAssetType::GetUrlSuffix(const Asset& asset) const {
  auto* file = dynamic_cast<const FileAssetInterface*>(asset.get());
  return file ? file->GetUrl().GetSuffix() : std::string();
}

Url FileAssetType::GetDefaultIcon(const AssetRepositoryRef&, const Asset&, const AssetMetaDataRef&) const {
  return IconUrl("genericasset.svg");
}

Result<Asset> FileAssetType::Load(const AssetRepositoryRef&, const AssetDescription&, const Url& url, bool) const {
  return FileAssetInterface::Create(url);
}

Result<MetaValueMap> FileAssetType::Store(const Asset& asset, const Url& url, Digest* hash) const {
  if (!asset) return NullptrError("Asset is nullptr.");
  auto* file = dynamic_cast<const FileAssetInterface*>(asset.get());
  if (!file) return IllegalArgumentError("Asset is of unsupported class @.", ClassNameOf(*asset));
  if (hash) {
    KELVO_ASSIGN_OR_RETURN(*hash, HashContent(file->GetUrl(), url));
  } else {
    KELVO_RETURN_ON_ERROR(CopyContent(file->GetUrl(), url));
  }
  return MetaValueMap();
}

Result<ComputedMetaData> FileAssetType::ComputeMetaData(const AssetRepositoryRef& repository, const Asset& asset,
                                                        const AssetMetaDataRef& meta, const InternedId& metaId) const {
  // Files have neither tags nor a node category; cheap to answer, so never cached.
  if (metaId == kTagsMetaId) return ComputedMetaData{Data(std::string()), true};
  if (metaId == kNodeBaseCategory) return ComputedMetaData{Data(Id()), true};
  return AssetTypeBase::ComputeMetaData(repository, asset, meta, metaId);
}

} // namespace kelvo

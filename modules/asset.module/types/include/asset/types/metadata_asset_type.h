#pragma once
// The asset type shared by the typed assets whose content is empty and whose meaning lies in
// their metadata (keywords, categories, color categories, commands, smart searches, node spaces,
// plugins, subtypes). Each such type is one instance of MetadataAssetType with its own Id, class
// test and refusal message.

#include <functional>
#include <string>

#include "asset/core/asset_description.h"

namespace kelvo {

// Metadata that typed assets answer themselves instead of leaving it to the base.
namespace typedmetaids {
inline const InternedId tags{stringkeys::tags};
inline const InternedId& baseCategory = metaids::baseCategory;
} // namespace typedmetaids

// Which metadata ComputeMetaData answers before the base: none, the tags (an empty String), or
// the tags and the node base category (an empty Id). Both answers are final.
enum class TYPEDCOMPUTE { BASE, TAGS, TAGS_AND_CATEGORY };

struct MetadataAssetTypeInfo {
  Id typeId;
  Id dataTypeId;
  std::string refusal;  // message of the illegal argument error when Store gets a foreign asset
  std::string iconName; // file under the module's icons; empty for the base's default icon
  TYPEDCOMPUTE compute = TYPEDCOMPUTE::BASE;
  std::function<bool(const AssetInterface&)> isOwn; // whether an asset belongs to the type
  std::function<Asset()> create;                    // a new asset of the type
};

// Content: zero bytes, so that the content hash is the hash of nothing. The stored bytes are
// never read. support.versions is false. Safe for concurrent use by multiple threads.
class MetadataAssetType final : public AssetTypeBase {
public:
  explicit MetadataAssetType(MetadataAssetTypeInfo info) : _info(std::move(info)) {}
  Id GetId() const override { return _info.typeId; }
  Id GetAssetDataType() const override { return _info.dataTypeId; }
  std::string GetUrlSuffix(const Asset&) const override { return std::string(); }
  Url GetDefaultIcon(const AssetRepositoryRef& repository, const Asset& asset,
                     const AssetMetaDataRef& meta) const override;
  Result<Asset> Load(const AssetRepositoryRef& repo, const AssetDescription& description, const Url& url,
                     bool updateLinks) const override;
  // Writes nothing but an empty file (nothing at all for an empty url). A foreign asset is an
  // illegal argument error, and then url is not touched.
  Result<MetaValueMap> Store(const Asset& asset, const Url& url, Digest* hash) const override;
  Result<ComputedMetaData> ComputeMetaData(const AssetRepositoryRef& repository, const Asset& asset,
                                           const AssetMetaDataRef& meta, const InternedId& metaId) const override;
  Result<Data> GetData(const Id& key) const override;

private:
  MetadataAssetTypeInfo _info;
};

// Writes an empty content file at url (nothing when url is empty) and the hash of nothing.
Result<void> StoreEmptyContent(const Url& url, Digest* hash);

// The module's icon file name under "icons".
Url TypedAssetIconUrl(std::string_view name);

// The answer of the typed assets for tags and the node base category, or nothing when metaId is
// neither (or compute does not cover it).
std::optional<ComputedMetaData> ComputeTypedMetaData(TYPEDCOMPUTE compute, const InternedId& metaId);

// Reads metaId of a description's metadata as T; nothing when the value is missing or of another
// type. An error of the metadata service is passed on.
template <typename T> Result<std::optional<T>> ReadMeta(const AssetDescription& asset, const InternedId& metaId) {
  if (!asset) return IllegalArgumentError("Illegal argument: Condition asset not fulfilled. ");
  return asset->GetMetaData()->GetValue<T>(metaId);
}

// StoreMetaData on the asset's own repository; an error when the repository is gone.
Result<void> StoreAssetMeta(const AssetDescription& asset, const InternedId& metaId, const Data& value,
                            std::uint32_t kind);

// The Ids of an array metadata value; entries that are not Ids are skipped.
std::vector<Id> IdsOf(const std::optional<DataArray>& array);
DataArray ToDataArray(const std::vector<Id>& ids);

} // namespace kelvo

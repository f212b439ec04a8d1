#pragma once
// Base preset assets: what every preset type shares. A concrete preset class derives from
// BasePresetAsset and supplies Apply, GeneratePreview, ConvertFromLegacyBrowser and Serialize;
// its type derives from AssetTypePresetBase and supplies Id, data type and Load. The base stores
// a preset through Serialize and answers the questions of the browser and of the default-asset
// service (keyword_asset.h).

#include "asset/core/asset_description.h"
#include "kelvo/url.h"

namespace kelvo {

// The category under which new presets go unless their type suggests another.
inline const Id g_defaultPresetCategory{"category@2468666d866a481886c91c7155440264"};

class BasePresetAsset : public AssetBaseImpl {
public:
  // Applies the preset's settings to target.
  virtual Result<void> Apply(const Data& target) = 0;
  virtual Result<Data> GeneratePreview(const Data& target, std::int32_t width, std::int32_t height) = 0;
  virtual Result<void> ConvertFromLegacyBrowser(const Data& legacy) = 0;
  // Writes the preset's content to stream; does not close it.
  virtual Result<void> Serialize(OutputStream& stream) const = 0;
  // The preset's settings; function-not-implemented errors unless the class supplies them.
  virtual Result<Data> GetPresetInternalConstDataPtr() const;
  virtual Result<Data> GetPresetInternalData() const;
};

// The base of a concrete preset type. No preset has versions of its own (support.versions is
// false). Safe for concurrent use by multiple threads as long as the concrete type is.
class AssetTypePresetBase : public AssetTypeBase {
public:
  // The display name of the preset type; empty by default.
  virtual std::string GetName() const { return std::string(); }
  virtual bool LoadPreset(const Data&, const Data&) const { return false; }
  // A new settings object; function-not-implemented by default.
  virtual Result<Data> CreateNewPresetSettings(const Data& context) const;
  // "type:" and the type's Id: the search text that selects the type in the browser.
  virtual std::string GetFilterString() const;
  // Whether an asset of this type can be the default of its subtype; false by default.
  virtual bool DoesSupportSetAsDefault() const { return false; }
  virtual Id GetSuggestedCategory() const { return g_defaultPresetCategory; }

  std::string GetUrlSuffix(const Asset&) const override { return std::string(); }
  // Writes Serialize's bytes to url (nothing for an empty url) and their hash. An asset that is
  // no preset is an illegal argument error and url is not touched; a Serialize error wins over
  // an error of closing the stream.
  Result<MetaValueMap> Store(const Asset& asset, const Url& url, Digest* hash) const override;
  Result<ComputedMetaData> ComputeMetaData(const AssetRepositoryRef& repository, const Asset& asset,
                                           const AssetMetaDataRef& meta, const InternedId& metaId) const override;
  Result<Data> GetData(const Id& key) const override;
};

} // namespace kelvo

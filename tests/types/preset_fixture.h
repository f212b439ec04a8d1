#pragma once
// Two preset types for the tests: a swatch preset whose content is its settings text and that can
// be a default, and a plain preset type that overrides nothing the base supplies.

#include "asset/types/base_preset_asset.h"
#include "types_fixture.h"

namespace kelvo::testing {

inline const Id kSwatchPresetType{"net.kelvo.assettype.test.swatchpreset"};
inline const Id kPlainPresetType{"net.kelvo.assettype.test.plainpreset"};

// Settings "fail" make Serialize fail after a partial write.
class SwatchPreset final : public BasePresetAsset {
public:
  explicit SwatchPreset(std::string s) : settings(std::move(s)) {}
  AssetType GetType() const override { return FindAssetType(kSwatchPresetType); }
  Asset Clone() const override { return std::make_shared<SwatchPreset>(*this); }
  Result<void> Apply(const Data&) override { return {}; }
  Result<Data> GeneratePreview(const Data&, std::int32_t, std::int32_t) override { return Data(); }
  Result<void> ConvertFromLegacyBrowser(const Data&) override { return {}; }
  Result<void> Serialize(OutputStream& stream) const override {
    KELVO_RETURN_ON_ERROR(stream.Write(settings.data(), settings.size() / 2));
    if (settings == "fail") return IoError("Preset can't serialize.");
    return stream.Write(settings.data() + settings.size() / 2, settings.size() - settings.size() / 2);
  }
  std::string settings;
};

class SwatchPresetType final : public AssetTypePresetBase {
public:
  Id GetId() const override { return kSwatchPresetType; }
  Id GetAssetDataType() const override { return Id("net.kelvo.datatype.test.swatchpreset"); }
  bool DoesSupportSetAsDefault() const override { return true; }
  Result<Asset> Load(const AssetRepositoryRef&, const AssetDescription&, const Url& url, bool) const override {
    KELVO_ASSIGN_OR_RETURN(std::string text, url.ReadAll());
    return Asset(std::make_shared<SwatchPreset>(std::move(text)));
  }
};

class PlainPreset final : public BasePresetAsset {
public:
  AssetType GetType() const override { return FindAssetType(kPlainPresetType); }
  Asset Clone() const override { return std::make_shared<PlainPreset>(*this); }
  Result<void> Apply(const Data&) override { return {}; }
  Result<Data> GeneratePreview(const Data&, std::int32_t, std::int32_t) override { return Data(); }
  Result<void> ConvertFromLegacyBrowser(const Data&) override { return {}; }
  Result<void> Serialize(OutputStream&) const override { return {}; }
};

class PlainPresetType final : public AssetTypePresetBase {
public:
  Id GetId() const override { return kPlainPresetType; }
  Id GetAssetDataType() const override { return Id("net.kelvo.datatype.test.plainpreset"); }
  Result<Asset> Load(const AssetRepositoryRef&, const AssetDescription&, const Url&, bool) const override {
    return Asset(std::make_shared<PlainPreset>());
  }
};

inline void RegisterTestPresetTypes() {
  static const bool done = [] {
    GetAssetTypeRegistry()->InsertEntry(kSwatchPresetType, std::make_shared<SwatchPresetType>());
    GetAssetTypeRegistry()->InsertEntry(kPlainPresetType, std::make_shared<PlainPresetType>());
    return true;
  }();
  (void)done;
}

inline Asset MakePreset(const std::string& settings) {
  RegisterTestPresetTypes();
  return std::make_shared<SwatchPreset>(settings);
}

inline AssetDescription StoreWithSubtype(const AssetRepositoryRef& repo, const std::string& aid,
                                         const std::string& settings, const std::string& subtype) {
  auto meta = std::make_shared<AssetMetaDataImpl>();
  meta->AddEntry(metaids::subtype, AssetMetaData::PERSISTENT, Data(Id(subtype)));
  auto r = repo->StoreAsset(Id(aid), MakePreset(settings), meta);
  EXPECT_TRUE(r.HasValue()) << r.GetError().ToString();
  return r.HasValue() ? *r : nullptr;
}

inline std::string ReadFileText(const Url& url) {
  auto text = url.ReadAll();
  EXPECT_TRUE(text.HasValue()) << text.GetError().ToString();
  return text.HasValue() ? *text : std::string();
}

} // namespace kelvo::testing

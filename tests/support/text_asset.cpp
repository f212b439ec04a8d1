#include "text_asset.h"

#include "kelvo/hash.h"

namespace kelvo::testing {

const Id kTextType{"net.kelvo.assettype.test.text"};

AssetType TextAsset::GetType() const { return RegisterTextAssetType(); }

Result<Asset> TextAssetType::Load(const AssetRepositoryRef&, const AssetDescription&, const Url& url, bool) const {
  KELVO_ASSIGN_OR_RETURN(std::string text, url.ReadAll());
  return Asset(std::make_shared<TextAsset>(std::move(text)));
}

Result<MetaValueMap> TextAssetType::Store(const Asset& asset, const Url& url, Digest* hash) const {
  auto* text = dynamic_cast<TextAsset*>(asset.get());
  if (!text) return IllegalArgumentError("Asset is of unsupported class @.", "?");
  if (!url.IsEmpty()) KELVO_RETURN_ON_ERROR(url.WriteAll(text->text));
  if (hash) {
    Sha256 h;
    h.Update(text->text.data(), text->text.size());
    *hash = h.Finish();
  }
  return MetaValueMap{};
}

AssetType RegisterTextAssetType() {
  static AssetType type = [] {
    AssetType t = std::make_shared<TextAssetType>();
    GetAssetTypeRegistry()->InsertEntry(kTextType, t);
    return t;
  }();
  return type;
}

Asset MakeText(const std::string& text) { return std::make_shared<TextAsset>(text); }

} // namespace kelvo::testing

#include "test_assets.h"

#include <gtest/gtest.h>

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

std::shared_ptr<MemoryAssetRepositoryImpl> MakeRepository(const std::string& rid, bool writable) {
  RegisterTextAssetType();
  auto repo = MemoryAssetRepositoryImpl::Create(Id(rid), writable);
  EXPECT_TRUE(repo.HasValue()) << repo.GetError().ToString();
  return *repo;
}

std::string LoadText(const AssetDescription& description) {
  auto asset = description->Load(false);
  if (asset.HasError()) return "error: " + asset.GetError().ToString();
  auto* text = dynamic_cast<TextAsset*>(asset->get());
  return text ? text->text : "not a text asset";
}

} // namespace kelvo::testing

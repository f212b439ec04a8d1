#pragma once
// A small asset type for tests and benchmarks: the asset is a text, stored as its bytes.

#include <string>

#include "asset/core/asset_description.h"

namespace kelvo::testing {

extern const Id kTextType;

class TextAsset final : public AssetBaseImpl {
public:
  explicit TextAsset(std::string text) : text(std::move(text)) {}
  AssetType GetType() const override;
  Asset Clone() const override { return std::make_shared<TextAsset>(*this); }
  std::string text;
};

class TextAssetType final : public AssetTypeBase {
public:
  Id GetId() const override { return kTextType; }
  Id GetAssetDataType() const override { return Id("net.kelvo.datatype.test.text"); }
  std::string GetUrlSuffix(const Asset&) const override { return "txt"; }
  Result<Asset> Load(const AssetRepositoryRef& repo, const AssetDescription& description, const Url& url,
                     bool updateLinks) const override;
  Result<MetaValueMap> Store(const Asset& asset, const Url& url, Digest* hash) const override;
};

// Registers the text type (once) and returns it.
AssetType RegisterTextAssetType();

Asset MakeText(const std::string& text);

} // namespace kelvo::testing

#include "test_assets.h"

#include <gtest/gtest.h>

namespace kelvo::testing {

std::shared_ptr<MemoryAssetRepositoryImpl> MakeRepository(const std::string& rid, bool writable) {
  RegisterTextAssetType();
  auto repo = MemoryAssetRepositoryImpl::Create(Id(rid), writable);
  EXPECT_TRUE(repo.HasValue()) << repo.GetError().ToString();
  return *repo;
}

std::string LoadText(const AssetDescription& description) {
  if (!description) return "error: no asset";
  auto asset = description->Load(false);
  if (asset.HasError()) return "error: " + asset.GetError().ToString();
  auto* text = dynamic_cast<TextAsset*>(asset->get());
  return text ? text->text : "not a text asset";
}

} // namespace kelvo::testing

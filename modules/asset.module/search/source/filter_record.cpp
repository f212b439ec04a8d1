#include "asset/search/filter_record.h"

#include <algorithm>

#include "asset/types/category_asset.h"
#include "asset/types/command_asset.h"

namespace kelvo {

void FilterRecord::Reset(AssetDescription description) {
  asset = std::move(description);
  typeId = asset ? asset->GetTypeId() : Id();
  isCategory = typeId == CategoryAssetInterface::TypeId();
  isCommand = typeId == CommandAssetInterface::TypeId();
  read = 0;
  language.reset();
  upperName.clear();
  upperFallbackName.clear();
  tags.clear();
  keywordIds.clear();
  repositoryKeywords.clear();
  keywordNames.clear();
  subtype = Id();
  subtypeIds.clear();
  size = 0;
}

bool FilterRecord::ListsRepositoryKeyword(const Id& id) const {
  const std::size_t hash = id.GetHashCode();
  auto it = std::lower_bound(repositoryKeywords.begin(), repositoryKeywords.end(), hash,
                             [](const std::pair<std::size_t, Id>& entry, std::size_t h) { return entry.first < h; });
  for (; it != repositoryKeywords.end() && it->first == hash; ++it)
    if (it->second == id) return true;
  return false;
}

} // namespace kelvo

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
  repositoryKeywordBits = 0;
  keywordNames.clear();
  subtype = Id();
  subtypeIds.clear();
  size = 0;
  sizeText.clear();
}

bool FilterRecord::ListsRepositoryKeyword(const InternedId& id) const {
  if (!(repositoryKeywordBits & (std::uint64_t(1) << (id.GetHashCode() % 64)))) return false;
  return std::find(repositoryKeywords.begin(), repositoryKeywords.end(), id) != repositoryKeywords.end();
}

} // namespace kelvo

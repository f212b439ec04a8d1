#pragma once
// Smart search assets: a stored search. The search text is the metadata net.kelvo.node.smartsearch
// (a String in the filter language, kind PERSISTENT); the content is empty.

#include "asset/core/assetrepository.h"
#include "asset/types/typed_assets.h"

namespace kelvo {

namespace smartsearchids {
inline const InternedId filter{"net.kelvo.node.smartsearch"};
} // namespace smartsearchids

class SmartSearchAssetInterface : public AssetBaseImpl {
public:
  static const Id& TypeId();
  // The stored search text; empty when the asset has no metadata or no text.
  std::string GetFilterString() const;
  // A new smart search asset object.
  static Asset Create();
  static Result<void> SetFilterString(const AssetDescription& asset, const std::string& filter);
};

using SmartSearchAssetImpl = TypedAssetImpl<SmartSearchAssetInterface>;

} // namespace kelvo

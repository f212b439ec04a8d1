#pragma once
// The resolve record that an asset or meta URL carries, so that copies of the URL resolve again
// without a search.

#include <cstddef>
#include <string>
#include <string_view>
#include "asset/core/asset_description.h"
#include "kelvo/data.h"
#include "kelvo/url.h"

namespace kelvo {

// An asset Id as the first component of an "asset" or "meta" URL path: "%" and "/" escaped as
// "%25" and "%2F", so an Id with "/" stays one component and never names a path inside the asset.
std::string EscapeAssetIdForUrlPath(std::string_view id);
// The inverse; other escapes stay as they are.
std::string UnescapeAssetIdFromUrlPath(std::string_view text);

// The Url data key of the resolve record.
inline const Id g_resolveInfoKey{"asset"};

// What a URL resolved to, carried on the Url under g_resolveInfoKey so that copies of the URL
// resolve again without a search. Valid while text equals the URL's text and, for "asset" URLs,
// the description's repository still exists.
struct ResolveInfo {
  Url resolved;
  std::string text;
  AssetDescription description;
  friend bool operator==(const ResolveInfo& a, const ResolveInfo& b) {
    return a.resolved == b.resolved && a.text == b.text && a.description == b.description;
  }
};
std::size_t HashValue(const ResolveInfo& info);
template <> struct DataTypeTraits<ResolveInfo> {
  static const Id& TypeId();
};

} // namespace kelvo

#pragma once
// Small helpers that the parts of the URL repository share: its records and paths.

#include <optional>
#include <string>

#include "asset/storage/urlassetrepository.h"

namespace kelvo {

inline const UrlAssetData* GetUrlAssetData(const Data& adata) { return adata.GetPtr<UrlAssetData>(); }
// The version directory of a version record; an error for a record of another repository type.
Result<Url> GetVersionDirectory(const Data& vdata);
// The first line of a small file of the tree below root (see ReadRepositoryFile); nothing when it
// can't be read.
std::optional<std::string> ReadFirstLine(const Url& file, const Url& root, int rootFd = -1);
// True when child lies strictly below root (same scheme, path prefix at a "/", no "." or "..").
bool IsBelow(const Url& child, const Url& root);

} // namespace kelvo

#pragma once
// Opening a URL repository as a repository reference.

#include <vector>

#include "asset/core/assetrepository.h"

namespace kelvo {

// Opens (and for a writable repository, creates) the URL repository at url with bases.
Result<AssetRepositoryRef> OpenUrlRepository(const Id& rid, const std::vector<AssetRepositoryRef>& bases,
                                             const Url& url, const RepositoryOptions& options);

} // namespace kelvo

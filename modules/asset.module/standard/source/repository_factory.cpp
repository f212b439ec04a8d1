// Opening a URL repository as a repository reference.

#include "repository_factory.h"

#include "asset/storage/urlassetrepository.h"

namespace kelvo {

Result<AssetRepositoryRef> OpenUrlRepository(const Id& rid, const std::vector<AssetRepositoryRef>& bases,
                                             const Url& url, const RepositoryOptions& options) {
  KELVO_ASSIGN_OR_RETURN(std::shared_ptr<UrlAssetRepository> repository,
                         CreateUrlAssetRepository(rid, bases, url, options));
  return AssetRepositoryRef(std::move(repository));
}

} // namespace kelvo

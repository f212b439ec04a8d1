// Opening a URL repository as a repository reference.

#include "repository_factory.h"

#include "asset/storage/urlassetrepository.h"

namespace kelvo {

Result<AssetRepositoryRef> OpenUrlRepository(const Id& rid, const std::vector<AssetRepositoryRef>& bases,
                                             const Url& url, bool writable, bool derivedInPrefs, bool tempRepository) {
  KELVO_ASSIGN_OR_RETURN(std::shared_ptr<UrlAssetRepositoryImpl> repository,
                         CreateUrlAssetRepository(rid, bases, url, writable, derivedInPrefs, tempRepository));
  return AssetRepositoryRef(std::move(repository));
}

} // namespace kelvo

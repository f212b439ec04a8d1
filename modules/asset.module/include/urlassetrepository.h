#pragma once
// The URL repository: assets kept in a plain directory tree reached through a Url, optionally
// indexed (see compactableassetrepository.h).

#include <memory>

#include "baseassetrepository.h"
#include "compactableassetrepository.h"

namespace kelvo {

extern const Id g_databaseRepositoryType; // "net.kelvo.assets.repositorytype.database"

class UrlAssetRepositoryInterface {
public:
  virtual ~UrlAssetRepositoryInterface() = default;
  // The repository root; with getOrigin, the URL the root carries under net.kelvo.url.originurl
  // when there is one.
  virtual Url GetUrl(bool getOrigin) const = 0;
};

class UrlAssetRepositoryImpl;

// Opens (and for a writable repository, creates) the URL repository at url. id may be empty for
// a writable repository: the id is then read from the tree or made new.
Result<std::shared_ptr<UrlAssetRepositoryImpl>> CreateUrlAssetRepository(const Id& id, const RepositoryArray& bases,
                                                                         const Url& url, bool writable,
                                                                         bool derivedInPrefs, bool tempRepository);

} // namespace kelvo

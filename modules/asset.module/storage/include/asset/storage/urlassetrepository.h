#pragma once
// The URL repository: assets kept in a plain directory tree reached through a Url, optionally
// indexed (see compactableassetrepository.h). The tree is the whole persistent state; a
// repository is opened by pointing at its root, by scanning the tree or from its index.

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "asset/core/baseassetrepository.h"
#include "asset/storage/compactableassetrepository.h"

namespace kelvo {

// URL data: the URL that a derived URL (a zip wrapper) stands for.
inline const Id g_originUrlKey{"net.kelvo.url.originurl"};

class UrlAssetRepositoryInterface {
public:
  virtual ~UrlAssetRepositoryInterface() = default;
  // The repository root; with getOrigin, the URL the root carries under net.kelvo.url.originurl
  // when there is one.
  virtual Url GetUrl(bool getOrigin) const = 0;
};

// A metadata value that an index part holds for a version, so no file is read for it.
using UrlCompactedValues = std::vector<std::pair<InternedId, Data>>;

// A version known from the index: its version Id, the names of its content (first) and of its
// metadata files, and its compacted metadata values.
struct UrlIndexedVersion {
  Id versionId;
  std::vector<std::string> names;
  UrlCompactedValues compacted;
};
using UrlVersionTable = std::map<std::uint64_t, UrlIndexedVersion>;

// The per-asset record (adata) of a URL repository: the asset directory in the root and the
// versions that an index holds (null when none does). A version's record (vdata) is a Url, the
// version directory in the root.
struct UrlAssetData {
  Url url;
  std::shared_ptr<const UrlVersionTable> versions;
  // What asset.info says, so that a store can make the directory again when another process
  // erased the asset meanwhile.
  Id aid;
  Id type;
  friend bool operator==(const UrlAssetData& a, const UrlAssetData& b) {
    return a.url == b.url && a.versions == b.versions && a.aid == b.aid && a.type == b.type;
  }
};
std::size_t HashValue(const UrlAssetData& data);
template <> struct DataTypeTraits<UrlAssetData> {
  static const Id& TypeId(); // net.kelvo.asset.urlassetdata
};

// A URL repository as its users see it: a base repository with an index and a root URL.
class UrlAssetRepository : public BaseAssetRepositoryImpl,
                           public CompactableAssetRepositoryInterface,
                           public UrlAssetRepositoryInterface {
public:
  // Reads the tree (or the index) again, so that assets stored by other repository objects or
  // processes on the same directory appear. Assets already known are read anew as well.
  // Errors: those of reading the tree. Any thread.
  virtual Result<void> Rescan() = 0;
  // True when the last opening or rescan read the index and walked no directory.
  virtual bool WasOpenedFromIndex() const = 0;

  // Replaces the delay of every delayed compaction in the process (tests, tools); a negative
  // value restores the delays the callers ask for.
  static void SetCompactionDelayOverride(double seconds);
};

// Opens (and for a writable repository, creates) the URL repository at url. id may be empty for
// a writable repository: the id is then read from the tree or made new. Errors: url is no
// directory, a read-only tree without an id, or an id other than the tree's. Any thread.
Result<std::shared_ptr<UrlAssetRepository>> CreateUrlAssetRepository(const Id& id, const RepositoryArray& bases,
                                                                     const Url& url,
                                                                     const RepositoryOptions& options);
// The same for a repository that is not a custom database.
inline Result<std::shared_ptr<UrlAssetRepository>> CreateUrlAssetRepository(const Id& id, const RepositoryArray& bases,
                                                                            const Url& url, bool writable,
                                                                            bool derivedInPrefs, bool tempRepository) {
  return CreateUrlAssetRepository(id, bases, url, RepositoryOptions{writable, derivedInPrefs, tempRepository, false});
}

} // namespace kelvo

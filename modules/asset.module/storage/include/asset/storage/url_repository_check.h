#pragma once
// Verification of a URL repository tree on disk: every version's content against its digest,
// and the entries that no scan reports (damaged, hidden, duplicate, left over by killed stores,
// erasures and compactions), each with its path. Optionally removes the leftovers.

#include <string>
#include <vector>

#include "kelvo/result.h"
#include "kelvo/url.h"

namespace kelvo {

enum class REPOSITORYFINDING {
  DAMAGED,   // content that doesn't match its digest, an unreadable asset.info or hash file
  HIDDEN,    // an entry a scan passes over: a link, a special file, a folder without asset.info
  DUPLICATE, // a second asset directory claiming an Id
  LEFTOVER,  // what a killed store, erase or compaction left (removed by a repair)
};
const char* RepositoryFindingName(REPOSITORYFINDING kind); // "damaged", "hidden", ...

struct RepositoryFinding {
  REPOSITORYFINDING kind;
  Url path;
  std::string detail;
  bool repaired = false; // removed by the repair
};

struct RepositoryCheckResult {
  std::vector<RepositoryFinding> findings;
  std::size_t versionsVerified = 0; // versions whose content was hashed and matched
};

// Walks the "file" tree at root and hashes every version's content. With repair, leftovers are
// removed; nothing else is changed. Other processes may store meanwhile: a version that is still
// being written is a leftover only when the store that wrote it is gone (its marker is older
// than minimumAgeSeconds). Errors: the root can't be listed. Called from any thread.
Result<RepositoryCheckResult> CheckUrlRepositoryTree(const Url& root, bool repair, double minimumAgeSeconds = 60.0);

} // namespace kelvo

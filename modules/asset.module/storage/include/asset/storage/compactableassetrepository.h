#pragma once
// Repositories that can write an index of their content (compaction) so that they open without
// walking their storage.

#include <cstdint>

#include "asset/core/assetrepository.h"

namespace kelvo {

enum class REPOSITORYINDEXSTATE : std::int32_t { NONE = 0, PENDING = 1, RUNNING = 2, EXISTS = 3 };

class CompactableAssetRepositoryInterface {
public:
  virtual ~CompactableAssetRepositoryInterface() = default;
  // Writes the index now, on the calling thread.
  virtual Result<void> Compact() = 0;
  // Cancels pending compaction work and removes the index.
  virtual Result<void> DeleteIndexFiles() = 0;
  // Schedules a compaction after delay seconds; a later call replaces a pending one.
  virtual Result<void> CompactInBackground(double delay) = 0;
  virtual REPOSITORYINDEXSTATE GetIndexState() const = 0;
};

} // namespace kelvo

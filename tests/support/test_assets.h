#pragma once
// Helpers of the asset tests: the text asset type and in-memory repositories.

#include <string>

#include "asset/core/memoryassetrepository.h"
#include "text_asset.h"

namespace kelvo::testing {

// A new in-memory repository with Id rid.
std::shared_ptr<MemoryAssetRepositoryImpl> MakeRepository(const std::string& rid, bool writable = true);

// The text of the asset that a description loads.
std::string LoadText(const AssetDescription& description);

} // namespace kelvo::testing

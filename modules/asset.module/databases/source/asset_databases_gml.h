#pragma once
// The node attributes of a repository in the repository graph.

#include <cstdint>

#include "asset/core/assetrepository.h"
#include "kelvo/gml_writer.h"

namespace kelvo {

// Red for a repository passed over in searches, a shade darker for a read-only one.
std::uint32_t RepositoryGmlColor(bool skipInSearch, bool writable);
// The text (name, Id, writability, reference count, skip flag, address) and colour of a node;
// an empty text and no colour for a null repository.
GmlNodeAttribs RepositoryGmlAttribs(const AssetRepositoryRef& repository);

} // namespace kelvo

#include "asset/core/asset_url.h"

namespace kelvo {

const Id& DataTypeTraits<ResolveInfo>::TypeId() {
  static const Id id{"net.kelvo.datatype.local.asset.resolveinfo"};
  return id;
}

std::size_t HashValue(const ResolveInfo& info) {
  return CombineHash(std::hash<std::string>()(info.text), std::hash<const void*>()(info.description.get()));
}

} // namespace kelvo

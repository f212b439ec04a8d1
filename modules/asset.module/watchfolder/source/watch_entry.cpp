#include "watch_entry.h"

namespace kelvo {

std::uint64_t HashText(std::string_view text, std::uint64_t seed) {
  std::uint64_t h = seed;
  for (unsigned char c : text) {
    h ^= c;
    h *= 0x100000001b3ull;
  }
  return h;
}

std::string JoinRelative(std::string_view directory, std::string_view name) {
  if (directory.empty()) return std::string(name);
  if (name.empty()) return std::string(directory);
  std::string path;
  path.reserve(directory.size() + 1 + name.size());
  path.append(directory).append("/").append(name);
  return path;
}

WatchFolderIds WatchFolderIds::ForFolder(const std::string& folderUrlText) {
  WatchFolderIds ids;
  const std::string rid = "watchfolder@" + std::to_string(HashText(folderUrlText));
  ids.repositoryId = Id(rid);
  ids.rootCategoryId = Id("watch." + rid);
  ids.assetIdPrefix = "watch." + std::to_string(HashText(rid)) + ".";
  return ids;
}

Id WatchFolderIds::AssetId(std::string_view directory, std::string_view name) const {
  if (directory.empty() && name.empty()) return rootCategoryId;
  return Id(assetIdPrefix + std::to_string(EntryHash(directory, name)));
}

Id WatchFolderIds::CategoryOf(std::string_view directory) const {
  if (directory.empty()) return rootCategoryId;
  const auto slash = directory.rfind('/');
  if (slash == std::string_view::npos) return AssetId("", directory);
  return AssetId(directory.substr(0, slash), directory.substr(slash + 1));
}

} // namespace kelvo

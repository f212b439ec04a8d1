#pragma once
// One listed file or directory of a watch folder and the ids derived from its place. Ids depend
// only on the location relative to the folder, so a moved folder keeps its asset ids' form and a
// renamed file becomes a new asset.

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "asset/core/asset_description.h"
#include "asset/core/asset_identity.h"
#include "kelvo/datetime.h"
#include "kelvo/id.h"

namespace kelvo {

// The parent of a watch folder's root category.
inline const Id g_watchRootParentCategory{"category@5846c0689c0248cfa54bffed866571ce"};

// 64-bit hashes: a stable text hash (FNV-1a, the same in every process), folded with the core's
// FoldHash (asset_identity.h), and the combination of two.
// FNV-1a runs over its input byte by byte, so hashing "ab" equals hashing "b" from the hash of
// "a": seed continues a hash without joining the texts first.
inline constexpr std::uint64_t kHashTextSeed = 0xcbf29ce484222325ull;
std::uint64_t HashText(std::string_view text, std::uint64_t seed = kHashTextSeed);
inline std::uint64_t CombineHashes(std::uint64_t first, std::uint64_t second) {
  return second + first * 0xbf58476d1ce4e5b9ull + 1;
}

// "a/b" of directory "a" and name "b"; the name alone at the top; "" for the root.
std::string JoinRelative(std::string_view directory, std::string_view name);
// The hash of an entry's relative URL: the key of its rows in the store.
inline std::uint64_t RelativeUrlHash(std::string_view relativePath) {
  return HashText(relativePath, HashText("relative:///"));
}
// RelativeUrlHash(JoinRelative(directory, name)), without building the path.
inline std::uint64_t RelativeUrlHash(std::string_view directory, std::string_view name) {
  if (directory.empty() || name.empty()) return RelativeUrlHash(directory.empty() ? name : directory);
  return HashText(name, HashText("/", HashText(directory, HashText("relative:///"))));
}
// The hash in the asset id of the entry `name` in `directory`.
inline std::uint64_t EntryHash(std::string_view directory, std::string_view name) {
  return CombineHashes(FoldHash(RelativeUrlHash(directory)), FoldHash(HashText(name)));
}

// The ids of one folder.
struct WatchFolderIds {
  Id repositoryId;   // "watchfolder@<hash of the folder URL>"
  Id rootCategoryId; // "watch." + repositoryId
  std::string assetIdPrefix; // "watch.<hash of repositoryId>."

  static WatchFolderIds ForFolder(const std::string& folderUrlText);
  // The asset id of `name` in `directory`; the root category id for the root.
  Id AssetId(std::string_view directory, std::string_view name) const;
  // The category of the entries in `directory`: its own asset id, the root category at the top.
  Id CategoryOf(std::string_view directory) const;
};

struct WatchFileEntry {
  std::uint64_t urlHash = 0;
  Id assetType;
  std::uint64_t size = 0;
  UniversalDateTime modified;
  std::string directory; // relative path of the parent; "" at the top
  std::string name;      // "" for the root
  Id category;

  bool IsDirectory() const { return assetType == g_categoryAssetTypeId; }
  bool IsRoot() const { return name.empty(); }
  std::string RelativePath() const { return JoinRelative(directory, name); }
  // urlHash takes no part: it follows from directory and name.
  friend bool operator==(const WatchFileEntry& a, const WatchFileEntry& b) {
    return a.assetType == b.assetType && a.size == b.size && a.modified == b.modified &&
           a.directory == b.directory && a.name == b.name && a.category == b.category;
  }
};

// A listed entry with its description, built on first need. The description and pendingChange
// are guarded by lock; the entry itself never changes once the node is published.
struct WatchAssetNode {
  explicit WatchAssetNode(WatchFileEntry e) : entry(std::move(e)) {}
  const WatchFileEntry entry;
  std::mutex lock;
  AssetDescription description;
  bool pendingChange = false;
};
using WatchAssetNodeRef = std::shared_ptr<WatchAssetNode>;

} // namespace kelvo

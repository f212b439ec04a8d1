#pragma once
// The declared tree of a mounted RAM disk: which paths are files and which directories, the URL
// flags of each file's fetch, and whether its mirrored copy is fetched and checked. A large
// database declares hundreds of thousands of entries at each start, so a declaration costs one
// or two hash look-ups and no allocation of its own: paths live in a shared text arena, nodes in
// one vector linked by index, and the flags, the same for almost every file, are kept once each.
// Safe for concurrent use.

#include <cstdint>
#include <memory>
#include <optional>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "kelvo/data.h"
#include "kelvo/result.h"
#include "kelvo/url.h"

namespace kelvo {

// Refuses a name that could leave its directory: empty, ".", "..", "/" or NUL inside, or too
// long for a file system; whole is the path named in the error.
Result<void> CheckRamDiskName(std::string_view name, std::string_view whole);

class RamDiskTree {
public:
  // Declares a file, or a directory when flags say so (urlkeys::ramdisk_directory), with the
  // directories above it. Fails for a refused name, or when a component is already a file or the
  // file a directory; nothing changes then. Declaring a file again replaces its flags.
  Result<void> Declare(const std::vector<std::string>& components, const DataDictionary& flags);

  IODETECT Detect(std::string_view rel) const;
  // The names in directory rel, sorted; nothing when rel is no directory ("" is the root).
  std::optional<std::vector<std::string>> Children(std::string_view rel) const;
  // The flags of file rel; nothing when rel is no file.
  std::optional<DataDictionary> FlagsOf(std::string_view rel) const;
  // The files at or below rel; an io error naming url when rel names nothing.
  Result<std::vector<std::string>> FilesAt(std::string_view rel, const Url& url) const;

  // Marks file rel fetched or not, which also takes back its check; true when that changed.
  bool SetCached(std::string_view rel, bool cached);
  // Marks every file not fetched; returns those that were.
  std::vector<std::string> ForgetCached();
  bool IsChecked(std::string_view rel) const;
  void SetChecked(std::string_view rel, bool checked);

private:
  static constexpr std::uint32_t kNone = ~std::uint32_t(0);
  struct Node {
    std::string_view path; // relative to the root, in the arena; "" for the root
    std::uint32_t firstChild = kNone;
    std::uint32_t nextSibling = kNone;
    std::uint32_t flags = 0; // index into _flagTable, for files
    bool isDirectory = true;
    bool cached = false;  // fetched or seen in the mirror since the last drop
    bool checked = false; // the copy passed a check since
    std::string_view Name() const { return path.substr(path.rfind('/') + 1); }
  };

  // REQUIRES: _lock held (any mode).
  std::uint32_t Find(std::string_view rel) const;
  const Node* FindNode(std::string_view rel) const;
  // REQUIRES: _lock held for writing.
  std::uint32_t FlagsIndex(const DataDictionary& flags);
  std::uint32_t Add(std::uint32_t parent, std::string_view rel, bool isDirectory, std::uint32_t flags);
  std::string_view KeepPath(std::string_view text);

  mutable std::shared_mutex _lock; // guards everything below
  std::vector<Node> _nodes{Node{}}; // [0] is the root
  std::unordered_map<std::string_view, std::uint32_t> _byPath;
  std::vector<DataDictionary> _flagTable{DataDictionary()};
  std::vector<std::unique_ptr<char[]>> _arena; // chunks of path text
  std::size_t _arenaLeft = 0, _chunkSize = 0;
};

} // namespace kelvo

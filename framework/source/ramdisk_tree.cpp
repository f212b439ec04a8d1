#include "ramdisk_tree.h"

#include <algorithm>
#include <cstring>
#include <mutex>

#include "kelvo/ramdisk.h"

namespace kelvo {

namespace {

// Longer names would fail in the mirror's file system with a less helpful error.
constexpr std::size_t kMaxComponentLength = 255;
constexpr std::size_t kMaxPathLength = 4000;

} // namespace

Result<void> CheckRamDiskName(std::string_view c, std::string_view whole) {
  if (c.empty() || c == "." || c == "..")
    return IllegalArgumentError("Refused RAM disk path @: empty, \".\" or \"..\" component", whole);
  if (c.find('/') != std::string_view::npos || c.find('\0') != std::string_view::npos)
    return IllegalArgumentError("Refused RAM disk path @: \"/\" or NUL inside a name", whole);
  if (c.size() > kMaxComponentLength) return IllegalArgumentError("Refused RAM disk path @: name too long", whole);
  return {};
}

std::uint32_t RamDiskTree::Find(std::string_view rel) const {
  if (rel.empty()) return 0;
  auto it = _byPath.find(rel);
  return it == _byPath.end() ? kNone : it->second;
}

const RamDiskTree::Node* RamDiskTree::FindNode(std::string_view rel) const {
  const std::uint32_t at = Find(rel);
  return at == kNone ? nullptr : &_nodes[at];
}

std::uint32_t RamDiskTree::FlagsIndex(const DataDictionary& flags) {
  for (std::size_t i = 0; i < _flagTable.size(); ++i)
    if (_flagTable[i] == flags) return static_cast<std::uint32_t>(i);
  _flagTable.push_back(flags);
  return static_cast<std::uint32_t>(_flagTable.size() - 1);
}

std::string_view RamDiskTree::KeepPath(std::string_view text) {
  if (text.size() > _arenaLeft) {
    _chunkSize = std::max<std::size_t>(1 << 20, text.size());
    _arena.push_back(std::make_unique<char[]>(_chunkSize));
    _arenaLeft = _chunkSize;
  }
  char* at = _arena.back().get() + (_chunkSize - _arenaLeft);
  std::memcpy(at, text.data(), text.size());
  _arenaLeft -= text.size();
  return std::string_view(at, text.size());
}

std::uint32_t RamDiskTree::Add(std::uint32_t parent, std::string_view rel, bool isDirectory, std::uint32_t flags) {
  Node node;
  node.path = KeepPath(rel);
  node.isDirectory = isDirectory;
  node.flags = flags;
  node.nextSibling = _nodes[parent].firstChild;
  const auto at = static_cast<std::uint32_t>(_nodes.size());
  _nodes.push_back(node);
  _nodes[parent].firstChild = at;
  _byPath.emplace(_nodes[at].path, at);
  return at;
}

Result<void> RamDiskTree::Declare(const std::vector<std::string>& components, const DataDictionary& flags) {
  if (components.empty()) return IllegalArgumentError("Refused RAM disk file without a name");
  thread_local std::string rel;
  rel.clear();
  for (const auto& c : components) {
    if (!rel.empty()) rel += '/';
    rel += c;
  }
  for (const auto& c : components) KELVO_RETURN_ON_ERROR(CheckRamDiskName(c, rel));
  if (rel.size() > kMaxPathLength) return IllegalArgumentError("Refused RAM disk path @: too long", rel);
  const bool isDirectory = flags.Get<bool>(urlkeys::ramdisk_directory).value_or(false);
  std::unique_lock guard(_lock);
  if (const std::uint32_t known = Find(rel); known != kNone) {
    Node& node = _nodes[known];
    if (node.isDirectory && !isDirectory) return IllegalArgumentError("Can't declare @: a directory of that name exists", rel);
    if (!node.isDirectory && isDirectory) return IllegalArgumentError("Can't declare @: @ is a file", rel, rel);
    if (!isDirectory) node.flags = FlagsIndex(flags);
    return {};
  }
  // Listings name a directory before what it holds, so the parent is usually known and only the
  // last name is new.
  const std::string_view path(rel);
  const std::size_t cut = path.size() - components.back().size();
  std::uint32_t parent = Find(cut ? path.substr(0, cut - 1) : std::string_view());
  if (parent != kNone && !_nodes[parent].isDirectory)
    return IllegalArgumentError("Can't declare @: @ is a file", rel, path.substr(0, cut - 1));
  if (parent == kNone) {
    std::size_t end = 0;
    for (std::size_t i = 0; i + 1 < components.size(); ++i) {
      end += (i ? 1 : 0) + components[i].size();
      if (const Node* node = FindNode(path.substr(0, end)); node && !node->isDirectory)
        return IllegalArgumentError("Can't declare @: @ is a file", rel, path.substr(0, end));
    }
    // Only now that nothing can fail is the tree changed.
    parent = 0;
    end = 0;
    for (std::size_t i = 0; i + 1 < components.size(); ++i) {
      end += (i ? 1 : 0) + components[i].size();
      const std::uint32_t known = Find(path.substr(0, end));
      parent = known != kNone ? known : Add(parent, path.substr(0, end), true, 0);
    }
  }
  Add(parent, path, isDirectory, isDirectory ? 0 : FlagsIndex(flags));
  return {};
}

IODETECT RamDiskTree::Detect(std::string_view rel) const {
  std::shared_lock guard(_lock);
  const Node* node = FindNode(rel);
  return !node ? IODETECT::NONE : node->isDirectory ? IODETECT::DIRECTORY : IODETECT::FILE;
}

std::optional<std::vector<std::string>> RamDiskTree::Children(std::string_view rel) const {
  std::shared_lock guard(_lock);
  const std::uint32_t at = Find(rel);
  if (at == kNone || !_nodes[at].isDirectory) return std::nullopt;
  std::vector<std::string> names;
  for (std::uint32_t c = _nodes[at].firstChild; c != kNone; c = _nodes[c].nextSibling) names.emplace_back(_nodes[c].Name());
  std::sort(names.begin(), names.end());
  return names;
}

std::optional<DataDictionary> RamDiskTree::FlagsOf(std::string_view rel) const {
  std::shared_lock guard(_lock);
  const Node* node = FindNode(rel);
  if (!node || node->isDirectory) return std::nullopt;
  return _flagTable[node->flags];
}

Result<std::vector<std::string>> RamDiskTree::FilesAt(std::string_view rel, const Url& url) const {
  std::shared_lock guard(_lock);
  const std::uint32_t top = Find(rel);
  if (top == kNone) return IoError("@ names no file or directory of the RAM disk.", url);
  std::vector<std::string> found;
  std::vector<std::uint32_t> pending{top};
  while (!pending.empty()) {
    const Node& node = _nodes[pending.back()];
    pending.pop_back();
    if (!node.isDirectory) found.emplace_back(node.path);
    for (std::uint32_t c = node.firstChild; c != kNone; c = _nodes[c].nextSibling) pending.push_back(c);
  }
  return found;
}

bool RamDiskTree::SetCached(std::string_view rel, bool cached) {
  std::unique_lock guard(_lock);
  const std::uint32_t at = Find(rel);
  if (at == kNone || _nodes[at].isDirectory || _nodes[at].cached == cached) return false;
  _nodes[at].cached = cached;
  _nodes[at].checked = false;
  return true;
}

std::vector<std::string> RamDiskTree::ForgetCached() {
  std::unique_lock guard(_lock);
  std::vector<std::string> dropped;
  for (Node& node : _nodes) {
    if (!std::exchange(node.cached, false)) continue;
    node.checked = false;
    dropped.emplace_back(node.path);
  }
  return dropped;
}

bool RamDiskTree::IsChecked(std::string_view rel) const {
  std::shared_lock guard(_lock);
  const Node* node = FindNode(rel);
  return node && node->checked;
}

void RamDiskTree::SetChecked(std::string_view rel, bool checked) {
  std::unique_lock guard(_lock);
  if (const std::uint32_t at = Find(rel); at != kNone) _nodes[at].checked = checked;
}

} // namespace kelvo

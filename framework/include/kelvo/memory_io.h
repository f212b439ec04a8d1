#pragma once
// The "memory" URL scheme: a process-wide in-memory file tree, so that components that read and
// write through Url work without a disk (in-memory repositories, tests). Paths are
// "memory:///a/b/c". Directories exist implicitly as prefixes of stored files. Safe for
// concurrent use by multiple threads.

#include <memory>
#include <string>
#include <vector>

#include "kelvo/url.h"

namespace kelvo {

// Registers the handler for "memory"; calling it again does nothing.
void RegisterMemoryIoHandler();

// Removes every file whose path begins with prefix.
void ClearMemoryFiles(const std::string& prefix);

// One in-memory file tree, the store behind the "memory" scheme and behind other schemes that
// keep files in memory. Keys are paths "a/b/c" without leading or trailing "/"; the empty key is
// the root. A written file appears whole when its stream is closed. Streams stay valid after the
// tree is gone. Safe for concurrent use by multiple threads.
class MemoryFileTree {
public:
  MemoryFileTree();
  IODETECT Detect(const std::string& key) const;
  // Removes the file key and, with recursive, everything below it.
  void Delete(const std::string& key, bool recursive);
  // The names directly below key, sorted.
  std::vector<std::string> ChildNames(const std::string& key) const;
  // Moves the file from to to; false when there is no such file.
  bool Rename(const std::string& from, const std::string& to);
  // A stream over the file's content; null when there is no such file.
  std::unique_ptr<InputStream> Open(const std::string& key) const;
  std::unique_ptr<OutputStream> Create(const std::string& key);
  // Removes every file whose key begins with prefix.
  void Clear(const std::string& prefix);

private:
  struct State;
  std::shared_ptr<State> _state;
};

} // namespace kelvo

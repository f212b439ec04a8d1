#pragma once
// The "memory" URL scheme: a process-wide in-memory file tree, so that components that read and
// write through Url work without a disk (in-memory repositories, tests). Paths are
// "memory:///a/b/c". Directories exist implicitly as prefixes of stored files. Safe for
// concurrent use by multiple threads.

#include <string>

namespace kelvo {

// Registers the handler for "memory"; calling it again does nothing.
void RegisterMemoryIoHandler();

// Removes every file whose path begins with prefix.
void ClearMemoryFiles(const std::string& prefix);

} // namespace kelvo

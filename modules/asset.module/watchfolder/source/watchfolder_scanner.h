#pragma once
// Reading a watch folder from disk: one directory at a time, or a whole tree. Only regular files
// and directories are listed; symbolic links (so no link loops), FIFOs, sockets and devices are
// passed over, and so are names that begin with ".". Nothing is ever written.

#include <functional>
#include <string>
#include <vector>

#include "kelvo/result.h"
#include "watch_entry.h"

namespace kelvo {

struct DirectoryListing {
  std::vector<WatchFileEntry> entries; // in the order the directory gives them
  // The directory holds "databaseid": it is an asset database, hidden with all it holds.
  bool hidden = false;
};

// Told of each directory that a walk enters, with a descriptor of it open for reading, before
// its entries are read (so a watch set there misses nothing). The descriptor stays the walk's.
using DirectoryEntered = std::function<void(const std::string& relativeDir, int directoryFd)>;

// The entries directly in relativeDir of the folder at rootPath. A directory that can't be read
// is an io error naming it. Any thread.
Result<DirectoryListing> ListDirectory(const std::string& rootPath, const std::string& relativeDir,
                                       const WatchFolderIds& ids, const DirectoryEntered& entered = nullptr);

using WatchEntryReceiver = std::function<Result<void>(WatchFileEntry&& entry)>;

// Hands every entry below relativeDir to receiver: the entries of a directory first, then those
// of each of its sub-directories. A sub-directory that can't be read is logged and left out,
// only the top directory's failure is an error. With cancellable, a cancelled job ends the walk
// with OperationCancelledError. entered, when set, is told of each directory entered.
Result<void> WalkFolder(const std::string& rootPath, const std::string& relativeDir, const WatchFolderIds& ids,
                        const WatchEntryReceiver& receiver, bool cancellable,
                        const DirectoryEntered& entered = nullptr);

} // namespace kelvo

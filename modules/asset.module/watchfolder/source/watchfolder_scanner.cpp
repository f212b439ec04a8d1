#include "watchfolder_scanner.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <unistd.h>

#include "kelvo/job_queue.h"
#include "kelvo/log.h"

namespace kelvo {

namespace {

// Closes a directory stream when it leaves scope.
struct DirCloser {
  void operator()(DIR* d) const {
    if (d) closedir(d);
  }
};

UniversalDateTime ModifiedTime(const struct stat& st) {
  return UniversalDateTime::FromValue(static_cast<std::uint64_t>(st.st_mtim.tv_sec) * 1000000000ull +
                                      static_cast<std::uint64_t>(st.st_mtim.tv_nsec));
}

} // namespace

Result<DirectoryListing> ListDirectory(const std::string& rootPath, const std::string& relativeDir,
                                       const WatchFolderIds& ids, const DirectoryEntered& entered) {
  const std::string path = relativeDir.empty() ? rootPath : rootPath + "/" + relativeDir;
  const int fd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  std::unique_ptr<DIR, DirCloser> dir(fd < 0 ? nullptr : ::fdopendir(fd));
  if (!dir) {
    const int error = errno;
    if (fd >= 0) ::close(fd);
    return IoError("Can't read the directory @: @", path, std::strerror(error));
  }
  if (entered) entered(relativeDir, fd);
  const Id category = ids.CategoryOf(relativeDir);
  DirectoryListing listing;
  errno = 0;
  while (struct dirent* d = readdir(dir.get())) {
    const char* name = d->d_name;
    if (name[0] == '.') continue;
    if (std::strcmp(name, "databaseid") == 0) {
      listing.entries.clear();
      listing.hidden = true;
      return listing;
    }
    if (d->d_type == DT_LNK || d->d_type == DT_FIFO || d->d_type == DT_SOCK || d->d_type == DT_CHR ||
        d->d_type == DT_BLK)
      continue;
    struct stat st;
    // A name that went away since the listing is simply not there.
    if (fstatat(fd, name, &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
    const bool isDir = S_ISDIR(st.st_mode);
    if (!isDir && !S_ISREG(st.st_mode)) continue;
    WatchFileEntry entry;
    entry.name = name;
    entry.directory = relativeDir;
    entry.urlHash = RelativeUrlHash(relativeDir, entry.name);
    entry.assetType = isDir ? g_categoryAssetTypeId : g_fileAssetTypeId;
    entry.size = isDir ? 0 : static_cast<std::uint64_t>(st.st_size);
    entry.modified = ModifiedTime(st);
    entry.category = category;
    listing.entries.push_back(std::move(entry));
  }
  return listing;
}

Result<void> WalkFolder(const std::string& rootPath, const std::string& relativeDir, const WatchFolderIds& ids,
                        const WatchEntryReceiver& receiver, bool cancellable,
                        const DirectoryEntered& entered) {
  // An explicit stack: deep trees don't grow the thread's stack.
  std::vector<std::string> pending{relativeDir};
  bool top = true;
  while (!pending.empty()) {
    if (cancellable && IsCurrentJobCancelled()) return OperationCancelledError();
    const std::string dir = std::move(pending.back());
    pending.pop_back();
    Result<DirectoryListing> listing = ListDirectory(rootPath, dir, ids, entered);
    if (listing.HasError()) {
      if (top) return listing.GetError();
      WarningOutput("Watch folder: @", listing.GetError());
      continue;
    }
    top = false;
    const std::size_t firstChild = pending.size();
    for (WatchFileEntry& entry : listing->entries) {
      if (entry.IsDirectory()) pending.push_back(entry.RelativePath());
      KELVO_RETURN_ON_ERROR(receiver(std::move(entry)));
    }
    // Keep the directory's own order for its sub-directories.
    std::reverse(pending.begin() + static_cast<std::ptrdiff_t>(firstChild), pending.end());
  }
  return {};
}

} // namespace kelvo

#pragma once
// FileMonitor: watches a directory tree through inotify and reports changes to a delegate on a
// monitor thread of its own.
//
// A recursive monitor watches every directory below the root, including ones that are created
// or moved in later; symlinks are never followed, so a watched directory that is replaced by a
// symlink is not followed out of the tree. The two halves of a rename inside the tree are joined
// into one RENAMED event by the kernel's cookie.
//
// Nothing is lost in silence: when the kernel's event queue overflows, or a directory can't be
// watched because the watch limit (max_user_watches, or Options::maxWatches) is reached, the
// monitor delivers a RESCAN event, records the condition in its Status and keeps reporting what
// it still sees. The caller then falls back to rescanning, periodically in the limit case.

#include <cstddef>
#include <functional>
#include <memory>

#include "kelvo/result.h"
#include "kelvo/url.h"

namespace kelvo {

class FileMonitor {
public:
  enum class STATE {
    RESCAN,    // events were lost (OVERFLOW) or a directory isn't watched (WATCHLIMIT): rescan `url`
    MODIFIED,  // a file was closed after writing
    DELETED,   // an entry was removed; for the root itself, the watch has ended
    METADATA,  // permissions, times, owner or link count changed
    RENAMED,   // moved inside the tree from `from` to `url`
    CREATED,   // a new entry; entries found in a new directory are reported the same way
    MOVED_IN,  // arrived from outside the tree (or its other half couldn't be joined)
    MOVED_OUT, // left the tree (or its other half couldn't be joined)
  };
  enum class RESCANREASON { NONE, OVERFLOW, WATCHLIMIT };

  struct Event {
    STATE state = STATE::RESCAN;
    RESCANREASON reason = RESCANREASON::NONE;
    Url watched;  // the root given to WatchDirectory
    Url url;      // the entry that changed, or the directory to rescan
    Url from;     // RENAMED only: the old location
    bool isDirectory = false;
  };
  using Delegate = std::function<void(const Event&)>;

  struct Options {
    // Stop adding watches at this count as if the kernel's limit were reached; 0 for no limit
    // other than the kernel's.
    std::size_t maxWatches = 0;
    // How long the first half of a rename waits for its second half before it counts as moved out.
    double renameJoinSeconds = 0.02;
    // Recursive only: WatchDirectory watches the root alone and the caller, which walks the tree
    // anyway, adds each directory below it through WatchEntered as it enters it, so the tree is
    // walked once. Directories created or moved in later are still watched by the monitor.
    bool callerWalks = false;
  };

  struct Status {
    bool watchLimitReached = false;  // some directories aren't watched
    bool overflowed = false;         // at least one queue overflow happened
    std::size_t watches = 0;
  };

  // Watches `directory` (a "file" URL of a directory, not a symlink) and, with recursive, all
  // directories below it. The watches are in place when this returns, so a scan started
  // afterwards misses nothing. The delegate runs on the monitor thread, one event at a time and
  // in order; it may call Stop or destroy the monitor. Fails with an io error when the directory
  // can't be opened or inotify isn't available. Any thread.
  static Result<std::unique_ptr<FileMonitor>> WatchDirectory(const Url& directory, bool recursive, Delegate delegate,
                                                             const Options& options);
  static Result<std::unique_ptr<FileMonitor>> WatchDirectory(const Url& directory, bool recursive, Delegate delegate) {
    return WatchDirectory(directory, recursive, std::move(delegate), Options());
  }

  // With Options::callerWalks: watches the directory at `relative` below the root (components
  // joined by "/"), given open for reading as directoryFd (or -1 to open it here, never through
  // a symlink), before the caller lists it, so nothing that arrives afterwards is missed. Its
  // parent must have been entered before. Returns false when it stays unwatched: the watch limit
  // (reported as a walk reports it), or a parent that isn't watched. Any thread.
  bool WatchEntered(const std::string& relative, int directoryFd = -1);

  // Ends the watch: wakes the monitor thread and waits for it, so no delegate runs after Stop
  // returns (when called from the delegate, the current one finishes and no other starts).
  // Idempotent. Any thread.
  void Stop();
  ~FileMonitor();
  FileMonitor(const FileMonitor&) = delete;
  FileMonitor& operator=(const FileMonitor&) = delete;

  // Any thread.
  Status GetStatus() const;
  const Url& GetUrl() const;

  struct Impl;

private:
  explicit FileMonitor(std::shared_ptr<Impl> impl) : _impl(std::move(impl)) {}
  std::shared_ptr<Impl> _impl;
};

std::string ToString(FileMonitor::STATE state);

} // namespace kelvo

#include "kelvo/file_monitor.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <exception>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "kelvo/log.h"

namespace kelvo {

namespace {

constexpr std::uint32_t kWatchMask = IN_CREATE | IN_CLOSE_WRITE | IN_ATTRIB | IN_DELETE | IN_DELETE_SELF |
                                     IN_MOVED_FROM | IN_MOVED_TO | IN_MOVE_SELF | IN_EXCL_UNLINK | IN_ONLYDIR;
// Directories deeper than this below the root aren't watched (each level holds a descriptor).
constexpr int kMaxDepth = 400;

// The monitor whose thread this is, so Stop can tell a call from its own delegate.
thread_local const void* t_monitor = nullptr;

double MonotonicSeconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

std::string ErrnoText(int error) { return std::strerror(error); }

// Closes a descriptor when it goes out of scope.
struct Fd {
  int fd = -1;
  explicit Fd(int f = -1) : fd(f) {}
  Fd(Fd&& o) noexcept : fd(std::exchange(o.fd, -1)) {}
  Fd& operator=(Fd&&) = delete;
  ~Fd() {
    if (fd >= 0) ::close(fd);
  }
};

int OpenDirectoryAt(int dirFd, const char* name) {
  return ::openat(dirFd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

bool IsResourceShortage(int error) { return error == EMFILE || error == ENFILE || error == ENOMEM; }

std::string JoinPath(const std::string& dir, const std::string& name) {
  return dir.empty() ? name : dir + "/" + name;
}

} // namespace

// State shared by the monitor object and its thread. The watch table and the event batch are
// touched by the creating thread before the monitor thread starts, then under tableLock by the
// monitor thread and by callers of WatchEntered.
struct FileMonitor::Impl {
  // One watched directory: its parent's watch descriptor and its name there.
  struct Node {
    int parent = -1;
    std::string name;
    bool seen = false;  // mark of a resynchronising walk
  };
  // An event waiting for delivery. The first half of a rename stays unresolved until its other
  // half arrives or its join time passes, and holds back the events behind it so order is kept.
  struct Pending {
    Event event;
    bool unresolved = false;
    std::uint32_t cookie = 0;
    int movedWd = -1;  // the watch of a renamed directory, when it has one
    double deadline = 0.0;
  };

  Url rootUrl;
  std::string rootPath;
  bool recursive = true;
  Options options;
  Delegate delegate;
  int inotifyFd = -1;
  int wakeFd = -1;
  int rootFd = -1;
  bool viaProc = true;  // watches are added through /proc/self/fd so no path is resolved twice
  int rootWd = -1;

  std::atomic<bool> stopping{false};
  std::atomic<bool> limitReached{false};
  std::atomic<bool> overflowed{false};
  std::atomic<std::size_t> watchCount{0};
  // Joining: the first Stop from another thread takes the thread out and joins it, later ones
  // wait on joinedCv until it has been joined.
  std::mutex stopLock;
  std::condition_variable joinedCv;
  std::thread thread;    // under stopLock
  bool joining = false;  // under stopLock

  std::mutex tableLock;  // guards the fields below once the monitor thread runs
  std::unordered_map<int, Node> nodes;
  std::unordered_map<std::string, int> byName;  // Key(parent, name) -> watch descriptor
  std::deque<Pending> batch;
  bool limitAnnounced = false;

  ~Impl() {
    for (int fd : {inotifyFd, wakeFd, rootFd}) {
      if (fd >= 0) ::close(fd);
    }
  }

  static std::string Key(int parent, const std::string& name) {
    std::string key(reinterpret_cast<const char*>(&parent), sizeof parent);
    return key + name;
  }

  // The path of a watched directory relative to the root; "" for the root.
  std::string PathOf(int wd) const {
    std::vector<const std::string*> names;
    for (auto it = nodes.find(wd); it != nodes.end() && it->second.parent >= 0; it = nodes.find(it->second.parent)) {
      names.push_back(&it->second.name);
      if (names.size() > 4096) break;  // a corrupted chain must not loop forever
    }
    std::string path;
    for (auto n = names.rbegin(); n != names.rend(); ++n) path = JoinPath(path, **n);
    return path;
  }

  Url UrlOf(const std::string& relative) const {
    return relative.empty() ? rootUrl : Url::FromFile(rootPath + "/" + relative);
  }

  void Push(STATE state, const std::string& relative, bool isDirectory, RESCANREASON reason = RESCANREASON::NONE) {
    Pending p;
    p.event.state = state;
    p.event.reason = reason;
    p.event.watched = rootUrl;
    p.event.url = UrlOf(relative);
    p.event.isDirectory = isDirectory;
    batch.push_back(std::move(p));
  }

  void ReportLimit(const std::string& relative) {
    limitReached = true;
    if (limitAnnounced) return;
    limitAnnounced = true;
    WarningOutput("File monitor of @ reached the watch limit at @ watches (first unwatched: @); changes "
                  "below unwatched directories are found only by rescans.",
                  rootPath, watchCount.load(), relative.empty() ? std::string("/") : relative);
    Push(STATE::RESCAN, "", true, RESCANREASON::WATCHLIMIT);
  }

  // Adds a watch on the open directory dirFd, known as `name` in the directory of `parent`.
  // Returns the watch descriptor, or -1 when the directory stays unwatched.
  int AddWatch(int dirFd, int parent, const std::string& name, const std::string& relative) {
    int wd;
    if (viaProc) {
      const std::string proc = "/proc/self/fd/" + std::to_string(dirFd);
      wd = ::inotify_add_watch(inotifyFd, proc.c_str(), kWatchMask);
    } else {
      wd = ::inotify_add_watch(inotifyFd, (rootPath + "/" + relative).c_str(), kWatchMask | IN_DONT_FOLLOW);
    }
    if (wd < 0) {
      const int error = errno;
      if (error == ENOSPC) {
        ReportLimit(relative);
      } else {
        DiagnosticOutput("File monitor can't watch @: @", JoinPath(rootPath, relative), ErrnoText(error));
      }
      return -1;
    }
    // The own limit is checked after the kernel's answer: a directory that is already watched
    // (found again after an overflow) keeps its watch at the limit.
    if (options.maxWatches && !nodes.count(wd) && watchCount.load() >= options.maxWatches) {
      ::inotify_rm_watch(inotifyFd, wd);
      ReportLimit(relative);
      return -1;
    }
    auto [it, added] = nodes.try_emplace(wd);
    if (!added) byName.erase(Key(it->second.parent, it->second.name));  // the same directory, found again
    it->second.parent = parent;
    it->second.name = name;
    it->second.seen = true;
    if (parent >= 0) byName[Key(parent, name)] = wd;
    if (added) ++watchCount;
    return wd;
  }

  // Walks the open directory dirFd (watch wd, path `relative`), watching the directories below
  // it. With report, each entry found is reported as CREATED: they may have arrived before the
  // directory's watch existed.
  void Walk(int dirFd, int wd, const std::string& relative, bool report, int depth) {
    Fd listFd(::dup(dirFd));
    if (listFd.fd < 0) return;
    DIR* dir = ::fdopendir(listFd.fd);
    if (!dir) return;
    listFd.fd = -1;  // owned by dir now
    ::rewinddir(dir);  // the duplicate shares its position with dirFd, which may have been read before
    std::vector<std::string> subdirectories;
    while (dirent* entry = ::readdir(dir)) {
      const char* n = entry->d_name;
      if (n[0] == '.' && (n[1] == 0 || (n[1] == '.' && n[2] == 0))) continue;
      bool isDir = entry->d_type == DT_DIR;
      if (entry->d_type == DT_UNKNOWN) {
        struct stat st;
        isDir = ::fstatat(dirFd, n, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(st.st_mode);
      }
      if (report) Push(STATE::CREATED, JoinPath(relative, n), isDir);
      if (isDir && recursive) subdirectories.emplace_back(n);
    }
    ::closedir(dir);
    for (const std::string& name : subdirectories) {
      if (stopping) return;
      const std::string childPath = JoinPath(relative, name);
      if (depth >= kMaxDepth) {
        ReportLimit(childPath);
        continue;
      }
      Fd child(OpenDirectoryAt(dirFd, name.c_str()));
      if (child.fd < 0) {
        // Out of descriptors or memory leaves a directory unwatched like the watch limit does;
        // one that is gone, unreadable or replaced by a symlink is no part of the tree to watch.
        if (IsResourceShortage(errno)) ReportLimit(childPath);
        continue;
      }
      const int childWd = AddWatch(child.fd, wd, name, childPath);
      if (childWd >= 0) Walk(child.fd, childWd, childPath, report, depth + 1);
    }
  }

  // Opens a directory below the root component by component, never following a symlink.
  int OpenRelative(const std::string& relative) const {
    Fd current(::dup(rootFd));
    std::size_t start = 0;
    while (current.fd >= 0 && start < relative.size()) {
      std::size_t end = relative.find('/', start);
      if (end == std::string::npos) end = relative.size();
      const std::string part = relative.substr(start, end - start);
      Fd next(OpenDirectoryAt(current.fd, part.c_str()));
      std::swap(current.fd, next.fd);
      start = end + 1;
    }
    return std::exchange(current.fd, -1);
  }

  // Watches a directory that appeared at `relative` in the directory of `parent`, and the tree
  // below it.
  void WatchNewTree(int parent, const std::string& name, const std::string& relative, bool report) {
    if (!recursive) return;
    Fd fd(OpenRelative(relative));
    if (fd.fd < 0) {
      if (IsResourceShortage(errno)) ReportLimit(relative);
      return;
    }
    const int wd = AddWatch(fd.fd, parent, name, relative);
    if (wd >= 0) Walk(fd.fd, wd, relative, report, static_cast<int>(std::count(relative.begin(), relative.end(), '/')) + 1);
  }

  void ForgetWatch(int wd) {
    auto it = nodes.find(wd);
    if (it == nodes.end()) return;
    auto key = byName.find(Key(it->second.parent, it->second.name));
    if (key != byName.end() && key->second == wd) byName.erase(key);
    nodes.erase(it);
    --watchCount;
  }

  // Removes the watches of a directory that left the tree and of all directories below it.
  void UnwatchTree(int top) {
    std::vector<int> doomed;
    for (const auto& [wd, node] : nodes) {
      for (int up = wd, hops = 0; up >= 0 && hops < 4096; ++hops) {
        if (up == top) {
          doomed.push_back(wd);
          break;
        }
        auto parent = nodes.find(up);
        up = parent == nodes.end() ? -1 : parent->second.parent;
      }
    }
    for (int wd : doomed) {
      ::inotify_rm_watch(inotifyFd, wd);
      ForgetWatch(wd);
    }
  }

  // After an overflow the table may be stale: walk the tree again, keep what is found under
  // its current name, add what is new and drop what is gone.
  void Resynchronise() {
    for (auto& [wd, node] : nodes) node.seen = (wd == rootWd);
    if (rootWd >= 0) Walk(rootFd, rootWd, "", false, 1);
    std::vector<int> gone;
    for (const auto& [wd, node] : nodes) {
      if (!node.seen) gone.push_back(wd);
    }
    for (int wd : gone) {
      ::inotify_rm_watch(inotifyFd, wd);
      ForgetWatch(wd);
    }
  }

  // Turns unresolved rename halves into MOVED_OUT once their join time has passed (or all of
  // them, with force).
  void ExpireRenames(bool force) {
    const double now = MonotonicSeconds();
    for (Pending& p : batch) {
      if (!p.unresolved || (!force && p.deadline > now)) continue;
      p.unresolved = false;
      if (p.movedWd >= 0 && nodes.count(p.movedWd)) UnwatchTree(p.movedWd);
    }
  }

  Pending* FindRename(std::uint32_t cookie) {
    for (Pending& p : batch) {
      if (p.unresolved && p.cookie == cookie) return &p;
    }
    return nullptr;
  }

  void Handle(const inotify_event& ev) {
    if (ev.mask & IN_Q_OVERFLOW) {
      overflowed = true;
      ExpireRenames(true);
      WarningOutput("File monitor of @: the event queue overflowed; the tree needs a rescan.", rootPath);
      Resynchronise();
      Push(STATE::RESCAN, "", true, RESCANREASON::OVERFLOW);
      return;
    }
    if (ev.mask & IN_IGNORED) {
      ForgetWatch(ev.wd);
      return;
    }
    if (!nodes.count(ev.wd)) return;  // a watch already dropped
    if (ev.wd == rootWd && (ev.mask & (IN_DELETE_SELF | IN_MOVE_SELF))) {
      Push(ev.mask & IN_DELETE_SELF ? STATE::DELETED : STATE::MOVED_OUT, "", true);
      return;
    }
    if (ev.len == 0 || ev.name[0] == 0) return;  // a directory's own events are reported by its parent
    const std::string name(ev.name);
    const std::string relative = JoinPath(PathOf(ev.wd), name);
    const bool isDir = ev.mask & IN_ISDIR;
    if (ev.mask & IN_CREATE) {
      Push(STATE::CREATED, relative, isDir);
      if (isDir) WatchNewTree(ev.wd, name, relative, true);
    } else if (ev.mask & IN_CLOSE_WRITE) {
      Push(STATE::MODIFIED, relative, isDir);
    } else if (ev.mask & IN_ATTRIB) {
      Push(STATE::METADATA, relative, isDir);
    } else if (ev.mask & IN_DELETE) {
      Push(STATE::DELETED, relative, isDir);
    } else if (ev.mask & IN_MOVED_FROM) {
      Push(STATE::MOVED_OUT, relative, isDir);
      Pending& p = batch.back();
      p.unresolved = true;
      p.cookie = ev.cookie;
      if (isDir) {
        auto moved = byName.find(Key(ev.wd, name));
        if (moved != byName.end()) p.movedWd = moved->second;
      }
      p.deadline = MonotonicSeconds() + options.renameJoinSeconds;
    } else if (ev.mask & IN_MOVED_TO) {
      if (Pending* from = FindRename(ev.cookie)) {
        from->unresolved = false;
        from->event.state = STATE::RENAMED;
        from->event.from = from->event.url;
        from->event.url = UrlOf(relative);
        if (isDir) MoveWatch(from->movedWd, ev.wd, name, relative);
      } else {
        Push(STATE::MOVED_IN, relative, isDir);
        if (isDir) WatchNewTree(ev.wd, name, relative, false);
      }
    }
  }

  // A watched directory was renamed inside the tree: its watches stay, only its place changes.
  void MoveWatch(int wd, int toParent, const std::string& toName, const std::string& relative) {
    auto node = nodes.find(wd);
    if (node == nodes.end()) {
      WatchNewTree(toParent, toName, relative, false);  // it wasn't watched (limit, depth)
      return;
    }
    auto key = byName.find(Key(node->second.parent, node->second.name));
    if (key != byName.end() && key->second == wd) byName.erase(key);
    byName[Key(toParent, toName)] = wd;
    node->second.parent = toParent;
    node->second.name = toName;
  }

  // Hands the resolved events at the front of the batch to the delegate, with no lock held.
  void Deliver() {
    for (;;) {
      Event event;
      {
        std::lock_guard guard(tableLock);
        if (stopping || batch.empty() || batch.front().unresolved) return;
        event = std::move(batch.front().event);
        batch.pop_front();
      }
      try {
        delegate(event);
      } catch (const std::exception& e) {
        CriticalOutput("File monitor delegate for @ threw: @", rootPath, e.what());
      } catch (...) {
        CriticalOutput("File monitor delegate for @ threw.", rootPath);
      }
    }
  }

  // The monitor thread. Holds a reference of its own, so a delegate may destroy the monitor.
  static void Run(std::shared_ptr<Impl> self) {
    t_monitor = self.get();
    self->Loop();
  }

  void Wake() {
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = ::write(wakeFd, &one, sizeof one);
  }

  void RequestStop() {
    stopping = true;
    Wake();
  }

  // The watch descriptor of the watched directory at `relative`, or -1.
  int FindWatch(const std::string& relative) const {
    int wd = rootWd;
    for (std::size_t start = 0; wd >= 0 && start < relative.size();) {
      std::size_t end = relative.find('/', start);
      if (end == std::string::npos) end = relative.size();
      auto it = byName.find(Key(wd, relative.substr(start, end - start)));
      wd = it == byName.end() ? -1 : it->second;
      start = end + 1;
    }
    return wd;
  }

  bool WatchEntered(const std::string& relative, int directoryFd) {
    if (relative.empty()) return rootWd >= 0;
    if (!recursive || stopping) return false;
    const auto slash = relative.rfind('/');
    const std::string name = slash == std::string::npos ? relative : relative.substr(slash + 1);
    std::lock_guard guard(tableLock);
    const std::size_t queued = batch.size();
    int wd = -1;
    if (const int parent = FindWatch(slash == std::string::npos ? std::string() : relative.substr(0, slash));
        parent >= 0) {
      if (std::count(relative.begin(), relative.end(), '/') + 1 >= kMaxDepth) {
        ReportLimit(relative);
      } else {
        Fd own(directoryFd < 0 ? OpenRelative(relative) : -1);
        if (directoryFd < 0 && own.fd < 0) {
          if (IsResourceShortage(errno)) ReportLimit(relative);
        } else {
          wd = AddWatch(directoryFd < 0 ? own.fd : directoryFd, parent, name, relative);
        }
      }
    }
    if (batch.size() != queued) Wake();  // the limit's RESCAN waits for delivery
    return wd >= 0;
  }

  // Waits until the monitor thread has ended. REQUIRES: not on the monitor thread.
  void Join() {
    std::unique_lock lock(stopLock);
    if (!thread.joinable()) {
      joinedCv.wait(lock, [&] { return !joining; });
      return;
    }
    std::thread running = std::move(thread);
    joining = true;
    lock.unlock();
    running.join();
    lock.lock();
    joining = false;
    joinedCv.notify_all();
  }

  void Loop() {
    alignas(inotify_event) char buffer[64 * 1024];
    Deliver();
    while (!stopping) {
      int timeoutMs = -1;
      {
        std::lock_guard guard(tableLock);
        for (const Pending& p : batch) {
          if (p.unresolved) {
            timeoutMs = std::max(1, static_cast<int>((p.deadline - MonotonicSeconds()) * 1000.0) + 1);
            break;
          }
        }
      }
      pollfd fds[2] = {{wakeFd, POLLIN, 0}, {inotifyFd, POLLIN, 0}};
      const int ready = ::poll(fds, 2, timeoutMs);
      if (stopping) break;
      if (ready < 0) {
        if (errno == EINTR) continue;
        CriticalOutput("File monitor of @ stops: poll failed: @", rootPath, ErrnoText(errno));
        break;
      }
      if (fds[0].revents & POLLIN) {
        std::uint64_t count = 0;
        [[maybe_unused]] const ssize_t drained = ::read(wakeFd, &count, sizeof count);
      }
      std::unique_lock guard(tableLock);
      if (fds[1].revents & POLLIN) {
        const ssize_t n = ::read(inotifyFd, buffer, sizeof buffer);
        if (n < 0 && errno != EINTR && errno != EAGAIN) {
          CriticalOutput("File monitor of @ stops: read failed: @", rootPath, ErrnoText(errno));
          break;
        }
        for (ssize_t offset = 0; n > 0 && offset < n;) {
          const auto* ev = reinterpret_cast<const inotify_event*>(buffer + offset);
          Handle(*ev);
          offset += static_cast<ssize_t>(sizeof(inotify_event) + ev->len);
        }
      }
      ExpireRenames(false);
      guard.unlock();
      Deliver();
    }
  }
};

Result<std::unique_ptr<FileMonitor>> FileMonitor::WatchDirectory(const Url& directory, bool recursive, Delegate delegate,
                                                                 const Options& options) {
  KELVO_ASSIGN_OR_RETURN(Url url, directory.Normalize());
  if (url.GetScheme() != "file") return UnsupportedArgumentError("Can't watch @: not a local directory.", directory);
  if (!delegate) return IllegalArgumentError("Illegal argument: Condition delegate not fulfilled. ");
  auto impl = std::make_shared<Impl>();
  impl->rootUrl = url;
  impl->rootPath = url.GetPath();
  while (impl->rootPath.size() > 1 && impl->rootPath.back() == '/') impl->rootPath.pop_back();
  impl->recursive = recursive;
  impl->options = options;
  impl->delegate = std::move(delegate);

  impl->rootFd = ::open(impl->rootPath.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (impl->rootFd < 0) return IoError("Can't watch @: @", impl->rootPath, ErrnoText(errno));
  impl->inotifyFd = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (impl->inotifyFd < 0) return IoError("Can't watch @: inotify: @", impl->rootPath, ErrnoText(errno));
  impl->wakeFd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (impl->wakeFd < 0) return IoError("Can't watch @: eventfd: @", impl->rootPath, ErrnoText(errno));
  impl->viaProc = ::access("/proc/self/fd", X_OK) == 0;

  impl->rootWd = impl->AddWatch(impl->rootFd, -1, "", "");
  if (impl->rootWd >= 0) {
    if (!(recursive && options.callerWalks))
      impl->Walk(impl->rootFd, impl->rootWd, "", false, 1);
  } else if (!impl->limitReached) {
    return IoError("Can't watch @: @", impl->rootPath, ErrnoText(errno));
  }
  try {
    std::lock_guard guard(impl->stopLock);
    impl->thread = std::thread(&Impl::Run, impl);
  } catch (const std::exception& e) {
    return IoError("Can't watch @: no monitor thread: @", impl->rootPath, e.what());
  }
  return std::unique_ptr<FileMonitor>(new FileMonitor(std::move(impl)));
}

bool FileMonitor::WatchEntered(const std::string& relative, int directoryFd) {
  return _impl->options.callerWalks && _impl->WatchEntered(relative, directoryFd);
}

void FileMonitor::Stop() {
  _impl->RequestStop();
  // From the delegate: the running delegate finishes, no other starts, and a later Stop or the
  // destructor on another thread joins.
  if (t_monitor != _impl.get()) _impl->Join();
}

FileMonitor::~FileMonitor() {
  _impl->RequestStop();
  if (t_monitor != _impl.get()) {
    _impl->Join();
    return;
  }
  // Destroyed by its own delegate: the thread holds the state and ends when the delegate returns.
  std::lock_guard guard(_impl->stopLock);
  if (_impl->thread.joinable()) _impl->thread.detach();
}

FileMonitor::Status FileMonitor::GetStatus() const {
  return Status{_impl->limitReached.load(), _impl->overflowed.load(), _impl->watchCount.load()};
}

const Url& FileMonitor::GetUrl() const { return _impl->rootUrl; }

std::string ToString(FileMonitor::STATE state) {
  switch (state) {
  case FileMonitor::STATE::RESCAN: return "RESCAN";
  case FileMonitor::STATE::MODIFIED: return "MODIFIED";
  case FileMonitor::STATE::DELETED: return "DELETED";
  case FileMonitor::STATE::METADATA: return "METADATA";
  case FileMonitor::STATE::RENAMED: return "RENAMED";
  case FileMonitor::STATE::CREATED: return "CREATED";
  case FileMonitor::STATE::MOVED_IN: return "MOVED_IN";
  case FileMonitor::STATE::MOVED_OUT: return "MOVED_OUT";
  }
  return "?";
}

} // namespace kelvo

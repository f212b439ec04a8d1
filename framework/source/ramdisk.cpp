#include "kelvo/ramdisk.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <map>
#include <optional>
#include <set>
#include <shared_mutex>
#include <unordered_map>

#include "kelvo/job_queue.h"
#include "ramdisk_tree.h"

namespace kelvo {

namespace {

std::string Join(const std::vector<std::string>& components) {
  std::string path;
  for (const auto& c : components) path += (path.empty() ? "" : "/") + c;
  return path;
}

std::string ErrnoText() { return std::strerror(errno); }

// One fetch of one file; later readers of that file wait for it.
struct FetchState {
  std::mutex lock;
  std::condition_variable done;
  bool finished = false;
  Error error;
  bool stoppedByCaller = false; // the fetching caller's progress delegate ended it
};

enum class MirrorProbe { ABSENT, PRESENT, BLOCKED };

// A mirrored file is a regular file; anything else in its place (a symlink, a directory, a
// FIFO) is never read nor replaced.
MirrorProbe Probe(const std::string& path, std::uint64_t* size = nullptr) {
  struct stat st{};
  if (::lstat(path.c_str(), &st) != 0) return errno == ENOENT ? MirrorProbe::ABSENT : MirrorProbe::BLOCKED;
  if (!S_ISREG(st.st_mode)) return MirrorProbe::BLOCKED;
  if (size) *size = static_cast<std::uint64_t>(st.st_size);
  return MirrorProbe::PRESENT;
}

} // namespace

struct RamDisk::MountState {
  Url remote;
  RamDiskTree tree;
  mutable std::shared_mutex lock; // guards mirrorRoot
  std::string mirrorRoot;         // a local path without a trailing "/"

  std::mutex fetchesLock;
  std::unordered_map<std::string, std::shared_ptr<FetchState>> fetches; // by relative path
  bool unsynced = false; // LoadIntoCache fetched since the last SyncMirrors; under fetchesLock

  std::string MirrorRoot() const {
    std::shared_lock guard(lock);
    return mirrorRoot;
  }
  std::string MirrorPath(const std::string& rel) const { return MirrorRoot() + "/" + rel; }
};

// The parts of a disk that the URL handler and the service operations reach.
struct RamDiskAccess {
  static std::shared_ptr<RamDisk::MountState> GetMount(const RamDisk& disk) {
    std::lock_guard guard(disk._lock);
    return disk._mount;
  }
  static std::shared_ptr<HttpFetcher> GetFetcher(const RamDisk& disk) {
    std::lock_guard guard(disk._lock);
    return disk._fetcher;
  }
  static MemoryFileTree& GetMemory(RamDisk& disk) { return disk._memory; }
};

namespace {

using MountState = RamDisk::MountState;

Url FileUrl(const RamDisk& disk, const std::string& rel) {
  return Url(std::string(kRamDiskScheme), rel.empty() ? disk.GetName() : disk.GetName() + "/" + rel);
}

// Creates the directories of rel's parent below the mirror root, refusing any component that
// is not a real directory, so that a planted symlink can't divert a write out of the mirror.
Result<void> MakeMirrorDirectories(const std::string& root, const std::string& rel) {
  // The root itself is the caller's choice of place and is made with its parents.
  KELVO_RETURN_ON_ERROR(Url::FromFile(root).IoCreateDirectory(true));
  std::string path = root;
  std::size_t pos = 0;
  for (std::size_t slash; (slash = rel.find('/', pos)) != std::string::npos; pos = slash + 1) {
    // Appended in two steps: g++ 12 at -O3 warns (-Wrestrict) on "/" + std::string.
    path += '/';
    path.append(rel, pos, slash - pos);
    if (::mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) return IoError("Can't create @: @", path, ErrnoText());
    struct stat st{};
    if (::lstat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
      return IoError("Can't mirror @: @ is not a directory", rel, path);
  }
  return {};
}

void MarkCached(RamDisk& disk, MountState& mount, const std::string& rel) {
  if (mount.tree.SetCached(rel, true)) disk.ObservableLoadIntoCacheChange().Notify(FileUrl(disk, rel), true);
}

// Fetches rel into the mirror unless it is there; returns the mirror path. Concurrent callers for
// one file share one fetch. A caller whose wait ends because the fetching caller's delegate
// stopped it fetches itself, since that stop was not its own.
Result<std::string> EnsureMirrored(RamDisk& disk, MountState& mount, const std::string& rel,
                                   const HttpProgress& progress = {}) {
  for (;;) {
    const std::string root = mount.MirrorRoot();
    const std::string path = root + "/" + rel;
    const MirrorProbe probe = Probe(path);
    if (probe == MirrorProbe::BLOCKED) return IoError("Can't read mirror file @: it is not a regular file", path);
    if (probe == MirrorProbe::PRESENT) {
      MarkCached(disk, mount, rel);
      return path;
    }
    std::shared_ptr<FetchState> fetch;
    bool mine = false;
    {
      std::lock_guard guard(mount.fetchesLock);
      auto [it, inserted] = mount.fetches.try_emplace(rel);
      if (inserted) it->second = std::make_shared<FetchState>();
      fetch = it->second;
      mine = inserted;
    }
    if (!mine) {
      std::unique_lock guard(fetch->lock);
      fetch->done.wait(guard, [&] { return fetch->finished; });
      if (fetch->error && !fetch->stoppedByCaller) return fetch->error;
      continue; // fetched, or stopped by its owner: look again
    }
    Result<void> result;
    bool stoppedByCaller = false;
    HttpProgress watched;
    if (progress)
      watched = [&](std::uint64_t done, std::uint64_t total) -> Result<void> {
        Result<void> r = progress(done, total);
        stoppedByCaller = stoppedByCaller || r.HasError();
        return r;
      };
    // A fetch that ended between the probe and the registration has left the file.
    if (Probe(path) != MirrorProbe::PRESENT) {
      Url remote = mount.remote.Append(PercentEncode(rel, "/")); // names escaped, separators kept
      if (std::optional<DataDictionary> flags = mount.tree.FlagsOf(rel))
        for (const auto& [key, value] : *flags) remote.SetData(key, value);
      // Declared names are checked, so the path stays below the mirror root.
      result = MakeMirrorDirectories(root, rel);
      // The waiters must be woken whatever happens, so nothing may escape from here.
      try {
        if (result.HasValue()) {
          auto fetched = RamDiskAccess::GetFetcher(disk)->FetchToFile(remote, Url::FromFile(path), watched);
          if (fetched.HasError()) result = fetched.GetError();
        }
      } catch (const std::exception& e) {
        result = UnexpectedError("Can't fetch @: @", remote, e.what());
      }
    }
    {
      std::lock_guard guard(mount.fetchesLock);
      mount.fetches.erase(rel);
    }
    {
      std::lock_guard guard(fetch->lock);
      fetch->finished = true;
      fetch->error = result.HasError() ? result.GetError() : Error();
      // The cancel of the fetching caller's job is its own too.
      fetch->stoppedByCaller = stoppedByCaller || (result.HasError() && IsCurrentJobCancelled());
    }
    fetch->done.notify_all();
    if (result.HasError()) return result.GetError();
    mount.tree.SetChecked(rel, false); // a new copy
    MarkCached(disk, mount, rel);
    return path;
  }
}

struct Located {
  RamDiskRef disk;
  std::string rel;
};

// Splits "name/a/b" into the disk and "a/b". Repeated "/" are ignored; "." and ".." are refused.
Result<Located> Locate(const Url& url) {
  if (url.GetScheme() != kRamDiskScheme) return IllegalArgumentError("@ is no RAM disk URL.", url);
  std::vector<std::string> parts;
  std::string_view path = url.GetPath();
  std::size_t pos = 0;
  while (pos <= path.size()) {
    std::size_t next = path.find('/', pos);
    if (next == std::string_view::npos) next = path.size();
    std::string_view part = path.substr(pos, next - pos);
    if (!part.empty()) {
      KELVO_RETURN_ON_ERROR(CheckRamDiskName(part, path));
      parts.emplace_back(part);
    }
    pos = next + 1;
  }
  if (parts.empty()) return IllegalArgumentError("@ names no RAM disk.", url);
  Located located;
  located.disk = RamDiskService::FindExisting(parts.front());
  if (!located.disk) return IoError("@: no RAM disk named @", url, parts.front());
  parts.erase(parts.begin());
  located.rel = Join(parts);
  return located;
}

Error ReadOnlyError(const Url& url, const MountState& mount) {
  return UnsupportedOperationError("Can't change @: the RAM disk mirrors @ and is read-only.", url,
                                   HttpFetcher::ToRequestText(mount.remote).GetValueOr(mount.remote.ToString()));
}

class RamDiskIoHandler final : public IoHandler {
public:
  std::string GetUrlScheme() const override { return std::string(kRamDiskScheme); }

  IODETECT IoDetect(const Url& url) const override {
    Result<Located> at = Locate(url);
    if (at.HasError()) return IODETECT::NONE;
    if (at->rel.empty()) return IODETECT::DIRECTORY;
    auto mount = RamDiskAccess::GetMount(*at->disk);
    if (!mount) return RamDiskAccess::GetMemory(*at->disk).Detect(at->rel);
    return mount->tree.Detect(at->rel);
  }

  Result<std::vector<Url>> IoBrowse(const Url& url) const override {
    KELVO_ASSIGN_OR_RETURN(Located at, Locate(url));
    std::vector<std::string> names;
    if (auto mount = RamDiskAccess::GetMount(*at.disk)) {
      std::optional<std::vector<std::string>> children = mount->tree.Children(at.rel);
      if (!children) return IoError("Can't list @: no such directory", url);
      names = std::move(*children);
    } else {
      MemoryFileTree& memory = RamDiskAccess::GetMemory(*at.disk);
      if (!at.rel.empty() && memory.Detect(at.rel) != IODETECT::DIRECTORY)
        return IoError("Can't list @: no such directory", url);
      names = memory.ChildNames(at.rel);
    }
    std::vector<Url> children;
    children.reserve(names.size());
    for (const std::string& n : names) children.push_back(FileUrl(*at.disk, at.rel.empty() ? n : at.rel + "/" + n));
    return children;
  }

  Result<std::unique_ptr<InputStream>> OpenInputStream(const Url& url) const override {
    KELVO_ASSIGN_OR_RETURN(Located at, Locate(url));
    auto mount = RamDiskAccess::GetMount(*at.disk);
    if (!mount) {
      auto in = RamDiskAccess::GetMemory(*at.disk).Open(at.rel);
      if (!in) return IoError("Can't open @: no such file", url);
      return in;
    }
    if (const IODETECT kind = mount->tree.Detect(at.rel); kind != IODETECT::FILE)
      return IoError(kind == IODETECT::DIRECTORY ? "Can't open @: it is a directory" : "Can't open @: no such file", url);
    // A mirrored file removed between the check and the open is fetched again, once.
    for (int attempt = 0;; ++attempt) {
      KELVO_ASSIGN_OR_RETURN(const std::string path, EnsureMirrored(*at.disk, *mount, at.rel));
      auto in = Url::FromFile(path).OpenInputStream();
      if (in.HasValue() || attempt > 0 || Probe(path) != MirrorProbe::ABSENT) return in;
    }
  }

  Result<std::unique_ptr<OutputStream>> OpenOutputStream(const Url& url) const override {
    KELVO_ASSIGN_OR_RETURN(Located at, Locate(url));
    if (auto mount = RamDiskAccess::GetMount(*at.disk)) return ReadOnlyError(url, *mount);
    if (at.rel.empty()) return IoError("Can't write @: it is the root directory", url);
    return RamDiskAccess::GetMemory(*at.disk).Create(at.rel);
  }

  Result<void> IoCreateDirectory(const Url& url, bool) const override {
    KELVO_ASSIGN_OR_RETURN(Located at, Locate(url));
    if (auto mount = RamDiskAccess::GetMount(*at.disk)) return ReadOnlyError(url, *mount);
    return {}; // directories of the in-memory tree exist as prefixes of their files
  }

  Result<void> IoDelete(const Url& url, bool recursive) const override {
    KELVO_ASSIGN_OR_RETURN(Located at, Locate(url));
    if (auto mount = RamDiskAccess::GetMount(*at.disk)) return ReadOnlyError(url, *mount);
    RamDiskAccess::GetMemory(*at.disk).Delete(at.rel, recursive);
    return {};
  }

  Result<void> IoRename(const Url& from, const Url& to) const override {
    KELVO_ASSIGN_OR_RETURN(Located a, Locate(from));
    KELVO_ASSIGN_OR_RETURN(Located b, Locate(to));
    if (auto mount = RamDiskAccess::GetMount(*a.disk)) return ReadOnlyError(from, *mount);
    if (a.disk != b.disk) return UnsupportedArgumentError("Can't rename @ to @: another RAM disk", from, to);
    if (!RamDiskAccess::GetMemory(*a.disk).Rename(a.rel, b.rel)) return IoError("Can't rename @: no such file", from);
    return {};
  }
};

struct DiskTable {
  std::mutex lock;
  std::map<std::string, RamDiskRef, std::less<>> disks;
  std::uint64_t generated = 0;
};

DiskTable& Disks() {
  static auto* table = new DiskTable();
  return *table;
}

std::string TrimmedPath(const Url& url) {
  std::string p = url.GetPath();
  while (p.size() > 1 && p.back() == '/') p.pop_back();
  return p;
}

} // namespace

RamDisk::RamDisk(std::string name) : _name(std::move(name)), _fetcher(std::make_shared<HttpFetcher>()) {}

Url RamDisk::GetRoot() const { return Url(std::string(kRamDiskScheme), _name); }

void RamDisk::SetHttpOptions(const HttpOptions& options) {
  auto fetcher = std::make_shared<HttpFetcher>(options);
  std::lock_guard guard(_lock);
  _fetcher = std::move(fetcher);
}

Result<RamDisk::DeclareFileDelegate> RamDisk::Mount(const Url& remoteUrl, const Url& mirrorDirectory) {
  KELVO_RETURN_ON_ERROR(HttpFetcher::ToRequestText(remoteUrl));
  if (mirrorDirectory.GetScheme() != "file" || mirrorDirectory.GetPath().empty())
    return IllegalArgumentError("Can't mirror @ in @: not a local directory", remoteUrl, mirrorDirectory);
  KELVO_RETURN_ON_ERROR(mirrorDirectory.IoCreateDirectory(true));
  auto mount = std::make_shared<MountState>();
  mount->remote = remoteUrl;
  mount->mirrorRoot = TrimmedPath(mirrorDirectory);
  {
    std::lock_guard guard(_lock);
    _mount = mount;
  }
  _memory.Clear("");
  return DeclareFileDelegate([mount](const std::vector<std::string>& components, const DataDictionary& flags) {
    return mount->tree.Declare(components, flags);
  });
}

RamDiskRef RamDiskService::FindExisting(std::string_view name) {
  auto& t = Disks();
  std::lock_guard guard(t.lock);
  auto it = t.disks.find(name);
  return it == t.disks.end() ? nullptr : it->second;
}

Result<RamDiskRef> RamDiskService::Create(std::string_view name) {
  if (!name.empty()) KELVO_RETURN_ON_ERROR(CheckRamDiskName(name, name));
  RegisterRamDiskIoHandler();
  auto& t = Disks();
  std::lock_guard guard(t.lock);
  std::string chosen(name);
  while (chosen.empty() || (name.empty() && t.disks.count(chosen))) chosen = "disk-" + std::to_string(++t.generated);
  if (t.disks.count(chosen)) return IllegalStateError("A RAM disk named @ exists already.", chosen);
  auto disk = std::make_shared<RamDisk>(chosen);
  t.disks.emplace(chosen, disk);
  return disk;
}

void RamDiskService::Remove(std::string_view name) {
  RamDiskRef dropped; // released after the lock
  auto& t = Disks();
  std::lock_guard guard(t.lock);
  auto it = t.disks.find(name);
  if (it == t.disks.end()) return;
  dropped = std::move(it->second);
  t.disks.erase(it);
}

Result<void> RamDiskService::ChangeRamDiskMirrorPath(const Url& oldPath, const Url& newPath) {
  if (oldPath.GetScheme() != "file" || newPath.GetScheme() != "file")
    return IllegalArgumentError("Can't move RAM disk mirrors from @ to @: not local directories", oldPath, newPath);
  const std::string from = TrimmedPath(oldPath), to = TrimmedPath(newPath);
  if (from.empty() || to.empty())
    return IllegalArgumentError("Can't move RAM disk mirrors from @ to @: empty path", oldPath, newPath);
  std::vector<RamDiskRef> disks;
  {
    auto& t = Disks();
    std::lock_guard guard(t.lock);
    for (const auto& [name, disk] : t.disks) disks.push_back(disk);
  }
  for (const RamDiskRef& disk : disks) {
    auto mount = RamDiskAccess::GetMount(*disk);
    if (!mount) continue;
    {
      std::unique_lock guard(mount->lock);
      const std::string& root = mount->mirrorRoot;
      if (root != from && !(root.starts_with(from) && (from == "/" || root[from.size()] == '/'))) continue;
      mount->mirrorRoot = to + root.substr(from.size());
    }
    for (const std::string& rel : mount->tree.ForgetCached()) disk->ObservableLoadIntoCacheChange().Notify(FileUrl(*disk, rel), false);
  }
  return {};
}

Result<bool> RamDiskService::IsInCache(const Url& directoryUrl) {
  KELVO_ASSIGN_OR_RETURN(Located at, Locate(directoryUrl));
  auto mount = RamDiskAccess::GetMount(*at.disk);
  if (!mount) return true;
  KELVO_ASSIGN_OR_RETURN(const std::vector<std::string> files, mount->tree.FilesAt(at.rel, directoryUrl));
  return std::all_of(files.begin(), files.end(),
                     [&](const std::string& rel) { return Probe(mount->MirrorPath(rel)) == MirrorProbe::PRESENT; });
}

Result<void> RamDiskService::LoadIntoCache(const Url& directoryUrl, const RamDisk::LoadProgressDelegate& progress) {
  KELVO_ASSIGN_OR_RETURN(Located at, Locate(directoryUrl));
  auto mount = RamDiskAccess::GetMount(*at.disk);
  if (!mount) return {};
  KELVO_ASSIGN_OR_RETURN(const std::vector<std::string> files, mount->tree.FilesAt(at.rel, directoryUrl));
  std::uint64_t done = 0, total = 0;
  std::vector<std::string> missing;
  for (const std::string& rel : files) {
    std::uint64_t size = 0;
    if (Probe(mount->MirrorPath(rel), &size) == MirrorProbe::PRESENT)
      done += size;
    else
      missing.push_back(rel);
  }
  total = done;
  auto report = [&](std::uint64_t d, std::uint64_t t) -> Result<void> { return progress ? progress(d, t) : Result<void>(); };
  KELVO_RETURN_ON_ERROR(report(done, total));
  for (const std::string& rel : missing) {
    const std::uint64_t base = done;
    std::uint64_t announced = 0; // the size that this file has added to total
    std::uint64_t reported = done;
    auto fileProgress = [&](std::uint64_t d, std::uint64_t t) -> Result<void> {
      if (t > announced) {
        total += t - announced;
        announced = t;
      }
      // A retried transfer starts again from 0: what is reported never goes back.
      reported = std::max(reported, base + d);
      total = std::max(total, reported);
      return report(reported, total);
    };
    KELVO_ASSIGN_OR_RETURN(const std::string path, EnsureMirrored(*at.disk, *mount, rel, fileProgress));
    {
      std::lock_guard guard(mount->fetchesLock);
      mount->unsynced = true;
    }
    std::uint64_t size = 0;
    Probe(path, &size);
    total = total - announced + size;
    done = base + size;
    KELVO_RETURN_ON_ERROR(report(done, total));
  }
  return {};
}

Result<void> RamDiskService::DropFromCache(const Url& directoryUrl) {
  KELVO_ASSIGN_OR_RETURN(Located at, Locate(directoryUrl));
  auto mount = RamDiskAccess::GetMount(*at.disk);
  if (!mount) return {};
  KELVO_ASSIGN_OR_RETURN(const std::vector<std::string> files, mount->tree.FilesAt(at.rel, directoryUrl));
  std::vector<std::string> dropped;
  for (const std::string& rel : files) {
    const std::string path = mount->MirrorPath(rel);
    // Only a regular file is ours to remove; anything else in its place is never read either.
    if (Probe(path) == MirrorProbe::PRESENT && ::unlink(path.c_str()) != 0 && errno != ENOENT)
      return IoError("Can't remove mirror file @: @", path, ErrnoText());
    if (mount->tree.SetCached(rel, false)) dropped.push_back(rel);
  }
  for (const std::string& rel : dropped) at.disk->ObservableLoadIntoCacheChange().Notify(FileUrl(*at.disk, rel), false);
  return {};
}

Result<void> RamDiskService::SyncMirrors() {
  std::vector<RamDiskRef> disks;
  {
    auto& t = Disks();
    std::lock_guard guard(t.lock);
    for (const auto& [name, disk] : t.disks) disks.push_back(disk);
  }
  std::set<std::string> roots;
  for (const RamDiskRef& disk : disks) {
    if (auto mount = RamDiskAccess::GetMount(*disk)) {
      std::lock_guard guard(mount->fetchesLock);
      if (std::exchange(mount->unsynced, false)) roots.insert(mount->MirrorRoot());
    }
  }
  // One sync of the file system: syncing each file or directory on its own waits for a journal
  // commit each, seconds for a thousand files.
  for (const std::string& root : roots) {
    const int fd = ::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) continue;  // gone (cleared): nothing to sync
    const int synced = ::syncfs(fd);
    const int error = errno;
    ::close(fd);
    if (synced != 0) return IoError("Can't sync the mirror @: @", root, std::strerror(error));
  }
  return {};
}

Result<void> RamDiskService::CheckMirroredFile(const Url& url, const RamDisk::MirrorCheck& check) {
  KELVO_ASSIGN_OR_RETURN(Located at, Locate(url));
  auto mount = RamDiskAccess::GetMount(*at.disk);
  if (!mount || !check) return {};
  if (!mount->tree.IsChecked(at.rel)) {
    if (const IODETECT kind = mount->tree.Detect(at.rel); kind != IODETECT::FILE)
      return IoError(kind == IODETECT::DIRECTORY ? "Can't check @: it is a directory" : "Can't check @: no such file", url);
    KELVO_ASSIGN_OR_RETURN(const std::string path, EnsureMirrored(*at.disk, *mount, at.rel));
    if (Result<void> checked = check(url, Url::FromFile(path)); checked.HasError()) {
      if (Probe(path) == MirrorProbe::PRESENT) ::unlink(path.c_str());
      if (mount->tree.SetCached(at.rel, false)) at.disk->ObservableLoadIntoCacheChange().Notify(url, false);
      return checked.GetError();
    }
    mount->tree.SetChecked(at.rel, true);
  }
  return {};
}

void RegisterRamDiskIoHandler() {
  static std::once_flag once;
  std::call_once(once, [] { RegisterIoHandler(std::make_shared<RamDiskIoHandler>()); });
}

} // namespace kelvo

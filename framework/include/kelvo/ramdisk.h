#pragma once
// RAM disks: file trees held by the process, reached through URLs of the scheme "ramdisk"
// ("ramdisk:///<disk name>/<path>").
//
// A disk without a mount is an empty, writable in-memory tree. A mounted disk mirrors a server:
// its files are declared with their path and the URL flags of their fetch, without contents. The
// first read of a file fetches it over http(s) into a local mirror directory (atomically, one
// fetch however many readers ask at once) and later reads are served from the mirror, so a file
// once read stays readable without the network. A mounted disk is read-only; browse, directory
// test and reads behave as on a local folder. Declared names never leave the mirror directory:
// empty, ".", "..", and names with "/" or NUL are refused. Everything here is safe for
// concurrent use by multiple threads.

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "kelvo/data.h"
#include "kelvo/http_fetcher.h"
#include "kelvo/memory_io.h"
#include "kelvo/observable.h"
#include "kelvo/result.h"
#include "kelvo/url.h"

namespace kelvo {

inline constexpr std::string_view kRamDiskScheme = "ramdisk";

namespace urlkeys {
// Bool, in the flags of a declaration: the path is a directory (which may stay empty), not a file.
inline const Id ramdisk_directory{"net.kelvo.url.ramdisk.directory"};
} // namespace urlkeys

class RamDisk {
public:
  // Declares one lazy file of a mounted disk: its path components below the root, and the URL
  // data set on its remote URL when it is fetched (urlkeys::http_no_proxy_caching among them).
  // With urlkeys::ramdisk_directory set it declares a directory instead. Fails for a refused
  // name or when a component is already a file or the file a directory. Any thread.
  using DeclareFileDelegate =
      std::function<Result<void>(const std::vector<std::string>& components, const DataDictionary& flags)>;
  // Bytes done and bytes in all; an error stops the transfer and becomes its result.
  using LoadProgressDelegate = std::function<Result<void>(std::uint64_t done, std::uint64_t total)>;
  // Checks the mirrored copy (a "file" URL) of a declared file (its "ramdisk" URL).
  using MirrorCheck = std::function<Result<void>(const Url& file, const Url& mirrored)>;

  explicit RamDisk(std::string name);
  RamDisk(const RamDisk&) = delete;
  RamDisk& operator=(const RamDisk&) = delete;

  const std::string& GetName() const { return _name; }
  // The URL of the tree's root, "ramdisk:///<name>".
  Url GetRoot() const;

  // Binds the disk to remoteUrl (http or https) and the mirror directory (a "file" URL, created
  // when missing), replacing an earlier mount and any in-memory files, and returns the delegate
  // that declares the files of this mount. Fails for other schemes or an unusable directory.
  Result<DeclareFileDelegate> Mount(const Url& remoteUrl, const Url& mirrorDirectory);
  // The transfer settings of later fetches (tests use short time-outs).
  void SetHttpOptions(const HttpOptions& options);

  // Fires with a file's URL and true when the file has been fetched into the mirror, and with
  // false when the mirror was dropped or moved. Called on the thread that made the change.
  Observable<Url, bool>& ObservableLoadIntoCacheChange() { return _loadIntoCacheChange; }

  struct MountState;

private:
  friend struct RamDiskAccess;
  std::string _name;
  mutable std::mutex _lock; // guards _mount and _fetcher
  std::shared_ptr<MountState> _mount; // null for an in-memory disk
  std::shared_ptr<HttpFetcher> _fetcher;
  MemoryFileTree _memory;
  Observable<Url, bool> _loadIntoCacheChange;
};

using RamDiskRef = std::shared_ptr<RamDisk>;

// The process-wide set of disks, by name.
class RamDiskService {
public:
  // The disk of that name, or null.
  static RamDiskRef FindExisting(std::string_view name);
  // A new empty disk. An empty name gets a generated one. Fails when the name is taken or holds
  // "/" or NUL. Registers the "ramdisk" URL scheme on first use.
  static Result<RamDiskRef> Create(std::string_view name);
  // Forgets the disk of that name; its URLs resolve to nothing afterwards.
  static void Remove(std::string_view name);
  // Points every mirror below oldPath to the same place below newPath (files are not copied).
  // With equal paths the mirrors are dropped: their files count as not fetched and are fetched
  // again on their next read.
  static Result<void> ChangeRamDiskMirrorPath(const Url& oldPath, const Url& newPath);
  // True when every file at or below directoryUrl is in the mirror (always for an in-memory
  // disk). An io error for a URL that names nothing.
  static Result<bool> IsInCache(const Url& directoryUrl);
  // Fetches the files at or below directoryUrl that are not mirrored yet, one after another,
  // calling progress with the bytes done and in all (mirrored files count as done; the total
  // grows by a file's size when its transfer starts). Blocks; any thread.
  static Result<void> LoadIntoCache(const Url& directoryUrl, const RamDisk::LoadProgressDelegate& progress);
  // Removes the mirrored copies of the files at or below directoryUrl, so that they count as not
  // fetched (a download that failed its check is not kept). Nothing for an in-memory disk. An io
  // error for a URL that names nothing or a copy that can't be removed. Any thread.
  static Result<void> DropFromCache(const Url& directoryUrl);
  // Makes the files that LoadIntoCache fetched since the last call durable with one sync of the
  // file system of each mirror that got some, so that a batch fetched without a sync per file
  // (HttpOptions::syncFiles off) is on the disk when it returns. Any thread.
  static Result<void> SyncMirrors();
  // Fetches the file at url when it isn't mirrored yet, then runs check on its copy unless the copy
  // has passed a check since this process fetched it or found it in the mirror (where a crash may
  // have left it torn). A failed check removes the copy, so the next read fetches it again, and is
  // the result. Nothing is checked on an in-memory disk. Any thread.
  static Result<void> CheckMirroredFile(const Url& url, const RamDisk::MirrorCheck& check);
};

// Registers the handler for "ramdisk"; calling it again does nothing.
void RegisterRamDiskIoHandler();

} // namespace kelvo

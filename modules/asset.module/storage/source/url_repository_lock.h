#pragma once
// How several processes share one URL repository tree.
//
// - A version directory is made with an exclusive mkdir: two writers never share one. A writer
//   whose number is taken (its list of versions was older than the tree) takes the next free one,
//   so no store overwrites another's content or hash.
// - The advisory lock <root>/.lock (flock) is held only for short steps that must not interleave
//   across processes: making a version directory together with its asset directory and
//   asset.info, removing an asset directory once its last version went, and renewing the change
//   token when a compaction begins.
// - <root>/.changes holds a random token. A repository object that changed the tree renews it when
//   the token it finds is not its own; a compaction renews it when it begins and records it in the
//   index. An opening trusts an index only while the token is the one the index recorded, so a
//   change made after the index (by any process) is never hidden by it.

#include <mutex>
#include <string>

#include "kelvo/result.h"
#include "kelvo/url.h"

namespace kelvo {

// The advisory lock of a repository tree, exclusive across processes and across the threads of
// this process. Non-"file" trees have none: Lock succeeds without locking anything.
class RepositoryTreeLock {
public:
  explicit RepositoryTreeLock(Url root) : _root(std::move(root)) {}
  ~RepositoryTreeLock();
  RepositoryTreeLock(const RepositoryTreeLock&) = delete;
  RepositoryTreeLock& operator=(const RepositoryTreeLock&) = delete;

  class Guard {
  public:
    Guard() = default;
    Guard(Guard&& other) noexcept : _lock(other._lock) { other._lock = nullptr; }
    Guard& operator=(Guard&& other) noexcept;
    ~Guard() { Release(); }
    void Release();

  private:
    friend class RepositoryTreeLock;
    explicit Guard(RepositoryTreeLock* lock) : _lock(lock) {}
    RepositoryTreeLock* _lock = nullptr;
  };
  // Blocks until the lock is held. Errors: the lock file can't be opened or locked.
  Result<Guard> Lock();

private:
  void Unlock();
  Url _root;
  std::mutex _threads; // held while this process holds the file lock
  int _fd = -1;        // opened on first use, kept; guarded by _threads
};

// The change token of a tree (see above). Thread safe.
class RepositoryChangeToken {
public:
  explicit RepositoryChangeToken(Url root) : _file(root.Append(".changes")) {}
  // The token in the tree; empty when there is none.
  std::string Read() const;
  // After a change by this object: renews the token unless it is this object's own.
  Result<void> NoteChange();
  // True when the token in the tree is this object's own.
  bool IsOwn();
  // Writes a fresh token, makes it this object's own and returns it.
  Result<std::string> Renew();

private:
  Url _file;
  std::mutex _lock;
  std::string _own; // guarded by _lock
};

} // namespace kelvo

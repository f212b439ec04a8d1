// The advisory lock and the change token of a URL repository tree.

#include "url_repository_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "asset/core/asset_identity.h"
#include "asset/storage/url_layout.h"

namespace kelvo {

RepositoryTreeLock::~RepositoryTreeLock() {
  if (_fd >= 0) ::close(_fd);
}

RepositoryTreeLock::Guard& RepositoryTreeLock::Guard::operator=(Guard&& other) noexcept {
  if (this != &other) {
    Release();
    _lock = other._lock;
    other._lock = nullptr;
  }
  return *this;
}

void RepositoryTreeLock::Guard::Release() {
  if (_lock) _lock->Unlock();
  _lock = nullptr;
}

Result<RepositoryTreeLock::Guard> RepositoryTreeLock::Lock() {
  _threads.lock();
  if (_root.GetScheme() != "file") return Guard(this);
  if (_fd < 0) {
    const std::string path = _root.Append(".lock").GetPath();
    _fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, 0644);
    if (_fd < 0) {
      const int error = errno;
      _threads.unlock();
      return IoError("Can't open the lock file @: @", path, std::strerror(error));
    }
  }
  while (::flock(_fd, LOCK_EX) != 0) {
    if (errno == EINTR) continue;
    const int error = errno;
    _threads.unlock();
    return IoError("Can't lock the repository @: @", _root, std::strerror(error));
  }
  return Guard(this);
}

void RepositoryTreeLock::Unlock() {
  if (_fd >= 0) (void)::flock(_fd, LOCK_UN);
  _threads.unlock();
}

std::string RepositoryChangeToken::Read() const {
  if (_file.GetScheme() != "file") return {};
  Result<std::string> text = ReadRepositoryFile(_file, 256);
  if (text.HasError()) return {};
  return *text;
}

bool RepositoryChangeToken::IsOwn() {
  if (_file.GetScheme() != "file") return true;
  std::lock_guard guard(_lock);
  return !_own.empty() && Read() == _own;
}

Result<void> RepositoryChangeToken::NoteChange() {
  if (_file.GetScheme() != "file") return {};
  std::lock_guard guard(_lock);
  if (!_own.empty() && Read() == _own) return {};
  KELVO_ASSIGN_OR_RETURN(Id token, MakeUuid("", false));
  KELVO_RETURN_ON_ERROR(_file.WriteAll(token.View()));
  _own = token.ToString();
  return {};
}

Result<std::string> RepositoryChangeToken::Renew() {
  // The new token is nobody's own: the next change of any object, this one included, renews it.
  KELVO_ASSIGN_OR_RETURN(Id token, MakeUuid("", false));
  KELVO_RETURN_ON_ERROR(_file.WriteAll(token.View()));
  return token.ToString();
}

} // namespace kelvo

#include "kelvo/memory_io.h"

#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <set>

namespace kelvo {

using Content = std::shared_ptr<const std::string>;

struct MemoryFileTree::State {
  std::mutex lock;
  std::map<std::string, Content> files; // by key
};

namespace {

// The keys below key start with this prefix.
std::string ChildPrefix(const std::string& key) { return key.empty() ? key : key + "/"; }

class MemoryInputStream final : public InputStream {
public:
  explicit MemoryInputStream(Content content) : _content(std::move(content)) {}
  Result<std::size_t> Read(void* buffer, std::size_t size) override {
    const std::size_t n = std::min(size, _content->size() - _pos);
    std::memcpy(buffer, _content->data() + _pos, n);
    _pos += n;
    return n;
  }
  Result<std::uint64_t> GetSize() override { return static_cast<std::uint64_t>(_content->size()); }

private:
  Content _content;
  std::size_t _pos = 0;
};

// Collects the bytes and publishes them on Close, so readers never see a partial file.
template <typename State> class MemoryOutputStream final : public OutputStream {
public:
  MemoryOutputStream(std::shared_ptr<State> state, std::string key) : _state(std::move(state)), _key(std::move(key)) {}
  Result<void> Write(const void* data, std::size_t size) override {
    if (_closed) return IllegalStateError("Write after close of memory file @.", _key);
    _buffer.append(static_cast<const char*>(data), size);
    return {};
  }
  Result<void> Close() override {
    if (_closed) return {};
    _closed = true;
    std::lock_guard guard(_state->lock);
    _state->files[_key] = std::make_shared<const std::string>(std::move(_buffer));
    return {};
  }

private:
  std::shared_ptr<State> _state;
  std::string _key;
  std::string _buffer;
  bool _closed = false;
};

} // namespace

MemoryFileTree::MemoryFileTree() : _state(std::make_shared<State>()) {}

IODETECT MemoryFileTree::Detect(const std::string& key) const {
  std::lock_guard guard(_state->lock);
  if (!key.empty() && _state->files.count(key)) return IODETECT::FILE;
  const std::string prefix = ChildPrefix(key);
  auto it = _state->files.lower_bound(prefix);
  return it != _state->files.end() && it->first.starts_with(prefix) ? IODETECT::DIRECTORY : IODETECT::NONE;
}

void MemoryFileTree::Delete(const std::string& key, bool recursive) {
  std::lock_guard guard(_state->lock);
  _state->files.erase(key);
  if (!recursive) return;
  const std::string prefix = ChildPrefix(key);
  for (auto it = _state->files.lower_bound(prefix); it != _state->files.end() && it->first.starts_with(prefix);)
    it = _state->files.erase(it);
}

std::vector<std::string> MemoryFileTree::ChildNames(const std::string& key) const {
  const std::string prefix = ChildPrefix(key);
  std::set<std::string> names;
  std::lock_guard guard(_state->lock);
  for (auto it = _state->files.lower_bound(prefix); it != _state->files.end() && it->first.starts_with(prefix); ++it) {
    const std::string rest = it->first.substr(prefix.size());
    names.insert(rest.substr(0, rest.find('/')));
  }
  return {names.begin(), names.end()};
}

bool MemoryFileTree::Rename(const std::string& from, const std::string& to) {
  std::lock_guard guard(_state->lock);
  auto it = _state->files.find(from);
  if (it == _state->files.end()) return false;
  Content c = it->second;
  _state->files.erase(it);
  _state->files[to] = std::move(c);
  return true;
}

std::unique_ptr<InputStream> MemoryFileTree::Open(const std::string& key) const {
  std::lock_guard guard(_state->lock);
  auto it = _state->files.find(key);
  if (it == _state->files.end()) return nullptr;
  return std::make_unique<MemoryInputStream>(it->second);
}

std::unique_ptr<OutputStream> MemoryFileTree::Create(const std::string& key) {
  return std::make_unique<MemoryOutputStream<State>>(_state, key);
}

void MemoryFileTree::Clear(const std::string& prefix) {
  std::lock_guard guard(_state->lock);
  for (auto it = _state->files.lower_bound(prefix); it != _state->files.end() && it->first.starts_with(prefix);)
    it = _state->files.erase(it);
}

namespace {

MemoryFileTree& Files() {
  static auto* files = new MemoryFileTree();
  return *files;
}

std::string Key(const Url& url) {
  std::string p = url.GetPath();
  while (!p.empty() && p.back() == '/') p.pop_back();
  while (!p.empty() && p.front() == '/') p.erase(0, 1);
  return p;
}

class MemoryIoHandler final : public IoHandler {
public:
  std::string GetUrlScheme() const override { return "memory"; }
  IODETECT IoDetect(const Url& url) const override { return Files().Detect(Key(url)); }
  Result<void> IoCreateDirectory(const Url&, bool) const override { return {}; }
  Result<void> IoDelete(const Url& url, bool recursive) const override {
    Files().Delete(Key(url), recursive);
    return {};
  }
  Result<std::vector<Url>> IoBrowse(const Url& url) const override {
    std::vector<Url> children;
    for (const auto& n : Files().ChildNames(Key(url))) children.push_back(url.Append(n));
    return children;
  }
  Result<void> IoRename(const Url& from, const Url& to) const override {
    if (!Files().Rename(Key(from), Key(to))) return IoError("Can't rename @: no such memory file", from);
    return {};
  }
  Result<std::unique_ptr<InputStream>> OpenInputStream(const Url& url) const override {
    auto in = Files().Open(Key(url));
    if (!in) return IoError("Can't open @: no such memory file", url);
    return in;
  }
  Result<std::unique_ptr<OutputStream>> OpenOutputStream(const Url& url) const override {
    return Files().Create(Key(url));
  }
};

} // namespace

void RegisterMemoryIoHandler() {
  static std::once_flag once;
  std::call_once(once, [] { RegisterIoHandler(std::make_shared<MemoryIoHandler>()); });
}

void ClearMemoryFiles(const std::string& prefix) { Files().Clear(prefix); }

} // namespace kelvo

#include "kelvo/memory_io.h"

#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <set>

#include "kelvo/url.h"

namespace kelvo {

namespace {

using Content = std::shared_ptr<const std::string>;

struct MemoryFiles {
  std::mutex lock;
  std::map<std::string, Content> files; // by path, without a trailing "/"
};

MemoryFiles& Files() {
  static auto* files = new MemoryFiles();
  return *files;
}

std::string Key(const Url& url) {
  std::string p = url.GetPath();
  while (!p.empty() && p.back() == '/') p.pop_back();
  while (!p.empty() && p.front() == '/') p.erase(0, 1);
  return p;
}

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
class MemoryOutputStream final : public OutputStream {
public:
  explicit MemoryOutputStream(std::string key) : _key(std::move(key)) {}
  Result<void> Write(const void* data, std::size_t size) override {
    if (_closed) return IllegalStateError("Write after close of memory file @.", _key);
    _buffer.append(static_cast<const char*>(data), size);
    return {};
  }
  Result<void> Close() override {
    if (_closed) return {};
    _closed = true;
    auto& f = Files();
    std::lock_guard guard(f.lock);
    f.files[_key] = std::make_shared<const std::string>(std::move(_buffer));
    return {};
  }

private:
  std::string _key;
  std::string _buffer;
  bool _closed = false;
};

class MemoryIoHandler final : public IoHandler {
public:
  std::string GetUrlScheme() const override { return "memory"; }
  IODETECT IoDetect(const Url& url) const override {
    const std::string key = Key(url);
    auto& f = Files();
    std::lock_guard guard(f.lock);
    if (f.files.count(key)) return IODETECT::FILE;
    auto it = f.files.lower_bound(key + "/");
    return it != f.files.end() && it->first.starts_with(key + "/") ? IODETECT::DIRECTORY : IODETECT::NONE;
  }
  Result<void> IoCreateDirectory(const Url&, bool) const override { return {}; }
  Result<void> IoDelete(const Url& url, bool recursive) const override {
    const std::string key = Key(url);
    auto& f = Files();
    std::lock_guard guard(f.lock);
    f.files.erase(key);
    if (recursive) {
      for (auto it = f.files.lower_bound(key + "/"); it != f.files.end() && it->first.starts_with(key + "/");)
        it = f.files.erase(it);
    }
    return {};
  }
  Result<std::vector<Url>> IoBrowse(const Url& url) const override {
    const std::string prefix = Key(url) + "/";
    std::set<std::string> names;
    {
      auto& f = Files();
      std::lock_guard guard(f.lock);
      for (auto it = f.files.lower_bound(prefix); it != f.files.end() && it->first.starts_with(prefix); ++it) {
        const std::string rest = it->first.substr(prefix.size());
        names.insert(rest.substr(0, rest.find('/')));
      }
    }
    std::vector<Url> children;
    for (const auto& n : names) children.push_back(url.Append(n));
    return children;
  }
  Result<void> IoRename(const Url& from, const Url& to) const override {
    auto& f = Files();
    std::lock_guard guard(f.lock);
    auto it = f.files.find(Key(from));
    if (it == f.files.end()) return IoError("Can't rename @: no such memory file", from);
    Content c = it->second;
    f.files.erase(it);
    f.files[Key(to)] = std::move(c);
    return {};
  }
  Result<std::unique_ptr<InputStream>> OpenInputStream(const Url& url) const override {
    auto& f = Files();
    std::lock_guard guard(f.lock);
    auto it = f.files.find(Key(url));
    if (it == f.files.end()) return IoError("Can't open @: no such memory file", url);
    return std::unique_ptr<InputStream>(std::make_unique<MemoryInputStream>(it->second));
  }
  Result<std::unique_ptr<OutputStream>> OpenOutputStream(const Url& url) const override {
    return std::unique_ptr<OutputStream>(std::make_unique<MemoryOutputStream>(Key(url)));
  }
};

} // namespace

void RegisterMemoryIoHandler() {
  static std::once_flag once;
  std::call_once(once, [] { RegisterIoHandler(std::make_shared<MemoryIoHandler>()); });
}

void ClearMemoryFiles(const std::string& prefix) {
  auto& f = Files();
  std::lock_guard guard(f.lock);
  for (auto it = f.files.lower_bound(prefix); it != f.files.end() && it->first.starts_with(prefix);)
    it = f.files.erase(it);
}

} // namespace kelvo

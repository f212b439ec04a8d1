#include "kelvo/url.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>
#include <mutex>
#include <shared_mutex>

#include "kelvo/data.h"

namespace kelvo {

namespace fs = std::filesystem;

Url::Url(std::string_view text) {
  const auto sep = text.find("://");
  if (sep == std::string_view::npos) {
    if (!text.empty()) {
      _scheme = "file";
      _path = std::string(text);
    }
    return;
  }
  _scheme = std::string(text.substr(0, sep));
  std::string_view rest = text.substr(sep + 3);
  const auto q = rest.find('?');
  if (q != std::string_view::npos) {
    SetQuery(rest.substr(q + 1));
    rest = rest.substr(0, q);
  }
  if (_scheme != "file" && !rest.empty() && rest.front() == '/') rest.remove_prefix(1);
  _path = std::string(rest);
}

Url::Url(std::string scheme, std::string path) : _scheme(std::move(scheme)), _path(std::move(path)) {}

Url Url::FromFile(std::string_view path) { return Url("file", std::string(path)); }

std::string Url::GetName() const {
  std::string_view p = _path;
  while (p.size() > 1 && p.back() == '/') p.remove_suffix(1);
  const auto slash = p.rfind('/');
  return std::string(slash == std::string_view::npos ? p : p.substr(slash + 1));
}

void Url::SetName(std::string_view name) {
  const auto slash = _path.rfind('/');
  _path = (slash == std::string::npos ? std::string() : _path.substr(0, slash + 1)) + std::string(name);
}

std::string Url::GetSuffix() const {
  const std::string name = GetName();
  const auto dot = name.rfind('.');
  return dot == std::string::npos ? std::string() : name.substr(dot + 1);
}

void Url::SetSuffix(std::string_view suffix) {
  std::string name = GetName();
  const auto dot = name.rfind('.');
  if (dot != std::string::npos) name.resize(dot);
  if (!suffix.empty()) name += "." + std::string(suffix);
  SetName(name);
}

Url Url::GetDirectory() const {
  if (_scheme != "file" && !_scheme.empty()) {
    if (auto h = FindIoHandler(_scheme)) return h->RemoveUrl(*this);
  }
  return GetDirectoryPlain();
}

Url Url::GetDirectoryPlain() const {
  Url u = *this;
  u._data.reset();
  std::string p = _path;
  while (p.size() > 1 && p.back() == '/') p.pop_back();
  const auto slash = p.rfind('/');
  if (slash == std::string::npos)
    p.clear();
  else if (slash == 0)
    p = "/";
  else
    p.resize(slash);
  u._path = std::move(p);
  return u;
}

Url Url::Append(std::string_view relative) const {
  Url u = *this;
  u._data.reset();
  u.AppendInPlace(relative);
  return u;
}

void Url::AppendInPlace(std::string_view relative) {
  if (_scheme != "file" && !_scheme.empty()) {
    if (auto h = FindIoHandler(_scheme)) {
      Url joined = h->AppendUrl(*this, relative);
      _scheme = std::move(joined._scheme);
      _path = std::move(joined._path);
      _data = std::move(joined._data);
      return;
    }
  }
  AppendPlainInPlace(relative);
}

void Url::AppendPlainInPlace(std::string_view relative) {
  while (!relative.empty() && relative.front() == '/') relative.remove_prefix(1);
  if (relative.empty()) return;
  if (!_path.empty() && _path.back() != '/') _path += '/';
  _path += relative;
}

std::string Url::ToString() const {
  if (_scheme.empty()) return _path;
  std::string text = _scheme + (!_path.empty() && _path.front() == '/' ? "://" : ":///") + _path;
  const std::string q = GetQuery();
  if (!q.empty()) text += "?" + q;
  return text;
}

int Url::Compare(const Url& other) const {
  if (int c = _scheme.compare(other._scheme)) return c;
  if (int c = _path.compare(other._path)) return c;
  return GetQuery().compare(other.GetQuery());
}

Data Url::GetData(const Id& key) const { return _data ? _data->GetData(key) : Data(); }

void Url::SetData(const Id& key, const Data& value) {
  auto copy = _data ? std::make_shared<DataDictionary>(*_data) : std::make_shared<DataDictionary>();
  if (value.IsEmpty())
    copy->EraseData(key);
  else
    copy->SetData(key, value);
  _data = copy->IsEmpty() ? nullptr : std::shared_ptr<const DataDictionary>(std::move(copy));
}

void Url::EraseData(const Id& key) { SetData(key, Data()); }

std::string Url::GetQuery() const {
  if (!_data) return std::string();
  auto q = _data->Get<std::string>(urlkeys::query);
  return q ? *q : std::string();
}

void Url::SetQuery(std::string_view query) {
  SetData(urlkeys::query, query.empty() ? Data() : Data(std::string(query)));
}

// ---- handler registry -------------------------------------------------------------------------

namespace {

struct HandlerTable {
  std::shared_mutex lock;
  std::map<std::string, std::shared_ptr<const IoHandler>, std::less<>> handlers;
};

HandlerTable& Handlers();

Result<std::shared_ptr<const IoHandler>> HandlerFor(const Url& url) {
  auto h = FindIoHandler(url.GetScheme());
  if (!h) return UnsupportedOperationError("No I/O handler for the scheme of @.", url);
  return h;
}

} // namespace

void RegisterIoHandler(std::shared_ptr<const IoHandler> handler) {
  auto& t = Handlers();
  std::unique_lock guard(t.lock);
  t.handlers[handler->GetUrlScheme()] = std::move(handler);
}

void UnregisterIoHandler(std::string_view scheme) {
  auto& t = Handlers();
  std::unique_lock guard(t.lock);
  auto it = t.handlers.find(scheme);
  if (it != t.handlers.end()) t.handlers.erase(it);
}

std::shared_ptr<const IoHandler> FindIoHandler(std::string_view scheme) {
  auto& t = Handlers();
  std::shared_lock guard(t.lock);
  auto it = t.handlers.find(scheme);
  return it == t.handlers.end() ? nullptr : it->second;
}

Result<void> IoHandler::IoCreateDirectory(const Url& url, bool) const {
  return UnsupportedOperationError("Can't create a directory at @.", url);
}
Result<void> IoHandler::IoDelete(const Url& url, bool) const { return UnsupportedOperationError("Can't delete @.", url); }
Result<std::vector<Url>> IoHandler::IoBrowse(const Url& url) const {
  return UnsupportedOperationError("Can't list @.", url);
}
Result<void> IoHandler::IoRename(const Url& from, const Url&) const {
  return UnsupportedOperationError("Can't rename @.", from);
}
Result<std::unique_ptr<OutputStream>> IoHandler::OpenOutputStream(const Url& url) const {
  return UnsupportedOperationError("Can't write to @.", url);
}

IODETECT Url::IoDetect() const {
  auto h = FindIoHandler(_scheme);
  return h ? h->IoDetect(*this) : IODETECT::NONE;
}
Result<void> Url::IoCreateDirectory(bool recursive) const {
  KELVO_ASSIGN_OR_RETURN(auto h, HandlerFor(*this));
  return h->IoCreateDirectory(*this, recursive);
}
Result<void> Url::IoDelete(bool recursive) const {
  KELVO_ASSIGN_OR_RETURN(auto h, HandlerFor(*this));
  return h->IoDelete(*this, recursive);
}
Result<std::vector<Url>> Url::IoBrowse() const {
  KELVO_ASSIGN_OR_RETURN(auto h, HandlerFor(*this));
  return h->IoBrowse(*this);
}
Result<void> Url::IoRename(const Url& to) const {
  KELVO_ASSIGN_OR_RETURN(auto h, HandlerFor(*this));
  return h->IoRename(*this, to);
}
Result<std::unique_ptr<InputStream>> Url::OpenInputStream() const {
  KELVO_ASSIGN_OR_RETURN(auto h, HandlerFor(*this));
  return h->OpenInputStream(*this);
}
Result<std::unique_ptr<OutputStream>> Url::OpenOutputStream() const {
  KELVO_ASSIGN_OR_RETURN(auto h, HandlerFor(*this));
  return h->OpenOutputStream(*this);
}
Result<Url> Url::Normalize() const {
  KELVO_ASSIGN_OR_RETURN(auto h, HandlerFor(*this));
  return h->Normalize(*this);
}

Result<std::string> Url::ConvertToUiName(std::uint32_t flags) const {
  auto h = FindIoHandler(_scheme);
  if (!h) return ToString();
  return h->ConvertToUiName(*this, flags);
}

Url IoHandler::AppendUrl(const Url& url, std::string_view relative) const {
  Url u = url;
  u.AppendPlainInPlace(relative);
  return u;
}

Result<std::string> Url::ReadAll() const {
  KELVO_ASSIGN_OR_RETURN(auto in, OpenInputStream());
  std::string content;
  char buffer[65536];
  for (;;) {
    KELVO_ASSIGN_OR_RETURN(std::size_t n, in->Read(buffer, sizeof(buffer)));
    if (n == 0) break;
    content.append(buffer, n);
  }
  return content;
}

Result<void> Url::WriteAll(std::string_view content) const {
  if (_scheme == "file") {
    // A hidden name in the same directory: listings pass over it, and the rename stays on one
    // file system.
    static std::atomic<unsigned> counter{0};
    Url temp = *this;
    temp.SetName("." + GetName() + ".tmp-" + std::to_string(::getpid()) + "-" + std::to_string(++counter));
    KELVO_ASSIGN_OR_RETURN(auto out, temp.OpenOutputStream());
    auto written = out->Write(content.data(), content.size());
    auto closed = out->Close();
    if (written.HasError() || closed.HasError()) {
      (void)temp.IoDelete();
      return written.HasError() ? written.GetError() : closed.GetError();
    }
    auto renamed = temp.IoRename(*this);
    if (renamed.HasError()) (void)temp.IoDelete();
    return renamed;
  }
  KELVO_ASSIGN_OR_RETURN(auto out, OpenOutputStream());
  KELVO_RETURN_ON_ERROR(out->Write(content.data(), content.size()));
  return out->Close();
}

// ---- streams ------------------------------------------------------------------------------------

namespace {

class NullOutputStream final : public OutputStream {
public:
  Result<void> Write(const void*, std::size_t) override { return {}; }
  Result<void> Close() override { return {}; }
};

std::string ErrnoText(int e) { return std::strerror(e); }

class FileInputStream final : public InputStream {
public:
  FileInputStream(int fd, Url url) : _fd(fd), _url(std::move(url)) {}
  ~FileInputStream() override { ::close(_fd); }
  Result<std::size_t> Read(void* buffer, std::size_t size) override {
    for (;;) {
      const ssize_t n = ::read(_fd, buffer, size);
      if (n >= 0) return static_cast<std::size_t>(n);
      if (errno != EINTR) return IoError("Can't read @: @", _url, ErrnoText(errno));
    }
  }
  Result<std::uint64_t> GetSize() override {
    struct stat st{};
    if (::fstat(_fd, &st) != 0) return IoError("Can't stat @: @", _url, ErrnoText(errno));
    return static_cast<std::uint64_t>(st.st_size);
  }

private:
  int _fd;
  Url _url;
};

class FileOutputStream final : public OutputStream {
public:
  FileOutputStream(int fd, Url url) : _fd(fd), _url(std::move(url)) {}
  ~FileOutputStream() override {
    if (_fd >= 0) ::close(_fd);
  }
  Result<void> Write(const void* data, std::size_t size) override {
    const char* p = static_cast<const char*>(data);
    while (size > 0) {
      const ssize_t n = ::write(_fd, p, size);
      if (n < 0) {
        if (errno == EINTR) continue;
        return IoError("Can't write @: @", _url, ErrnoText(errno));
      }
      p += n;
      size -= static_cast<std::size_t>(n);
    }
    return {};
  }
  Result<void> Close() override {
    if (_fd < 0) return {};
    const int fd = _fd;
    _fd = -1;
    if (::close(fd) != 0) return IoError("Can't close @: @", _url, ErrnoText(errno));
    return {};
  }

private:
  int _fd;
  Url _url;
};

class FileIoHandler final : public IoHandler {
public:
  std::string GetUrlScheme() const override { return "file"; }
  IODETECT IoDetect(const Url& url) const override {
    struct stat st{};
    if (::stat(url.GetPath().c_str(), &st) != 0) return IODETECT::NONE;
    return S_ISDIR(st.st_mode) ? IODETECT::DIRECTORY : IODETECT::FILE;
  }
  Result<void> IoCreateDirectory(const Url& url, bool recursive) const override {
    std::error_code ec;
    if (recursive)
      fs::create_directories(url.GetPath(), ec);
    else
      fs::create_directory(url.GetPath(), ec);
    if (ec) return IoError("Can't create directory @: @", url, ec.message());
    if (IoDetect(url) != IODETECT::DIRECTORY) return IoError("Can't create directory @: a file is in the way", url);
    return {};
  }
  Result<void> IoDelete(const Url& url, bool recursive) const override {
    std::error_code ec;
    if (recursive)
      fs::remove_all(url.GetPath(), ec);
    else
      fs::remove(url.GetPath(), ec);
    if (ec) return IoError("Can't delete @: @", url, ec.message());
    return {};
  }
  Result<std::vector<Url>> IoBrowse(const Url& url) const override {
    std::error_code ec;
    std::vector<Url> children;
    fs::directory_iterator it(url.GetPath(), ec), end;
    if (ec) return IoError("Can't list @: @", url, ec.message());
    for (; it != end; it.increment(ec)) {
      if (ec) return IoError("Can't list @: @", url, ec.message());
      children.push_back(Url::FromFile(it->path().string()));
    }
    return children;
  }
  Result<void> IoRename(const Url& from, const Url& to) const override {
    if (to.GetScheme() != "file") return UnsupportedArgumentError("Can't rename @ to @.", from, to);
    if (::rename(from.GetPath().c_str(), to.GetPath().c_str()) != 0)
      return IoError("Can't rename @ to @: @", from, to, ErrnoText(errno));
    return {};
  }
  Result<std::unique_ptr<InputStream>> OpenInputStream(const Url& url) const override {
    const int fd = ::open(url.GetPath().c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return IoError("Can't open @: @", url, ErrnoText(errno));
    struct stat st{};
    if (::fstat(fd, &st) == 0 && S_ISDIR(st.st_mode)) {
      ::close(fd);
      return IoError("Can't open @: it is a directory", url);
    }
    return std::unique_ptr<InputStream>(std::make_unique<FileInputStream>(fd, url));
  }
  Result<std::unique_ptr<OutputStream>> OpenOutputStream(const Url& url) const override {
    const int fd = ::open(url.GetPath().c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) return IoError("Can't open @ for writing: @", url, ErrnoText(errno));
    return std::unique_ptr<OutputStream>(std::make_unique<FileOutputStream>(fd, url));
  }
};

HandlerTable& Handlers() {
  static HandlerTable* table = [] {
    auto* t = new HandlerTable();
    t->handlers["file"] = std::make_shared<FileIoHandler>();
    return t;
  }();
  return *table;
}

} // namespace

std::unique_ptr<OutputStream> NewNullOutputStream() { return std::make_unique<NullOutputStream>(); }

std::string PercentEncode(std::string_view text, std::string_view keep) {
  static const char* hex = "0123456789ABCDEF";
  std::string out;
  out.reserve(text.size());
  for (unsigned char c : text) {
    const bool unreserved = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
                            c == '.' || c == '_' || c == '~';
    if (unreserved || (c != 0 && keep.find(static_cast<char>(c)) != std::string_view::npos)) {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += hex[c >> 4];
      out += hex[c & 15];
    }
  }
  return out;
}

Result<std::uint64_t> CopyStream(InputStream& in, OutputStream& out) {
  std::vector<char> buffer(1 << 20);
  std::uint64_t total = 0;
  for (;;) {
    KELVO_ASSIGN_OR_RETURN(std::size_t n, in.Read(buffer.data(), buffer.size()));
    if (n == 0) return total;
    KELVO_RETURN_ON_ERROR(out.Write(buffer.data(), n));
    total += n;
  }
}

} // namespace kelvo

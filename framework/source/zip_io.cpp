#include "kelvo/zip_io.h"

#include <sys/stat.h>
#include <zip.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

namespace kelvo {

namespace {

// At most this many archives stay open in the cache; the least recently used one is closed first
// (streams that still read from it keep it alive).
constexpr std::size_t kMaxCachedArchives = 128;

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

Result<std::string> PercentDecode(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      out += text[i];
      continue;
    }
    const int hi = i + 2 < text.size() ? HexValue(text[i + 1]) : -1;
    const int lo = i + 2 < text.size() ? HexValue(text[i + 2]) : -1;
    if (hi < 0 || lo < 0) return IllegalArgumentError("Malformed escape in zip URL component @.", text);
    out += static_cast<char>(hi * 16 + lo);
    i += 2;
  }
  return out;
}

// Splits "a//b/c/" into "a/b/c"; false when a component is "." or "..".
bool NormalizeInnerPath(std::string_view path, std::string& out) {
  out.clear();
  std::size_t pos = 0;
  while (pos <= path.size()) {
    std::size_t next = path.find('/', pos);
    if (next == std::string_view::npos) next = path.size();
    std::string_view part = path.substr(pos, next - pos);
    if (part == "." || part == "..") return false;
    if (!part.empty()) {
      if (!out.empty()) out += '/';
      out += part;
    }
    pos = next + 1;
  }
  return true;
}

Error ZipError(int code, const Url& archive, std::string_view what) {
  zip_error_t e;
  zip_error_init_with_code(&e, code);
  std::string text = zip_error_strerror(&e);
  zip_error_fini(&e);
  switch (code) {
    case ZIP_ER_NOZIP:
    case ZIP_ER_INCONS:
    case ZIP_ER_CRC:
    case ZIP_ER_COMPNOTSUPP:
    case ZIP_ER_ZLIB:
    case ZIP_ER_ENCRNOTSUPP:
    case ZIP_ER_EOF:
      return FileFormatError("@ @: @", what, archive, text);
    case ZIP_ER_MEMORY:
      return Error(errors::outofmemory, FormatString("@ @: @", what, archive, text));
    default:
      return IoError("@ @: @", what, archive, text);
  }
}

// What tells an archive on disk apart from a later version of it.
struct FileIdentity {
  bool valid = false;
  dev_t dev = 0;
  ino_t ino = 0;
  off_t size = 0;
  std::int64_t mtimeNs = 0;
  bool operator==(const FileIdentity&) const = default;
};

FileIdentity IdentityOf(const Url& archive) {
  FileIdentity id;
  if (archive.GetScheme() != "file") return id;
  struct stat st{};
  if (::stat(archive.GetPath().c_str(), &st) != 0) return id;
  id.valid = true;
  id.dev = st.st_dev;
  id.ino = st.st_ino;
  id.size = st.st_size;
  id.mtimeNs = static_cast<std::int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
  return id;
}

struct ZipEntry {
  zip_uint64_t index = 0;
  zip_uint64_t size = 0;
  bool isDirectory = false;
  bool hasIndex = false; // false for a directory that exists only as a prefix
};

// One opened archive with its listing. The listing is immutable after Open; the zip handle is used
// under lock.
class Archive {
public:
  ~Archive() {
    if (_zip) zip_discard(_zip);
  }

  static Result<std::shared_ptr<Archive>> Open(const Url& archiveUrl, const FileIdentity& identity) {
    auto archive = std::make_shared<Archive>();
    archive->_url = archiveUrl;
    archive->_identity = identity;
    int code = 0;
    if (archiveUrl.GetScheme() == "file") {
      if (archiveUrl.IoDetect() != IODETECT::FILE) return IoError("Zip archive @ doesn't exist.", archiveUrl);
      // A FIFO or device would block the open or never end: only regular files are archives.
      struct stat st{};
      if (::stat(archiveUrl.GetPath().c_str(), &st) != 0 || !S_ISREG(st.st_mode))
        return IoError("Zip archive @ is no regular file.", archiveUrl);
      archive->_zip = zip_open(archiveUrl.GetPath().c_str(), ZIP_RDONLY, &code);
      if (!archive->_zip) return ZipError(code, archiveUrl, "Can't open zip archive");
    } else {
      // An archive behind another scheme is read once into memory.
      KELVO_ASSIGN_OR_RETURN(archive->_buffer, archiveUrl.ReadAll());
      zip_error_t error;
      zip_error_init(&error);
      zip_source_t* source = zip_source_buffer_create(archive->_buffer.data(), archive->_buffer.size(), 0, &error);
      if (!source) {
        code = zip_error_code_zip(&error);
        zip_error_fini(&error);
        return ZipError(code, archiveUrl, "Can't open zip archive");
      }
      archive->_zip = zip_open_from_source(source, ZIP_RDONLY, &error);
      if (!archive->_zip) {
        code = zip_error_code_zip(&error);
        zip_error_fini(&error);
        zip_source_free(source);
        return ZipError(code, archiveUrl, "Can't open zip archive");
      }
      zip_error_fini(&error);
    }
    KELVO_RETURN_ON_ERROR(archive->ReadListing());
    return archive;
  }

  const Url& GetUrl() const { return _url; }
  const FileIdentity& GetIdentity() const { return _identity; }

  const ZipEntry* Find(const std::string& innerPath) const {
    if (innerPath.empty()) return &_root;
    auto it = _entries.find(innerPath);
    return it == _entries.end() ? nullptr : &it->second;
  }
  const std::vector<std::string>* Children(const std::string& innerPath) const {
    auto it = _children.find(innerPath);
    return it == _children.end() ? nullptr : &it->second;
  }

  std::mutex& Lock() { return _lock; }
  zip_t* Handle() { return _zip; }

private:
  Result<void> ReadListing() {
    const zip_int64_t count = zip_get_num_entries(_zip, 0);
    if (count < 0) return FileFormatError("Can't list zip archive @.", _url);
    _root.isDirectory = true;
    _children[std::string()];
    std::string normalized;
    for (zip_int64_t i = 0; i < count; ++i) {
      const char* rawName = zip_get_name(_zip, static_cast<zip_uint64_t>(i), ZIP_FL_ENC_RAW);
      if (!rawName) return FileFormatError("Zip archive @ has an unreadable entry name.", _url);
      std::string_view name(rawName);
      const bool isDirectory = !name.empty() && name.back() == '/';
      // Entries that would climb out of the archive's tree are not offered.
      if (!NormalizeInnerPath(name, normalized) || normalized.empty()) continue;
      zip_stat_t st;
      zip_stat_init(&st);
      if (zip_stat_index(_zip, static_cast<zip_uint64_t>(i), 0, &st) != 0)
        return FileFormatError("Can't read entry @ of zip archive @.", name, _url);
      ZipEntry entry;
      entry.index = static_cast<zip_uint64_t>(i);
      entry.size = (st.valid & ZIP_STAT_SIZE) ? st.size : 0;
      entry.isDirectory = isDirectory;
      entry.hasIndex = true;
      AddEntry(normalized, entry);
    }
    for (auto& [dir, names] : _children) std::sort(names.begin(), names.end());
    return {};
  }

  // Adds an entry and the directories above it. A later entry of the same name replaces an
  // earlier one, as unpacking the archive would.
  void AddEntry(const std::string& path, const ZipEntry& entry) {
    auto [it, inserted] = _entries.try_emplace(path, entry);
    if (!inserted) {
      // A directory implied by a file's name and listed later keeps being a directory.
      if (!it->second.hasIndex || entry.isDirectory == it->second.isDirectory) it->second = entry;
      return;
    }
    const auto slash = path.rfind('/');
    const std::string parent = slash == std::string::npos ? std::string() : path.substr(0, slash);
    _children[parent].push_back(slash == std::string::npos ? path : path.substr(slash + 1));
    if (entry.isDirectory) _children[path];
    if (!parent.empty() && !_entries.count(parent)) {
      ZipEntry dir;
      dir.isDirectory = true;
      AddEntry(parent, dir);
    }
  }

  Url _url;
  FileIdentity _identity;
  std::string _buffer;
  zip_t* _zip = nullptr;
  std::mutex _lock;
  ZipEntry _root;
  std::unordered_map<std::string, ZipEntry> _entries;
  std::unordered_map<std::string, std::vector<std::string>> _children;
};

class ArchiveCache {
public:
  Result<std::shared_ptr<Archive>> Get(const Url& archiveUrl) {
    const std::string key = archiveUrl.ToString();
    const FileIdentity identity = IdentityOf(archiveUrl);
    std::shared_ptr<Archive> dropped; // released after the lock
    {
      std::lock_guard guard(_lock);
      auto it = _archives.find(key);
      if (it != _archives.end()) {
        // An archive on disk that is gone or was replaced is opened anew.
        if (it->second.archive->GetIdentity() == identity && (identity.valid || archiveUrl.GetScheme() != "file")) {
          it->second.lastUse = ++_clock;
          return it->second.archive;
        }
        dropped = std::move(it->second.archive);
        _archives.erase(it);
      }
    }
    // Opened without the cache lock, since reading the listing of a large archive takes a while,
    // but one at a time: libzip converts entry times with the C library's time zone state, and
    // two threads that miss the cache for one archive then open it once.
    std::lock_guard openGuard(_openLock);
    {
      std::lock_guard guard(_lock);
      auto it = _archives.find(key);
      if (it != _archives.end() && it->second.archive->GetIdentity() == identity) {
        it->second.lastUse = ++_clock;
        return it->second.archive;
      }
    }
    KELVO_ASSIGN_OR_RETURN(std::shared_ptr<Archive> archive, Archive::Open(archiveUrl, identity));
    std::vector<std::shared_ptr<Archive>> evicted;
    std::lock_guard guard(_lock);
    auto [it, inserted] = _archives.try_emplace(key, Slot{archive, 0});
    if (!inserted) {
      if (it->second.archive->GetIdentity() == identity) {
        it->second.lastUse = ++_clock;
        return it->second.archive;
      }
      evicted.push_back(std::exchange(it->second.archive, archive));
    }
    it->second.lastUse = ++_clock;
    while (_archives.size() > kMaxCachedArchives) {
      auto oldest = std::min_element(_archives.begin(), _archives.end(),
                                     [](const auto& a, const auto& b) { return a.second.lastUse < b.second.lastUse; });
      evicted.push_back(std::move(oldest->second.archive));
      _archives.erase(oldest);
    }
    return archive;
  }

  void Flush() {
    std::unordered_map<std::string, Slot> dropped;
    std::lock_guard guard(_lock);
    dropped.swap(_archives);
  }

private:
  struct Slot {
    std::shared_ptr<Archive> archive;
    std::uint64_t lastUse = 0;
  };
  std::recursive_mutex _openLock; // taken before _lock; recursive because an archive inside an archive opens its outer one
  std::mutex _lock;
  std::unordered_map<std::string, Slot> _archives;
  std::uint64_t _clock = 0;
};

ArchiveCache& Cache() {
  static ArchiveCache* cache = new ArchiveCache();
  return *cache;
}

class ZipInputStream final : public InputStream {
public:
  ZipInputStream(std::shared_ptr<Archive> archive, zip_file_t* file, zip_uint64_t size, Url url)
      : _archive(std::move(archive)), _file(file), _size(size), _url(std::move(url)) {}
  ~ZipInputStream() override {
    std::lock_guard guard(_archive->Lock());
    zip_fclose(_file);
  }
  Result<std::size_t> Read(void* buffer, std::size_t size) override {
    if (size == 0) return std::size_t(0);
    std::lock_guard guard(_archive->Lock());
    const zip_int64_t n = zip_fread(_file, buffer, size);
    if (n < 0) {
      zip_error_t* error = zip_file_get_error(_file);
      return ZipError(error ? zip_error_code_zip(error) : ZIP_ER_READ, _url, "Can't read");
    }
    _read += static_cast<zip_uint64_t>(n);
    if (n == 0 && _read < _size) return FileFormatError("Entry @ ends early.", _url);
    return static_cast<std::size_t>(n);
  }
  Result<std::uint64_t> GetSize() override { return static_cast<std::uint64_t>(_size); }

private:
  std::shared_ptr<Archive> _archive;
  zip_file_t* _file;
  zip_uint64_t _size;
  zip_uint64_t _read = 0;
  Url _url;
};

struct Located {
  std::shared_ptr<Archive> archive;
  std::string innerPath;
};

Result<Located> Locate(const Url& url) {
  KELVO_ASSIGN_OR_RETURN(ZipUrlParts parts, SplitZipUrl(url));
  KELVO_ASSIGN_OR_RETURN(std::shared_ptr<Archive> archive, Cache().Get(parts.archive));
  return Located{std::move(archive), std::move(parts.innerPath)};
}

class ZipIoHandler final : public IoHandler {
public:
  std::string GetUrlScheme() const override { return std::string(kZipScheme); }

  IODETECT IoDetect(const Url& url) const override {
    Result<Located> located = Locate(url);
    if (located.HasError()) return IODETECT::NONE;
    const ZipEntry* entry = located->archive->Find(located->innerPath);
    if (!entry) return IODETECT::NONE;
    return entry->isDirectory ? IODETECT::DIRECTORY : IODETECT::FILE;
  }

  Result<std::vector<Url>> IoBrowse(const Url& url) const override {
    KELVO_ASSIGN_OR_RETURN(Located located, Locate(url));
    const ZipEntry* entry = located.archive->Find(located.innerPath);
    if (!entry) return IoError("Can't list @: no such directory in the archive", url);
    if (!entry->isDirectory) return IoError("Can't list @: not a directory", url);
    std::vector<Url> children;
    if (const std::vector<std::string>* names = located.archive->Children(located.innerPath)) {
      children.reserve(names->size());
      const Url& archiveUrl = located.archive->GetUrl();
      for (const std::string& name : *names)
        children.push_back(MakeZipUrl(archiveUrl, located.innerPath.empty() ? name : located.innerPath + "/" + name));
    }
    return children;
  }

  Result<std::unique_ptr<InputStream>> OpenInputStream(const Url& url) const override {
    KELVO_ASSIGN_OR_RETURN(Located located, Locate(url));
    const ZipEntry* entry = located.archive->Find(located.innerPath);
    if (!entry) return IoError("Can't open @: no such entry in the archive", url);
    if (entry->isDirectory) return IoError("Can't open @: it is a directory", url);
    zip_file_t* file = nullptr;
    {
      std::lock_guard guard(located.archive->Lock());
      file = zip_fopen_index(located.archive->Handle(), entry->index, 0);
      if (!file) {
        zip_error_t* error = zip_get_error(located.archive->Handle());
        return ZipError(error ? zip_error_code_zip(error) : ZIP_ER_READ, url, "Can't open");
      }
    }
    return std::unique_ptr<InputStream>(
        std::make_unique<ZipInputStream>(std::move(located.archive), file, entry->size, url));
  }

  Result<void> IoCreateDirectory(const Url& url, bool) const override {
    return UnsupportedOperationError("Can't create directory @: zip archives are read-only.", url);
  }
  Result<void> IoDelete(const Url& url, bool) const override {
    return UnsupportedOperationError("Can't delete @: zip archives are read-only.", url);
  }
  Result<void> IoRename(const Url& from, const Url&) const override {
    return UnsupportedOperationError("Can't rename @: zip archives are read-only.", from);
  }
  Result<std::unique_ptr<OutputStream>> OpenOutputStream(const Url& url) const override {
    return UnsupportedOperationError("Can't write @: zip archives are read-only.", url);
  }
};

// The archive's URL as the first component: its scheme and path percent-encoded, and its query
// (if any) behind a literal "!", which the encoding never produces. Scheme and path are split
// apart again on "://", so a path with "?" in it survives.
std::string EncodeArchive(const Url& archive) {
  std::string text = PercentEncode(archive.GetScheme() + "://" + archive.GetPath());
  const std::string query = archive.GetQuery();
  if (!query.empty()) {
    // Appended in two steps: g++ 12 at -O3 warns (-Wrestrict) on "!" + std::string.
    text += '!';
    text += PercentEncode(query);
  }
  return text;
}

Result<Url> DecodeArchive(std::string_view text) {
  const auto bang = text.find('!');
  KELVO_ASSIGN_OR_RETURN(std::string main, PercentDecode(text.substr(0, bang)));
  const auto sep = main.find("://");
  if (sep == std::string::npos || sep == 0) return IllegalArgumentError("Malformed archive URL @ in zip URL.", main);
  Url archive(main.substr(0, sep), main.substr(sep + 3));
  if (bang != std::string_view::npos) {
    KELVO_ASSIGN_OR_RETURN(std::string query, PercentDecode(text.substr(bang + 1)));
    archive.SetQuery(query);
  }
  return archive;
}

} // namespace

Url MakeZipUrl(const Url& archive, std::string_view innerPath) {
  std::string path = EncodeArchive(archive);
  std::string inner;
  if (NormalizeInnerPath(innerPath, inner) && !inner.empty()) path += "/" + inner;
  return Url(std::string(kZipScheme), std::move(path));
}

Result<ZipUrlParts> SplitZipUrl(const Url& url) {
  if (url.GetScheme() != kZipScheme) return IllegalArgumentError("@ is no zip URL.", url);
  std::string_view path = url.GetPath();
  while (!path.empty() && path.front() == '/') path.remove_prefix(1);
  const auto slash = path.find('/');
  const std::string_view authority = path.substr(0, slash);
  if (authority.empty()) return IllegalArgumentError("Zip URL @ names no archive.", url);
  ZipUrlParts parts;
  KELVO_ASSIGN_OR_RETURN(parts.archive, DecodeArchive(authority));
  if (slash != std::string_view::npos && !NormalizeInnerPath(path.substr(slash + 1), parts.innerPath))
    return IllegalArgumentError("Zip URL @ leaves the archive.", url);
  return parts;
}

Result<void> CheckZipArchive(const Url& zipUrl) {
  KELVO_ASSIGN_OR_RETURN(ZipUrlParts parts, SplitZipUrl(zipUrl));
  KELVO_RETURN_ON_ERROR(Cache().Get(parts.archive));
  return {};
}

void RegisterZipIoHandler() {
  if (!FindIoHandler(kZipScheme)) RegisterIoHandler(std::make_shared<ZipIoHandler>());
}

void FlushZipArchiveCache() { Cache().Flush(); }

} // namespace kelvo

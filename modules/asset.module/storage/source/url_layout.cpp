// Names and files of the URL repository tree.

#include "asset/storage/url_layout.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <algorithm>
#include <atomic>
#include <filesystem>

#include "asset/core/asset_metadata.h"
#include "data_document.h"
#include "kelvo/hash.h"
#include "kelvo/log.h"

namespace kelvo {

namespace {

std::string LowerAscii(std::string_view s) {
  std::string out(s);
  for (char& c : out)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + ('a' - 'A'));
  return out;
}

bool AllDigits(std::string_view s) {
  return !s.empty() && std::all_of(s.begin(), s.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// The number of a digit string; nothing when it overflows 64 bits.
std::optional<std::uint64_t> ParseNumber(std::string_view s) {
  if (!AllDigits(s)) return std::nullopt;
  std::uint64_t v = 0;
  for (char c : s) {
    const std::uint64_t d = static_cast<std::uint64_t>(c - '0');
    if (v > (~std::uint64_t(0) - d) / 10) return std::nullopt;
    v = v * 10 + d;
  }
  return v;
}

// Matches the suffix of a value file; the kind it adds, or 0.
std::uint32_t KindOfSuffix(std::string_view suffix) {
  if (suffix == ".meta") return AssetMetaData::PERSISTENT;
  if (suffix == ".derived") return AssetMetaData::PERSISTENT | AssetMetaData::DERIVED;
  if (suffix == ".version") return AssetMetaData::PERSISTENT | AssetMetaData::VERSION;
  return 0;
}

} // namespace

std::string AssetIdToDirectoryName(std::string_view aid) {
  std::string out;
  out.reserve(aid.size());
  for (char ch : aid) {
    const unsigned char c = static_cast<unsigned char>(ch);
    if (c >= 'A' && c <= 'Z')
      out += static_cast<char>(c + ('a' - 'A'));
    else if ((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '$' || c == '-' || c == '.' || c == '_')
      out += static_cast<char>(c);
    else
      out += '_';
  }
  return out;
}

std::optional<VersionDirectoryName> ParseVersionDirectoryName(std::string_view name) {
  const std::size_t length = name.size();
  VersionDirectoryName result;
  std::string_view number;
  if (length >= 41 && name[length - 41] == '-') {
    number = name.substr(0, length - 41);
    result.versionId = LowerAscii(name.substr(length - 40));
  } else if (length >= 9 && name.ends_with("-deleted")) {
    number = name.substr(0, length - 8);
    result.versionId = g_deletedVersionId.ToString();
    result.deleted = true;
  } else {
    number = name;
  }
  std::optional<std::uint64_t> n = ParseNumber(number);
  if (!n) return std::nullopt;
  result.number = *n;
  return result;
}

std::optional<MetaFileName> ClassifyMetaFileName(std::string_view name, std::uint32_t baseKind) {
  bool furtherSuffix = false;
  std::string_view rest = name;
  for (int attempt = 0; attempt < 2; ++attempt) {
    const std::size_t dot = rest.rfind('.');
    if (dot == std::string_view::npos) return std::nullopt;
    if (const std::uint32_t kind = KindOfSuffix(rest.substr(dot))) {
      if (dot == 0) return std::nullopt;
      return MetaFileName{std::string(rest.substr(0, dot)), baseKind + kind, furtherSuffix};
    }
    furtherSuffix = true;
    rest = rest.substr(0, dot);
  }
  return std::nullopt;
}

const char* MetaFileSuffix(std::uint32_t kind) {
  if (kind & AssetMetaData::DERIVED) return ".derived";
  if (kind & AssetMetaData::VERSION) return ".version";
  return ".meta";
}

namespace {

// The path of file relative to root when file lies below it; nothing otherwise.
std::optional<std::string> RelativeBelow(const Url& file, const Url& root) {
  if (root.IsEmpty() || file.GetScheme() != "file" || root.GetScheme() != "file") return std::nullopt;
  std::string prefix = root.GetPath();
  if (prefix.empty() || prefix.back() != '/') prefix += '/';
  const std::string& path = file.GetPath();
  if (path.size() <= prefix.size() || !path.starts_with(prefix)) return std::nullopt;
  return path.substr(prefix.size());
}

// openat along relative from dirFd, one component at a time, none of them a symbolic link: the
// stand-in for openat2 where the kernel lacks it.
int OpenComponents(int dirFd, const std::string& relative, int flags) {
  std::size_t start = 0;
  int current = dirFd;
  for (;;) {
    const std::size_t slash = relative.find('/', start);
    const std::string part = relative.substr(start, slash == std::string::npos ? std::string::npos : slash - start);
    if (slash == std::string::npos) {
      const int fd = ::openat(current, part.c_str(), flags | O_NOFOLLOW);
      const int saved = errno;
      if (current != dirFd) ::close(current);
      errno = saved;
      return fd;
    }
    int next = -1;
    if (part == "..") errno = EXDEV;
    else next = ::openat(current, part.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    const int saved = errno;
    if (current != dirFd) ::close(current);
    errno = saved;
    if (next < 0) return -1;
    current = next;
    start = slash + 1;
  }
}

} // namespace

int OpenBeneath(int rootFd, const std::string& relative, int flags) {
  open_how how{};
  how.flags = static_cast<std::uint64_t>(flags | O_NOFOLLOW);
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
  const int fd = static_cast<int>(::syscall(SYS_openat2, rootFd, relative.c_str(), &how, sizeof how));
  if (fd < 0 && (errno == ENOSYS || errno == EPERM)) return OpenComponents(rootFd, relative, flags);
  return fd;
}

int OpenBeneath(const Url& root, const Url& file, int flags) {
  const std::optional<std::string> relative = RelativeBelow(file, root);
  if (!relative) {
    if (!root.IsEmpty() && file.GetScheme() == "file") {
      errno = EXDEV;
      return -1;
    }
    return ::open(file.GetPath().c_str(), flags | O_NOFOLLOW);
  }
  const int rootFd = ::open(root.GetPath().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  if (rootFd < 0) return -1;
  const int fd = OpenBeneath(rootFd, *relative, flags);
  const int saved = errno;
  ::close(rootFd);
  errno = saved;
  return fd;
}

Result<std::string> ReadRepositoryFile(const Url& file, std::size_t limit, const Url& root, int rootFd) {
  std::string content;
  if (file.GetScheme() != "file") {
    KELVO_ASSIGN_OR_RETURN(auto in, file.OpenInputStream());
    char buffer[65536];
    for (;;) {
      KELVO_ASSIGN_OR_RETURN(std::size_t n, in->Read(buffer, sizeof buffer));
      if (n == 0) return content;
      if (content.size() + n > limit) return FileFormatError("@ is larger than @ bytes.", file, limit);
      content.append(buffer, n);
    }
  }
  // O_NONBLOCK: opening a FIFO neither waits for a writer nor reads it (it is refused below).
  constexpr int kFlags = O_RDONLY | O_NONBLOCK | O_CLOEXEC;
  const std::optional<std::string> relative = rootFd >= 0 ? RelativeBelow(file, root) : std::nullopt;
  const int fd = relative ? OpenBeneath(rootFd, *relative, kFlags) : OpenBeneath(root, file, kFlags);
  if (fd < 0) {
    if (errno == ELOOP) return IoError("Can't open @: it is a symbolic link or lies behind one.", file);
    if (errno == EXDEV) return IoError("Can't open @: it lies outside the repository @.", file, root);
    return IoError("Can't open @: @", file, std::strerror(errno));
  }
  struct Closer {
    int fd;
    ~Closer() { ::close(fd); }
  } closer{fd};
  struct stat st{};
  if (::fstat(fd, &st) != 0) return IoError("Can't read @: @", file, std::strerror(errno));
  if (!S_ISREG(st.st_mode)) return IoError("Can't read @: it is no regular file.", file);
  if (static_cast<std::uint64_t>(st.st_size) > limit)
    return FileFormatError("@ is larger than @ bytes (@ bytes).", file, limit, static_cast<std::uint64_t>(st.st_size));
  content.resize(static_cast<std::size_t>(st.st_size));
  std::size_t done = 0;
  while (done < content.size()) {
    const ssize_t n = ::read(fd, content.data() + done, content.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return IoError("Can't read @: @", file, std::strerror(errno));
    if (n == 0) break;
    done += static_cast<std::size_t>(n);
  }
  content.resize(done);
  return content;
}

bool IsReservedRootName(std::string_view name) {
  std::string lower(name);
  for (char& c : lower)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return lower == "_index" || lower == "databaseid" || lower == "version" || lower.starts_with("tmp-") ||
         lower.starts_with("tmpjson-");
}

bool IsSafePathComponent(std::string_view name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string_view::npos &&
         name.find('\0') == std::string_view::npos;
}

bool IsValidIdText(std::string_view text) {
  return !text.empty() && std::none_of(text.begin(), text.end(), [](char c) {
    return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
  });
}

std::optional<AssetInfoLines> ParseAssetInfo(std::string_view text) {
  LineReader reader(text);
  AssetInfoLines lines;
  if (!reader.Next(lines.aid) || !reader.Next(lines.type) || !IsValidIdText(lines.aid) || !IsValidIdText(lines.type))
    return std::nullopt;
  return lines;
}

Result<std::vector<DirectoryEntry>> BrowseDirectory(const Url& dir) {
  std::vector<DirectoryEntry> entries;
  if (dir.GetScheme() == "file") {
    namespace fs = std::filesystem;
    std::error_code ec;
    fs::directory_iterator it(dir.GetPath(), ec), end;
    if (ec) return IoError("Can't list @: @", dir, ec.message());
    for (; it != end; it.increment(ec)) {
      if (ec) return IoError("Can't list @: @", dir, ec.message());
      std::string name = it->path().filename().string();
      if (name.empty() || name.front() == '.') continue;
      DirectoryEntry entry;
      entry.name = std::move(name);
      std::error_code tec;
      entry.isLink = it->is_symlink(tec);
      if (it->is_directory(tec))
        entry.type = IODETECT::DIRECTORY;
      else if (!tec && it->exists(tec))
        entry.type = IODETECT::FILE;
      entries.push_back(std::move(entry));
    }
    return entries;
  }
  KELVO_ASSIGN_OR_RETURN(std::vector<Url> children, dir.IoBrowse());
  for (const Url& child : children) {
    std::string name = child.GetName();
    if (name.empty() || name.front() == '.') continue;
    entries.push_back(DirectoryEntry{std::move(name), child.IoDetect(), false});
  }
  return entries;
}

namespace {

// Files the name of one entry of the version directory dir into result: the incomplete marker,
// a metadata file or the content; hidden names and anything else are skipped.
void AddVersionDirectoryEntry(VersionDirectoryContent& result, const Url& dir, std::string name,
                              std::uint32_t baseKind) {
  if (name == kIncompleteMarker) result.incomplete = true;
  if (name.empty() || name.front() == '.') return;
  if (auto meta = ClassifyMetaFileName(name, baseKind)) {
    result.meta.push_back({std::move(*meta), std::move(name)});
  } else if (name == "asset" || name.starts_with("asset.")) {
    result.content = dir.Append(name);
    result.contentName = std::move(name);
  }
}

} // namespace

Result<VersionDirectoryContent> FindContentUrl(const Url& dir, std::uint32_t baseKind) {
  VersionDirectoryContent result;
  if (dir.GetScheme() == "file") {
    // One listing tells names and the marker; a missing directory is an empty result.
    namespace fs = std::filesystem;
    std::error_code ec;
    fs::directory_iterator it(dir.GetPath(), ec), end;
    if (ec) {
      if (ec == std::errc::no_such_file_or_directory || ec == std::errc::not_a_directory) return result;
      if (dir.IoDetect() != IODETECT::DIRECTORY) return result;
      return IoError("Can't list @: @", dir, ec.message());
    }
    for (; it != end; it.increment(ec)) {
      if (ec) return IoError("Can't list @: @", dir, ec.message());
      std::string name = it->path().filename().string();
      // A link in a version directory could serve or overwrite a file outside the tree.
      std::error_code lec;
      if (it->is_symlink(lec)) {
        WarningOutput("Passing over the symbolic link @ in a version directory.", dir.Append(name));
        continue;
      }
      AddVersionDirectoryEntry(result, dir, std::move(name), baseKind);
    }
    return result;
  }
  if (dir.IoDetect() != IODETECT::DIRECTORY) return result;
  KELVO_ASSIGN_OR_RETURN(std::vector<Url> children, dir.IoBrowse());
  for (const Url& child : children) AddVersionDirectoryEntry(result, dir, child.GetName(), baseKind);
  return result;
}

bool LineReader::Next(std::string& line) {
  if (_pos >= _text.size()) return false;
  line.clear();
  const std::size_t end = _text.find('\n', _pos);
  const std::string_view raw = _text.substr(_pos, end == std::string_view::npos ? std::string_view::npos : end - _pos);
  _pos = end == std::string_view::npos ? _text.size() : end + 1;
  if (raw.find('\r') == std::string_view::npos) {
    line.assign(raw);
    return true;
  }
  line.reserve(raw.size());
  for (char c : raw)
    if (c != '\r') line += c;
  return true;
}


Result<std::optional<Data>> ReadMetaDataFile(const Url& file, bool derived, const Url& root, int rootFd) {
  Result<std::string> bytes = ReadRepositoryFile(file, kMetaDataFileLimit, root, rootFd);
  if (bytes.HasError()) {
    if (file.IoDetect() == IODETECT::NONE) return std::optional<Data>();
    return bytes.GetError();
  }
  auto value = DecodeDocument(*bytes, g_metaDataDocumentId);
  if (value.HasError()) return ErrorWithCause(value.GetError(), errors::fileformat, FormatString("Can't read @.", file));
  if (!derived) return std::optional<Data>(std::move(value).GetValue());
  const DataArray* envelope = value->GetPtr<DataArray>();
  if (!envelope || envelope->size() != 2) return std::optional<Data>();
  const std::string* stamp = (*envelope)[1].GetPtr<std::string>();
  if (!stamp || *stamp != GetDerivedStamp()) return std::optional<Data>();
  return std::optional<Data>((*envelope)[0]);
}

Result<void> WriteMetaDataFile(const Url& file, const Data& value, bool derived) {
  if (!derived) return WriteDocument(file, g_metaDataDocumentId, value, DOCUMENTMODE::TEXT);
  return WriteDocument(file, g_metaDataDocumentId, Data(DataArray{value, Data(GetDerivedStamp())}), DOCUMENTMODE::BINARY);
}

} // namespace kelvo

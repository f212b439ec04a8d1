#pragma once
// The directory tree of a URL repository: names of asset and version directories, metadata file
// names and their kinds, the content of a version directory, content digests, line reading and
// crash-safe file writes. Pure functions of names and files; no repository state.
//
//   <root>/databaseid, <root>/version
//   <root>/<asset directory>/asset.info            asset Id LF type Id LF
//   <root>/<asset directory>/<n>/hash              version Id LF
//   <root>/<asset directory>/<n>/asset[.<suffix>]  content
//   <root>/<asset directory>/<n>/<metaId>.meta|.version|.derived[.<suffix>]

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "asset/core/asset_description.h"
#include "asset/core/content_digest.h"
#include "kelvo/data.h"
#include "kelvo/result.h"
#include "kelvo/url.h"

namespace kelvo {

inline constexpr std::size_t HASH_LEN = 64;
inline const Id g_deletedVersionId{"deleted"};
inline const InternedId g_derivedMetaDataStampId{"net.kelvo.asset.derivedmetadatastamp"};

// "A"-"Z" lowered; "a"-"z", "0"-"9", "$", "-", ".", "_" kept; every other byte "_".
std::string AssetIdToDirectoryName(std::string_view aid);

// True for a name that the repository uses for its own files in the root ("_index", "databaseid",
// "version", the working directories "tmp-..." and "tmpJson-..." of a compaction), in any case.
bool IsReservedRootName(std::string_view name);

// A version directory name: "<n>", "<n>-deleted" or "<n>-<40 characters>" (older form).
struct VersionDirectoryName {
  std::uint64_t number = 0;
  std::string versionId; // empty when it comes from the hash file
  bool deleted = false;
};
// Nothing for a name that is no version directory.
std::optional<VersionDirectoryName> ParseVersionDirectoryName(std::string_view name);

// A metadata file name: "<metaId>.meta", ".version", ".derived", or one of the first two with a
// further suffix (an attached file, isUrl). kind is baseKind plus the kind of the suffix.
struct MetaFileName {
  std::string metaId;
  std::uint32_t kind = 0;
  bool isUrl = false;
};
std::optional<MetaFileName> ClassifyMetaFileName(std::string_view name, std::uint32_t baseKind);
// The suffix of a value file of kind: ".derived", ".version" or ".meta".
const char* MetaFileSuffix(std::uint32_t kind);

// True for a name that stays inside its directory when joined: not empty, not "." or "..", and
// without "/" or NUL. Names read back from the tree are checked with it before use.
bool IsSafePathComponent(std::string_view name);

// True for a line usable as an asset or type Id: not empty, no control characters.
bool IsValidIdText(std::string_view text);

// The first two lines of an asset.info: the asset Id and the type Id as written.
struct AssetInfoLines {
  std::string aid;
  std::string type;
};
// Nothing when the text has fewer than two lines or one of them is no valid Id.
std::optional<AssetInfoLines> ParseAssetInfo(std::string_view text);

struct DirectoryEntry {
  std::string name;
  IODETECT type = IODETECT::NONE;
  bool isLink = false; // a symbolic link; scans pass over links
};
// The entries of a directory, names beginning with "." left out. For "file" URLs the types come
// from the directory listing itself, without a stat per entry.
Result<std::vector<DirectoryEntry>> BrowseDirectory(const Url& dir);

// What a version directory holds: the content and the metadata files (not their values).
struct VersionDirectoryContent {
  Url content;
  std::string contentName;
  struct Meta {
    MetaFileName name;
    std::string fileName;
  };
  std::vector<Meta> meta;
  bool incomplete = false; // a store into it has not finished
};
// Scans dir; an empty result when dir is no directory. The last entry named "asset" or
// "asset.<suffix>" is the content.
Result<VersionDirectoryContent> FindContentUrl(const Url& dir, std::uint32_t baseKind);

// The marker that a store is still writing a version directory; hidden from the scans of names.
inline constexpr const char* kIncompleteMarker = ".incomplete";


// Size limits of the files a repository reads whole: identity files (asset.info, hash, databaseid,
// version), metadata values, and index parts.
inline constexpr std::size_t kSmallFileLimit = 1u << 20;
inline constexpr std::size_t kMetaDataFileLimit = 64u << 20;
inline constexpr std::size_t kIndexFileLimit = 1u << 30;
// Opens a "file" URL with flags (O_NOFOLLOW added). With a root, file must lie below it and no
// component of its path below the root may be a symbolic link (openat2 RESOLVE_BENEATH |
// RESOLVE_NO_SYMLINKS, or an openat chain where the kernel lacks it): -1 with errno ELOOP for a
// link on the way, EXDEV for a file outside root. Without a root only the last component is checked.
int OpenBeneath(const Url& root, const Url& file, int flags);
// The same below an open directory rootFd, for a relative path.
int OpenBeneath(int rootFd, const std::string& relative, int flags);

// Reads a whole file of a repository tree. For "file" URLs only a regular file is read: a FIFO,
// device, directory or symbolic link is refused without blocking (an io error; with a root, a link
// anywhere below it as OpenBeneath says), and a file over limit bytes is a file format error that
// names it. Other schemes read through their handler, to at most limit bytes as well. rootFd, when
// not -1, is root opened already (saves opening it per file).
Result<std::string> ReadRepositoryFile(const Url& file, std::size_t limit, const Url& root = Url(), int rootFd = -1);

// Splits text into lines: LF ends a line, CR is dropped, the end of the text ends the last line.
class LineReader {
public:
  explicit LineReader(std::string_view text) : _text(text) {}
  // False at the end, when nothing is left.
  bool Next(std::string& line);

private:
  std::string_view _text;
  std::size_t _pos = 0;
};

// A metadata value file. A derived file holds the value in an envelope with the derived-data
// stamp; a stamp that isn't the current one, or no envelope, reads as absent. A missing file
// reads as absent; an unreadable one is a file format error. root as for ReadRepositoryFile.
Result<std::optional<Data>> ReadMetaDataFile(const Url& file, bool derived, const Url& root = Url(), int rootFd = -1);
Result<void> WriteMetaDataFile(const Url& file, const Data& value, bool derived);

} // namespace kelvo

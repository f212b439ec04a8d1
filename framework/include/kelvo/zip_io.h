#pragma once
// The "zip" URL scheme: read-only access to the files inside a zip archive, without unpacking it.
//
// A zip URL names the archive and a path inside it. The archive's own URL (any scheme, usually
// "file") is the first path component, percent-encoded, and the path inside follows:
//   zip:///file%3A%2F%2F%2Fdata%2Fdb.zip/basics/databaseid
// The URL with no inner path is the archive's root directory. Directories inside the archive exist
// explicitly ("dir/" entries) or as prefixes of the files' names.
//
// Open archives are cached per archive URL; an archive on disk is opened anew when its size or
// modification time changed. Reads of one archive are serialised; different archives are
// independent. A corrupt or truncated archive gives a fileformat error on open, a damaged entry an
// io or fileformat error on read. Safe for concurrent use by multiple threads.

#include <string>
#include <string_view>

#include "kelvo/result.h"
#include "kelvo/url.h"

namespace kelvo {

inline constexpr std::string_view kZipScheme = "zip";

// The zip URL of innerPath ("a/b", empty for the root) inside the archive at archive.
Url MakeZipUrl(const Url& archive, std::string_view innerPath = {});

struct ZipUrlParts {
  Url archive;
  std::string innerPath; // no leading or trailing "/", empty for the root
};
// Splits a zip URL; an illegal argument error for a URL of another scheme or a malformed one.
Result<ZipUrlParts> SplitZipUrl(const Url& url);

// Opens (or finds in the cache) the archive behind a zip URL and reports why it can't be read: an
// io error when the archive is missing or unreadable, a fileformat error when it is no valid zip.
Result<void> CheckZipArchive(const Url& zipUrl);

// Registers the handler for "zip"; calling it again does nothing.
void RegisterZipIoHandler();

// Closes every cached archive that no open stream uses (tests, and after archives were replaced).
void FlushZipArchiveCache();

} // namespace kelvo

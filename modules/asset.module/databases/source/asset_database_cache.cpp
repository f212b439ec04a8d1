// The cache of remote databases as a whole: where it lies, how large it is, and clearing it.

#include <filesystem>

#include "asset/databases/asset_databases.h"
#include "asset/databases/remote_databases.h"
#include "kelvo/ramdisk.h"
#include "kelvo/settings.h"
#include "remote_database.h"

namespace kelvo {

namespace {

// The bytes of the regular files below path; symbolic links are neither followed nor counted. A
// directory that can't be listed counts 0.
std::uint64_t TreeSize(const std::filesystem::path& path) {
  std::error_code ec;
  std::filesystem::directory_iterator it(path, ec);
  if (ec) return 0;
  std::uint64_t sum = 0;
  for (; it != std::filesystem::directory_iterator(); it.increment(ec)) {
    if (ec) break;
    const std::filesystem::file_status status = it->symlink_status(ec);
    if (ec) continue;
    if (std::filesystem::is_directory(status))
      sum += TreeSize(it->path());
    else if (std::filesystem::is_regular_file(status))
      sum += it->file_size(ec), ec.clear();
  }
  return sum;
}

} // namespace

Url AssetDataBases::GetAssetDatabaseCachePath() { return ReadAssetDatabaseCachePath(); }

Result<void> AssetDataBases::SetAssetDatabaseCachePath(const Url& url) {
  const Url current = ReadAssetDatabaseCachePath();
  if (current == url) return {};
  if (url.GetScheme() != "file" || url.GetPath().empty()) return IllegalArgumentError("Not a valid cache path");
  const IODETECT kind = url.IoDetect();
  if (kind == IODETECT::FILE) return IllegalArgumentError("Not a valid cache path");
  if (kind == IODETECT::DIRECTORY) {
    // Only an empty directory or an existing cache, never a folder with the user's files.
    KELVO_ASSIGN_OR_RETURN(const std::vector<Url> children, url.IoBrowse());
    for (const Url& child : children)
      if (child.IoDetect() != IODETECT::DIRECTORY || child.Append("_index/index.dat").IoDetect() != IODETECT::FILE)
        return IllegalArgumentError("Not a valid cache path");
  }
  KELVO_RETURN_ON_ERROR(Settings::Set(assetdatabasekeys::cachepath, Data(url.ToString())));
  // The files already cached are not moved: live disks fetch again into the new place.
  return RamDiskService::ChangeRamDiskMirrorPath(current, url);
}

std::uint64_t AssetDataBases::GetAssetDatabaseCacheSize() {
  const Url path = ReadAssetDatabaseCachePath();
  if (path.GetScheme() != "file") return 0;
  return TreeSize(path.GetPath());
}

Result<void> AssetDataBases::ClearAssetDatabaseCache() {
  const Url path = ReadAssetDatabaseCachePath();
  KELVO_RETURN_ON_ERROR(path.IoDelete(true));
  // Equal paths: the live disks drop their mirrors and fetch again on the next read.
  if (path.GetScheme() != "file") return {};
  return RamDiskService::ChangeRamDiskMirrorPath(path, path);
}

} // namespace kelvo

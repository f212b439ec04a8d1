// Verification of a URL repository tree: walks the root and each asset directory like the scan,
// but reports what the scan passes over, and hashes every version's content.

#include "asset/storage/url_repository_check.h"

#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <map>

#include "asset/core/content_digest.h"
#include "asset/storage/url_layout.h"

namespace kelvo {

namespace {

namespace fs = std::filesystem;

bool IsHex64(std::string_view s) {
  return s.size() == HASH_LEN && s.find_first_not_of("0123456789abcdef") == std::string_view::npos;
}

// Names that the repository and its writers make in the root and keep.
bool IsOwnRootFile(std::string_view name) {
  return name == "databaseid" || name == "version" || name == "_index" || name == ".lock" || name == ".changes";
}

// A hidden file of an atomic write ("." name ".tmp-" pid "-" counter) or an erased version
// waiting for its removal.
bool IsLeftoverHiddenName(std::string_view name) {
  return name.starts_with(".erased-") || (name.starts_with('.') && name.find(".tmp-") != std::string_view::npos);
}

double AgeSeconds(const fs::path& path) {
  struct stat st{};
  if (::lstat(path.c_str(), &st) != 0) return 0;
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration<double>(now).count() - static_cast<double>(st.st_mtim.tv_sec);
}

class Checker {
public:
  Checker(Url root, bool repair, double minimumAge) : _root(std::move(root)), _repair(repair), _minimumAge(minimumAge) {}

  Result<RepositoryCheckResult> Run() {
    if (_root.GetScheme() != "file") return UnsupportedArgumentError("Only local repositories can be checked: @", _root);
    std::error_code ec;
    fs::directory_iterator it(_root.GetPath(), ec), end;
    if (ec) return IoError("Can't list @: @", _root, ec.message());
    std::vector<fs::directory_entry> entries;
    for (; it != end; it.increment(ec)) {
      if (ec) return IoError("Can't list @: @", _root, ec.message());
      entries.push_back(*it);
    }
    std::sort(entries.begin(), entries.end(), [](const auto& a, const auto& b) { return a.path() < b.path(); });
    for (const fs::directory_entry& e : entries) CheckRootEntry(e);
    return std::move(_result);
  }

private:
  void Add(REPOSITORYFINDING kind, const fs::path& path, std::string detail, bool removable = false) {
    RepositoryFinding finding{kind, Url::FromFile(path.string()), std::move(detail), false};
    if (_repair && removable) {
      std::error_code ec;
      fs::remove_all(path, ec);
      finding.repaired = !ec;
      if (ec) finding.detail += " (can't remove: " + ec.message() + ")";
    }
    _result.findings.push_back(std::move(finding));
  }

  void CheckRootEntry(const fs::directory_entry& e) {
    const std::string name = e.path().filename().string();
    std::error_code ec;
    if (IsOwnRootFile(name)) return;
    if (IsLeftoverHiddenName(name)) {
      Add(REPOSITORYFINDING::LEFTOVER, e.path(), "a temporary file of an interrupted write", AgeSeconds(e.path()) >= _minimumAge);
      return;
    }
    if (name.starts_with('.')) return;
    if (e.is_symlink(ec)) {
      Add(REPOSITORYFINDING::HIDDEN, e.path(), "a symbolic link; scans pass over links");
      return;
    }
    if (!e.is_directory(ec)) {
      Add(REPOSITORYFINDING::HIDDEN, e.path(), "no asset directory");
      return;
    }
    if (name.starts_with("tmp-") || name.starts_with("tmpJson-")) {
      Add(REPOSITORYFINDING::LEFTOVER, e.path(), "the working directory of an interrupted compaction",
          AgeSeconds(e.path()) >= _minimumAge);
      return;
    }
    const fs::path info = e.path() / "asset.info";
    if (!fs::exists(fs::symlink_status(info, ec))) {
      Add(REPOSITORYFINDING::HIDDEN, e.path(), "a folder without asset.info");
      return;
    }
    Result<std::string> text = ReadRepositoryFile(Url::FromFile(info.string()), kSmallFileLimit, _root);
    const std::optional<AssetInfoLines> lines = text.HasValue() ? ParseAssetInfo(*text) : std::nullopt;
    if (!lines) {
      Add(REPOSITORYFINDING::DAMAGED, info, text.HasError() ? text.GetError().GetMessage() : "holds no valid asset Id");
      return;
    }
    const std::string& idLine = lines->aid;
    if (auto [at, added] = _claimed.emplace(idLine, e.path()); !added) {
      Add(REPOSITORYFINDING::DUPLICATE, e.path(), "asset " + idLine + " is held by " + at->second.string() + " already");
      return;
    }
    CheckAssetDirectory(e.path());
  }

  void CheckAssetDirectory(const fs::path& dir) {
    std::error_code ec;
    fs::directory_iterator it(dir, ec), end;
    if (ec) {
      Add(REPOSITORYFINDING::DAMAGED, dir, "can't be listed: " + ec.message());
      return;
    }
    for (; it != end; it.increment(ec)) {
      if (ec) break;
      const fs::directory_entry& e = *it;
      const std::string name = e.path().filename().string();
      if (name == "asset.info") continue;
      if (IsLeftoverHiddenName(name)) {
        Add(REPOSITORYFINDING::LEFTOVER, e.path(), name.starts_with(".erased-") ? "an interrupted erase" : "a temporary file of an interrupted write",
            AgeSeconds(e.path()) >= _minimumAge);
        continue;
      }
      if (name.starts_with('.')) continue;
      std::error_code lec;
      if (e.is_symlink(lec) || !e.is_directory(lec)) {
        Add(REPOSITORYFINDING::HIDDEN, e.path(), e.is_symlink(lec) ? "a symbolic link; scans pass over links" : "no version directory");
        continue;
      }
      if (!ParseVersionDirectoryName(name)) {
        Add(REPOSITORYFINDING::HIDDEN, e.path(), "a folder that is no version");
        continue;
      }
      CheckVersionDirectory(e.path());
    }
  }

  void CheckVersionDirectory(const fs::path& dir) {
    const Url url = Url::FromFile(dir.string());
    Result<VersionDirectoryContent> found = FindContentUrl(url, 0);
    if (found.HasError()) {
      Add(REPOSITORYFINDING::DAMAGED, dir, found.GetError().GetMessage());
      return;
    }
    const double age = std::min(AgeSeconds(dir), found->incomplete ? AgeSeconds(dir / kIncompleteMarker) : AgeSeconds(dir));
    if (found->incomplete) {
      Add(REPOSITORYFINDING::LEFTOVER, dir, "a version whose store didn't finish", age >= _minimumAge);
      return;
    }
    std::error_code ec;
    for (const auto& e : fs::directory_iterator(dir, ec)) {
      std::error_code lec;
      if (e.is_symlink(lec)) Add(REPOSITORYFINDING::HIDDEN, e.path(), "a symbolic link; scans pass over links");
    }
    Result<std::string> hash = ReadRepositoryFile(url.Append("hash"), kSmallFileLimit, _root);
    std::string hashLine;
    if (hash.HasValue()) {
      LineReader reader(*hash);
      reader.Next(hashLine);
    }
    if (hashLine == "deleted") return;
    if (found->content.IsEmpty()) {
      // A store killed before it wrote its marker leaves an empty numbered directory.
      Add(REPOSITORYFINDING::LEFTOVER, dir, "a version without content", age >= _minimumAge);
      return;
    }
    if (hash.HasError() && fs::exists(fs::symlink_status(dir / "hash", ec))) {
      Add(REPOSITORYFINDING::DAMAGED, dir / "hash", hash.GetError().GetMessage());
      return;
    }
    // A hash that is no digest (a version Id given by the caller, an older 40-digit form) can't be
    // verified; a missing one is computed by the next scan.
    if (!IsHex64(hashLine)) return;
    Result<Digest> digest = HashContent(found->content, Url());
    if (digest.HasError()) {
      Add(REPOSITORYFINDING::DAMAGED, found->content.GetPath(), "can't be read: " + digest.GetError().GetMessage());
      return;
    }
    if (DigestToHex(*digest) != hashLine) {
      Add(REPOSITORYFINDING::DAMAGED, found->content.GetPath(), "content doesn't match its digest " + hashLine);
      return;
    }
    ++_result.versionsVerified;
  }

  Url _root;
  bool _repair;
  double _minimumAge;
  RepositoryCheckResult _result;
  std::map<std::string, fs::path> _claimed;
};

} // namespace

const char* RepositoryFindingName(REPOSITORYFINDING kind) {
  switch (kind) {
    case REPOSITORYFINDING::DAMAGED: return "damaged";
    case REPOSITORYFINDING::HIDDEN: return "hidden";
    case REPOSITORYFINDING::DUPLICATE: return "duplicate";
    case REPOSITORYFINDING::LEFTOVER: return "leftover";
  }
  return "unknown";
}

Result<RepositoryCheckResult> CheckUrlRepositoryTree(const Url& root, bool repair, double minimumAgeSeconds) {
  return Checker(root, repair, minimumAgeSeconds).Run();
}

} // namespace kelvo

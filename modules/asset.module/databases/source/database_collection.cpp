// Collecting the standard databases of a mount pass.

#include "database_collection.h"

#include <algorithm>
#include <cctype>
#include <unordered_set>

#include "asset/standard/assets.h"
#include "asset/storage/url_layout.h"
#include "kelvo/log.h"

namespace kelvo {

namespace {

// The link file reserved for the other application of the suite; this application skips it.
constexpr const char* kReservedLinkFile = "kelvoorpheumassets.dat";

Url DatabaseUrl(Url url) {
  url.SetData(assetdatabasekeys::assetdatabasetype, Data(repositorytypes::database));
  return url;
}

} // namespace

Url LinkFileTarget(const std::string& content, const Url& linkFile) {
  std::string text = content;
  if (text.size() >= 3 && static_cast<unsigned char>(text[0]) == 0xEF && static_cast<unsigned char>(text[1]) == 0xBB &&
      static_cast<unsigned char>(text[2]) == 0xBF)
    text.erase(0, 3);
  const auto first = text.find_first_not_of(" \t\r\n");
  if (first == std::string::npos) return Url();
  text = text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
  if (text.find("://") == std::string::npos && text.front() != '/')
    return linkFile.GetDirectory().Append(text);
  return Url(text);
}

std::string ToLowerAscii(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

Result<void> CollectStandardDatabases(std::vector<DatabaseMountItem>& items, std::vector<std::string>& notes) {
  const Url assetsDir = AssetDataBases::GetAssetsDirectory();
  if (assetsDir.IoDetect() == IODETECT::DIRECTORY) {
    KELVO_ASSIGN_OR_RETURN(std::vector<Url> children, assetsDir.IoBrowse());
    // By name, so that the numbering of a pass does not depend on the directory's order.
    std::sort(children.begin(), children.end(), [](const Url& a, const Url& b) { return a.GetName() < b.GetName(); });
    std::int64_t c = kFirstOtherFolder;
    for (const Url& child : children) {
      const std::string name = child.GetName();
      if (name.empty() || name.front() == '.') continue;
      const IODETECT kind = child.IoDetect();
      if (kind == IODETECT::DIRECTORY) {
        if (name == "application" || name == "builtin") continue;
        std::int64_t priority;
        if (name == "basics")
          priority = 0;
        else if (name == "utilities")
          priority = 1;
        else if (name == "unittests")
          priority = kUnittestsFolder;
        else
          priority = c++;
        items.push_back({priority, DatabaseUrl(child), true, true});
      } else if (kind == IODETECT::FILE) {
        const std::string suffix = ToLowerAscii(child.GetSuffix());
        if (suffix == "zip") {
          items.push_back({c++ + kZipBand, DatabaseUrl(child), true, true});
        } else if (suffix == "dat") {
          if (ToLowerAscii(name) == kReservedLinkFile) continue;
          // A regular file of bounded size only: a FIFO, a device or a link planted here must
          // neither hang the pass nor fill memory.
          Result<std::string> content = ReadRepositoryFile(child, kSmallFileLimit);
          const std::int64_t priority = c++ + kLinkBand;
          if (content.HasError()) {
            notes.push_back(FormatString("Link file @ can't be read: @", child, content.GetError().GetMessage()));
            continue;
          }
          const Url target = LinkFileTarget(*content, child);
          if (target.IsEmpty()) {
            notes.push_back(FormatString("Link file @ names no database.", child));
            continue;
          }
          items.push_back({priority, DatabaseUrl(target), true, true});
        }
      }
    }
  }

  if (std::shared_ptr<ObservableQueryDatabasesType> observable = AssetDataBases::ObservableQueryDatabases()) {
    std::vector<Url> urls;
    std::unordered_set<std::string> keys;
    const DatabaseUrlReceiver receiver = [&](const Url& url) {
      if (!url.IsEmpty() && keys.insert(UrlKey(url)).second) urls.push_back(url);
    };
    observable->Notify(receiver);
    for (std::size_t i = 0; i < urls.size(); ++i)
      items.push_back({kObserverBand + static_cast<std::int64_t>(i), urls[i], true, false});
  }
  return {};
}

} // namespace kelvo

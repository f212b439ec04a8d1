#include "asset/search/filter_keys.h"

#include <algorithm>
#include <vector>
#include <utility>

namespace kelvo {
namespace {

using KeyEntry = std::pair<std::string_view, const Id*>;

// Sorted by key for a binary search.
const std::vector<KeyEntry>& KeyTable() {
  using namespace filterids;
  static const std::vector<KeyEntry> table = [] {
    std::vector<KeyEntry> entries{
        {"TYPE", &subtype},
        {"NAME", &name},
        {"ANNOTATIONS", &annotations},
        {"ASSETID", &assetid},
        {"DEPENDENCY", &dependencies},
        {"DEPENDENCYCOUNT", &dependencycount},
        {"CATEGORYID", &categoryid},
        {"KEYWORD", &keywords},
        {"KEYWORDID", &keywordid},
        {"KEYWORDCOUNT", &keywordcount},
        {"LASTUSEDATE", &lastusedate},
        {"USECOUNT", &usecount},
        {"DATABASE", &database},
        {"DATABASETYPE", &databasetype},
        {"SIZE", &size},
        {"INSTALLED", &installed},
        {"DOWNLOADING", &downloading},
        {"PROTECTED", &protected_},
        {"FAVORITE", &favorite},
        {"FAVOURITE", &favorite},
        {"VERSION", &versiontag},
        {"VERSIONCOUNT", &versioncount},
        {"CREATIONDATE", &timestamp},
        {"PREVIEW", &previewimageurl},
        {"PREVIEWANIM", &previewanimurl},
        {"FPS", &fps},
        {"ANIMATIONLENGTH", &animlength},
        {"BITDEPTH", &bitdepth},
        {"PIXELFORMAT", &pixelformat},
        {"COLORPROFILE", &colorprofile},
        {"RESOLUTION", &resolution},
        {"ALPHACHANNELS", &alphachannels},
        {"FILEVERSION", &fileformatversion},
        {"FILEFORMAT", &fileformat},
        {"POINTS", &pointcount},
        {"POLYGONS", &polygoncount},
        {"OBJECTS", &geometryobjectcount},
        {"MATERIALS", &materialcount},
        {"DIMENSIONS", &boundingbox},
        {"PROXY", &proxygeometry},
        {"SCOPE", &scope},
    };
    std::sort(entries.begin(), entries.end());
    return entries;
  }();
  return table;
}

} // namespace

FILTERKEY GetFilterKey(const Id& metaId) {
  using namespace filterids;
  // The rows in FILTERKEY order, from TYPE on.
  static const Id* const rows[] = {
      &subtype, &name, &annotations, &assetid, &dependencies, &dependencycount, &categoryid, &keywords, &keywordid,
      &keywordcount, &lastusedate, &usecount, &database, &databasetype, &size, &installed, &downloading, &protected_,
      &favorite, &versiontag, &versioncount, &timestamp, &previewimageurl, &previewanimurl, &fps, &animlength,
      &bitdepth, &pixelformat, &colorprofile, &resolution, &alphachannels, &fileformatversion, &fileformat,
      &pointcount, &polygoncount, &geometryobjectcount, &materialcount, &boundingbox, &proxygeometry, &scope};
  static_assert(sizeof rows / sizeof rows[0] == static_cast<std::size_t>(FILTERKEY::SCOPE), "one row per key");
  if (metaId.IsEmpty()) return FILTERKEY::TEXT;
  for (std::size_t i = 0; i < sizeof rows / sizeof rows[0]; ++i)
    if (*rows[i] == metaId) return static_cast<FILTERKEY>(i + 1);
  return FILTERKEY::TEXT;
}

const Id* FindFilterKey(std::string_view upperKey) {
  const auto& table = KeyTable();
  auto it = std::lower_bound(table.begin(), table.end(), upperKey,
                             [](const KeyEntry& entry, std::string_view key) { return entry.first < key; });
  return it != table.end() && it->first == upperKey ? it->second : nullptr;
}

} // namespace kelvo

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

const Id* FindFilterKey(std::string_view upperKey) {
  const auto& table = KeyTable();
  auto it = std::lower_bound(table.begin(), table.end(), upperKey,
                             [](const KeyEntry& entry, std::string_view key) { return entry.first < key; });
  return it != table.end() && it->first == upperKey ? it->second : nullptr;
}

} // namespace kelvo

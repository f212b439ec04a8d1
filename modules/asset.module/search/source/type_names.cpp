#include "asset/search/type_names.h"

#include <array>
#include <unordered_set>

#include "asset/types/category_asset.h"

namespace kelvo {
namespace {

struct BuiltinTypeName {
  std::string_view typeId;
  std::string_view prefix;
  std::string_view name; // English text of the type's string resource
};

constexpr std::array<BuiltinTypeName, 11> kBuiltinTypeNames{{
    {"net.kelvo.assettype.category", "#$01", "Category"},
    {"net.kelvo.node.assettype.nodetemplate", "#$05", "Node"},
    {"net.kelvo.node.assettype.nodedescription", "#$05", "Node Description"},
    {"net.kelvo.assettype.preset.defaults.node", "#$05", "Node Defaults Preset"},
    {"net.kelvo.assettype.file", "#$07", "File"},
    {"net.kelvo.assettype.keyword", "#$08", "Keyword"},
    {"net.kelvo.assettype.smartsearch", "#$10", "Smart Search"},
    {"net.kelvo.assettype.subtype", "#$10", "Subtype"},
    {"net.kelvo.assettype.nodecontext", "#$10", "Node Context"},
    {"net.kelvo.assettype.plugin", "#$11", "Plugin"},
    {"net.kelvo.assettype.nodespace", "#$11", "Node Space"},
}};

// A name can't hold a NUL; it marks "no translated text" where GetMetaString would give the id.
const std::string kNoName(1, '\0');

bool IsSortPrefix(std::string_view text) {
  return text.size() >= 4 && text[0] == '#' && text[1] == '$' && text[2] >= '0' && text[2] <= '9' && text[3] >= '0' &&
         text[3] <= '9';
}

} // namespace

std::size_t TypeNameCache::KeyHash::operator()(const Key& key) const {
  std::size_t h = std::hash<const void*>()(key.repository);
  for (const Id* id : {&key.assetType, &key.assetId, &key.version}) h = h * 0x100000001b3ull ^ id->GetHashCode();
  return h ^ static_cast<std::size_t>(key.withParents);
}

const TypeName* TypeNameCache::Find(const Key& key) const {
  auto it = _names.find(key);
  return it != _names.end() ? &it->second : nullptr;
}

FilterRecord& TypeNameCache::Entry(const AssetDescription& asset) {
  FilterRecord& entry = _entries[asset.get()];
  if (!entry.asset) entry.Reset(asset);
  return entry;
}

void TypeNameCache::Store(const Key& key, TypeName name) { _names.insert_or_assign(key, std::move(name)); }

std::string_view StripSortPrefix(std::string_view name) { return IsSortPrefix(name) ? name.substr(4) : name; }

Result<std::string> GetStoredName(const AssetDescription& asset, const LanguageRef& language) {
  if (!asset) return std::string();
  KELVO_ASSIGN_OR_RETURN(std::string name, asset->GetMetaString(stringkeys::name, language, kNoName));
  if (name == kNoName) name.clear();
  return name;
}

TypeName GetAssetTypeName(const Id& assetType) {
  for (const BuiltinTypeName& entry : kBuiltinTypeNames)
    if (assetType.View() == entry.typeId) return TypeName{std::string(entry.name), std::string(entry.prefix)};
  // A registered type without a table entry: its id is its own name, and it has no prefix.
  if (!assetType.IsEmpty() && FindAssetType(assetType)) return TypeName{assetType.ToString(), std::string()};
  return TypeName{assetType.ToString(), "#$99"};
}

Result<const TypeName*> GetCachedAssetTypeName(const AssetRepositoryRef& repository, const Id& assetType,
                                               const Id& assetId, const Id& version, TypeNameCache& cache) {
  const TypeNameCache::Key key{repository.get(), assetType, assetId, version, false};
  if (const TypeName* hit = cache.Find(key)) return hit;
  KELVO_RETURN_ON_ERROR(GetAssetTypeName(repository, assetType, assetId, version, false, &cache));
  return cache.Find(key);
}

Result<TypeName> GetAssetTypeName(const AssetRepositoryRef& repository, const AssetType& assetType, const Id& assetId,
                                  const Id& version, bool withParents, TypeNameCache* cache) {
  return GetAssetTypeName(repository, assetType ? assetType->GetId() : Id(), assetId, version, withParents, cache);
}

Result<TypeName> GetAssetTypeName(const AssetRepositoryRef& repository, const Id& assetType, const Id& assetId,
                                  const Id& version, bool withParents, TypeNameCache* cache) {
  const TypeNameCache::Key key{repository.get(), assetType, assetId, version, withParents};
  if (cache)
    if (const TypeName* hit = cache->Find(key)) return *hit;

  AssetDescription found;
  if (repository) {
    KELVO_ASSIGN_OR_RETURN(found, repository->FindLatestAsset(assetType, assetId, version, NONE));
  }
  TypeName result;
  if (found) {
    result.found = true;
    KELVO_ASSIGN_OR_RETURN(result.name, GetStoredName(found, nullptr));
    KELVO_ASSIGN_OR_RETURN(std::optional<std::string> sort,
                           found->GetMetaData()->GetValue<std::string>(typenameids::sort));
    result.sort = sort.value_or(std::string());
  }
  if (result.name.empty()) {
    const std::string_view id = assetId.View();
    if (id.starts_with(typenameids::fileSubtypePrefix.View())) {
      // A file subtype reads as the file type with the pattern of its extension.
      result.name = GetAssetTypeName(Id("net.kelvo.assettype.file")).name + " (*." +
                    std::string(id.substr(typenameids::fileSubtypePrefix.size())) + ")";
    } else {
      TypeName typeName = GetAssetTypeName(assetType);
      result.name = std::move(typeName.name);
      result.sort = std::move(typeName.sort);
    }
  }
  if (withParents && found) {
    // Stored parent links may form a cycle; the walk ends at an id met before.
    std::unordered_set<Id> seen{assetId};
    AssetDescription current = found;
    for (;;) {
      KELVO_ASSIGN_OR_RETURN(Id parent, CategoryAssetInterface::GetParentCategory(current));
      if (parent.IsEmpty() || !seen.insert(parent).second) break;
      KELVO_ASSIGN_OR_RETURN(current,
                             repository->FindLatestAsset(CategoryAssetInterface::TypeId(), parent, Id(), NONE));
      if (!current) break;
      KELVO_ASSIGN_OR_RETURN(std::string parentName, GetStoredName(current, nullptr));
      if (!parentName.empty()) result.name = parentName + "/" + result.name;
    }
  }
  if (cache) cache->Store(key, result);
  return result;
}

} // namespace kelvo

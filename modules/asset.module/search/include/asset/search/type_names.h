#pragma once
// Type names of the browser rows: the name of an asset's type with a sort prefix ("#$" and two
// digits; a lower number lists first), and the name of one asset with its category path, through
// a cache that lives for one search walk.

#include <cstddef>
#include <optional>
#include <vector>
#include <string>
#include <string_view>
#include <unordered_map>

#include "asset/core/assetrepository.h"
#include "asset/search/filter_record.h"

namespace kelvo {

// A display name and the text it sorts by: a sort prefix for a type, the stored sort string
// (net.kelvo.asset.sort) or the type's prefix for an asset.
struct TypeName {
  std::string name;
  std::string sort;
  bool found = false; // the asset was found (always false for the name of a type)
  friend bool operator==(const TypeName&, const TypeName&) = default;
};

// Names of assets found during one walk, by repository, type, asset, version and withParents,
// and the filter records of the assets evaluated through it (by description address). Not
// synchronised: it belongs to one job. It may be kept across filter changes of a browser as long
// as the repositories' content does not change; a new filter then reads no metadata again.
class TypeNameCache {
public:
  struct Key {
    const AssetRepositoryInterface* repository = nullptr;
    Id assetType;
    Id assetId;
    Id version;
    bool withParents = false;
    friend bool operator==(const Key&, const Key&) = default;
  };
  const TypeName* Find(const Key& key) const;
  void Store(const Key& key, TypeName name);
  std::size_t GetCount() const { return _names.size(); }
  void Clear() {
    _names.clear();
    _entries.clear();
  }
  // The filter record of asset, made on first use (nothing read yet).
  FilterRecord& Entry(const AssetDescription& asset);

private:
  std::unordered_map<const void*, FilterRecord> _entries;
  struct KeyHash {
    std::size_t operator()(const Key& key) const;
  };
  std::unordered_map<Key, TypeName, KeyHash> _names;
};

namespace typenameids {
inline const InternedId sort{"net.kelvo.asset.sort"};
inline const Id fileSubtypePrefix{"net.kelvo.asset.subtype.file."};
} // namespace typenameids

// The name and sort prefix of a type: the built-in types by table, a registered type by its own
// name without prefix, any other by its id with "#$99". Never fails; any thread.
TypeName GetAssetTypeName(const Id& assetType);

// The name and sort string of one asset found in repository (latest of assetId when version is
// empty); with withParents the names of its categories stand in front, "parent/child". A missing
// asset falls back to the name of its type and is no error; errors of the search and of
// metadata reads are returned. Any thread; cache (may be null) belongs to the caller's job.
Result<TypeName> GetAssetTypeName(const AssetRepositoryRef& repository, const Id& assetType, const Id& assetId,
                                  const Id& version, bool withParents, TypeNameCache* cache);
Result<TypeName> GetAssetTypeName(const AssetRepositoryRef& repository, const AssetType& assetType, const Id& assetId,
                                  const Id& version, bool withParents, TypeNameCache* cache);

// The same through cache, as a pointer into it that stays valid until the cache is cleared.
Result<const TypeName*> GetCachedAssetTypeName(const AssetRepositoryRef& repository, const Id& assetType,
                                               const Id& assetId, const Id& version, TypeNameCache& cache);

// The name without its sort prefix, as delivered for display.
std::string_view StripSortPrefix(std::string_view name);

// The translated name of an asset in language (the current one when null); empty when the
// asset has no name in any language, unlike GetMetaString, which falls back to the asset Id.
Result<std::string> GetStoredName(const AssetDescription& asset, const LanguageRef& language);

} // namespace kelvo

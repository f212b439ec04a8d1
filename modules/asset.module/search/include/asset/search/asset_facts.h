#pragma once
// What a browser row shows and sorts by for one asset, read once from the asset's metadata and
// kept by a browser while its repositories don't change, so that a new filter text, grouping or
// sort builds its rows without reading metadata again. The filter record beside them keeps what
// filters read, for as long as the facts are kept.

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>

#include "asset/core/assetrepository.h"
#include "asset/search/filter_record.h"
#include "asset/search/type_names.h"
#include "kelvo/datetime.h"

namespace kelvo {

namespace factids {
inline const Id uncategorized{"net.kelvo.assetcategory.uncategorized"};
inline const Id operatorSubtype{"net.kelvo.asset.subtype.node.operator"};
} // namespace factids

struct AssetFacts {
  AssetDescription asset;
  AssetRepositoryRef repository;
  Id assetId;
  Id typeId;
  Id subtypeId;
  // The stored category; for the list the empty id or a category that can't be found counts as
  // uncategorized, except in a watch folder, whose categories are not looked up.
  Id categoryId;
  bool inWatchFolder = false;
  std::string name;       // net.kelvo.object.base.name in the current language (the Id without one)
  std::string upperName;  // for the word hit of relevance ranking
  std::string nameKey;    // collation key of the lower-cased name
  std::string sortString; // net.kelvo.asset.sort, "_", lower-cased name
  std::string sortKey;    // collation key of sortString
  std::string descriptionText;
  std::string shortcutsText;
  std::string helpText;
  std::uint8_t duplicateKind = 0; // 1 operator node template, 2 primitive, deformer or field command
  bool commandHidden = false;     // net.kelvo.asset.command.metadata.hidden

  // Read on first use by a grouping, a sort or the ranking.
  std::optional<UniversalDateTime> timestamp; // empty value when none is stored
  std::optional<std::int64_t> useCount;
  std::optional<UniversalDateTime> lastUse;
  std::optional<std::int64_t> fileSize;
  std::optional<bool> favourite;
  std::optional<bool> valid;

  // What filters read of the asset, starting with the name read above; dropped with the facts
  // when anything is stored in the browser's repositories or the language changes.
  FilterRecord record;
};

// Reads facts and keeps the lookups that many assets share (categories, breadcrumbs, type and
// repository names). Belongs to one browser; REQUIRES external synchronization (one job at a time).
class AssetFactsReader {
public:
  // Reads the facts of asset, with lookups in lookupRepository. Errors of metadata reads and
  // searches are returned.
  Result<AssetFacts> Read(const AssetDescription& asset, const AssetRepositoryRef& lookupRepository);

  // The lazily read values; each reads its metadata once per facts.
  Result<UniversalDateTime> Timestamp(AssetFacts& facts);
  Result<std::int64_t> UseCount(AssetFacts& facts);
  Result<UniversalDateTime> LastUse(AssetFacts& facts);
  Result<std::int64_t> FileSize(AssetFacts& facts);
  bool Favourite(AssetFacts& facts);
  Result<bool> Valid(AssetFacts& facts);

  // The display name of a category (uncategorized has a fixed one) and of a repository.
  Result<std::string> CategoryName(const Id& categoryId, const AssetRepositoryRef& lookupRepository);
  Result<std::string> RepositoryName(const AssetRepositoryRef& repository);
  // The name and sort text of a subtype, or of a type when subtypeId is empty.
  Result<TypeName> TypeText(const Id& typeId, const Id& subtypeId, const AssetRepositoryRef& lookupRepository);

  TypeNameCache& GetTypeNameCache() { return _typeNames; }
  void Clear();

private:
  Result<bool> CategoryExists(const Id& categoryId, const AssetRepositoryRef& lookupRepository);
  Result<const std::string*> Breadcrumb(const AssetDescription& asset, const Id& categoryId,
                                        const AssetRepositoryRef& lookupRepository);

  TypeNameCache _typeNames;
  std::unordered_map<Id, bool> _categoryExists;
  std::unordered_map<Id, std::string> _breadcrumbs;
  std::unordered_map<Id, std::string> _categoryNames;
  std::unordered_map<const AssetRepositoryInterface*, std::string> _repositoryNames;
};

} // namespace kelvo

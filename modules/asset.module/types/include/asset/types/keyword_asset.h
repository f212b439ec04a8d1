#pragma once
// Keyword assets and tagging. A keyword is an asset of type net.kelvo.assettype.keyword whose
// content is empty; an asset is tagged by listing keyword Ids in its metadata, either in the
// repository (net.kelvo.asset.keywords) or in the user's own tree (net.kelvo.asset.userkeywords).
// The same interface keeps the default assets of preset subtypes in the application settings.

#include <utility>

#include "asset/core/assetrepository.h"
#include "asset/types/typed_assets.h"

namespace kelvo {

namespace keywordids {
// Keywords stored with the asset (kind PERSISTENT): everybody who has the repository sees them.
inline const InternedId keywords{"net.kelvo.asset.keywords"};
// Keywords of this user (kind PERSISTENT | USER), kept out of the repository.
inline const InternedId userkeywords{"net.kelvo.asset.userkeywords"};
// Use of an asset, a dictionary {count: Int64, lastuse: UniversalDateTime}, kind PERSISTENT | USER.
inline const InternedId usage{"net.kelvo.asset.usage"};
inline const Id usageCount{"count"};
inline const Id usageLastUse{"lastuse"};
// The keyword of the favourites.
inline const Id favourite{"net.kelvo.keyword.favourite"};
// The settings dictionary subtype Id -> default asset: [asset Id, version Id] as two strings, or
// in older settings the plain asset Id as a string.
inline const Id defaultsSetting{"net.kelvo.appsettings.assets.defaults"};
} // namespace keywordids

struct DefaultAssetState {
  bool canBeDefault = false;
  bool isDefault = false;
};

class KeywordAssetInterface : public AssetBaseImpl {
public:
  static const Id& TypeId();
  // A new keyword asset object.
  static Asset Create();

  // Appends keywordId to the array of the scope (userScope: the user's keywords). False and no
  // change when the keyword stands in either array already. With updateUsageRepository the
  // keyword asset's use count and last use are updated, when it exists (a failure there is only
  // logged). Errors of the metadata service and of StoreMetaData pass through. Any thread.
  static Result<bool> AddKeyword(const AssetDescription& target, const Id& keywordId, bool userScope,
                                 bool updateUsageRepository);
  // Removes keywordId from the array of the scope; false when it isn't there. An array left
  // without entries is removed. Errors pass through. Any thread.
  static Result<bool> RemoveKeyword(const AssetDescription& target, const Id& keywordId, bool userScope);
  // The metadata Id of the array that holds keywordId (user keywords first), or the empty Id.
  static Result<Id> HasKeyword(const AssetDescription& target, const Id& keywordId);
  static bool IsFavouriteAsset(const AssetDescription& asset);

  // Whether ad can be the default of its subtype, and whether it is. Illegal argument errors
  // for a null ad and for an asset whose type is unknown or no preset type.
  static Result<DefaultAssetState> GetDefaultAssetState(const AssetDescription& ad);
  // The latest version in lookupRepository of the default asset of subtype type; null when there
  // is none or it can't be found.
  static Result<AssetDescription> GetDefaultAsset(const Id& type, const AssetRepositoryRef& lookupRepository);
  // Makes ad the default of its subtype (stored in the new form), or with setDefault false
  // removes the subtype's default. The errors of GetDefaultAssetState, and an illegal argument
  // error for an asset without subtype; the settings are not changed then.
  static Result<void> SetDefaultAsset(const AssetDescription& ad, bool setDefault);
};

using KeywordAssetImpl = TypedAssetImpl<KeywordAssetInterface>;

// The keyword Ids of both arrays of an asset, user keywords first, each Id once.
Result<std::vector<Id>> GetAssetKeywords(const AssetDescription& asset);

} // namespace kelvo

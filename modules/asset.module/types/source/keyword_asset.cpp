// Keyword assets: tagging in the repository and user scopes, favourites, and the default assets
// of preset subtypes in the application settings.

#include "asset/types/keyword_asset.h"

#include <algorithm>

#include "asset/types/base_preset_asset.h"
#include "asset/types/metadata_asset_type.h"
#include "kelvo/log.h"
#include "kelvo/settings.h"

namespace kelvo {

namespace {

constexpr std::uint32_t kUserKind = AssetMetaData::PERSISTENT | AssetMetaData::USER;

const InternedId& ScopeArray(bool userScope) { return userScope ? keywordids::userkeywords : keywordids::keywords; }

Result<std::vector<Id>> ReadKeywordArray(const AssetDescription& target, const InternedId& array) {
  KELVO_ASSIGN_OR_RETURN(std::optional<DataArray> ids, ReadMeta<DataArray>(target, array));
  return IdsOf(ids);
}

// An array with no entry is stored as an empty value, which removes the metadata file.
Result<void> StoreKeywordArray(const AssetDescription& target, const std::vector<Id>& ids, bool userScope) {
  return StoreAssetMeta(target, ScopeArray(userScope), ids.empty() ? Data() : Data(ToDataArray(ids)),
                        userScope ? kUserKind : std::uint32_t(AssetMetaData::PERSISTENT));
}

// Counts one more use of the keyword asset keywordId, found from target's repository.
Result<void> UpdateKeywordUsage(const AssetDescription& target, const Id& keywordId) {
  AssetRepositoryRef repository = target->GetRepository();
  if (!repository) return {};
  KELVO_ASSIGN_OR_RETURN(AssetDescription keyword,
                         repository->FindLatestAsset(KeywordAssetInterface::TypeId(), keywordId, Id(), LATEST));
  if (!keyword) return {};
  KELVO_ASSIGN_OR_RETURN(std::optional<DataDictionary> usage, ReadMeta<DataDictionary>(keyword, keywordids::usage));
  DataDictionary next = usage.value_or(DataDictionary());
  next.SetData(keywordids::usageCount, Data(next.Get<std::int64_t>(keywordids::usageCount).value_or(0) + 1));
  next.SetData(keywordids::usageLastUse, Data(UniversalDateTime::GetNow()));
  return StoreAssetMeta(keyword, keywordids::usage, Data(std::move(next)), kUserKind);
}

// The preset type of ad, or the illegal argument error that names what is missing.
Result<std::shared_ptr<AssetTypePresetBase>> PresetTypeOf(const AssetDescription& ad) {
  if (!ad) return IllegalArgumentError("Illegal argument: Condition ad not fulfilled. ");
  AssetType assetType = FindTypedAssetType(ad->GetTypeId());
  if (!assetType) return IllegalArgumentError("Illegal argument: Condition assetType not fulfilled. ");
  auto presetType = std::dynamic_pointer_cast<AssetTypePresetBase>(assetType);
  if (!presetType) return IllegalArgumentError("Illegal argument: Condition presetType.GetPointer() not fulfilled. ");
  return presetType;
}

// The default stored for subtype: an IdAndVersion (new form) or an asset Id with an empty
// version (older settings); nothing when there is none.
std::optional<IdAndVersion> ReadDefault(const Id& subtype) {
  const Data settings = Settings::Get(keywordids::defaultsSetting);
  const DataDictionary* defaults = settings.GetPtr<DataDictionary>();
  if (!defaults) return std::nullopt;
  const Data value = defaults->GetData(subtype);
  if (const std::string* text = value.GetPtr<std::string>())
    return text->empty() ? std::nullopt : std::optional(IdAndVersion{Id(*text), Id()});
  if (const Id* id = value.GetPtr<Id>()) return id->IsEmpty() ? std::nullopt : std::optional(IdAndVersion{*id, Id()});
  if (const IdAndVersion* both = value.GetPtr<IdAndVersion>()) return *both;
  const DataArray* pair = value.GetPtr<DataArray>();
  if (!pair || pair->size() != 2) return std::nullopt;
  const std::string* aid = (*pair)[0].GetPtr<std::string>();
  const std::string* version = (*pair)[1].GetPtr<std::string>();
  if (!aid || !version || aid->empty()) return std::nullopt;
  return IdAndVersion{Id(*aid), Id(*version)};
}

} // namespace

const Id& KeywordAssetInterface::TypeId() {
  static const Id id{"net.kelvo.assettype.keyword"};
  return id;
}

Asset KeywordAssetInterface::Create() { return CreateTypedAsset<KeywordAssetInterface>(); }

Result<bool> KeywordAssetInterface::AddKeyword(const AssetDescription& target, const Id& keywordId, bool userScope,
                                               bool updateUsageRepository) {
  if (keywordId.IsEmpty()) return IllegalArgumentError("Illegal argument: Condition keywordId not fulfilled. ");
  KELVO_ASSIGN_OR_RETURN(std::vector<Id> user, ReadKeywordArray(target, keywordids::userkeywords));
  KELVO_ASSIGN_OR_RETURN(std::vector<Id> shared, ReadKeywordArray(target, keywordids::keywords));
  if (std::find(user.begin(), user.end(), keywordId) != user.end() ||
      std::find(shared.begin(), shared.end(), keywordId) != shared.end())
    return false;
  if (updateUsageRepository) {
    if (Result<void> usage = UpdateKeywordUsage(target, keywordId); usage.HasError())
      WarningOutput("Can't count the use of keyword @: @", keywordId, usage.GetError());
  }
  std::vector<Id>& ids = userScope ? user : shared;
  ids.push_back(keywordId);
  KELVO_RETURN_ON_ERROR(StoreKeywordArray(target, ids, userScope));
  return true;
}

Result<bool> KeywordAssetInterface::RemoveKeyword(const AssetDescription& target, const Id& keywordId,
                                                  bool userScope) {
  KELVO_ASSIGN_OR_RETURN(std::vector<Id> ids, ReadKeywordArray(target, ScopeArray(userScope)));
  auto it = std::find(ids.begin(), ids.end(), keywordId);
  if (it == ids.end()) return false;
  ids.erase(it);
  KELVO_RETURN_ON_ERROR(StoreKeywordArray(target, ids, userScope));
  return true;
}

Result<Id> KeywordAssetInterface::HasKeyword(const AssetDescription& target, const Id& keywordId) {
  for (const InternedId* array : {&keywordids::userkeywords, &keywordids::keywords}) {
    KELVO_ASSIGN_OR_RETURN(std::vector<Id> ids, ReadKeywordArray(target, *array));
    if (std::find(ids.begin(), ids.end(), keywordId) != ids.end()) return Id(array->View());
  }
  return Id();
}

bool KeywordAssetInterface::IsFavouriteAsset(const AssetDescription& asset) {
  Result<Id> found = HasKeyword(asset, keywordids::favourite);
  return found.HasValue() && !found->IsEmpty();
}

Result<std::vector<Id>> GetAssetKeywords(const AssetDescription& asset) {
  KELVO_ASSIGN_OR_RETURN(std::vector<Id> all, ReadKeywordArray(asset, keywordids::userkeywords));
  KELVO_ASSIGN_OR_RETURN(std::vector<Id> shared, ReadKeywordArray(asset, keywordids::keywords));
  for (const Id& id : shared)
    if (std::find(all.begin(), all.end(), id) == all.end()) all.push_back(id);
  return all;
}

Result<DefaultAssetState> KeywordAssetInterface::GetDefaultAssetState(const AssetDescription& ad) {
  KELVO_ASSIGN_OR_RETURN(auto presetType, PresetTypeOf(ad));
  if (!presetType->DoesSupportSetAsDefault()) return DefaultAssetState{};
  KELVO_ASSIGN_OR_RETURN(std::optional<Id> subtype, ReadMeta<Id>(ad, metaids::subtype));
  if (!subtype || subtype->IsEmpty()) return DefaultAssetState{};
  const std::optional<IdAndVersion> stored = ReadDefault(*subtype);
  return DefaultAssetState{true, stored && stored->first == ad->GetIdAndVersion().first};
}

Result<AssetDescription> KeywordAssetInterface::GetDefaultAsset(const Id& type,
                                                                const AssetRepositoryRef& lookupRepository) {
  const std::optional<IdAndVersion> stored = ReadDefault(type);
  if (!stored || !lookupRepository) return AssetDescription();
  return lookupRepository->FindLatestAsset(Id(), stored->first, stored->second, LATEST);
}

Result<void> KeywordAssetInterface::SetDefaultAsset(const AssetDescription& ad, bool setDefault) {
  KELVO_RETURN_ON_ERROR(PresetTypeOf(ad));
  KELVO_ASSIGN_OR_RETURN(std::optional<Id> subtype, ReadMeta<Id>(ad, metaids::subtype));
  if (!subtype || subtype->IsEmpty())
    return IllegalArgumentError("Illegal argument: Condition subType.IsPopulated() not fulfilled. ");
  const Data settings = Settings::Get(keywordids::defaultsSetting);
  DataDictionary defaults;
  if (const DataDictionary* existing = settings.GetPtr<DataDictionary>()) defaults = *existing;
  const Id key(subtype->View());
  if (setDefault) {
    const IdAndVersion aid = ad->GetIdAndVersion();
    defaults.SetData(key, Data(DataArray{Data(aid.first.ToString()), Data(aid.second.ToString())}));
  } else {
    defaults.EraseData(key);
  }
  KELVO_RETURN_ON_ERROR(Settings::Set(keywordids::defaultsSetting, Data(std::move(defaults))));
  if (AssetRepositoryRef repository = ad->GetRepository()) {
    if (auto observable = repository->ObservableMetaDataStored(false))
      observable->Notify(AssetDescription(), InternedId(), 0u, Data(), Data());
  }
  return {};
}

} // namespace kelvo

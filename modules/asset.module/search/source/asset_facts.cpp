#include "asset/search/asset_facts.h"

#include "asset/core/asset_version_validity.h"
#include "asset/downloads/asset_downloads.h"
#include "asset/search/browser_entry.h"
#include "asset/search/display_strings.h"
#include "asset/search/text_case.h"
#include "asset/types/category_asset.h"
#include "asset/types/command_asset.h"
#include "asset/types/keyword_asset.h"
#include "asset/types/marker_assets.h"
#include "asset/types/metadata_asset_type.h"
#include "asset/watchfolder/filewatchassetrepository.h"

namespace kelvo {
namespace {

std::string LowerAscii(std::string_view text) {
  std::string lower(text);
  for (char& c : lower)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return lower;
}

// " - " stands only between two texts that are both there.
std::string JoinDash(const std::string& left, const std::string& right) {
  if (left.empty()) return right;
  if (right.empty()) return left;
  return left + " - " + right;
}

std::string Join(const std::vector<std::string>& parts, std::string_view separator) {
  std::string text;
  for (const std::string& part : parts) {
    if (!text.empty()) text += separator;
    text += part;
  }
  return text;
}

bool IsDuplicateCommandType(const Id& type) {
  static const Id primitive{"net.kelvo.asset.command.type.object.primitive"};
  static const Id deformer{"net.kelvo.asset.command.type.object.deformer"};
  static const Id field{"net.kelvo.asset.command.type.object.field"};
  return type == primitive || type == deformer || type == field;
}

} // namespace

Result<AssetFacts> AssetFactsReader::Read(const AssetDescription& asset, const AssetRepositoryRef& lookupRepository) {
  AssetFacts facts;
  facts.asset = asset;
  facts.repository = asset->GetRepository();
  facts.assetId = asset->GetIdAndVersion().first;
  facts.typeId = asset->GetTypeId();
  facts.inWatchFolder = dynamic_cast<const FileWatchAssetRepositoryImpl*>(facts.repository.get()) != nullptr;
  KELVO_ASSIGN_OR_RETURN(std::optional<Id> subtype, ReadMeta<Id>(asset, metaids::subtype));
  facts.subtypeId = subtype.value_or(Id());
  KELVO_ASSIGN_OR_RETURN(Id category, CategoryAssetInterface::GetParentCategory(asset));
  if (!facts.inWatchFolder) {
    if (category.IsEmpty()) {
      category = factids::uncategorized;
    } else {
      KELVO_ASSIGN_OR_RETURN(bool exists, CategoryExists(category, lookupRepository));
      if (!exists) category = factids::uncategorized;
    }
  }
  facts.categoryId = category;

  const LanguageRef language = Language::GetCurrentLanguage();
  KELVO_ASSIGN_OR_RETURN(facts.name, asset->GetMetaString(stringkeys::name, language, std::string()));
  facts.upperName = ToUpperText(facts.name);
  // The filter reads the same name, in the same language.
  facts.record.Reset(asset);
  facts.record.language = language;
  facts.record.upperName = facts.upperName;
  facts.record.read |= FilterRecord::NAME;
  const std::string lowerName = LowerAscii(facts.name);
  facts.nameKey = MakeCollationKey(lowerName);
  KELVO_ASSIGN_OR_RETURN(std::optional<std::string> sort, ReadMeta<std::string>(asset, typenameids::sort));
  facts.sortString = sort.value_or(std::string());
  if (!facts.sortString.empty() && !lowerName.empty()) facts.sortString += "_";
  facts.sortString += lowerName;
  facts.sortKey = MakeCollationKey(facts.sortString);

  KELVO_ASSIGN_OR_RETURN(TypeName typeText, TypeText(facts.typeId, facts.subtypeId, lookupRepository));
  const std::string typeName(StripSortPrefix(typeText.name));
  if (facts.typeId == CommandAssetInterface::TypeId()) {
    KELVO_ASSIGN_OR_RETURN(std::vector<std::string> scopes, CommandAssetInterface::GetCommandScopeNames(asset));
    facts.descriptionText = JoinDash(typeName, Join(scopes, ", "));
    KELVO_ASSIGN_OR_RETURN(std::optional<std::string> shortcuts, ReadMeta<std::string>(asset, commandids::shortcuts));
    KELVO_ASSIGN_OR_RETURN(std::optional<std::string> help, ReadMeta<std::string>(asset, commandids::help));
    facts.shortcutsText = shortcuts.value_or(std::string());
    facts.helpText = help.value_or(std::string());
    KELVO_ASSIGN_OR_RETURN(std::optional<bool> hidden, ReadMeta<bool>(asset, commandids::hidden));
    facts.commandHidden = hidden.value_or(false);
    KELVO_ASSIGN_OR_RETURN(Id commandType, CommandAssetInterface::GetCommandType(asset));
    if (IsDuplicateCommandType(commandType)) facts.duplicateKind = 2;
  } else {
    KELVO_ASSIGN_OR_RETURN(const std::string* breadcrumb, Breadcrumb(asset, category, lookupRepository));
    facts.descriptionText = JoinDash(typeName, *breadcrumb);
    if (facts.typeId == displayids::nodetemplate && facts.subtypeId == factids::operatorSubtype)
      facts.duplicateKind = 1;
  }
  return facts;
}

Result<TypeName> AssetFactsReader::TypeText(const Id& typeId, const Id& subtypeId,
                                            const AssetRepositoryRef& lookupRepository) {
  if (subtypeId.IsEmpty()) return GetAssetTypeName(typeId);
  KELVO_ASSIGN_OR_RETURN(const TypeName* name, GetCachedAssetTypeName(lookupRepository, SubTypeAssetInterface::TypeId(),
                                                                      subtypeId, Id(), _typeNames));
  return *name;
}

Result<bool> AssetFactsReader::CategoryExists(const Id& categoryId, const AssetRepositoryRef& lookupRepository) {
  if (auto hit = _categoryExists.find(categoryId); hit != _categoryExists.end()) return hit->second;
  bool exists = false;
  if (lookupRepository) {
    KELVO_ASSIGN_OR_RETURN(AssetDescription found, lookupRepository->FindLatestAsset(CategoryAssetInterface::TypeId(),
                                                                                     categoryId, Id(), LATEST));
    exists = found != nullptr;
  }
  _categoryExists.emplace(categoryId, exists);
  return exists;
}

Result<const std::string*> AssetFactsReader::Breadcrumb(const AssetDescription& asset, const Id& categoryId,
                                                        const AssetRepositoryRef& lookupRepository) {
  // The path above an asset depends on its category alone.
  if (auto hit = _breadcrumbs.find(categoryId); hit != _breadcrumbs.end()) return &hit->second;
  std::string text;
  if (lookupRepository) {
    KELVO_ASSIGN_OR_RETURN(std::vector<std::string> path,
                           CategoryAssetInterface::GetAssetBreadcrumbString(asset, lookupRepository));
    text = Join(path, " > ");
  }
  return &_breadcrumbs.emplace(categoryId, std::move(text)).first->second;
}

Result<std::string> AssetFactsReader::CategoryName(const Id& categoryId, const AssetRepositoryRef& lookupRepository) {
  if (auto hit = _categoryNames.find(categoryId); hit != _categoryNames.end()) return hit->second;
  std::string name;
  if (lookupRepository) {
    KELVO_ASSIGN_OR_RETURN(AssetDescription found, lookupRepository->FindLatestAsset(CategoryAssetInterface::TypeId(),
                                                                                     categoryId, Id(), LATEST));
    if (found) {
      KELVO_ASSIGN_OR_RETURN(name, GetStoredName(found, Language::GetCurrentLanguage()));
    }
  }
  if (name.empty()) name = categoryId == factids::uncategorized ? "Uncategorized" : categoryId.ToString();
  return _categoryNames.emplace(categoryId, std::move(name)).first->second;
}

Result<std::string> AssetFactsReader::RepositoryName(const AssetRepositoryRef& repository) {
  if (!repository) return std::string();
  if (auto hit = _repositoryNames.find(repository.get()); hit != _repositoryNames.end()) return hit->second;
  KELVO_ASSIGN_OR_RETURN(std::string name, repository->GetRepositoryName(Language::GetCurrentLanguage(), false));
  return _repositoryNames.emplace(repository.get(), std::move(name)).first->second;
}

Result<UniversalDateTime> AssetFactsReader::Timestamp(AssetFacts& facts) {
  if (!facts.timestamp) {
    KELVO_ASSIGN_OR_RETURN(std::optional<UniversalDateTime> value, ReadMeta<UniversalDateTime>(facts.asset, metaids::timestamp));
    facts.timestamp = value.value_or(UniversalDateTime());
  }
  return *facts.timestamp;
}

namespace {

Result<void> ReadUsage(AssetFacts& facts) {
  KELVO_ASSIGN_OR_RETURN(std::optional<Data> value, facts.asset->GetMetaData()->Get(keywordids::usage));
  facts.useCount = 0;
  facts.lastUse = UniversalDateTime();
  if (const DataDictionary* usage = value ? value->GetPtr<DataDictionary>() : nullptr) {
    const Data count = usage->GetData(keywordids::usageCount);
    if (const auto* n = count.GetPtr<std::int64_t>()) facts.useCount = *n;
    else if (const auto* n32 = count.GetPtr<std::int32_t>()) facts.useCount = *n32;
    const Data last = usage->GetData(keywordids::usageLastUse);
    if (const auto* time = last.GetPtr<UniversalDateTime>()) facts.lastUse = *time;
  }
  return {};
}

} // namespace

Result<std::int64_t> AssetFactsReader::UseCount(AssetFacts& facts) {
  if (!facts.useCount) KELVO_RETURN_ON_ERROR(ReadUsage(facts));
  return *facts.useCount;
}

Result<UniversalDateTime> AssetFactsReader::LastUse(AssetFacts& facts) {
  if (!facts.lastUse) KELVO_RETURN_ON_ERROR(ReadUsage(facts));
  return *facts.lastUse;
}

Result<std::int64_t> AssetFactsReader::FileSize(AssetFacts& facts) {
  if (!facts.fileSize) {
    KELVO_ASSIGN_OR_RETURN(std::int64_t size, AssetDownloads::GetAssetFileSize(facts.asset));
    facts.fileSize = size;
  }
  return *facts.fileSize;
}

bool AssetFactsReader::Favourite(AssetFacts& facts) {
  if (!facts.favourite) facts.favourite = KeywordAssetInterface::IsFavouriteAsset(facts.asset);
  return *facts.favourite;
}

Result<bool> AssetFactsReader::Valid(AssetFacts& facts) {
  if (!facts.valid) {
    KELVO_ASSIGN_OR_RETURN(bool valid, IsAssetValid(facts.asset));
    facts.valid = valid;
  }
  return *facts.valid;
}

void AssetFactsReader::Clear() {
  _typeNames.Clear();
  _categoryExists.clear();
  _breadcrumbs.clear();
  _categoryNames.clear();
  _repositoryNames.clear();
}

} // namespace kelvo

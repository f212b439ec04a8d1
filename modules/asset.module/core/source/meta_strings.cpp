// Reading and writing the per-language translated strings of an asset.

#include "meta_strings.h"

#include <mutex>

#include "asset/core/assetrepository.h"

namespace kelvo {

namespace {

// Bounds the walk along fallback languages, should a chain ever loop.
constexpr int kMaxLanguageDepth = 16;

// Serialises the read-modify-write of the strings dictionaries, so that two keys written at once
// both survive. Recursive, since an observer of the metadata store may write a string itself.
std::recursive_mutex& StringStoreLock() {
  static auto* lock = new std::recursive_mutex();
  return *lock;
}

} // namespace

Result<std::optional<std::string>> FindTranslatedString(const AssetMetaDataInterface& meta, const Id& key,
                                                        const LanguageRef& language) {
  LanguageRef lang = language ? language : Language::GetCurrentLanguage();
  for (int depth = 0; lang && depth < kMaxLanguageDepth; lang = lang->GetFallbackLanguage(), ++depth) {
    const InternedId metaId = AssetInterface::GetLanguageMetaDataId(Id(lang->GetIdentifier()));
    KELVO_ASSIGN_OR_RETURN(std::optional<Data> strings, meta.Get(metaId));
    if (!strings) continue;
    const DataDictionary* dictionary = strings->GetPtr<DataDictionary>();
    if (!dictionary) continue;
    const Data entryData = dictionary->GetData(key);
    const DataDictionary* entry = entryData.GetPtr<DataDictionary>();
    if (!entry) continue;
    if (std::optional<std::string> text = entry->Get<std::string>(stringkeys::translatedString)) return text;
  }
  return std::optional<std::string>();
}

Result<std::string> GetDefaultMetaString(const AssetDescription& description, const Id& key,
                                         const LanguageRef& language, const std::string& fallback) {
  if (!description) return fallback;
  AssetMetaDataRef meta = description->GetMetaData();
  if (!meta) return fallback;
  KELVO_ASSIGN_OR_RETURN(std::optional<std::string> text, FindTranslatedString(*meta, key, language));
  return text ? *text : fallback;
}

Result<void> StoreDefaultMetaString(const AssetDescription& description, const Id& key, const std::string& value,
                                    const LanguageRef& language) {
  if (!description) return NullptrError("Asset description is nullptr.");
  const LanguageRef lang = language ? language : Language::GetCurrentLanguage();
  AssetRepositoryRef repository = description->GetRepository();
  if (!repository) return IllegalStateError("Repository doesn't exist any longer.");
  AssetMetaDataRef meta = description->GetMetaData();
  if (!meta) return IllegalArgumentError("Invalid asset description @.", description->GetIdAndVersion());
  const InternedId metaId = AssetInterface::GetLanguageMetaDataId(Id(lang->GetIdentifier()));

  std::lock_guard guard(StringStoreLock());
  KELVO_ASSIGN_OR_RETURN(std::optional<Data> current, meta->Get(metaId));
  DataDictionary strings;
  if (current) {
    if (const DataDictionary* d = current->GetPtr<DataDictionary>()) strings = *d;
  }
  bool remove = value.empty();
  if (!remove) {
    if (LanguageRef fallbackLanguage = lang->GetFallbackLanguage()) {
      KELVO_ASSIGN_OR_RETURN(std::optional<std::string> shown, FindTranslatedString(*meta, key, fallbackLanguage));
      remove = shown && *shown == value;
    }
  }
  DataDictionary updated = strings;
  if (remove) {
    updated.EraseData(key);
  } else {
    DataDictionary entry;
    const Data entryData = strings.GetData(key);
    if (const DataDictionary* e = entryData.GetPtr<DataDictionary>()) entry = *e;
    entry.SetData(stringkeys::translatedString, value);
    updated.SetData(key, Data(std::move(entry)));
  }
  if (current && updated == strings) return {};
  if (!current && updated.IsEmpty()) return {};
  // An empty dictionary removes the metadata entry altogether.
  const Data stored = updated.IsEmpty() ? Data() : Data(std::move(updated));
  return repository->StoreMetaData(description, metaId, stored, AssetMetaData::PERSISTENT);
}

} // namespace kelvo

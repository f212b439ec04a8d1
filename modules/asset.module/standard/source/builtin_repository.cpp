// The built-in repository: loader registries as its content, descriptions kept in memory, and
// metadata files in the preference trees.

#include "builtin_repository.h"

#include "asset/core/asset_description.h"
#include "kelvo/application.h"
#include "kelvo/job_queue.h"
#include "asset/storage/url_layout.h"

namespace kelvo {

namespace {

constexpr const char* kBuiltinName = "Built-in";

Result<AssetDescription> Unsupported(const char* what) {
  return UnsupportedOperationError("The built-in repository can't @.", what);
}

} // namespace

std::shared_ptr<BuiltinRepository> BuiltinRepository::Create() {
  return std::make_shared<BuiltinRepository>(
      Application::PrivateGetUrl(APPLICATION_URLTYPE::PREFS_DIR).Append("dc/builtinrepository"),
      Application::PrivateGetUrl(APPLICATION_URLTYPE::GLOBALPREFS_DIR).Append("_assets/user.db"));
}

BuiltinRepository::BuiltinRepository(Url derivedDirectory, Url userDirectory)
    : _derivedDirectory(std::move(derivedDirectory)), _userDirectory(std::move(userDirectory)) {}

AssetRepositoryRef BuiltinRepository::FindRepository(const Id& repoId) const {
  if (repoId != GetId()) return nullptr;
  return std::const_pointer_cast<AssetRepositoryInterface>(shared_from_this());
}

bool BuiltinRepository::IsWritable() const { return g_builtinRepositoryWritable.Get(); }

Result<bool> BuiltinRepository::PrivateFindAssets(const TypeArray& types, const Id& aidIn, const Id&,
                                                  ASSET_FIND_MODE findMode, const AssetReceiver&,
                                                  FindState& state) {
  Id aid = aidIn;
  if (!aid.IsEmpty()) {
    KELVO_ASSIGN_OR_RETURN(aid, ApplyAssetRenamings(aid));
  }
  if (GetData(repositorykeys::skipinsearch).Get<bool>().value_or(false)) return true;
  if ((findMode & PRIVATE_QUERY_REPOSITORY_VISIBILITY) && state.visibility) {
    KELVO_ASSIGN_OR_RETURN(bool visible,
                           state.visibility(std::const_pointer_cast<AssetRepositoryInterface>(shared_from_this())));
    if (!visible) return true;
  }

  // A known asset costs one look-up; the loaders are not asked again.
  if (!(findMode & PREFIX) && !aid.IsEmpty()) {
    AssetDescription known;
    {
      ReadLocker guard(_descriptionsLock);
      auto it = _descriptions.find(aid);
      if (it != _descriptions.end()) known = it->second.description;
    }
    // Like an offer of a loader: a slot that a repository before this one in the walk took (a
    // user's newer version) stays, and the walk's end delivers the result.
    if (known) {
      AssetDescription& slot = state.latestMap[aid];
      if (!slot) slot = known;
      return true;
    }
  }

  bool called = false;
  // Offers an asset of a loader: a slot already taken in the walk stays as it is.
  auto offer = [&](const Asset& asset, const DataDictionary& metaData, const Url& url) -> Result<bool> {
    if (!asset) return NullptrError("A built-in asset loader offered a null asset.");
    called = true;
    const Id assetId = asset->GetIdAndVersion().first;
    if (assetId.IsEmpty()) return IllegalArgumentError("A built-in asset loader offered an asset without Id.");
    AssetDescription& slot = state.latestMap[assetId];
    if (slot) return true;
    auto made = MakeDescription(asset, metaData, url);
    if (made.HasError()) {
      state.latestMap.erase(assetId);
      return made.GetError();
    }
    slot = *made;
    return true;
  };

  KELVO_ASSIGN_OR_RETURN(auto loaders2, GetBuiltinAssetLoaders2());
  for (const auto& [key, loader] : loaders2->GetEntries()) {
    if ((findMode & CHECK_CANCELLATION) && IsCurrentJobCancelled()) return OperationCancelledError();
    if (!loader) continue;
    KELVO_ASSIGN_OR_RETURN(bool goOn, loader(types, aid, findMode, offer));
    if (!goOn) return false;
    if (called && !aid.IsEmpty()) return true;
  }
  KELVO_ASSIGN_OR_RETURN(auto loaders, GetBuiltinAssetLoaders());
  const BuiltinAssetReceiver offerWithoutUrl = [&](const Asset& asset, const DataDictionary& metaData) {
    return offer(asset, metaData, Url());
  };
  for (const auto& [key, loader] : loaders->GetEntries()) {
    if ((findMode & CHECK_CANCELLATION) && IsCurrentJobCancelled()) return OperationCancelledError();
    if (!loader) continue;
    KELVO_ASSIGN_OR_RETURN(bool goOn, loader(types, aid, findMode, offerWithoutUrl));
    if (!goOn) return false;
    if (called && !aid.IsEmpty()) return true;
  }
  return true;
}

void BuiltinRepository::ScanMetaDirectory(const Url& dir, std::uint32_t baseKind, MetaEntryMap& entries) const {
  auto content = FindContentUrl(dir, baseKind);
  if (content.HasError()) return;
  for (const VersionDirectoryContent::Meta& file : content->meta) {
    const Url url = dir.Append(file.fileName);
    MetaEntry entry;
    entry.kind = file.name.kind;
    if (file.name.isUrl) {
      entry.data = Data(url);
      entry.loaded = true;
    } else if (auto value = ReadMetaDataFile(url, (file.name.kind & AssetMetaData::DERIVED) != 0);
               value.HasValue() && *value) {
      entry.data = **value;
      entry.loaded = true;
    } else if (value.HasValue()) {
      // A derived value of another application build: as if there were no file.
      continue;
    }
    // A file that can't be read stays an entry that isn't loaded: a read of it reports the error.
    entries[InternedId(std::string_view(file.name.metaId))] = std::move(entry);
  }
}

Result<AssetDescription> BuiltinRepository::MakeDescription(const Asset& asset, const DataDictionary& metaData,
                                                            const Url& url) {
  const IdAndVersion aid = asset->GetIdAndVersion();
  WriteLocker guard(_descriptionsLock);
  Entry& entry = _descriptions[aid.first];
  if (entry.description) return entry.description;

  const std::string dirName = AssetIdToDirectoryName(aid.first.View());
  MetaEntryMap entries;
  for (const auto& [key, value] : metaData) {
    MetaEntry e;
    e.data = value;
    e.kind = AssetMetaData::PERSISTENT;
    e.loaded = true;
    entries[InternedId(key)] = std::move(e);
  }
  ScanMetaDirectory(_userDirectory.Append(dirName), AssetMetaData::USER, entries);
  if (!g_disableDerivedCache.Get()) ScanMetaDirectory(_derivedDirectory.Append(dirName), 0, entries);
  if (!url.IsEmpty()) ScanMetaDirectory(url, 0, entries);

  const AssetRepositoryRef self = shared_from_this();
  const Id typeId = asset->GetTypeId();
  auto meta = std::make_shared<AssetMetaDataImpl>(self, typeId, aid, VersionKey(), Data(), std::move(entries));
  Url contentUrl;
  if (auto* file = dynamic_cast<const FileAssetInterface*>(asset.get())) contentUrl = file->GetUrl();
  entry.metaData = meta;
  entry.metaDirectory = url;
  entry.description =
      std::make_shared<AssetDescriptionImpl>(aid, typeId, VersionKey(), meta, false, self, contentUrl, asset);
  return entry.description;
}

Result<AssetDescription> BuiltinRepository::GetDescription(const AssetIdentifier& asset) const {
  ReadLocker guard(_descriptionsLock);
  auto it = _descriptions.find(asset.GetIdAndVersion().first);
  if (it == _descriptions.end()) return AssetDescription();
  return it->second.description;
}

COMPARERESULT BuiltinRepository::CompareVersions(const std::shared_ptr<const AssetBase>& first,
                                                 const std::shared_ptr<const AssetBase>& second) const {
  const Id a = first ? first->GetIdAndVersion().first : Id();
  const Id b = second ? second->GetIdAndVersion().first : Id();
  return a == b ? EQUAL : INCOMPARABLE;
}

Result<AssetDescription> BuiltinRepository::StoreAsset(const Id&, const Asset&, const AssetMetaDataRef&) {
  return Unsupported("store assets");
}
Result<AssetDescription> BuiltinRepository::OverwriteAsset(const Id&, const Asset&, const AssetMetaDataRef&) {
  return Unsupported("overwrite assets");
}
Result<AssetDescription> BuiltinRepository::DeleteAsset(const Id&) { return Unsupported("delete assets"); }
Result<void> BuiltinRepository::EraseAsset(const AssetDescription&) {
  return UnsupportedOperationError("The built-in repository can't erase assets.");
}
Result<AssetDescription> BuiltinRepository::CopyAsset(const Id&, const AssetDescription&, bool, bool) {
  return Unsupported("copy assets");
}
Result<void> BuiltinRepository::StoreUrlMetaData(const AssetDescription&, const InternedId&, const Url&,
                                                 std::uint32_t) {
  return UnsupportedOperationError("The built-in repository can't store files as meta data.");
}

Result<void> BuiltinRepository::StoreMetaData(const AssetDescription& asset, const InternedId& metaId,
                                              const Data& data, std::uint32_t kind) {
  if (!asset) return NullptrError("Asset description is nullptr.");
  const Id aid = asset->GetIdAndVersion().first;
  const std::uint32_t maskedKind = kind & AssetMetaData::MASK;
  AssetDescription description;
  Data previous;
  {
    WriteLocker guard(_descriptionsLock);
    auto it = _descriptions.find(aid);
    if (it == _descriptions.end() || !it->second.description)
      return IllegalArgumentError("Asset @ not found.", aid);
    Entry& entry = it->second;
    if (!entry.metaData || entry.description->GetMetaData() != entry.metaData)
      return UnexpectedError("Assertion failed: Condition impl && builtinImpl not fulfilled. ");
    const std::string dirName = AssetIdToDirectoryName(aid.View());
    Url target;
    if (kind & AssetMetaData::DERIVED) {
      target = _derivedDirectory.Append(dirName);
    } else if (kind & AssetMetaData::USER) {
      target = _userDirectory.Append(dirName);
    } else if (!g_builtinRepositoryWritable.Get()) {
      return IllegalStateError("Meta data for built-in asset @ isn't writable", aid);
    } else if (entry.metaDirectory.IsEmpty()) {
      return UnsupportedArgumentError("Can't write meta data to built-in asset @", aid);
    } else {
      target = entry.metaDirectory;
    }
    KELVO_ASSIGN_OR_RETURN(previous, entry.metaData->Set(metaId, data, maskedKind,
                                                         (kind & AssetMetaData::IGNORE_READ_ONLY) != 0));
    const Url file = target.Append(metaId.ToString() + MetaFileSuffix(maskedKind));
    if (data.IsEmpty()) {
      KELVO_RETURN_ON_ERROR(file.IoDelete(false));
    } else {
      KELVO_RETURN_ON_ERROR(target.IoCreateDirectory(true));
      KELVO_RETURN_ON_ERROR(WriteMetaDataFile(file, data, (maskedKind & AssetMetaData::DERIVED) != 0));
    }
    description = entry.description;
  }
  HandleMetaDataStored(description, metaId, maskedKind, previous, data);
  return {};
}

Result<std::string> BuiltinRepository::GetRepositoryName(const LanguageRef&, bool addDetails) {
  if (addDetails) return FormatString("@ (@)", kBuiltinName, GetId());
  return std::string(kBuiltinName);
}

Result<void> BuiltinRepository::SetRepositoryName(const std::string&, const LanguageRef&) {
  return UnsupportedOperationError("The built-in repository can't be renamed.");
}

} // namespace kelvo

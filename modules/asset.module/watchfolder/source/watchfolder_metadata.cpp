#include "watchfolder_metadata.h"

#include <atomic>
#include <mutex>
#include <unordered_map>

#include "asset/storage/url_layout.h"
#include "asset/watchfolder/filewatchassetrepository.h"
#include "kelvo/memory_io.h"
#include "watchfolder_store.h"

namespace kelvo {

namespace {

std::uint32_t KindOfAttribute(std::string_view attribute) {
  if (attribute.ends_with(".derived")) return AssetMetaData::DERIVED | AssetMetaData::PERSISTENT;
  if (attribute.ends_with(".version")) return AssetMetaData::VERSION | AssetMetaData::PERSISTENT;
  return AssetMetaData::PERSISTENT;
}

std::string MetaIdOfAttribute(std::string_view attribute) {
  const auto dot = attribute.rfind('.');
  return std::string(dot == std::string_view::npos ? attribute : attribute.substr(0, dot));
}

// A scratch file under the "memory" scheme, removed when it leaves scope: documents are encoded
// and decoded through the same reader and writer as the metadata files of a URL repository.
class ScratchFile {
public:
  ScratchFile() {
    static std::atomic<std::uint64_t> counter{0};
    RegisterMemoryIoHandler();
    _url = Url("memory", "watchfolder-scratch/" + std::to_string(++counter));
  }
  ~ScratchFile() { (void)_url.IoDelete(false); }
  const Url& GetUrl() const { return _url; }

private:
  Url _url;
};

Url MetasqUrl(std::uint64_t urlHash, const Id& repositoryId, const std::string& attribute, const std::string& suffix) {
  Url url("metasq", FormatString("@/@/@.@", static_cast<std::int64_t>(urlHash), 1, attribute, suffix));
  url.SetData(g_metasqRepositoryKey, Data(repositoryId));
  return url;
}

struct LiveTable {
  std::mutex lock;
  std::unordered_map<Id, std::weak_ptr<FileWatchAssetRepositoryImpl>> repositories;
};

LiveTable& Live() {
  static auto* table = new LiveTable();
  return *table;
}

} // namespace

std::string AttributeOf(const InternedId& metaId, std::uint32_t kind) {
  const char* suffix = (kind & AssetMetaData::DERIVED) ? ".derived" : (kind & AssetMetaData::VERSION) ? ".version" : ".meta";
  return metaId.ToString() + suffix;
}

Result<void> MergeStoredKeys(WatchFolderStore& store, std::uint64_t urlHash, const Id& repositoryId,
                             MetaEntryMap& entries) {
  return store.ListKeys(static_cast<std::int64_t>(urlHash),
                        [&](std::int64_t, const std::string& attribute, const std::string& suffix) -> Result<void> {
                          const InternedId metaId(MetaIdOfAttribute(attribute));
                          const std::uint32_t kind = KindOfAttribute(attribute);
                          if (suffix.empty())
                            entries[metaId] = MetaEntry{Data(), kind, false, 0};
                          else
                            entries[metaId] = MetaEntry{Data(MetasqUrl(urlHash, repositoryId, attribute, suffix)), kind,
                                                        true, 0};
                          return {};
                        });
}

Result<Data> WriteStoredValue(WatchFolderStore& store, std::uint64_t urlHash, const Id& repositoryId,
                              const InternedId& metaId, std::uint32_t kind, const Data& value, const Url& source) {
  const std::string attribute = AttributeOf(metaId, kind);
  const auto assetid = static_cast<std::int64_t>(urlHash);
  if (!source.IsEmpty()) {
    KELVO_ASSIGN_OR_RETURN(std::string bytes, source.ReadAll());
    std::string suffix = source.GetSuffix();
    if (suffix.empty()) suffix = "file";
    KELVO_RETURN_ON_ERROR(store.StoreValue(assetid, attribute, suffix, Blob(bytes.begin(), bytes.end())));
    return Data(MetasqUrl(urlHash, repositoryId, attribute, suffix));
  }
  if (value.IsEmpty()) {
    KELVO_RETURN_ON_ERROR(store.DeleteValue(assetid, attribute));
    return Data();
  }
  ScratchFile scratch;
  KELVO_RETURN_ON_ERROR(WriteMetaDataFile(scratch.GetUrl(), value, (kind & AssetMetaData::DERIVED) != 0));
  KELVO_ASSIGN_OR_RETURN(std::string bytes, scratch.GetUrl().ReadAll());
  KELVO_RETURN_ON_ERROR(store.StoreValue(assetid, attribute, "", Blob(bytes.begin(), bytes.end())));
  return value;
}

Result<std::optional<Data>> ReadStoredValue(WatchFolderStore& store, std::uint64_t urlHash, const InternedId& metaId,
                                            std::uint32_t kind) {
  KELVO_ASSIGN_OR_RETURN(std::optional<Blob> bytes,
                         store.ReadValue(static_cast<std::int64_t>(urlHash), AttributeOf(metaId, kind)));
  if (!bytes || bytes->empty()) return std::optional<Data>();
  ScratchFile scratch;
  KELVO_RETURN_ON_ERROR(scratch.GetUrl().WriteAll(std::string_view(reinterpret_cast<const char*>(bytes->data()), bytes->size())));
  return ReadMetaDataFile(scratch.GetUrl(), (kind & AssetMetaData::DERIVED) != 0);
}

Result<Url> ReadMetasqValue(WatchFolderStore& store, const Id& repositoryId, const Url& url) {
  if (url.GetScheme() != "metasq")
    return IllegalArgumentError("Illegal argument: Condition url.GetScheme() == URLSCHEME_METASQ not fulfilled. ");
  const std::string& path = url.GetPath();
  const auto first = path.find('/');
  const auto second = first == std::string::npos ? std::string::npos : path.find('/', first + 1);
  if (second == std::string::npos) return IllegalArgumentError("unable to load metadata from sqlite: @", url);
  std::int64_t assetid = 0;
  try {
    assetid = std::stoll(path.substr(0, first));
  } catch (const std::exception&) {
    return IllegalArgumentError("unable to load metadata from sqlite: @", url);
  }
  const std::string name = path.substr(second + 1);
  const auto dot = name.rfind('.');
  const std::string attribute = dot == std::string::npos ? name : name.substr(0, dot);
  Result<std::optional<Blob>> bytes = store.ReadValue(assetid, attribute);
  if (bytes.HasError()) return ErrorWithCause(bytes.GetError(), errors::io, FormatString("unable to load metadata from sqlite: @", url));
  if (!*bytes) return IoError("unable to load metadata from sqlite: @", url);
  RegisterMemoryIoHandler();
  const Url memory("memory", "watchfolder-metasq/" + repositoryId.ToString() + "/" + path);
  KELVO_RETURN_ON_ERROR(memory.WriteAll(std::string_view(reinterpret_cast<const char*>((*bytes)->data()), (*bytes)->size())));
  return memory;
}

void RegisterLiveWatchFolder(const Id& repositoryId, std::weak_ptr<FileWatchAssetRepositoryImpl> repository) {
  LiveTable& table = Live();
  std::lock_guard guard(table.lock);
  table.repositories[repositoryId] = std::move(repository);
}

void UnregisterLiveWatchFolder(const Id& repositoryId, const FileWatchAssetRepositoryImpl*) {
  LiveTable& table = Live();
  std::lock_guard guard(table.lock);
  auto it = table.repositories.find(repositoryId);
  // Only a dead entry goes: another repository object on the same folder may have taken its place.
  if (it != table.repositories.end() && it->second.expired()) table.repositories.erase(it);
}

Result<Url> ResolveWatchFolderMetasqUrl(const Url& url) {
  if (url.GetScheme() != "metasq")
    return IllegalArgumentError("Illegal argument: Condition url.GetScheme() == URLSCHEME_METASQ not fulfilled. ");
  const std::optional<Id> rid = url.GetData(g_metasqRepositoryKey).Get<Id>();
  if (!rid) return IllegalStateError("Illegal state: Condition repo not fulfilled. ");
  std::shared_ptr<FileWatchAssetRepositoryImpl> repository;
  {
    LiveTable& table = Live();
    std::lock_guard guard(table.lock);
    auto it = table.repositories.find(*rid);
    if (it != table.repositories.end()) repository = it->second.lock();
  }
  if (!repository) return IllegalStateError("Illegal state: Condition impl not fulfilled. ");
  return repository->ResolveMetasqUrl(url);
}

} // namespace kelvo

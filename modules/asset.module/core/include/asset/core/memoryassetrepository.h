#pragma once
// A repository whose storage is in memory: content lives under the "memory" URL scheme and the
// version records in a MemoryAssetStore. Several repository objects may share one store, as
// several processes share one directory; a new object on a store reads what earlier ones wrote.

#include <map>
#include <memory>
#include <mutex>
#include <optional>

#include "asset/core/baseassetrepository.h"

namespace kelvo {

// The storage of in-memory repositories. Safe for concurrent use by multiple threads.
class MemoryAssetStore {
public:
  struct StoredMeta {
    std::uint32_t kind = 0;
    Data value;
  };
  struct StoredVersionRecord {
    Id versionId;
    bool deleted = false;
    Url url;
    std::map<InternedId, StoredMeta> meta;
  };
  struct StoredAsset {
    Id type;
    std::map<std::uint64_t, StoredVersionRecord> versions; // by version number
    std::uint64_t repositoryWord = 0;
  };

  // A store whose content URLs lie under "memory:///<name>/".
  explicit MemoryAssetStore(std::string name);
  ~MemoryAssetStore();
  const std::string& GetName() const { return _name; }

private:
  friend class MemoryAssetRepositoryImpl;
  std::string _name;
  std::mutex _lock;
  std::map<Id, StoredAsset> _assets;
  std::uint64_t _nextVersion = 1;
};

class MemoryAssetRepositoryImpl : public BaseAssetRepositoryImpl {
public:
  // Makes a repository on store (a new empty store when null) and reads the Ids it holds.
  static Result<std::shared_ptr<MemoryAssetRepositoryImpl>> Create(const Id& rid, bool writable,
                                                                   std::shared_ptr<MemoryAssetStore> store = nullptr);

  bool IsWritable() const override { return _writable; }
  const std::shared_ptr<MemoryAssetStore>& GetStore() const { return _store; }
  // Reads the Ids of the store again (after another repository object on it has stored).
  Result<void> Rescan() { return ReloadIds(); }

  Result<void> LoadExistingIdsImpl(const IdReceiver& receiver) override;
  Result<void> LoadVersionsImpl(const Id& aid, const Id& type, const Data& adata,
                                const VersionReceiver& receiver) override;
  Result<Data> CreateDataForIdImpl(const Id& aid, const Id& type) override;
  Result<StoredVersion> StoreImpl(const Asset& asset, bool deleteAsset, const Id& overwrittenHash,
                                  const AssetDescription& source, Data& adata, const VersionNumber& version,
                                  bool addEncryption) override;
  Result<void> EraseImpl(const AssetDescription& asset, const Data& vdata) override;
  Result<bool> HandleAssetErasedCompletely(const Id& aid, const Data& adata) override;
  Result<std::optional<Data>> LoadMetaDataImpl(const Data& vdata, const InternedId& metaId,
                                               std::uint32_t kind) override;
  Result<Data> StoreMetaDataImpl(const Data& vdata, const InternedId& metaId, const Data& data,
                                 const IdAndVersion& asset, const Url& source, std::uint32_t kind,
                                 bool urlMode) override;
  Result<VersionNumber> GetNextVersionImpl() override;
  Result<void> UpdateNextVersionImpl(const VersionNumber& currentVersion) override;

  MemoryAssetRepositoryImpl(bool writable, std::shared_ptr<MemoryAssetStore> store)
      : _writable(writable), _store(std::move(store)) {}

private:
  bool _writable;
  std::shared_ptr<MemoryAssetStore> _store;
};

} // namespace kelvo

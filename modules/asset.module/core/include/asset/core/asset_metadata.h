#pragma once
// The metadata table of a stored version: metadata Id to a value with a kind. Values are read
// lazily from the repository's back end, or computed by the asset type when they can't be read.

#include <cstdint>
#include <memory>
#include <optional>
#include <unordered_map>
#include <utility>
#include <vector>

#include "asset/core/asset_identity.h"
#include "kelvo/data.h"
#include "kelvo/id.h"
#include "kelvo/lock.h"
#include "kelvo/result.h"

namespace kelvo {

class AssetMetaDataInterface;
using AssetMetaDataRef = std::shared_ptr<AssetMetaDataInterface>;

struct AssetMetaData {
  // Who may change an entry, whether it survives a new version, where it is kept and whether it
  // may be computed again.
  enum KIND : std::uint32_t {
    NONE = 0,
    READ_ONLY = 1,
    PERSISTENT = 2,
    VERSION = 4,
    DERIVED = 8,
    USER = 16,
    // The combinations that back ends keep, each in its own place.
    PERSISTENT_USER = PERSISTENT | USER,                     // the user's own value
    PERSISTENT_VERSION = PERSISTENT | VERSION,               // belongs to one version only
    READ_ONLY_VERSION = READ_ONLY | PERSISTENT | VERSION,    // set by the store, e.g. the time stamp
    DERIVED_CACHE = PERSISTENT | DERIVED,                    // computed, kept until the content changes
    MASK = 0xffff,
    // Only as an argument of a store: the store may change a READ_ONLY entry. Never kept.
    IGNORE_READ_ONLY = 0x10000,
  };
  // The shared empty metadata object; a null metadata reference behaves as this object.
  static const AssetMetaDataRef& DefaultValuePtr();
};

// True when the kind without USER is exactly PERSISTENT: the entries a new version inherits and
// whose change makes derived values stale.
inline bool IsPlainPersistent(std::uint32_t kind) {
  return (kind & AssetMetaData::MASK & ~std::uint32_t(AssetMetaData::USER)) == AssetMetaData::PERSISTENT;
}

// Metadata ids that the core reads or writes for any asset.
namespace metaids {
inline const InternedId timestamp{"net.kelvo.asset.timestamp"};
inline const InternedId versiontag{"net.kelvo.asset.versiontag"};
inline const InternedId validversion{"net.kelvo.asset.validversion"};
inline const InternedId dependencies{"net.kelvo.asset.dependencies.2"};
inline const InternedId subtype{"net.kelvo.asset.subtype"};
inline const InternedId size{"net.kelvo.asset.size"};
inline const InternedId previewimageurl{"net.kelvo.asset.previewimageurl"};
inline const InternedId previewanimurl{"net.kelvo.asset.previewanimurl"};
// The parent category of an asset (an Id, kind PERSISTENT; empty or missing: top level).
inline const InternedId category{"net.kelvo.node.category"};
// The category a type gives its assets without a category of their own.
inline const InternedId baseCategory{"net.kelvo.node.base.category"};
} // namespace metaids

// One entry of a metadata table. data is empty until loaded.
struct MetaEntry {
  Data data;
  std::uint32_t kind = 0;
  bool loaded = false;
  std::uint64_t timeStamp = 0;
};

using MetaEntryMap = std::unordered_map<InternedId, MetaEntry>;
// Values without kinds, as returned by an asset type's Store.
using MetaValueMap = std::unordered_map<InternedId, Data>;

class AssetMetaDataInterface {
public:
  virtual ~AssetMetaDataInterface() = default;
  // All entries with their kinds, in table order.
  virtual Result<std::vector<std::pair<InternedId, std::uint32_t>>> GetExistingEntries() const = 0;
  // The value; empty when there is none. Loads or computes it on first use.
  virtual Result<std::optional<Data>> Get(const InternedId& metaId) const = 0;
  // The change counter of the entry; 0 when it does not exist.
  virtual std::uint64_t GetTimeStamp(const InternedId& metaId) const = 0;
  // Writes the value into mem when it is of the data type `type` (datatypes::none for any type);
  // false when there is no value of this type.
  virtual Result<bool> PrivateGet(const InternedId& metaId, const Id& type, Data& mem) const = 0;

  // The value when it exists and is of type T.
  template <typename T> Result<std::optional<T>> GetValue(const InternedId& metaId) const {
    auto r = Get(metaId);
    if (r.HasError()) return r.GetError();
    if (!r->has_value()) return std::optional<T>();
    return (*r)->template Get<T>();
  }
};

// The metadata of one version, bound to its repository when it was made by one.
// Safe for concurrent use by multiple threads: one reader-writer lock guards the entries.
class AssetMetaDataImpl final : public AssetMetaDataInterface, public std::enable_shared_from_this<AssetMetaDataImpl> {
public:
  AssetMetaDataImpl() = default;
  AssetMetaDataImpl(std::weak_ptr<AssetRepositoryInterface> repository, Id typeId, IdAndVersion aid, VersionKey key,
                    Data vdata, MetaEntryMap entries);

  Result<std::vector<std::pair<InternedId, std::uint32_t>>> GetExistingEntries() const override;
  Result<std::optional<Data>> Get(const InternedId& metaId) const override;
  std::uint64_t GetTimeStamp(const InternedId& metaId) const override;
  Result<bool> PrivateGet(const InternedId& metaId, const Id& type, Data& mem) const override;

  // Writes one value and gives back the previous one. An empty data removes the entry. A change
  // of plain persistent data removes all derived entries. Fails on a READ_ONLY entry unless
  // ignoreReadOnly. The kind of an existing entry never changes.
  // REQUIRES: the write lock (GetLock()) is held.
  Result<Data> SetLocked(const InternedId& metaId, const Data& data, std::uint32_t kind, bool ignoreReadOnly);
  // The same, taking the lock.
  Result<Data> Set(const InternedId& metaId, const Data& data, std::uint32_t kind, bool ignoreReadOnly);
  // Adds an entry that the back end knows exists, not loaded yet (or loaded with a value).
  void AddEntry(const InternedId& metaId, std::uint32_t kind, std::optional<Data> value);

  ARWLock& GetLock() const { return _lock; }
  const Id& GetTypeId() const { return _typeId; }
  const IdAndVersion& GetIdAndVersion() const { return _aid; }
  const VersionKey& GetKey() const { return _key; }
  const Data& GetVersionData() const { return _vdata; }
  bool IsBound() const { return _bound; }
  std::weak_ptr<AssetRepositoryInterface> GetRepositoryWeak() const { return _repository; }

private:
  Result<bool> Compute(const InternedId& metaId, const Id& type, Data& mem) const;
  static bool Deliver(const MetaEntry& entry, const Id& type, Data& mem);

  std::weak_ptr<AssetRepositoryInterface> _repository;
  bool _bound = false;
  Id _typeId;
  IdAndVersion _aid;
  VersionKey _key;
  Data _vdata;
  mutable ARWLock _lock;
  mutable MetaEntryMap _entries;
};

// "<version>_<build>", the stamp that marks derived metadata as made by this application version
// and module build: derived values with another stamp are computed again. Empty until the module
// start sets it. Thread safe.
std::string GetDerivedStamp();
void SetDerivedStamp(std::string stamp);

} // namespace kelvo

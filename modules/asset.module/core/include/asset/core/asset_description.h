#pragma once
// Descriptions (light handles of stored versions), loaded assets, and asset types.

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "asset/core/content_digest.h"
#include "asset/core/asset_identity.h"
#include "asset/core/asset_metadata.h"
#include "kelvo/data.h"
#include "kelvo/language.h"
#include "kelvo/lock.h"
#include "kelvo/registry.h"
#include "kelvo/result.h"
#include "kelvo/url.h"

namespace kelvo {

// How a repository is opened from a URL (CreateRepositoryFromUrl).
struct RepositoryOptions {
  // Stores are allowed; a writable repository creates its tree when it is missing.
  bool writable = false;
  // Derived metadata goes to the preferences directory instead of the repository's tree.
  bool derivedInPrefs = false;
  // A short-lived repository: a read-only one keeps no derived metadata at all.
  bool tempRepository = false;
  // Mounted by the user (a custom database): its name falls back to the name of its directory or
  // origin, and SetRepositoryName is refused.
  bool custom = false;
};

class AssetInterface;
class AssetTypeInterface;
class AssetDescriptionInterface;
using Asset = std::shared_ptr<AssetInterface>;
using AssetType = std::shared_ptr<AssetTypeInterface>;
using AssetDescription = std::shared_ptr<const AssetDescriptionInterface>;


using AssetReferenceReceiver = std::function<Result<bool>(const AssetReferenceRef&)>;
using AssetUpdateReceiver = std::function<Result<void>(const AssetReferenceRef&, const AssetDescription&)>;

struct AssetVersionValidity; // assets.h
class IdAndVersionSet;       // assets.h

// Translated-string keys used by the core.
namespace stringkeys {
inline const Id name{"net.kelvo.object.base.name"};
inline const Id tags{"net.kelvo.object.base.tags"};
// The member of a translated string's dictionary that holds its text.
inline const Id translatedString{"net.kelvo.description.string.base.translatedstring"};
} // namespace stringkeys

// The light handle of one stored version. Immutable after construction except for the cached
// loaded assets and the late URL. Safe for concurrent use by multiple threads.
class AssetDescriptionInterface : public AssetBase {
public:
  // The URL of the content; fetched from the latest version when the description has none.
  virtual Result<Url> GetUrl() const = 0;
  // Loads the asset through its type; the result is cached per updateLinks.
  virtual Result<Asset> Load(bool updateLinks) const = 0;
  // Never null: the shared empty object when the version has no metadata.
  virtual AssetMetaDataRef GetMetaData() const = 0;
  virtual bool IsDeleted() const = 0;
  // A translated string of the asset, or fallback (the asset Id for the name with an empty
  // fallback) when no language has one.
  virtual Result<std::string> GetMetaString(const Id& key, const LanguageRef& language,
                                            const std::string& fallback) const = 0;
  virtual Result<void> StoreMetaString(const Id& key, const std::string& value, const LanguageRef& language) const = 0;
  virtual const VersionKey& GetKey() const = 0;
};

class AssetDescriptionImpl final : public AssetDescriptionInterface,
                                   public std::enable_shared_from_this<AssetDescriptionImpl> {
public:
  AssetDescriptionImpl(IdAndVersion aid, Id typeId, VersionKey key, AssetMetaDataRef metaData, bool deleted,
                       AssetRepositoryRef repository, Url url, Asset loaded = nullptr);

  Id GetTypeId() const override { return _typeId; }
  IdAndVersion GetIdAndVersion() const override { return _aid; }
  Id GetRepositoryId() const override { return _repositoryId; }
  AssetRepositoryRef GetRepository() const override { return _repository.lock(); }
  Result<Url> GetUrl() const override;
  Result<Asset> Load(bool updateLinks) const override;
  AssetMetaDataRef GetMetaData() const override { return _metaData; }
  bool IsDeleted() const override { return _deleted; }
  Result<std::string> GetMetaString(const Id& key, const LanguageRef& language,
                                    const std::string& fallback) const override;
  Result<void> StoreMetaString(const Id& key, const std::string& value, const LanguageRef& language) const override;
  const VersionKey& GetKey() const override { return _key; }
  // Holds asset, changed by a link update, as this version's asset loaded with link updates: it
  // gets this version's identity and the held asset's update counter plus 1 (1 when none is held).
  Result<void> HoldUpdatedAsset(const Asset& asset) const;

private:
  IdAndVersion _aid;
  Id _typeId;
  VersionKey _key;
  AssetMetaDataRef _metaData;
  bool _deleted;
  Id _repositoryId;
  std::weak_ptr<AssetRepositoryInterface> _repository;
  mutable OnceGuard _urlOnce;
  mutable Url _url;
  mutable ARWLock _loadedLock;
  mutable Asset _loaded;
  mutable ARWLock _loadedWithUpdatesLock;
  mutable Asset _loadedWithUpdates;
};

// A loaded asset. Not safe for concurrent mutation: a loaded asset is shared read-only; writers
// clone it first (Clone) when it is shared.
class AssetInterface : public AssetBaseWithUpdate {
public:
  virtual void SetId(const IdAndVersion& aid, std::uint64_t update, const AssetRepositoryRef& repository,
                     const Url& url) = 0;
  virtual AssetType GetType() const = 0;
  // Asks the repository for the description; null when the repository is gone.
  virtual AssetDescription GetDescription() const = 0;
  // Reports the assets this one refers to (with onlyUpdatable, those that may follow new versions);
  // returns false when the receiver stopped.
  virtual Result<bool> GetReferencedAssets(bool onlyUpdatable, const AssetReferenceReceiver& receiver) const = 0;
  // Calls receiver(reference, updatedAsset) for each updatable reference of this asset that one of
  // updatedAssets matches (MatchesUpdate). Errors: illegalargument ("Ambiguous update.") when two
  // match one reference.
  virtual Result<void> GetPendingUpdates(const std::vector<AssetDescription>& updatedAssets,
                                         const AssetUpdateReceiver& receiver) const = 0;
  virtual void SetMetaData(const AssetMetaDataRef& data) = 0;
  virtual AssetMetaDataRef GetMetaData() const = 0;
  virtual Asset Clone() const = 0;

  // ---- static services ----
  static Result<Id> MakeUuid(std::string_view prefix, bool compact) { return kelvo::MakeUuid(prefix, compact); }
  // "strings_" and the language identifier.
  static InternedId GetLanguageMetaDataId(const Id& languageId);
  // The version tag, " - " and the local time "%Y-%m-%d %H:%M"; the version Id when both are empty.
  static Result<std::string> GetVersionString(const AssetDescription& description);
  static Result<std::string> GetVersionString(const Asset& asset);

  // The standard repositories and the asset URL services; assets.h declares their types and
  // tells what each does.
  static AssetRepositoryRef GetBuiltinRepository();
  static AssetRepositoryRef GetApplicationRepository();
  static AssetRepositoryRef GetUserPrefsRepository();
  static Result<AssetRepositoryRef> CreateRepositoryFromUrl(const Id& rid, const Id& repoType,
                                                            const std::vector<AssetRepositoryRef>& bases,
                                                            const Url& url, const RepositoryOptions& options);
  // The same with the options that callers other than the database registry need.
  static Result<AssetRepositoryRef> CreateRepositoryFromUrl(const Id& rid, const Id& repoType,
                                                            const std::vector<AssetRepositoryRef>& bases,
                                                            const Url& url, bool writable, bool derivedInPrefs,
                                                            bool tempRepository) {
    return CreateRepositoryFromUrl(rid, repoType, bases, url,
                                   RepositoryOptions{writable, derivedInPrefs, tempRepository, false});
  }
  static Result<Url> AddRepositoryScope(const Url& url, const AssetRepositoryRef& repository);
  static Result<AssetDescription> ResolveAsset(const Url& url, const AssetRepositoryRef& repository);
  static Result<Url> GetAssetUrl(const AssetDescription& asset, bool isLatest);
  static Result<bool> IsAssetValid(const AssetDescription& asset);
  static Result<bool> IsAssetVisible(const AssetDescription& asset);
  static Result<AssetVersionValidity> IsAssetVersionValid(const AssetDescription& asset);
  static Result<void> ResolveAssetsWithMissingAssets(
      const AssetRepositoryRef& searchRepository, const Id& typeId, const IdAndVersion& idVersion,
      const UniversalDateTime& assetCreationDate, IdAndVersionSet& checked,
      const std::function<Result<void>(const AssetDescription&, const IdAndVersion&)>& callbackFound,
      const std::function<Result<void>(bool olderExists)>& callbackMissing);
};

// Defaults shared by all assets: identity, repository and metadata.
class AssetBaseImpl : public AssetInterface {
public:
  Id GetTypeId() const override;
  IdAndVersion GetIdAndVersion() const override { return _aid; }
  Id GetRepositoryId() const override { return _repositoryId; }
  AssetRepositoryRef GetRepository() const override { return _repository.lock(); }
  std::uint64_t GetUpdate() const override { return _update; }
  void SetId(const IdAndVersion& aid, std::uint64_t update, const AssetRepositoryRef& repository,
             const Url& url) override;
  AssetDescription GetDescription() const override;
  Result<bool> GetReferencedAssets(bool onlyUpdatable, const AssetReferenceReceiver& receiver) const override;
  Result<void> GetPendingUpdates(const std::vector<AssetDescription>& updatedAssets,
                                 const AssetUpdateReceiver& receiver) const override;
  void SetMetaData(const AssetMetaDataRef& data) override;
  AssetMetaDataRef GetMetaData() const override;

protected:
  AssetBaseImpl() = default;
  AssetBaseImpl(const AssetBaseImpl& other);

private:
  IdAndVersion _aid;
  std::uint64_t _update = 0;
  Id _repositoryId;
  std::weak_ptr<AssetRepositoryInterface> _repository;
  mutable SpinLock _metaLock;
  mutable std::weak_ptr<AssetMetaDataInterface> _metaData;
};

// What an asset type's ComputeMetaData gives: a value (possibly none) and whether it is final,
// that is, not to be cached.
struct ComputedMetaData {
  std::optional<Data> value;
  bool final = false;
};

// How assets of one kind are read, written, named and given derived data.
class AssetTypeInterface {
public:
  virtual ~AssetTypeInterface() = default;
  virtual Id GetId() const = 0;
  // The data type Id of the asset's reference.
  virtual Id GetAssetDataType() const = 0;
  // Suffix of the stored content (without "."); empty for none.
  virtual std::string GetUrlSuffix(const Asset& asset) const = 0;
  virtual Url GetDefaultIcon(const AssetRepositoryRef& repository, const Asset& asset,
                             const AssetMetaDataRef& meta) const = 0;
  // Reads the asset from url. Must have no side effect that a second run would repeat.
  virtual Result<Asset> Load(const AssetRepositoryRef& repo, const AssetDescription& description, const Url& url,
                             bool updateLinks) const = 0;
  // Writes the asset to url (nothing when url is empty) and, when hash is given, stores the
  // SHA-256 of the content in it. Returns metadata to add to the version.
  virtual Result<MetaValueMap> Store(const Asset& asset, const Url& url, Digest* hash) const = 0;
  virtual Result<void> CopyWithEncryption(const AssetDescription& source, const Url& from, const Url& to) const = 0;
  virtual Id GetRepositoryId(const Id& id, bool fromTo) const = 0;
  virtual Result<std::string> GetMetaString(const AssetDescription& asset, const Id& key, const LanguageRef& language,
                                            const std::string& fallback) const = 0;
  virtual Result<void> StoreMetaString(const AssetDescription& asset, const Id& key, const std::string& value,
                                       const LanguageRef& language) const = 0;
  // Computes a metadata value of the version described by meta.
  virtual Result<ComputedMetaData> ComputeMetaData(const AssetRepositoryRef& repository, const Asset& asset,
                                                   const AssetMetaDataRef& meta, const InternedId& metaId) const = 0;
  // A property of the type (net.kelvo.assettypeproperties.*); an error when it is unknown.
  virtual Result<Data> GetData(const Id& key) const = 0;
};

namespace assettypeproperties {
inline const Id supportVersions{"net.kelvo.assettypeproperties.support.versions"};
}

// Defaults for every slot from CopyWithEncryption on, the default icon, and the property
// support.versions = true.
class AssetTypeBase : public AssetTypeInterface {
public:
  Url GetDefaultIcon(const AssetRepositoryRef& repository, const Asset& asset,
                     const AssetMetaDataRef& meta) const override;
  Result<void> CopyWithEncryption(const AssetDescription& source, const Url& from, const Url& to) const override;
  Id GetRepositoryId(const Id& id, bool) const override { return id; }
  Result<std::string> GetMetaString(const AssetDescription& asset, const Id& key, const LanguageRef& language,
                                    const std::string& fallback) const override;
  Result<void> StoreMetaString(const AssetDescription& asset, const Id& key, const std::string& value,
                               const LanguageRef& language) const override;
  Result<ComputedMetaData> ComputeMetaData(const AssetRepositoryRef& repository, const Asset& asset,
                                           const AssetMetaDataRef& meta, const InternedId& metaId) const override;
  Result<Data> GetData(const Id& key) const override;
};

// The registry net.kelvo.registry.assettypes: type Id to asset type.
using AssetTypeRegistry = Registry<AssetType>;
extern const Id g_assetTypesRegistryId;
std::shared_ptr<AssetTypeRegistry> GetAssetTypeRegistry();
AssetType FindAssetType(const Id& typeId);

// ---- file assets ---------------------------------------------------------------------------

extern const Id g_fileAssetTypeId;
// Category assets are a type of the types layer; lower layers find them by this Id (breadcrumbs).
inline const Id g_categoryAssetTypeId{"net.kelvo.assettype.category"};

class FileAssetInterface : public AssetBaseImpl {
public:
  static Asset Create(const Url& url);
  virtual Url GetUrl() const = 0;
};

class FileAssetImpl final : public FileAssetInterface {
public:
  explicit FileAssetImpl(Url url) : _url(std::move(url)) {}
  Url GetUrl() const override { return _url; }
  AssetType GetType() const override;
  void SetId(const IdAndVersion& aid, std::uint64_t update, const AssetRepositoryRef& repository,
             const Url& url) override;
  Asset Clone() const override { return std::make_shared<FileAssetImpl>(*this); }

private:
  Url _url;
};

// The type of file assets: content is a file or a directory tree, hashed as its bytes or as a
// sorted sha256sum-style listing.
class FileAssetType final : public AssetTypeBase {
public:
  Id GetId() const override { return g_fileAssetTypeId; }
  Id GetAssetDataType() const override { return Id("net.kelvo.datatype.fileasset"); }
  std::string GetUrlSuffix(const Asset& asset) const override;
  Url GetDefaultIcon(const AssetRepositoryRef& repository, const Asset& asset,
                     const AssetMetaDataRef& meta) const override;
  Result<Asset> Load(const AssetRepositoryRef& repo, const AssetDescription& description, const Url& url,
                     bool updateLinks) const override;
  Result<MetaValueMap> Store(const Asset& asset, const Url& url, Digest* hash) const override;
  Result<ComputedMetaData> ComputeMetaData(const AssetRepositoryRef& repository, const Asset& asset,
                                           const AssetMetaDataRef& meta, const InternedId& metaId) const override;
};

} // namespace kelvo

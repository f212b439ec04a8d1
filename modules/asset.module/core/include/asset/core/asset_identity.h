#pragma once
// How a stored thing is named: asset and version identifiers, version order, generated
// identifiers, and the link objects through which one asset refers to another.

#include <cstdint>
#include <memory>
#include <string>

#include "asset/core/asset_config.h"
#include "kelvo/data.h"
#include "kelvo/datetime.h"
#include "kelvo/id.h"
#include "kelvo/result.h"
#include "kelvo/url.h"

namespace kelvo {

class AssetRepositoryInterface;
using AssetRepositoryRef = std::shared_ptr<AssetRepositoryInterface>;

// An asset Id and a version Id. The version text carries no meaning for the core.
struct IdAndVersion {
  Id first;
  Id second;
  bool IsEmpty() const { return first.IsEmpty() && second.IsEmpty(); }
  friend bool operator==(const IdAndVersion&, const IdAndVersion&) = default;
  friend bool operator<(const IdAndVersion& a, const IdAndVersion& b) {
    return a.first < b.first || (a.first == b.first && a.second < b.second);
  }
};
std::string ToString(const IdAndVersion& v);
std::size_t HashValue(const IdAndVersion& v);

// The version that does not exist yet: "*".
extern const Id g_newVersion;

// Counts versions within one asset Id (from 1); repositoryWord is the hash of the Id of the
// repository that stored the first version, handed on unchanged.
struct VersionNumber {
  std::uint64_t number = 0;
  std::uint64_t repositoryWord = 0;
  bool IsZero() const { return number == 0 && repositoryWord == 0; }
  friend bool operator==(const VersionNumber&, const VersionNumber&) = default;
};

// The sort key of a stored version. Keys order by time, then repositoryWord, then number.
struct VersionKey {
  std::uint64_t time = 0;
  std::uint64_t number = 0;
  std::uint64_t repositoryWord = 0;

  // The key of g_newVersion: greater than that of any stored version.
  static VersionKey NewVersion() { return VersionKey{~std::uint64_t(0), 0, 0}; }
  friend bool operator==(const VersionKey&, const VersionKey&) = default;
  friend std::strong_ordering operator<=>(const VersionKey& a, const VersionKey& b) {
    if (auto c = a.time <=> b.time; c != 0) return c;
    if (auto c = a.repositoryWord <=> b.repositoryWord; c != 0) return c;
    return a.number <=> b.number;
  }
};

enum COMPARERESULT : int { LESS = -1, EQUAL = 0, GREATER = 1, INCOMPARABLE = 2 };

enum class ASSET_UPDATE_POLICY : std::int32_t { NEVER = 0, EXPLICIT = 1, IMPLICIT = 2 };
const char* GetEnumName(ASSET_UPDATE_POLICY policy);

// The stored form of one dependency under the metadata net.kelvo.asset.dependencies.2.
struct AssetDependencyStruct {
  IdAndVersion assetIdAndVersion;
  Id assetTypeId;
  UniversalDateTime assetCreationDate;
  std::string originalName;
  ASSET_UPDATE_POLICY updatePolicy = ASSET_UPDATE_POLICY::NEVER;
  friend bool operator==(const AssetDependencyStruct&, const AssetDependencyStruct&) = default;
};
std::size_t HashValue(const AssetDependencyStruct& v);
std::size_t HashValue(ASSET_UPDATE_POLICY v);

template <> struct DataTypeTraits<IdAndVersion> {
  static const Id& TypeId();
};
template <> struct DataTypeTraits<ASSET_UPDATE_POLICY> {
  static const Id& TypeId();
};
template <> struct DataTypeTraits<AssetDependencyStruct> {
  static const Id& TypeId();
};

// ---- identity interfaces --------------------------------------------------------------------

class AssetIdentifier {
public:
  virtual ~AssetIdentifier() = default;
  // The Id of the asset type; empty when unknown.
  virtual Id GetTypeId() const = 0;
  virtual IdAndVersion GetIdAndVersion() const = 0;
};

class AssetBase : public AssetIdentifier {
public:
  virtual Id GetRepositoryId() const = 0;
  // The repository, or null when it is gone.
  virtual AssetRepositoryRef GetRepository() const = 0;
};

class AssetBaseWithUpdate : public AssetBase {
public:
  // The number of in-memory link updates since the object was read; never stored.
  virtual std::uint64_t GetUpdate() const = 0;
};

class AssetLinkInterface;
using AssetLink = std::shared_ptr<AssetLinkInterface>;

class AssetReference : public AssetBaseWithUpdate {
public:
  virtual AssetLink GetLink() const = 0;
};
using AssetReferenceRef = std::shared_ptr<const AssetReference>;

class AssetLinkInterface : public AssetIdentifier {
public:
  // Makes a link to aid of asset type `type` with policy `up` and an empty url.
  static AssetLink Create(const Id& type, const Id& aid, ASSET_UPDATE_POLICY up);
  // Makes a link that refers by URL: empty IdAndVersion, policy NEVER.
  static AssetLink Create(const Id& type, const Url& url);

  virtual Url GetUrl() const = 0;
  // Links are followed through the repositories, never through the link object: always fails
  // with a function-not-implemented error.
  virtual Result<AssetRepositoryRef> Resolve(const AssetRepositoryRef& context) const = 0;
  virtual ASSET_UPDATE_POLICY GetUpdatePolicy() const = 0;
  virtual void SetUpdatePolicy(ASSET_UPDATE_POLICY up) = 0;
  virtual AssetLink Clone() const = 0;
  virtual bool Equals(const AssetLinkInterface& other) const = 0;
  virtual std::size_t GetHashCode() const = 0;
  // The url as a string when it is not empty, otherwise "<aid>/<version>/<policy>".
  virtual std::string ToString() const = 0;
};

class AssetLinkImpl final : public AssetLinkInterface {
public:
  AssetLinkImpl(Id typeId, IdAndVersion aid, ASSET_UPDATE_POLICY updatePolicy, Url url)
      : _typeId(std::move(typeId)), _aid(std::move(aid)), _updatePolicy(updatePolicy), _url(std::move(url)) {}
  Id GetTypeId() const override { return _typeId; }
  IdAndVersion GetIdAndVersion() const override { return _aid; }
  Url GetUrl() const override { return _url; }
  Result<AssetRepositoryRef> Resolve(const AssetRepositoryRef& context) const override;
  ASSET_UPDATE_POLICY GetUpdatePolicy() const override { return _updatePolicy; }
  void SetUpdatePolicy(ASSET_UPDATE_POLICY up) override { _updatePolicy = up; }
  AssetLink Clone() const override { return std::make_shared<AssetLinkImpl>(*this); }
  bool Equals(const AssetLinkInterface& other) const override;
  std::size_t GetHashCode() const override;
  std::string ToString() const override;

private:
  Id _typeId;
  IdAndVersion _aid;
  ASSET_UPDATE_POLICY _updatePolicy;
  Url _url;
};


// Makes a generated Id: "<prefix>@<body>", or the bare body when prefix is empty. The prefix
// ends at its first "@"; with compact only its part after the last "." stays and the body is 22
// characters of a 64-letter alphabet (6 with g_shortUuidForAssets) beginning with a letter;
// without compact the body is the 32 lower-case hex digits of a new UUID.
Result<Id> MakeUuid(std::string_view prefix, bool compact);

// The process-wide 4-bit salt of compact UUIDs, set once when the standard repositories start.
void SetUuidSalt(std::uint8_t salt);
std::uint8_t GetUuidSalt();
// The salt derived from a timer reading (the bits of a double).
std::uint8_t ComputeUuidSalt(double timer);

// The 64-bit fold of a hash used by hash maps keyed by hashes.
std::uint64_t FoldHash(std::uint64_t x);

} // namespace kelvo

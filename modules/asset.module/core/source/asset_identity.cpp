#include "asset/core/asset_identity.h"

#include <atomic>
#include <cstring>

#include "kelvo/hash.h"

namespace kelvo {

const Id g_newVersion{"*"};


std::string ToString(const IdAndVersion& v) { return v.first.ToString() + "/" + v.second.ToString(); }

std::size_t HashValue(const IdAndVersion& v) { return CombineHash(v.first.GetHashCode(), v.second.GetHashCode()); }

std::size_t HashValue(ASSET_UPDATE_POLICY v) { return static_cast<std::size_t>(v); }

std::size_t HashValue(const AssetDependencyStruct& v) {
  std::size_t h = HashValue(v.assetIdAndVersion);
  h = CombineHash(h, v.assetTypeId.GetHashCode());
  h = CombineHash(h, std::hash<std::uint64_t>()(v.assetCreationDate.GetValue()));
  h = CombineHash(h, std::hash<std::string>()(v.originalName));
  return CombineHash(h, HashValue(v.updatePolicy));
}

const char* GetEnumName(ASSET_UPDATE_POLICY policy) {
  switch (policy) {
  case ASSET_UPDATE_POLICY::NEVER: return "NEVER";
  case ASSET_UPDATE_POLICY::EXPLICIT: return "EXPLICIT";
  case ASSET_UPDATE_POLICY::IMPLICIT: return "IMPLICIT";
  }
  return "UNKNOWN";
}

const Id& DataTypeTraits<IdAndVersion>::TypeId() {
  static const Id id("net.kelvo.datatype.idandversion");
  return id;
}
const Id& DataTypeTraits<ASSET_UPDATE_POLICY>::TypeId() {
  static const Id id("net.kelvo.datatype.enum.asset_update_policy");
  return id;
}
const Id& DataTypeTraits<AssetDependencyStruct>::TypeId() {
  static const Id id("net.kelvo.datatype.asset.dependencystruct");
  return id;
}

// ---- links -------------------------------------------------------------------------------------

AssetLink AssetLinkInterface::Create(const Id& type, const Id& aid, ASSET_UPDATE_POLICY up) {
  return std::make_shared<AssetLinkImpl>(type, IdAndVersion{aid, Id()}, up, Url());
}

AssetLink AssetLinkInterface::Create(const Id& type, const Url& url) {
  return std::make_shared<AssetLinkImpl>(type, IdAndVersion{}, ASSET_UPDATE_POLICY::NEVER, url);
}

Result<AssetRepositoryRef> AssetLinkImpl::Resolve(const AssetRepositoryRef&) const {
  return FunctionNotImplementedError("Links are resolved through the repositories.");
}

bool AssetLinkImpl::Equals(const AssetLinkInterface& other) const {
  auto* o = dynamic_cast<const AssetLinkImpl*>(&other);
  return o && o->_typeId == _typeId && o->_aid == _aid && o->_updatePolicy == _updatePolicy &&
         o->_url.Compare(_url) == 0;
}

std::size_t AssetLinkImpl::GetHashCode() const { return HashValue(_aid); }

std::string AssetLinkImpl::ToString() const {
  if (!_url.IsEmpty()) return _url.ToString();
  return FormatString("@/@", _aid, GetEnumName(_updatePolicy));
}

// ---- generated identifiers -------------------------------------------------------------------

namespace {
std::atomic<std::uint8_t> g_uuidSalt{0};
}

void SetUuidSalt(std::uint8_t salt) { g_uuidSalt.store(salt & 15); }
std::uint8_t GetUuidSalt() { return g_uuidSalt.load(); }

std::uint8_t ComputeUuidSalt(double timer) {
  std::uint64_t x = 0;
  static_assert(sizeof(x) == sizeof(timer));
  std::memcpy(&x, &timer, sizeof(x));
  x ^= x >> 32;
  const std::uint32_t y = static_cast<std::uint32_t>(x ^ (x >> 12) ^ (x >> 20));
  return static_cast<std::uint8_t>((y ^ (y >> 7) ^ (y >> 4)) & 15);
}

std::uint64_t FoldHash(std::uint64_t x) {
  const std::uint64_t y = x ^ (x >> 32);
  const std::uint64_t z = y ^ (y >> 12) ^ (y >> 20);
  return z ^ (z >> 7) ^ (z >> 4);
}

Result<Id> MakeUuid(std::string_view prefix, bool compact) {
  std::string text;
  if (!prefix.empty()) {
    std::string_view p = prefix.substr(0, prefix.find('@'));
    if (compact) {
      const auto dot = p.rfind('.');
      if (dot != std::string_view::npos) p = p.substr(dot + 1);
    }
    text.reserve(p.size() + 33);
    text = std::string(p) + "@";
  }
  if (!compact) {
    KELVO_ASSIGN_OR_RETURN(std::string uuid, CreateUuidString());
    for (char c : uuid) {
      if (c == '-') continue;
      text += (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
    }
    return Id(text);
  }
  KELVO_ASSIGN_OR_RETURN(auto uuid, CreateUuid());
  std::uint8_t b[18];
  std::memcpy(b, uuid.data(), 16);
  b[16] = static_cast<std::uint8_t>(((b[0] >> 5) & 1) ^ GetUuidSalt());
  b[17] = 0;
  b[0] = static_cast<std::uint8_t>(b[0] & ~0x20);
  static const char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789$_";
  char body[24];
  for (int g = 0; g < 6; ++g) {
    const std::uint32_t v = b[3 * g] | (b[3 * g + 1] << 8) | (b[3 * g + 2] << 16);
    for (int i = 0; i < 4; ++i) body[4 * g + i] = alphabet[(v >> (6 * i)) & 63];
  }
  text.append(body, g_shortUuidForAssets.Get() ? 6 : 22);
  return Id(text);
}

} // namespace kelvo

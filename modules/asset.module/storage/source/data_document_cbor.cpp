// Reading binary documents: a CBOR reader that builds Data directly from the bytes, without an
// intermediate JSON tree, since indexes of many assets are read this way when a repository
// opens. It accepts the subset that the writer produces (definite lengths, no tags) and the
// tagged value form described in data_document.cpp.

#include <cmath>
#include <functional>
#include <cstring>

#include "asset/core/asset_identity.h"
#include "data_document_internal.h"

namespace kelvo::documentdetail {

namespace {

constexpr std::size_t kMaxDepth = 200;

class CborReader {
public:
  explicit CborReader(std::string_view bytes)
      : _p(reinterpret_cast<const std::uint8_t*>(bytes.data())), _end(_p + bytes.size()) {}

  bool AtEnd() const { return _p == _end; }

  // The major type and argument of the next item.
  Result<std::pair<int, std::uint64_t>> Head() {
    if (_p == _end) return Truncated();
    const std::uint8_t b = *_p++;
    const int major = b >> 5;
    const int info = b & 31;
    if (info < 24) return std::make_pair(major, std::uint64_t(info));
    int size = 0;
    switch (info) {
    case 24: size = 1; break;
    case 25: size = 2; break;
    case 26: size = 4; break;
    case 27: size = 8; break;
    default: return FileFormatError("Unsupported CBOR item 0x@ in a document.", ToHexByte(b));
    }
    if (_end - _p < size) return Truncated();
    std::uint64_t v = 0;
    for (int i = 0; i < size; ++i) v = (v << 8) | *_p++;
    return std::make_pair(major, v);
  }

  Result<std::string_view> Text() {
    KELVO_ASSIGN_OR_RETURN(auto head, Head());
    if (head.first != 3) return FileFormatError("Expected a text in a document.");
    if (static_cast<std::uint64_t>(_end - _p) < head.second) return Truncated();
    std::string_view s(reinterpret_cast<const char*>(_p), static_cast<std::size_t>(head.second));
    _p += head.second;
    return s;
  }

  Result<std::uint64_t> Container(int major, const char* what) {
    KELVO_ASSIGN_OR_RETURN(auto head, Head());
    if (head.first != major) return FileFormatError("Expected @ in a document.", what);
    // Every element takes at least one byte: a larger count is damage, not a reason to allocate.
    if (head.second > static_cast<std::uint64_t>(_end - _p)) return Truncated();
    return head.second;
  }

  // An integer as its sign and magnitude.
  Result<std::pair<bool, std::uint64_t>> Integer() {
    KELVO_ASSIGN_OR_RETURN(auto head, Head());
    if (head.first == 0) return std::make_pair(false, head.second);
    if (head.first == 1) return std::make_pair(true, head.second); // the value is -1 - magnitude
    return FileFormatError("Expected an integer in a document.");
  }

  int PeekMajor() const { return _p == _end ? -1 : (*_p >> 5); }
  std::uint8_t PeekByte() const { return _p == _end ? 0 : *_p; }

  Result<void> Simple(std::uint8_t expected, const char* what) {
    if (_p == _end) return Truncated();
    if (*_p != expected) return FileFormatError("Expected @ in a document.", what);
    ++_p;
    return {};
  }

  Result<double> Float() {
    if (_p == _end) return Truncated();
    const std::uint8_t b = *_p;
    if (b == 0xF9) {
      if (_end - _p < 3) return Truncated();
      const unsigned half = (unsigned(_p[1]) << 8) | _p[2];
      _p += 3;
      const int exponent = (half >> 10) & 0x1f;
      const int mantissa = half & 0x3ff;
      double v;
      if (exponent == 0) v = std::ldexp(mantissa, -24);
      else if (exponent != 31) v = std::ldexp(mantissa + 1024, exponent - 25);
      else v = mantissa == 0 ? INFINITY : NAN;
      return (half & 0x8000) ? -v : v;
    }
    if (b == 0xFA) {
      if (_end - _p < 5) return Truncated();
      std::uint32_t bits = (std::uint32_t(_p[1]) << 24) | (std::uint32_t(_p[2]) << 16) | (std::uint32_t(_p[3]) << 8) | _p[4];
      _p += 5;
      float f;
      std::memcpy(&f, &bits, sizeof f);
      return static_cast<double>(f);
    }
    if (b == 0xFB) {
      if (_end - _p < 9) return Truncated();
      std::uint64_t bits = 0;
      for (int i = 1; i <= 8; ++i) bits = (bits << 8) | _p[i];
      _p += 9;
      double d;
      std::memcpy(&d, &bits, sizeof d);
      return d;
    }
    // Integral numbers may have been written as integers.
    KELVO_ASSIGN_OR_RETURN(auto n, Integer());
    return n.first ? -1.0 - static_cast<double>(n.second) : static_cast<double>(n.second);
  }

private:
  static Error Truncated() { return FileFormatError("Document ends early."); }
  static std::string ToHexByte(std::uint8_t b) {
    const char* digits = "0123456789abcdef";
    return std::string{digits[b >> 4], digits[b & 15]};
  }
  const std::uint8_t* _p;
  const std::uint8_t* _end;
};

template <typename T> Result<T> ReadInteger(CborReader& r) {
  KELVO_ASSIGN_OR_RETURN(auto n, r.Integer());
  if (!n.first) {
    if (n.second > static_cast<std::uint64_t>(std::numeric_limits<T>::max()))
      return FileFormatError("Integer @ out of range in a document.", n.second);
    return static_cast<T>(n.second);
  }
  if constexpr (std::is_unsigned_v<T>) {
    return FileFormatError("Negative integer where none may be in a document.");
  } else {
    // -1 - magnitude must not be below the minimum.
    if (n.second > static_cast<std::uint64_t>(-(std::numeric_limits<T>::min() + 1)))
      return FileFormatError("Integer out of range in a document.");
    return static_cast<T>(-1 - static_cast<std::int64_t>(n.second));
  }
}

Result<std::string> ReadText(CborReader& r) {
  if (r.PeekMajor() == 3) {
    KELVO_ASSIGN_OR_RETURN(std::string_view s, r.Text());
    return std::string(s);
  }
  KELVO_ASSIGN_OR_RETURN(std::uint64_t n, r.Container(5, "a text"));
  if (n != 1) return FileFormatError("Expected a text in a document.");
  KELVO_ASSIGN_OR_RETURN(std::string_view key, r.Text());
  if (key != "b64") return FileFormatError("Expected a text in a document.");
  KELVO_ASSIGN_OR_RETURN(std::string_view b64, r.Text());
  KELVO_ASSIGN_OR_RETURN(auto bytes, Base64Decode(b64));
  return std::string(bytes.begin(), bytes.end());
}

// A text as a view into the bytes when it stands there as plain text, else decoded into spare.
Result<std::string_view> ReadTextView(CborReader& r, std::string& spare) {
  if (r.PeekMajor() == 3) return r.Text();
  KELVO_ASSIGN_OR_RETURN(spare, ReadText(r));
  return std::string_view(spare);
}

// An Id straight from the bytes when it is plain text, without a string in between.
Result<Id> ReadId(CborReader& r) {
  std::string spare;
  KELVO_ASSIGN_OR_RETURN(std::string_view text, ReadTextView(r, spare));
  return Id(text);
}

Result<IdAndVersion> ReadIdAndVersion(CborReader& r) {
  KELVO_ASSIGN_OR_RETURN(std::uint64_t n, r.Container(4, "an asset and version Id pair"));
  if (n != 2) return FileFormatError("Expected an asset and version Id pair in a document.");
  KELVO_ASSIGN_OR_RETURN(Id first, ReadId(r));
  KELVO_ASSIGN_OR_RETURN(Id second, ReadId(r));
  return IdAndVersion{std::move(first), std::move(second)};
}

Result<ASSET_UPDATE_POLICY> ReadPolicy(CborReader& r) {
  KELVO_ASSIGN_OR_RETURN(std::int32_t p, ReadInteger<std::int32_t>(r));
  if (p < 0 || p > 2) return FileFormatError("Unknown update policy @ in a document.", p);
  return static_cast<ASSET_UPDATE_POLICY>(p);
}

Result<Data> ReadValue(CborReader& r, std::size_t depth);

Result<Data> ReadTagged(CborReader& r, std::string_view tag, std::size_t depth) {
  if (tag == "none") {
    KELVO_RETURN_ON_ERROR(r.Simple(0xF6, "null"));
    return Data();
  }
  if (tag == "bool") {
    const bool value = r.PeekByte() == 0xF5;
    KELVO_RETURN_ON_ERROR(r.Simple(value ? 0xF5 : 0xF4, "a bool"));
    return Data(value);
  }
  if (tag == "int32") {
    KELVO_ASSIGN_OR_RETURN(std::int32_t v, ReadInteger<std::int32_t>(r));
    return Data(v);
  }
  if (tag == "int64") {
    KELVO_ASSIGN_OR_RETURN(std::int64_t v, ReadInteger<std::int64_t>(r));
    return Data(v);
  }
  if (tag == "uint64") {
    KELVO_ASSIGN_OR_RETURN(std::uint64_t v, ReadInteger<std::uint64_t>(r));
    return Data(v);
  }
  if (tag == "datetime") {
    KELVO_ASSIGN_OR_RETURN(std::uint64_t v, ReadInteger<std::uint64_t>(r));
    return Data(UniversalDateTime::FromValue(v));
  }
  if (tag == "float64") {
    if (r.PeekMajor() != 5) {
      KELVO_ASSIGN_OR_RETURN(double v, r.Float());
      return Data(v);
    }
    KELVO_ASSIGN_OR_RETURN(std::uint64_t n, r.Container(5, "float bits"));
    if (n != 1) return FileFormatError("Expected float bits in a document.");
    KELVO_ASSIGN_OR_RETURN(std::string_view key, r.Text());
    if (key != "bits") return FileFormatError("Expected float bits in a document.");
    KELVO_ASSIGN_OR_RETURN(std::string_view hex, r.Text());
    return FloatFromBits(hex);
  }
  if (tag == "string") {
    KELVO_ASSIGN_OR_RETURN(std::string v, ReadText(r));
    return Data(std::move(v));
  }
  if (tag == "id") {
    KELVO_ASSIGN_OR_RETURN(std::string v, ReadText(r));
    return Data(Id(v));
  }
  if (tag == "url") {
    KELVO_ASSIGN_OR_RETURN(std::uint64_t n, r.Container(5, "a Url"));
    std::optional<std::string> scheme, path, query;
    for (std::uint64_t i = 0; i < n; ++i) {
      KELVO_ASSIGN_OR_RETURN(std::string_view key, r.Text());
      KELVO_ASSIGN_OR_RETURN(std::string value, ReadText(r));
      if (key == "scheme") scheme = std::move(value);
      else if (key == "path") path = std::move(value);
      else if (key == "query") query = std::move(value);
      else return FileFormatError("Unknown Url member in a document.");
    }
    if (!scheme || !path) return FileFormatError("Expected a Url in a document.");
    Url url(std::move(*scheme), std::move(*path));
    if (query) url.SetQuery(*query);
    return Data(std::move(url));
  }
  if (tag == "blob") {
    KELVO_ASSIGN_OR_RETURN(std::string_view b64, r.Text());
    KELVO_ASSIGN_OR_RETURN(auto bytes, Base64Decode(b64));
    return Data(Blob(std::move(bytes)));
  }
  if (tag == "array") {
    KELVO_ASSIGN_OR_RETURN(std::uint64_t n, r.Container(4, "an array"));
    DataArray items;
    items.reserve(static_cast<std::size_t>(n));
    for (std::uint64_t i = 0; i < n; ++i) {
      KELVO_ASSIGN_OR_RETURN(Data d, ReadValue(r, depth + 1));
      items.push_back(std::move(d));
    }
    return Data(std::move(items));
  }
  if (tag == "dict") {
    KELVO_ASSIGN_OR_RETURN(std::uint64_t n, r.Container(4, "a dictionary"));
    DataDictionary dict;
    for (std::uint64_t i = 0; i < n; ++i) {
      KELVO_ASSIGN_OR_RETURN(std::uint64_t pair, r.Container(4, "a dictionary member"));
      if (pair != 2) return FileFormatError("Expected a dictionary member in a document.");
      KELVO_ASSIGN_OR_RETURN(std::string key, ReadText(r));
      KELVO_ASSIGN_OR_RETURN(Data d, ReadValue(r, depth + 1));
      dict.SetData(Id(key), std::move(d));
    }
    return Data(std::move(dict));
  }
  if (tag == "idandversion") {
    KELVO_ASSIGN_OR_RETURN(IdAndVersion v, ReadIdAndVersion(r));
    return Data(std::move(v));
  }
  if (tag == "updatepolicy") {
    KELVO_ASSIGN_OR_RETURN(ASSET_UPDATE_POLICY v, ReadPolicy(r));
    return Data(v);
  }
  if (tag == "dependency") {
    KELVO_ASSIGN_OR_RETURN(std::uint64_t n, r.Container(5, "a dependency"));
    AssetDependencyStruct dep;
    int seen = 0;
    for (std::uint64_t i = 0; i < n; ++i) {
      KELVO_ASSIGN_OR_RETURN(std::string_view key, r.Text());
      if (key == "aid") {
        KELVO_ASSIGN_OR_RETURN(dep.assetIdAndVersion, ReadIdAndVersion(r));
      } else if (key == "type") {
        KELVO_ASSIGN_OR_RETURN(std::string type, ReadText(r));
        dep.assetTypeId = Id(type);
      } else if (key == "created") {
        KELVO_ASSIGN_OR_RETURN(std::uint64_t created, ReadInteger<std::uint64_t>(r));
        dep.assetCreationDate = UniversalDateTime::FromValue(created);
      } else if (key == "name") {
        KELVO_ASSIGN_OR_RETURN(dep.originalName, ReadText(r));
      } else if (key == "policy") {
        KELVO_ASSIGN_OR_RETURN(dep.updatePolicy, ReadPolicy(r));
      } else {
        return FileFormatError("Unknown dependency member in a document.");
      }
      ++seen;
    }
    if (seen != 5) return FileFormatError("Incomplete dependency in a document.");
    return Data(std::move(dep));
  }
  if (tag == "custom") {
    KELVO_ASSIGN_OR_RETURN(std::uint64_t n, r.Container(4, "a custom value"));
    if (n != 2) return FileFormatError("Expected a custom value in a document.");
    KELVO_ASSIGN_OR_RETURN(std::string type, ReadText(r));
    KELVO_ASSIGN_OR_RETURN(Data plain, ReadValue(r, depth + 1));
    return FromPlain(Id(type), plain);
  }
  return FileFormatError("Unknown value tag @ in a document.", std::string(tag));
}

// The tag of a tagged value: a map of one member, named by the value's type.
Result<std::string_view> ReadTag(CborReader& r) {
  KELVO_ASSIGN_OR_RETURN(std::uint64_t n, r.Container(5, "a tagged value"));
  if (n != 1) return FileFormatError("Expected a tagged value in a document.");
  return r.Text();
}

Result<Data> ReadValue(CborReader& r, std::size_t depth) {
  if (depth > kMaxDepth) return FileFormatError("Document nested deeper than @ levels.", kMaxDepth);
  KELVO_ASSIGN_OR_RETURN(std::string_view tag, ReadTag(r));
  return ReadTagged(r, tag, depth);
}

} // namespace

namespace {

// Reads the members of a binary document; readValue reads the value in place.
Result<void> ReadBinaryDocument(CborReader& r, const Id& documentId, const std::function<Result<void>()>& readValue) {
  KELVO_ASSIGN_OR_RETURN(std::uint64_t n, r.Container(5, "a document"));
  std::optional<std::string> id;
  std::optional<std::int32_t> format;
  bool haveValue = false;
  for (std::uint64_t i = 0; i < n; ++i) {
    KELVO_ASSIGN_OR_RETURN(std::string_view key, r.Text());
    if (key == "document") {
      KELVO_ASSIGN_OR_RETURN(id, ReadText(r));
    } else if (key == "format") {
      KELVO_ASSIGN_OR_RETURN(format, ReadInteger<std::int32_t>(r));
      if (*format != kFormat) return FileFormatError("Document @ has the unknown format @.", documentId, *format);
    } else if (key == "value") {
      if (!id || *id != documentId.View()) return FileFormatError("Not a document of @.", documentId);
      KELVO_RETURN_ON_ERROR(readValue());
      haveValue = true;
    } else {
      return FileFormatError("Unknown member in document @.", documentId);
    }
  }
  if (!r.AtEnd()) return FileFormatError("Document @ has trailing bytes.", documentId);
  if (!id || *id != documentId.View()) return FileFormatError("Not a document of @.", documentId);
  if (!format || !haveValue) return FileFormatError("Incomplete document @.", documentId);
  return {};
}

// The tag of a tagged value, which must be expected.
Result<void> ExpectTag(CborReader& r, std::string_view expected) {
  KELVO_ASSIGN_OR_RETURN(std::string_view tag, ReadTag(r));
  if (tag != expected) return FileFormatError("Expected @ in a document, found @.", std::string(expected), std::string(tag));
  return {};
}

} // namespace

Result<Data> DecodeBinaryDocument(std::string_view bytes, const Id& documentId) {
  CborReader r(bytes);
  Data value;
  KELVO_RETURN_ON_ERROR(ReadBinaryDocument(r, documentId, [&]() -> Result<void> {
    KELVO_ASSIGN_OR_RETURN(value, ReadValue(r, 0));
    return {};
  }));
  return value;
}

Result<void> DecodeBinaryPairDocument(std::string_view bytes, const Id& documentId, const PairReceiver& receiver) {
  CborReader r(bytes);
  return ReadBinaryDocument(r, documentId, [&]() -> Result<void> {
    KELVO_RETURN_ON_ERROR(ExpectTag(r, "array"));
    KELVO_ASSIGN_OR_RETURN(std::uint64_t n, r.Container(4, "an array"));
    std::string spareAid, spareVersion;
    for (std::uint64_t i = 0; i < n; ++i) {
      KELVO_RETURN_ON_ERROR(ExpectTag(r, "array"));
      KELVO_ASSIGN_OR_RETURN(std::uint64_t pair, r.Container(4, "a pair"));
      if (pair != 2) return FileFormatError("Expected a pair in a document.");
      KELVO_RETURN_ON_ERROR(ExpectTag(r, "idandversion"));
      KELVO_ASSIGN_OR_RETURN(std::uint64_t ids, r.Container(4, "an asset and version Id pair"));
      if (ids != 2) return FileFormatError("Expected an asset and version Id pair in a document.");
      KELVO_ASSIGN_OR_RETURN(std::string_view aid, ReadTextView(r, spareAid));
      KELVO_ASSIGN_OR_RETURN(std::string_view version, ReadTextView(r, spareVersion));
      KELVO_ASSIGN_OR_RETURN(Data value, ReadValue(r, 3));
      KELVO_RETURN_ON_ERROR(receiver(aid, version, std::move(value)));
    }
    return {};
  });
}

} // namespace kelvo::documentdetail

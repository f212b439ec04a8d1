// Documents of one Data value: a JSON tree with a type tag per value, written as JSON text or
// as CBOR. The JSON library throws; every call into it is caught here.
//
// A value is an object with one member, the tag, whose content depends on the type:
//   {"none": null} {"bool": b} {"int32": n} {"int64": n} {"uint64": n}
//   {"float64": x} or, for NaN and infinities, {"float64": {"bits": "<16 hex digits>"}}
//   {"string": text} {"id": text} {"datetime": nanoseconds} {"blob": "<base64>"}
//   {"url": {"scheme": text, "path": text[, "query": text]}}
//   {"array": [value, ...]} {"dict": [[text, value], ...]}
//   {"idandversion": [text, text]} {"updatepolicy": n}
//   {"dependency": {"aid": [text, text], "type": text, "created": ns, "name": text, "policy": n}}
//   {"custom": [type text, value]}
// A text is a JSON string when its bytes are valid UTF-8, else {"b64": "<base64>"}.
// The document: {"document": text, "format": 1, "value": value}.

#include "data_document.h"

#include <cmath>
#include <cstring>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <shared_mutex>

#include "asset/core/asset_identity.h"
#include "data_document_internal.h"
#include "asset/storage/url_layout.h"

namespace kelvo {

namespace {

using Json = nlohmann::json;

using documentdetail::Base64Decode;
using documentdetail::kFormat;
constexpr std::size_t kMaxDepth = 200;

// ---- registered types ----------------------------------------------------------------------------

struct Converters {
  DocumentTypeConverter toPlain;
  DocumentTypeConverter fromPlain;
};

struct ConverterTable {
  std::shared_mutex lock;
  std::map<Id, Converters> types;
};

ConverterTable& GetConverterTable() {
  static ConverterTable* table = new ConverterTable();
  return *table;
}

std::optional<Converters> FindConverters(const Id& typeId) {
  ConverterTable& table = GetConverterTable();
  std::shared_lock guard(table.lock);
  auto it = table.types.find(typeId);
  if (it == table.types.end()) return std::nullopt;
  return it->second;
}

// ---- text helpers ----------------------------------------------------------------------------------

bool IsValidUtf8(std::string_view s) {
  std::size_t i = 0;
  while (i < s.size()) {
    const unsigned char c = static_cast<unsigned char>(s[i]);
    std::size_t n;
    std::uint32_t cp;
    if (c < 0x80) {
      ++i;
      continue;
    } else if ((c & 0xE0) == 0xC0) {
      n = 1;
      cp = c & 0x1F;
    } else if ((c & 0xF0) == 0xE0) {
      n = 2;
      cp = c & 0x0F;
    } else if ((c & 0xF8) == 0xF0) {
      n = 3;
      cp = c & 0x07;
    } else {
      return false;
    }
    if (i + n >= s.size()) return false;
    for (std::size_t k = 1; k <= n; ++k) {
      const unsigned char cc = static_cast<unsigned char>(s[i + k]);
      if ((cc & 0xC0) != 0x80) return false;
      cp = (cp << 6) | (cc & 0x3F);
    }
    // Overlong forms, surrogates and values beyond U+10FFFF are not UTF-8.
    if ((n == 1 && cp < 0x80) || (n == 2 && cp < 0x800) || (n == 3 && cp < 0x10000) || cp > 0x10FFFF ||
        (cp >= 0xD800 && cp <= 0xDFFF))
      return false;
    i += n + 1;
  }
  return true;
}

constexpr char kBase64[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

std::string Base64Encode(const std::uint8_t* p, std::size_t n) {
  std::string out;
  out.reserve((n + 2) / 3 * 4);
  for (std::size_t i = 0; i < n; i += 3) {
    const std::uint32_t b0 = p[i];
    const std::uint32_t b1 = i + 1 < n ? p[i + 1] : 0;
    const std::uint32_t b2 = i + 2 < n ? p[i + 2] : 0;
    const std::uint32_t v = (b0 << 16) | (b1 << 8) | b2;
    out += kBase64[(v >> 18) & 63];
    out += kBase64[(v >> 12) & 63];
    out += i + 1 < n ? kBase64[(v >> 6) & 63] : '=';
    out += i + 2 < n ? kBase64[v & 63] : '=';
  }
  return out;
}

Result<std::vector<std::uint8_t>> Base64DecodeImpl(std::string_view s) {
  if (s.size() % 4 != 0) return FileFormatError("Invalid base64 text of length @.", s.size());
  auto value = [](char c) -> int {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == '/') return 63;
    return -1;
  };
  std::vector<std::uint8_t> out;
  out.reserve(s.size() / 4 * 3);
  for (std::size_t i = 0; i < s.size(); i += 4) {
    int v[4];
    int pad = 0;
    for (int k = 0; k < 4; ++k) {
      const char c = s[i + static_cast<std::size_t>(k)];
      if (c == '=' && i + 4 == s.size() && k >= 2) {
        v[k] = 0;
        ++pad;
      } else if (pad > 0 || (v[k] = value(c)) < 0) {
        return FileFormatError("Invalid base64 text.");
      }
    }
    const std::uint32_t w = (std::uint32_t(v[0]) << 18) | (std::uint32_t(v[1]) << 12) | (std::uint32_t(v[2]) << 6) |
                            std::uint32_t(v[3]);
    out.push_back(static_cast<std::uint8_t>(w >> 16));
    if (pad < 2) out.push_back(static_cast<std::uint8_t>(w >> 8));
    if (pad < 1) out.push_back(static_cast<std::uint8_t>(w));
  }
  return out;
}

Json EncodeText(std::string_view s) {
  if (IsValidUtf8(s)) return Json(std::string(s));
  return Json{{"b64", Base64Encode(reinterpret_cast<const std::uint8_t*>(s.data()), s.size())}};
}

Result<std::string> DecodeText(const Json& j) {
  if (j.is_string()) return j.get_ref<const std::string&>();
  if (j.is_object() && j.size() == 1 && j.contains("b64") && j["b64"].is_string()) {
    KELVO_ASSIGN_OR_RETURN(auto bytes, Base64Decode(j["b64"].get_ref<const std::string&>()));
    return std::string(bytes.begin(), bytes.end());
  }
  return FileFormatError("Expected a text in a document.");
}

template <typename T> Result<T> DecodeInteger(const Json& j) {
  if (!j.is_number_integer()) return FileFormatError("Expected an integer in a document.");
  if (j.is_number_unsigned()) {
    const std::uint64_t u = j.get<std::uint64_t>();
    if (u > static_cast<std::uint64_t>(std::numeric_limits<T>::max()))
      return FileFormatError("Integer @ out of range in a document.", u);
    return static_cast<T>(u);
  }
  const std::int64_t s = j.get<std::int64_t>();
  if constexpr (std::is_unsigned_v<T>) {
    if (s < 0) return FileFormatError("Negative integer @ where none may be in a document.", s);
    return static_cast<T>(s);
  } else {
    if (s < static_cast<std::int64_t>(std::numeric_limits<T>::min()) ||
        s > static_cast<std::int64_t>(std::numeric_limits<T>::max()))
      return FileFormatError("Integer @ out of range in a document.", s);
    return static_cast<T>(s);
  }
}

Json EncodeIdAndVersion(const IdAndVersion& v) { return Json::array({EncodeText(v.first.View()), EncodeText(v.second.View())}); }

Result<IdAndVersion> DecodeIdAndVersion(const Json& j) {
  if (!j.is_array() || j.size() != 2) return FileFormatError("Expected an asset and version Id pair in a document.");
  KELVO_ASSIGN_OR_RETURN(std::string first, DecodeText(j[0]));
  KELVO_ASSIGN_OR_RETURN(std::string second, DecodeText(j[1]));
  return IdAndVersion{Id(first), Id(second)};
}

Result<ASSET_UPDATE_POLICY> DecodePolicy(const Json& j) {
  KELVO_ASSIGN_OR_RETURN(std::int32_t p, DecodeInteger<std::int32_t>(j));
  if (p < 0 || p > 2) return FileFormatError("Unknown update policy @ in a document.", p);
  return static_cast<ASSET_UPDATE_POLICY>(p);
}

// ---- Data to JSON ---------------------------------------------------------------------------------

Result<Json> Encode(const Data& value, std::size_t depth);

Result<Json> EncodeCustom(const Data& value, std::size_t depth) {
  const Id& type = value.GetType();
  if (const auto* v = value.GetPtr<IdAndVersion>()) return Json{{"idandversion", EncodeIdAndVersion(*v)}};
  if (const auto* v = value.GetPtr<ASSET_UPDATE_POLICY>()) return Json{{"updatepolicy", static_cast<std::int32_t>(*v)}};
  if (const auto* v = value.GetPtr<AssetDependencyStruct>()) {
    return Json{{"dependency",
                 {{"aid", EncodeIdAndVersion(v->assetIdAndVersion)},
                  {"type", EncodeText(v->assetTypeId.View())},
                  {"created", v->assetCreationDate.GetValue()},
                  {"name", EncodeText(v->originalName)},
                  {"policy", static_cast<std::int32_t>(v->updatePolicy)}}}};
  }
  std::optional<Converters> converters = FindConverters(type);
  if (!converters || !converters->toPlain)
    return UnsupportedArgumentError("Data type @ can't be written to a document.", type);
  KELVO_ASSIGN_OR_RETURN(Data plain, converters->toPlain(value));
  KELVO_ASSIGN_OR_RETURN(Json inner, Encode(plain, depth + 1));
  return Json{{"custom", Json::array({EncodeText(type.View()), std::move(inner)})}};
}

Result<Json> Encode(const Data& value, std::size_t depth) {
  if (depth > kMaxDepth) return UnsupportedArgumentError("Data nested deeper than @ levels can't be written.", kMaxDepth);
  if (value.IsEmpty()) return Json{{"none", nullptr}};
  if (const auto* v = value.GetPtr<bool>()) return Json{{"bool", *v}};
  if (const auto* v = value.GetPtr<std::int32_t>()) return Json{{"int32", *v}};
  if (const auto* v = value.GetPtr<std::int64_t>()) return Json{{"int64", *v}};
  if (const auto* v = value.GetPtr<std::uint64_t>()) return Json{{"uint64", *v}};
  if (const auto* v = value.GetPtr<double>()) {
    if (std::isfinite(*v)) return Json{{"float64", *v}};
    std::uint64_t bits;
    std::memcpy(&bits, v, sizeof bits);
    char hex[17];
    std::snprintf(hex, sizeof hex, "%016llx", static_cast<unsigned long long>(bits));
    return Json{{"float64", {{"bits", std::string(hex)}}}};
  }
  if (const auto* v = value.GetPtr<std::string>()) return Json{{"string", EncodeText(*v)}};
  if (const auto* v = value.GetPtr<Id>()) return Json{{"id", EncodeText(v->View())}};
  if (const auto* v = value.GetPtr<Url>()) {
    Json u{{"scheme", EncodeText(v->GetScheme())}, {"path", EncodeText(v->GetPath())}};
    const std::string query = v->GetQuery();
    if (!query.empty()) u["query"] = EncodeText(query);
    return Json{{"url", std::move(u)}};
  }
  if (const auto* v = value.GetPtr<UniversalDateTime>()) return Json{{"datetime", v->GetValue()}};
  if (const auto* v = value.GetPtr<Blob>()) return Json{{"blob", Base64Encode(v->data(), v->size())}};
  if (const auto* v = value.GetPtr<DataArray>()) {
    Json items = Json::array();
    for (const Data& item : *v) {
      KELVO_ASSIGN_OR_RETURN(Json j, Encode(item, depth + 1));
      items.push_back(std::move(j));
    }
    return Json{{"array", std::move(items)}};
  }
  if (const auto* v = value.GetPtr<DataDictionary>()) {
    Json members = Json::array();
    for (const auto& [key, item] : *v) {
      KELVO_ASSIGN_OR_RETURN(Json j, Encode(item, depth + 1));
      members.push_back(Json::array({EncodeText(key.View()), std::move(j)}));
    }
    return Json{{"dict", std::move(members)}};
  }
  return EncodeCustom(value, depth);
}

// ---- JSON to Data ---------------------------------------------------------------------------------

Result<Data> Decode(const Json& j, std::size_t depth);

Result<Data> DecodeFloat(const Json& p) {
  if (p.is_number()) return Data(p.get<double>());
  if (p.is_object() && p.size() == 1 && p.contains("bits") && p["bits"].is_string())
    return documentdetail::FloatFromBits(p["bits"].get_ref<const std::string&>());
  return FileFormatError("Expected a float64 in a document.");
}

Result<Data> DecodeTagged(const std::string& tag, const Json& p, std::size_t depth) {
  if (tag == "none") {
    if (!p.is_null()) return FileFormatError("Expected null for an empty value in a document.");
    return Data();
  }
  if (tag == "bool") {
    if (!p.is_boolean()) return FileFormatError("Expected a bool in a document.");
    return Data(p.get<bool>());
  }
  if (tag == "int32") {
    KELVO_ASSIGN_OR_RETURN(std::int32_t v, DecodeInteger<std::int32_t>(p));
    return Data(v);
  }
  if (tag == "int64") {
    KELVO_ASSIGN_OR_RETURN(std::int64_t v, DecodeInteger<std::int64_t>(p));
    return Data(v);
  }
  if (tag == "uint64") {
    KELVO_ASSIGN_OR_RETURN(std::uint64_t v, DecodeInteger<std::uint64_t>(p));
    return Data(v);
  }
  if (tag == "float64") return DecodeFloat(p);
  if (tag == "string") {
    KELVO_ASSIGN_OR_RETURN(std::string v, DecodeText(p));
    return Data(std::move(v));
  }
  if (tag == "id") {
    KELVO_ASSIGN_OR_RETURN(std::string v, DecodeText(p));
    return Data(Id(v));
  }
  if (tag == "url") {
    if (!p.is_object() || !p.contains("scheme") || !p.contains("path"))
      return FileFormatError("Expected a Url in a document.");
    KELVO_ASSIGN_OR_RETURN(std::string scheme, DecodeText(p["scheme"]));
    KELVO_ASSIGN_OR_RETURN(std::string path, DecodeText(p["path"]));
    Url url(std::move(scheme), std::move(path));
    if (p.contains("query")) {
      KELVO_ASSIGN_OR_RETURN(std::string query, DecodeText(p["query"]));
      url.SetQuery(query);
    }
    return Data(std::move(url));
  }
  if (tag == "datetime") {
    KELVO_ASSIGN_OR_RETURN(std::uint64_t v, DecodeInteger<std::uint64_t>(p));
    return Data(UniversalDateTime::FromValue(v));
  }
  if (tag == "blob") {
    if (!p.is_string()) return FileFormatError("Expected a blob in a document.");
    KELVO_ASSIGN_OR_RETURN(auto bytes, Base64Decode(p.get_ref<const std::string&>()));
    return Data(Blob(std::move(bytes)));
  }
  if (tag == "array") {
    if (!p.is_array()) return FileFormatError("Expected an array in a document.");
    DataArray items;
    items.reserve(p.size());
    for (const Json& item : p) {
      KELVO_ASSIGN_OR_RETURN(Data d, Decode(item, depth + 1));
      items.push_back(std::move(d));
    }
    return Data(std::move(items));
  }
  if (tag == "dict") {
    if (!p.is_array()) return FileFormatError("Expected a dictionary in a document.");
    DataDictionary dict;
    for (const Json& member : p) {
      if (!member.is_array() || member.size() != 2) return FileFormatError("Expected a dictionary member in a document.");
      KELVO_ASSIGN_OR_RETURN(std::string key, DecodeText(member[0]));
      KELVO_ASSIGN_OR_RETURN(Data d, Decode(member[1], depth + 1));
      dict.SetData(Id(key), std::move(d));
    }
    return Data(std::move(dict));
  }
  if (tag == "idandversion") {
    KELVO_ASSIGN_OR_RETURN(IdAndVersion v, DecodeIdAndVersion(p));
    return Data(std::move(v));
  }
  if (tag == "updatepolicy") {
    KELVO_ASSIGN_OR_RETURN(ASSET_UPDATE_POLICY v, DecodePolicy(p));
    return Data(v);
  }
  if (tag == "dependency") {
    if (!p.is_object()) return FileFormatError("Expected a dependency in a document.");
    for (const char* member : {"aid", "type", "created", "name", "policy"})
      if (!p.contains(member)) return FileFormatError("Dependency without @ in a document.", member);
    AssetDependencyStruct dep;
    KELVO_ASSIGN_OR_RETURN(dep.assetIdAndVersion, DecodeIdAndVersion(p["aid"]));
    KELVO_ASSIGN_OR_RETURN(std::string type, DecodeText(p["type"]));
    dep.assetTypeId = Id(type);
    KELVO_ASSIGN_OR_RETURN(std::uint64_t created, DecodeInteger<std::uint64_t>(p["created"]));
    dep.assetCreationDate = UniversalDateTime::FromValue(created);
    KELVO_ASSIGN_OR_RETURN(dep.originalName, DecodeText(p["name"]));
    KELVO_ASSIGN_OR_RETURN(dep.updatePolicy, DecodePolicy(p["policy"]));
    return Data(std::move(dep));
  }
  if (tag == "custom") {
    if (!p.is_array() || p.size() != 2) return FileFormatError("Expected a custom value in a document.");
    KELVO_ASSIGN_OR_RETURN(std::string type, DecodeText(p[0]));
    KELVO_ASSIGN_OR_RETURN(Data plain, Decode(p[1], depth + 1));
    return documentdetail::FromPlain(Id(type), plain);
  }
  return FileFormatError("Unknown value tag @ in a document.", tag);
}

Result<Data> Decode(const Json& j, std::size_t depth) {
  if (depth > kMaxDepth) return FileFormatError("Document nested deeper than @ levels.", kMaxDepth);
  if (!j.is_object() || j.size() != 1) return FileFormatError("Expected a tagged value in a document.");
  const auto it = j.begin();
  return DecodeTagged(it.key(), it.value(), depth);
}

// Builds the JSON tree like the library's own DOM parser but refuses nesting beyond a limit
// before the reader recurses into it, so that hostile input can't exhaust the stack.
class DepthLimitedSax {
public:
  explicit DepthLimitedSax(Json& root) : _dom(root, false) {}
  bool null() { return _dom.null(); }
  bool boolean(bool v) { return _dom.boolean(v); }
  bool number_integer(Json::number_integer_t v) { return _dom.number_integer(v); }
  bool number_unsigned(Json::number_unsigned_t v) { return _dom.number_unsigned(v); }
  bool number_float(Json::number_float_t v, const Json::string_t& s) { return _dom.number_float(v, s); }
  bool string(Json::string_t& v) { return _dom.string(v); }
  bool binary(Json::binary_t& v) { return _dom.binary(v); }
  bool start_object(std::size_t n) { return ++_depth <= kMaxDepth * 3 && _dom.start_object(n); }
  bool key(Json::string_t& v) { return _dom.key(v); }
  bool end_object() {
    --_depth;
    return _dom.end_object();
  }
  bool start_array(std::size_t n) { return ++_depth <= kMaxDepth * 3 && _dom.start_array(n); }
  bool end_array() {
    --_depth;
    return _dom.end_array();
  }
  bool parse_error(std::size_t position, const std::string& token, const nlohmann::detail::exception& e) {
    return _dom.parse_error(position, token, e);
  }

private:
  nlohmann::detail::json_sax_dom_parser<Json> _dom;
  std::size_t _depth = 0;
};

} // namespace

namespace documentdetail {

Result<std::vector<std::uint8_t>> Base64Decode(std::string_view s) { return Base64DecodeImpl(s); }

Result<Data> FloatFromBits(std::string_view hex) {
  if (hex.size() != 16 || hex.find_first_not_of("0123456789abcdef") != std::string_view::npos)
    return FileFormatError("Invalid float bits @ in a document.", std::string(hex));
  const std::uint64_t bits = std::stoull(std::string(hex), nullptr, 16);
  double d;
  std::memcpy(&d, &bits, sizeof d);
  return Data(d);
}

Result<Data> FromPlain(const Id& type, const Data& plain) {
  std::optional<Converters> converters = FindConverters(type);
  if (!converters || !converters->fromPlain) return FileFormatError("Data type @ of a document is unknown.", type);
  return converters->fromPlain(plain);
}

} // namespace documentdetail

Result<std::string> EncodeDocument(const Id& documentId, const Data& value, DOCUMENTMODE mode) {
  KELVO_ASSIGN_OR_RETURN(Json encoded, Encode(value, 0));
  try {
    Json doc{{"document", EncodeText(documentId.View())}, {"format", kFormat}, {"value", std::move(encoded)}};
    if (mode == DOCUMENTMODE::TEXT) return doc.dump(1, '\t') + "\n";
    std::vector<std::uint8_t> bytes = Json::to_cbor(doc);
    return std::string(bytes.begin(), bytes.end());
  } catch (const std::exception& e) {
    return UnexpectedError("Can't write document @: @", documentId, e.what());
  }
}

namespace {

// Documents in text form begin with "{" after blanks; anything else is read as binary.
bool IsTextDocument(std::string_view bytes) {
  std::size_t first = 0;
  while (first < bytes.size() && (bytes[first] == ' ' || bytes[first] == '\t' || bytes[first] == '\n' || bytes[first] == '\r'))
    ++first;
  return first < bytes.size() && bytes[first] == '{';
}

} // namespace

Result<void> DecodePairDocument(std::string_view bytes, const Id& documentId, const PairReceiver& receiver) {
  if (!IsTextDocument(bytes)) return documentdetail::DecodeBinaryPairDocument(bytes, documentId, receiver);
  KELVO_ASSIGN_OR_RETURN(Data document, DecodeDocument(bytes, documentId));
  const DataArray* array = document.GetPtr<DataArray>();
  if (!array) return FileFormatError("Document @ holds no array.", documentId);
  for (const Data& item : *array) {
    const DataArray* pair = item.GetPtr<DataArray>();
    const IdAndVersion* key = pair && pair->size() == 2 ? (*pair)[0].GetPtr<IdAndVersion>() : nullptr;
    if (!key) return FileFormatError("Expected a pair in document @.", documentId);
    KELVO_RETURN_ON_ERROR(receiver(key->first.View(), key->second.View(), (*pair)[1]));
  }
  return {};
}

Result<Data> DecodeDocument(std::string_view bytes, const Id& documentId) {
  Json doc;
  try {
    if (!IsTextDocument(bytes)) return documentdetail::DecodeBinaryDocument(bytes, documentId);
    DepthLimitedSax sax(doc);
    const bool ok = Json::sax_parse(bytes.begin(), bytes.end(), &sax, nlohmann::json::input_format_t::json);
    if (!ok || doc.is_discarded()) return FileFormatError("Document @ can't be parsed.", documentId);
  } catch (const std::exception& e) {
    return FileFormatError("Document @ can't be parsed: @", documentId, e.what());
  }
  try {
    if (!doc.is_object() || !doc.contains("document") || !doc.contains("format") || !doc.contains("value"))
      return FileFormatError("Not a document of @.", documentId);
    KELVO_ASSIGN_OR_RETURN(std::string id, DecodeText(doc["document"]));
    if (id != documentId.View()) return FileFormatError("Document @ found where @ was expected.", id, documentId);
    KELVO_ASSIGN_OR_RETURN(std::int32_t format, DecodeInteger<std::int32_t>(doc["format"]));
    if (format != kFormat) return FileFormatError("Document @ has the unknown format @.", documentId, format);
    return Decode(doc["value"], 0);
  } catch (const std::exception& e) {
    return FileFormatError("Document @ can't be read: @", documentId, e.what());
  }
}

Result<Data> ReadDocument(const Url& url, const Id& documentId) {
  KELVO_ASSIGN_OR_RETURN(std::string bytes, ReadRepositoryFile(url, kMetaDataFileLimit));
  auto r = DecodeDocument(bytes, documentId);
  if (r.HasError()) return ErrorWithCause(r.GetError(), errors::fileformat, FormatString("Can't read @.", url));
  return r;
}

Result<void> WriteDocument(const Url& url, const Id& documentId, const Data& value, DOCUMENTMODE mode) {
  KELVO_ASSIGN_OR_RETURN(std::string bytes, EncodeDocument(documentId, value, mode));
  return url.WriteAll(bytes);
}

void RegisterDocumentDataType(const Id& typeId, DocumentTypeConverter toPlain, DocumentTypeConverter fromPlain) {
  ConverterTable& table = GetConverterTable();
  std::unique_lock guard(table.lock);
  table.types[typeId] = Converters{std::move(toPlain), std::move(fromPlain)};
}

} // namespace kelvo

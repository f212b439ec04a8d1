// Documents of one Data value: exact round trips of every type in both modes, and damaged or
// hostile input giving file format errors.

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>

#include "asset/core/asset_identity.h"
#include "data_document.h"

namespace kelvo {
struct TestPoint {
  std::int32_t x, y;
  friend bool operator==(const TestPoint&, const TestPoint&) = default;
};
inline std::size_t HashValue(const TestPoint& p) { return std::size_t(p.x) * 31 + std::size_t(p.y); }
template <> struct DataTypeTraits<TestPoint> {
  static const Id& TypeId() {
    static const Id id("net.kelvo.test.point");
    return id;
  }
};
} // namespace kelvo

using namespace kelvo;

namespace {

const Id kDoc{"net.kelvo.asset.metadata"};

std::uint64_t Bits(double d) {
  std::uint64_t b;
  std::memcpy(&b, &d, sizeof b);
  return b;
}

double FromBits(std::uint64_t b) {
  double d;
  std::memcpy(&d, &b, sizeof d);
  return d;
}

Data RoundTrip(const Data& value, DOCUMENTMODE mode) {
  auto bytes = EncodeDocument(kDoc, value, mode);
  EXPECT_TRUE(bytes.HasValue()) << bytes.GetError().ToString();
  if (!bytes.HasValue()) return Data();
  auto back = DecodeDocument(*bytes, kDoc);
  EXPECT_TRUE(back.HasValue()) << back.GetError().ToString();
  return back.HasValue() ? *back : Data(std::string("decode failed"));
}

std::vector<Data> AllKinds() {
  DataDictionary inner;
  inner.SetData(Id("n"), Data(std::int32_t(-5)));
  inner.SetData(Id("\xff key"), Data(std::string("v")));
  DataDictionary outer;
  outer.SetData(Id("inner"), Data(inner));
  outer.SetData(Id("list"), Data(DataArray{Data(), Data(true), Data(Id("x"))}));
  Url url = Url::FromFile("/tmp/a b/c.png");
  url.SetQuery("rev=12&x=%26");
  AssetDependencyStruct dep{IdAndVersion{Id("dep"), Id("abc")}, Id("net.kelvo.assettype.file"),
                            UniversalDateTime::FromValue(1234567890123456789ull), "Ünïcode name",
                            ASSET_UPDATE_POLICY::IMPLICIT};
  return {
      Data(),
      Data(true),
      Data(false),
      Data(std::numeric_limits<std::int32_t>::min()),
      Data(std::numeric_limits<std::int32_t>::max()),
      Data(std::numeric_limits<std::int64_t>::min()),
      Data(std::numeric_limits<std::int64_t>::max()),
      Data(std::int64_t(7)),
      Data(std::numeric_limits<std::uint64_t>::max()),
      Data(std::uint64_t(0)),
      Data(0.1),
      Data(-0.0),
      Data(1e300),
      Data(std::numeric_limits<double>::denorm_min()),
      Data(std::numeric_limits<double>::infinity()),
      Data(-std::numeric_limits<double>::infinity()),
      Data(std::string("plain")),
      Data(std::string("Grüße, 世界 🎉")),
      Data(std::string("nul\0inside", 10)),
      Data(std::string("\xff\xfe not utf-8 \xc0\xaf")),
      Data(std::string()),
      Data(Id("net.kelvo.some.id")),
      Data(Id("\x80raw")),
      Data(url),
      Data(Url("meta", "asset id/x.meta.png")),
      Data(UniversalDateTime::FromValue(1700000000123456789ull)),
      Data(Blob{0, 1, 2, 255, 254}),
      Data(Blob{}),
      Data(outer),
      Data(DataArray{}),
      Data(IdAndVersion{Id("asset"), Id("version")}),
      Data(ASSET_UPDATE_POLICY::EXPLICIT),
      Data(dep),
      Data(DataArray{Data(dep), Data(IdAndVersion{Id("a"), Id()})}),
  };
}

TEST(DataDocumentTest, EveryTypeRoundTripsExactlyInBothModes) {
  for (DOCUMENTMODE mode : {DOCUMENTMODE::TEXT, DOCUMENTMODE::BINARY}) {
    for (const Data& value : AllKinds()) {
      SCOPED_TRACE(value.ToString());
      const Data back = RoundTrip(value, mode);
      EXPECT_EQ(back.GetType(), value.GetType());
      EXPECT_EQ(back, value);
      if (const double* d = value.GetPtr<double>()) {
        EXPECT_EQ(Bits(*back.GetPtr<double>()), Bits(*d));
      }
      if (const Url* u = value.GetPtr<Url>()) {
        EXPECT_EQ(back.GetPtr<Url>()->GetQuery(), u->GetQuery());
      }
    }
  }
}

TEST(DataDocumentTest, NanPayloadsKeepTheirBits) {
  for (std::uint64_t bits : {0x7ff8000000000000ull, 0x7ff0000000000001ull, 0xfff8dead0000beefull}) {
    for (DOCUMENTMODE mode : {DOCUMENTMODE::TEXT, DOCUMENTMODE::BINARY}) {
      const Data back = RoundTrip(Data(FromBits(bits)), mode);
      ASSERT_TRUE(back.GetPtr<double>());
      EXPECT_EQ(Bits(*back.GetPtr<double>()), bits);
    }
  }
}

TEST(DataDocumentTest, TextModeIsReadableJsonAndModesAreToldApart) {
  auto text = EncodeDocument(kDoc, Data(std::string("hello")), DOCUMENTMODE::TEXT);
  ASSERT_TRUE(text.HasValue());
  EXPECT_EQ(text->front(), '{');
  EXPECT_NE(text->find("\"net.kelvo.asset.metadata\""), std::string::npos);
  EXPECT_NE(text->find("\"hello\""), std::string::npos);
  auto binary = EncodeDocument(kDoc, Data(std::string("hello")), DOCUMENTMODE::BINARY);
  ASSERT_TRUE(binary.HasValue());
  EXPECT_NE(binary->front(), '{');
  EXPECT_LT(binary->size(), text->size());
}

TEST(DataDocumentTest, RegisteredTypesGoThroughTheirConverters) {
  const Data point(TestPoint{3, -4});
  // Unknown to the codec until registered.
  auto refused = EncodeDocument(kDoc, point, DOCUMENTMODE::TEXT);
  ASSERT_TRUE(refused.HasError());
  EXPECT_TRUE(refused.GetError().Is(errors::unsupportedargument));
  RegisterDocumentDataType(
      DataTypeTraits<TestPoint>::TypeId(),
      [](const Data& v) -> Result<Data> {
        const auto* p = v.GetPtr<TestPoint>();
        if (!p) return IllegalArgumentError("not a point");
        return Data(DataArray{Data(p->x), Data(p->y)});
      },
      [](const Data& plain) -> Result<Data> {
        const auto* a = plain.GetPtr<DataArray>();
        if (!a || a->size() != 2 || !(*a)[0].GetPtr<std::int32_t>() || !(*a)[1].GetPtr<std::int32_t>())
          return FileFormatError("bad point");
        return Data(TestPoint{*(*a)[0].GetPtr<std::int32_t>(), *(*a)[1].GetPtr<std::int32_t>()});
      });
  for (DOCUMENTMODE mode : {DOCUMENTMODE::TEXT, DOCUMENTMODE::BINARY}) EXPECT_EQ(RoundTrip(point, mode), point);
  // A document naming a type nobody registered is a format error.
  auto foreign = DecodeDocument(
      R"({"document":"net.kelvo.asset.metadata","format":1,"value":{"custom":["net.kelvo.nobody",{"none":null}]}})",
      kDoc);
  ASSERT_TRUE(foreign.HasError());
  EXPECT_TRUE(foreign.GetError().Is(errors::fileformat));
}

TEST(DataDocumentTest, DamagedInputIsAFormatErrorNeverACrash) {
  DataDictionary dict;
  for (const Data& v : AllKinds()) dict.SetData(Id("k" + std::to_string(dict.GetCount())), v);
  for (DOCUMENTMODE mode : {DOCUMENTMODE::TEXT, DOCUMENTMODE::BINARY}) {
    auto bytes = EncodeDocument(kDoc, Data(dict), mode);
    ASSERT_TRUE(bytes.HasValue());
    // Every cut of the document.
    for (std::size_t n = 0; n < bytes->size(); n += 1 + bytes->size() / 400) {
      auto r = DecodeDocument(std::string_view(*bytes).substr(0, n), kDoc);
      ASSERT_TRUE(r.HasError()) << n;
      EXPECT_TRUE(r.GetError().Is(errors::fileformat));
    }
    // Flipped bytes: an error or some value, but no crash.
    std::string flipped = *bytes;
    for (std::size_t i = 0; i < flipped.size(); i += 7) {
      flipped[i] = static_cast<char>(flipped[i] ^ 0x5a);
      (void)DecodeDocument(flipped, kDoc);
    }
  }
  // Another document Id, another format, and values of the wrong shape.
  auto good = EncodeDocument(kDoc, Data(1), DOCUMENTMODE::TEXT);
  EXPECT_TRUE(DecodeDocument(*good, Id("net.kelvo.other")).HasError());
  const char* bad[] = {
      "",
      "garbage",
      "{}",
      R"({"document":"net.kelvo.asset.metadata","format":2,"value":{"none":null}})",
      R"({"document":"net.kelvo.asset.metadata","format":1,"value":{"int32":4294967296}})",
      R"({"document":"net.kelvo.asset.metadata","format":1,"value":{"uint64":-1}})",
      R"({"document":"net.kelvo.asset.metadata","format":1,"value":{"int64":"x"}})",
      R"({"document":"net.kelvo.asset.metadata","format":1,"value":{"blob":"@@@@"}})",
      R"({"document":"net.kelvo.asset.metadata","format":1,"value":{"float64":{"bits":"zz"}}})",
      R"({"document":"net.kelvo.asset.metadata","format":1,"value":{"updatepolicy":9}})",
      R"({"document":"net.kelvo.asset.metadata","format":1,"value":{"dict":[["k"]]}})",
      R"({"document":"net.kelvo.asset.metadata","format":1,"value":{"what":1}})",
      R"({"document":"net.kelvo.asset.metadata","format":1,"value":{"string":1,"id":2}})",
  };
  for (const char* text : bad) {
    SCOPED_TRACE(text);
    auto r = DecodeDocument(text, kDoc);
    ASSERT_TRUE(r.HasError());
    EXPECT_TRUE(r.GetError().Is(errors::fileformat));
  }
}

TEST(DataDocumentTest, DeepNestingIsRefusedBothWays) {
  Data deep(std::int32_t(1));
  for (int i = 0; i < 1000; ++i) deep = Data(DataArray{deep});
  EXPECT_TRUE(EncodeDocument(kDoc, deep, DOCUMENTMODE::TEXT).HasError());
  // A hostile document of a million nested arrays, as text and as CBOR.
  const std::string text = std::string(R"({"document":"net.kelvo.asset.metadata","format":1,"value":)") +
                           std::string(1000000, '[') + std::string(1000000, ']') + "}";
  EXPECT_TRUE(DecodeDocument(text, kDoc).HasError());
  std::string cbor = "\xa1\x65value";
  cbor += std::string(1000000, '\x81');
  cbor += '\x00';
  EXPECT_TRUE(DecodeDocument(cbor, kDoc).HasError());
}

} // namespace

namespace {

TEST(DataDocumentTest, PairDocumentsReadTheSameInBothModes) {
  // Ids in plain text and Ids that the writer must encode (bytes that are no UTF-8).
  const std::vector<std::pair<IdAndVersion, Data>> pairs{
      {{Id("alpha"), Id("v1")}, Data(UniversalDateTime::FromValue(7))},
      {{Id("alpha"), Id("v2")}, Data(std::string("note"))},
      {{Id(std::string("b\xff\xfe", 3)), Id(std::string("\x80version", 8))}, Data(std::int64_t(-3))},
  };
  DataArray array;
  for (const auto& [key, value] : pairs) array.push_back(Data(DataArray{Data(key), value}));
  for (DOCUMENTMODE mode : {DOCUMENTMODE::TEXT, DOCUMENTMODE::BINARY}) {
    SCOPED_TRACE(static_cast<int>(mode));
    auto bytes = EncodeDocument(kDoc, Data(array), mode);
    ASSERT_TRUE(bytes.HasValue());
    std::vector<std::pair<IdAndVersion, Data>> read;
    auto r = DecodePairDocument(*bytes, kDoc, [&](std::string_view aid, std::string_view version, Data value) -> Result<void> {
      read.emplace_back(IdAndVersion{Id(aid), Id(version)}, std::move(value));
      return {};
    });
    ASSERT_TRUE(r.HasValue()) << r.GetError().ToString();
    EXPECT_EQ(read, pairs);
    // Every cut of the document is an error (a text document may lose its last line break).
    const std::size_t end = mode == DOCUMENTMODE::TEXT ? bytes->find_last_not_of('\n') + 1 : bytes->size();
    for (std::size_t n = 0; n < end; ++n) {
      auto cut = DecodePairDocument(std::string_view(*bytes).substr(0, n), kDoc,
                                    [](std::string_view, std::string_view, Data) -> Result<void> { return {}; });
      ASSERT_TRUE(cut.HasError()) << n;
      EXPECT_TRUE(cut.GetError().Is(errors::fileformat));
    }
  }
  // Values of another shape.
  for (const Data& other : {Data(1), Data(DataArray{Data(1)}), Data(DataArray{Data(DataArray{Data(1), Data(2)})})}) {
    for (DOCUMENTMODE mode : {DOCUMENTMODE::TEXT, DOCUMENTMODE::BINARY}) {
      auto bytes = EncodeDocument(kDoc, other, mode);
      ASSERT_TRUE(bytes.HasValue());
      auto r = DecodePairDocument(*bytes, kDoc, [](std::string_view, std::string_view, Data) -> Result<void> { return {}; });
      ASSERT_TRUE(r.HasError());
      EXPECT_TRUE(r.GetError().Is(errors::fileformat));
    }
  }
}

} // namespace

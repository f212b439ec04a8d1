// The data types of the preset code: registered, carried by Data, kept as in-memory metadata of
// an on-disk repository and refused as persistent metadata without a file being written.

#include "asset/types/keyword_asset.h"
#include "asset/types/preset_data_types.h"
#include "types_fixture.h"

namespace kelvo::testing {
namespace {

using PresetDataTypesTest = TypesTest;

struct DataTypeCase {
  const char* typeId;
  const char* typeName;
  std::function<Data(const AssetRepositoryRef&)> make;
  std::function<Data(const AssetRepositoryRef&)> other; // differs from make's value in one member
};

TEST_F(PresetDataTypesTest, EachTypeIsRegisteredAndRoundTripsAsMetadataOfAnOnDiskRepository) {
  const Asset keyword = KeywordAssetInterface::Create();
  const auto resolver = std::make_shared<const ResolveAssetDependenciesStruct::Resolver>(
      [](const AssetDependencyStruct&) -> Result<AssetDescription> { return AssetDescription(); });
  const PresetDependencyMap deps{{Id("a"), IdAndVersion{Id("a"), Id("1")}}, {Id("b"), IdAndVersion{Id("b"), Id("2")}}};
  const DataTypeCase cases[] = {
      {"net.kelvo.datatype.storeassetstruct", "StoreAssetStruct",
       [&](const AssetRepositoryRef& r) { return Data(StoreAssetStruct{Id("x"), r, keyword}); },
       [&](const AssetRepositoryRef& r) { return Data(StoreAssetStruct{Id("x"), r, keyword->Clone()}); }},
      {"net.kelvo.datatype.resolveassetdependenciesstruct", "ResolveAssetDependenciesStruct",
       [&](const AssetRepositoryRef&) { return Data(ResolveAssetDependenciesStruct{resolver, deps}); },
       [&](const AssetRepositoryRef&) { return Data(ResolveAssetDependenciesStruct{resolver, {}}); }},
      {"net.kelvo.datatype.addassetdepencendystruct", "AddAssetDepencendyStruct",
       [&](const AssetRepositoryRef& r) { return Data(AddAssetDepencendyStruct{Id("x"), r, keyword, true, deps}); },
       [&](const AssetRepositoryRef& r) { return Data(AddAssetDepencendyStruct{Id("x"), r, keyword, false, deps}); }},
  };
  auto registry = GetDataTypeRegistry();
  ASSERT_TRUE(registry.HasValue());
  auto repo = Open();
  AssetDescription target = Store(repo, "target", MakeText("t"), "Target");
  // The values name another repository: one holding itself through its own metadata would never
  // be released.
  std::filesystem::create_directories(Dir("held"));
  auto held = Open("held", Id("net.kelvo.test.held"));
  for (const DataTypeCase& c : cases) {
    SCOPED_TRACE(c.typeId);
    EXPECT_EQ((*registry)->FindEntryValue(Id(c.typeId)), std::optional<std::string>(c.typeName));
    const Data value = c.make(held);
    EXPECT_EQ(value.GetType(), Id(c.typeId));
    EXPECT_EQ(value, c.make(held));
    EXPECT_EQ(value.GetHashCode(), c.make(held).GetHashCode());
    EXPECT_FALSE(value == c.other(held));

    // In memory (kind NONE): a later search finds the same value on the stored version.
    const InternedId metaId{std::string("net.kelvo.test.preset.") + c.typeName};
    ASSERT_TRUE(repo->StoreMetaData(target, metaId, value, AssetMetaData::NONE).HasValue());
    AssetDescription found = Latest(repo, "target");
    ASSERT_TRUE(found);
    auto read = found->GetMetaData()->Get(metaId);
    ASSERT_TRUE(read.HasValue()) << read.GetError().ToString();
    EXPECT_EQ(read->value_or(Data()), value);

    // Persistent: references can't go into a document; the store fails and writes no file.
    const auto before = Snapshot(Dir("main"));
    const InternedId persistentId{std::string("net.kelvo.test.persistent.") + c.typeName};
    auto persisted = repo->StoreMetaData(target, persistentId, value, AssetMetaData::PERSISTENT);
    ASSERT_TRUE(persisted.HasError());
    EXPECT_NE(persisted.GetError().ToString().find("can't be written"), std::string::npos)
        << persisted.GetError().ToString();
    EXPECT_EQ(Snapshot(Dir("main")), before);
  }
}

} // namespace
} // namespace kelvo::testing

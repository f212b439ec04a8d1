// Filter text from anywhere, parsed for a small in-memory repository and evaluated against each of
// its assets: keywords, subtypes, categories, commands and assets that carry the metadata the
// term table reads, some of it damaged (wrong types, short boxes, cycles of categories). Aborts
// when parsing or evaluation fails, since neither may on this data.

#include <cfloat>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "asset/core/memoryassetrepository.h"
#include "asset/search/control_tokens.h"
#include "asset/search/search_filter.h"
#include "asset/types/category_asset.h"
#include "asset/types/command_asset.h"
#include "asset/types/keyword_asset.h"
#include "asset/types/marker_assets.h"
#include "asset/types/typed_assets.h"

namespace {

using namespace kelvo;

void Check(bool condition) {
  if (!condition) std::abort();
}

AssetDescription Store(const AssetRepositoryRef& repo, const char* aid, const Asset& asset, const char* name) {
  Result<AssetDescription> stored = repo->StoreAsset(Id(aid), asset, nullptr);
  Check(stored.HasValue());
  if (*name) Check((*stored)->StoreMetaString(stringkeys::name, name, nullptr).HasValue());
  return *stored;
}

void Meta(const AssetDescription& d, const char* id, const Data& value) {
  Check(d->GetRepository()->StoreMetaData(d, InternedId(id), value, AssetMetaData::PERSISTENT).HasValue());
}

DataArray Ids(std::initializer_list<const char*> ids) {
  DataArray array;
  for (const char* id : ids) array.push_back(Data(Id(id)));
  return array;
}

struct Fixture {
  AssetRepositoryRef repository;
  std::vector<AssetDescription> assets;
};

Fixture MakeFixture() {
  Check(RegisterTypedAssetTypes().HasValue());
  Fixture f;
  auto repo = MemoryAssetRepositoryImpl::Create(Id("fuzz.filter"), true);
  Check(repo.HasValue());
  f.repository = *repo;
  const AssetRepositoryRef& r = f.repository;
  Store(r, "kw.wood", KeywordAssetInterface::Create(), "Wood");
  Store(r, "kw.steel", KeywordAssetInterface::Create(), "Steel beams");
  Store(r, "net.kelvo.asset.subtype.file.png", SubTypeAssetInterface::Create(), "");
  AssetDescription a = Store(r, "cat.a", CategoryAssetInterface::Create(), "A");
  AssetDescription b = Store(r, "cat.b", CategoryAssetInterface::Create(), "B");
  // A cycle of parent links.
  Check(CategoryAssetInterface::SetAssetCategory(a, Id("cat.b")).HasValue());
  Check(CategoryAssetInterface::SetAssetCategory(b, Id("cat.a")).HasValue());

  AssetDescription full = Store(r, "full", CommandAssetInterface::Create(), "Oak Beam ÄÖÜ");
  Meta(full, "net.kelvo.asset.keywords", Ids({"kw.wood", "kw.steel", "kw.none"}));
  Meta(full, "net.kelvo.asset.subtype", Data(Id("net.kelvo.asset.subtype.file.png")));
  Meta(full, "net.kelvo.node.category", Data(Id("cat.a")));
  Meta(full, "net.kelvo.asset.size", Data(std::int64_t(3 << 20)));
  Meta(full, "net.kelvo.asset.previewimageurl", Data(Url::FromFile("/p.png")));
  DataDictionary usage;
  usage.SetData(Id("count"), Data(std::int64_t(7)));
  usage.SetData(Id("lastuse"), Data(UniversalDateTime::FromUnixSeconds(1709294400)));
  Meta(full, "net.kelvo.asset.usage", Data(usage));
  DataDictionary properties;
  const auto set = [&](const char* key, Data value) {
    properties.SetData(Id(std::string("net.kelvo.asset.metaproperties.") + key), std::move(value));
  };
  set("media.fps", Data(25.0));
  set("media.animlength", Data(2.5));
  set("media.bitdepth", Data(std::int64_t(16)));
  set("media.pixelformat", Data(std::string("RGBA8")));
  set("media.colorprofile", Data(std::string("sRGB 10")));
  set("media.width", Data(std::int64_t(4096)));
  set("media.height", Data(std::int32_t(2048)));
  set("base.fileformat", Data(std::string("K3S")));
  set("k3sfile.pointcount", Data(std::uint64_t(~0ull)));
  set("k3sfile.boundingbox", Data(DataArray{Data(0.0), Data(0.0), Data(0.0), Data(300.0), Data(50.0), Data(20.0)}));
  Meta(full, "net.kelvo.asset.metaproperties", Data(properties));
  AssetDependencyStruct dependency;
  dependency.assetIdAndVersion = IdAndVersion{Id("kw.wood"), Id()};
  dependency.assetTypeId = KeywordAssetInterface::TypeId();
  Meta(full, "net.kelvo.asset.dependencies.2", Data(DataArray{Data(dependency), Data(std::string("junk"))}));
  Check(CommandAssetInterface::StoreCommandScopes(full, {Id("net.kelvo.asset.command.scope.modeling")}).HasValue());

  // Values of the wrong types and shapes.
  AssetDescription damaged = Store(r, "damaged", CommandAssetInterface::Create(), "");
  Meta(damaged, "net.kelvo.asset.keywords", Data(std::string("kw.wood")));
  Meta(damaged, "net.kelvo.asset.subtype", Data(std::int64_t(4)));
  Meta(damaged, "net.kelvo.asset.usage", Data(std::string("often")));
  Meta(damaged, "net.kelvo.asset.metaproperties", Data(DataArray{Data(1.0)}));
  Meta(damaged, "net.kelvo.asset.dependencies.2", Data(Id("x")));
  DataDictionary box;
  box.SetData(Id("net.kelvo.asset.metaproperties.k3sfile.boundingbox"),
              Data(DataArray{Data(double(FLT_MAX)), Data(1.0), Data(std::string("z"))}));
  AssetDescription shortBox = Store(r, "shortbox", KeywordAssetInterface::Create(), "Box");
  Meta(shortBox, "net.kelvo.asset.metaproperties", Data(box));

  Check(r->FindAssets(TypeArray{}, Id(), Id(), LATEST, [&](const AssetDescription& d) -> Result<bool> {
          f.assets.push_back(d);
          return true;
        }).HasValue());
  return f;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Fixture fixture = MakeFixture();
  // Records kept across every input, as a browser keeps them across filters: each must answer
  // as a fresh evaluation does.
  static std::vector<kelvo::FilterRecord> records(fixture.assets.begin(), fixture.assets.end());
  std::string text(reinterpret_cast<const char*>(data), size);
  Check(kelvo::ReadControlTokens(text, kelvo::ASSETGROUPBY::TYPE).HasValue());
  kelvo::SearchFilter filter(size % 2 ? kelvo::LENGTHUNITSYSTEM::IMPERIAL : kelvo::LENGTHUNITSYSTEM::METRIC);
  Check(filter.Parse(fixture.repository, text).HasValue());
  kelvo::TypeNameCache cache;
  for (std::size_t i = 0; i < fixture.assets.size(); ++i) {
    const kelvo::AssetDescription& asset = fixture.assets[i];
    std::string reason, keptReason;
    kelvo::Result<bool> rejected = filter.Evaluate(asset, reason, cache);
    Check(rejected.HasValue());
    kelvo::Result<bool> kept = filter.Evaluate(records[i], keptReason, cache);
    Check(kept.HasValue() && *kept == *rejected && keptReason == reason);
    if (filter.GetTerms().empty()) Check(*rejected);
    if (!*rejected && asset->GetTypeId() == kelvo::CategoryAssetInterface::TypeId())
      filter.AddMatchedCategory(asset->GetIdAndVersion().first);
  }
  return 0;
}

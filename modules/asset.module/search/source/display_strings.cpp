#include "asset/search/display_strings.h"

#include <cmath>

#include "asset/standard/assets.h"
#include "asset/types/color_category_asset.h"
#include "asset/types/metadata_asset_type.h"
#include "kelvo/log.h"

namespace kelvo {
namespace {

const Id kLanguageTag{"language"};
const Id kStampTag{"stamp"};
const Id kTextTag{"text"};
const Id kPluginType{"net.kelvo.assettype.plugin"};
const Id kNodeSpaceType{"net.kelvo.assettype.nodespace"};
constexpr std::string_view kLumoraMark = "com.lumora3d.lumora4k3s";

// The dependency array of an asset; entries of another type are skipped.
Result<std::vector<AssetDependencyStruct>> ReadDependencies(const AssetDescription& asset) {
  KELVO_ASSIGN_OR_RETURN(std::optional<DataArray> array, ReadMeta<DataArray>(asset, metaids::dependencies));
  std::vector<AssetDependencyStruct> result;
  if (array)
    for (const Data& entry : *array)
      if (const auto* dependency = entry.GetPtr<AssetDependencyStruct>()) result.push_back(*dependency);
  return result;
}

} // namespace

double LinearToSrgb(double c) { return c <= 0.0031308 ? c * 12.92 : 1.055 * std::pow(c, 1.0 / 2.4) - 0.055; }

std::optional<std::array<double, 3>> GetAssetColorBar(const AssetDescription& asset) {
  if (!asset) return std::nullopt;
  const ColorCategoryTag tag = ColorCategoryAssetInterface::GetColorCategory(asset, asset->GetRepository());
  if (tag.category.IsEmpty()) return std::nullopt;
  return std::array<double, 3>{LinearToSrgb(tag.color[0]), LinearToSrgb(tag.color[1]), LinearToSrgb(tag.color[2])};
}

Result<std::string> GetTagStrings(const AssetDescription& asset) {
  if (!asset) return std::string();
  const LanguageRef language = Language::GetCurrentLanguage();
  const std::string stamp = GetDerivedStamp();
  KELVO_ASSIGN_OR_RETURN(std::optional<Data> stored, asset->GetMetaData()->Get(stringkeys::tags));
  if (stored) {
    // A plain text is the type's own answer; a tagged one is valid for its stamp and language.
    if (const std::string* text = stored->GetPtr<std::string>()) return *text;
    if (const DataDictionary* tagged = stored->GetPtr<DataDictionary>()) {
      if (tagged->Get<std::string>(kStampTag) == stamp &&
          tagged->Get<std::string>(kLanguageTag) == language->GetIdentifier())
        return tagged->Get<std::string>(kTextTag).value_or(std::string());
    }
  }
  KELVO_ASSIGN_OR_RETURN(std::string text, asset->GetMetaString(stringkeys::tags, language, std::string()));
  const AssetRepositoryRef repository = asset->GetRepository();
  // A read-only repository keeps no derived values; the text is made again on the next search.
  if (repository && repository->IsWritable()) {
    DataDictionary tagged;
    tagged.SetData(kTextTag, Data(text));
    tagged.SetData(kStampTag, Data(stamp));
    tagged.SetData(kLanguageTag, Data(language->GetIdentifier()));
    Result<void> written =
        repository->StoreMetaData(asset, InternedId(stringkeys::tags), Data(std::move(tagged)), AssetMetaData::DERIVED_CACHE);
    if (written.HasError()) DiagnosticOutput("@", written.GetError());
  }
  return text;
}

Result<bool> HasMissingDependencies(const AssetRepositoryRef& repository, const AssetDescription& asset,
                                    IdAndVersionSet& checked) {
  if (!asset) return false;
  if (asset->GetIdAndVersion().first == displayids::missingassets) return true;
  KELVO_ASSIGN_OR_RETURN(std::vector<AssetDependencyStruct> dependencies, ReadDependencies(asset));
  bool missing = false;
  for (const AssetDependencyStruct& dependency : dependencies) {
    if (missing) break;
    if (dependency.assetIdAndVersion.first == displayids::missingassets) return true;
    KELVO_RETURN_ON_ERROR(AssetInterface::ResolveAssetsWithMissingAssets(
        repository, dependency.assetTypeId, dependency.assetIdAndVersion, dependency.assetCreationDate, checked,
        [&](const AssetDescription& found, const IdAndVersion&) -> Result<void> {
          if (missing) return {};
          KELVO_ASSIGN_OR_RETURN(missing, HasMissingDependencies(repository, found, checked));
          return {};
        },
        [&](bool) -> Result<void> {
          missing = true;
          return {};
        }));
  }
  return missing;
}

bool HasLumoraDependencies(const AssetDescription& asset) {
  if (!asset) return false;
  Result<std::vector<AssetDependencyStruct>> dependencies = ReadDependencies(asset);
  if (dependencies.HasError()) return false;
  for (const AssetDependencyStruct& dependency : *dependencies) {
    if (dependency.assetTypeId != kPluginType && dependency.assetTypeId != kNodeSpaceType) continue;
    if (dependency.assetIdAndVersion.first.View().find(kLumoraMark) != std::string_view::npos) return true;
  }
  return false;
}

} // namespace kelvo

// Color category assets: the color tag of an asset and the table of standard colors.

#include "asset/types/color_category_asset.h"

#include <algorithm>
#include <cctype>

#include "asset/types/metadata_asset_type.h"

namespace kelvo {

namespace {

std::string Lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return char(std::tolower(c)); });
  return text;
}

} // namespace

const Id& ColorCategoryAssetInterface::TypeId() {
  static const Id id{"net.kelvo.assettype.colorcategory"};
  return id;
}

Asset ColorCategoryAssetInterface::Create() { return CreateTypedAsset<ColorCategoryAssetInterface>(); }

ColorCategoryTag ColorCategoryAssetInterface::GetColorCategory(const AssetDescription& asset,
                                                               const AssetRepositoryRef& repository) {
  if (!asset || !repository) return {};
  Result<std::optional<Id>> tag = ReadMeta<Id>(asset, colorcategoryids::tag);
  if (tag.HasError() || !*tag || (*tag)->IsEmpty()) return {};
  Result<AssetDescription> found = repository->FindLatestAsset(TypeId(), **tag, Id(), NONE);
  if (found.HasError() || !*found) return {};
  ColorCategoryTag result{**tag, {0.0, 0.0, 0.0}};
  Result<std::optional<DataArray>> color = ReadMeta<DataArray>(*found, colorcategoryids::color);
  if (color.HasValue() && *color && (*color)->size() == 3) {
    for (std::size_t i = 0; i < 3; ++i) result.color[i] = (**color)[i].Get<double>().value_or(0.0);
  }
  return result;
}

Result<void> ColorCategoryAssetInterface::SetColorCategory(const AssetDescription& asset, const Id& category) {
  return StoreAssetMeta(asset, colorcategoryids::tag, category.IsEmpty() ? Data() : Data(category),
                        AssetMetaData::PERSISTENT);
}

const std::vector<StandardColorCategory>& ColorCategoryAssetInterface::GetStandardColorCategories() {
  // Linear values of the usual sRGB swatches.
  static const std::vector<StandardColorCategory> table{
      {Id("net.kelvo.colorcategory.red"), "Red", {0.799, 0.026, 0.026}},
      {Id("net.kelvo.colorcategory.orange"), "Orange", {1.0, 0.319, 0.0}},
      {Id("net.kelvo.colorcategory.yellow"), "Yellow", {1.0, 0.815, 0.0}},
      {Id("net.kelvo.colorcategory.green"), "Green", {0.051, 0.527, 0.051}},
      {Id("net.kelvo.colorcategory.blue"), "Blue", {0.027, 0.205, 0.871}},
      {Id("net.kelvo.colorcategory.purple"), "Purple", {0.319, 0.044, 0.610}},
      {Id("net.kelvo.colorcategory.gray"), "Gray", {0.216, 0.216, 0.216}},
  };
  return table;
}

Result<AssetDescription> ColorCategoryAssetInterface::ProvideStandardColorCategory(
    const std::string& nameOrId, const AssetRepositoryRef& repository) {
  if (!repository) return IllegalArgumentError("Illegal argument: Condition repository not fulfilled. ");
  const auto& table = GetStandardColorCategories();
  auto entry = std::find_if(table.begin(), table.end(), [&](const StandardColorCategory& c) {
    return Lower(c.name) == Lower(nameOrId) || c.id.View() == nameOrId;
  });
  if (entry == table.end()) {
    std::string names;
    for (const StandardColorCategory& c : table) names += (names.empty() ? "" : ", ") + Lower(c.name);
    return IllegalArgumentError("No color @; the colors are @.", nameOrId, names);
  }
  KELVO_ASSIGN_OR_RETURN(AssetDescription found, repository->FindLatestAsset(TypeId(), entry->id, Id(), NONE));
  if (found) return found;
  auto meta = std::make_shared<AssetMetaDataImpl>();
  meta->AddEntry(colorcategoryids::color, AssetMetaData::PERSISTENT,
                 Data(DataArray{Data(entry->color[0]), Data(entry->color[1]), Data(entry->color[2])}));
  KELVO_ASSIGN_OR_RETURN(AssetDescription stored, repository->StoreAsset(entry->id, Create(), meta));
  if (!stored) return UnexpectedError("Assertion failed: Condition stored not fulfilled. ");
  KELVO_RETURN_ON_ERROR(stored->StoreMetaString(stringkeys::name, entry->name, nullptr));
  return stored;
}

} // namespace kelvo

// The enum list of the assets of one type.

#include "asset/types/asset_type_enum_list.h"

#include "asset/types/typed_assets.h"

namespace kelvo {

const Id g_processEnumListRegistryId{"net.kelvo.datadescription.registry.processenumlist"};
const Id g_assetTypeEnumListId{"assettype"};

Result<std::shared_ptr<Registry<ProcessEnumListDelegate>>> GetProcessEnumListRegistry() {
  return GetRegistry<ProcessEnumListDelegate>(g_processEnumListRegistryId);
}

Result<void> ProcessAssetTypeEnumList(const Id& assetType, const DataDictionary&, const AssetRepositoryRef& repository,
                                      const Data& filter, const EnumListReceiver& receiver) {
  if (!repository) return IllegalArgumentError("Illegal argument: Condition repository not fulfilled. ");
  if (!receiver) return IllegalArgumentError("Illegal argument: Condition receiver not fulfilled. ");
  if (!FindTypedAssetType(assetType)) return {};
  KELVO_RETURN_ON_ERROR(repository->FindAssets(
      TypeArray{assetType}, Id(), Id(), LATEST, [&](const AssetDescription& d) -> Result<bool> {
        const Id aid = d->GetIdAndVersion().first;
        if (!filter.IsEmpty() && !(filter == Data(aid))) return true;
        KELVO_ASSIGN_OR_RETURN(std::string name, d->GetMetaString(stringkeys::name, nullptr, std::string()));
        Id mapped = aid;
        if (AssetType own = FindAssetType(d->GetTypeId())) {
          mapped = own->GetRepositoryId(aid, false);
          if (name == aid.ToString()) name = mapped.ToString();
        }
        KELVO_RETURN_ON_ERROR(receiver(Data(mapped), name + " (" + d->GetRepositoryId().ToString() + ")"));
        return true;
      }));
  return {};
}

} // namespace kelvo

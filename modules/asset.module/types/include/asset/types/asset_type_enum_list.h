#pragma once
// The "assettype" enum list of descriptions: a description field whose choices come from this
// entry of net.kelvo.datadescription.registry.processenumlist offers the assets of one type.

#include <functional>
#include <string>

#include "asset/core/assetrepository.h"
#include "kelvo/data.h"
#include "kelvo/registry.h"

namespace kelvo {

// Takes one choice: its value and its label.
using EnumListReceiver = std::function<Result<void>(const Data& value, const std::string& label)>;
// Fills an enum list: (list argument, description field, repository, filter, receiver).
using ProcessEnumListDelegate = std::function<Result<void>(const Id&, const DataDictionary&, const AssetRepositoryRef&,
                                                           const Data&, const EnumListReceiver&)>;

extern const Id g_processEnumListRegistryId; // net.kelvo.datadescription.registry.processenumlist
extern const Id g_assetTypeEnumListId;       // "assettype"

// The registry of enum list delegates.
Result<std::shared_ptr<Registry<ProcessEnumListDelegate>>> GetProcessEnumListRegistry();

// Hands receiver the latest version of every asset of type assetType in repository and its bases:
// the asset Id (mapped through the type's GetRepositoryId) as value, and as label the name and
// " (<repository Id>)". A non-empty filter passes only the asset whose Id equals it. An unknown
// type gives no choices and no error. Errors of the search and of receiver end the list and are
// returned. The field is not read. Any thread; receiver runs on the caller's thread.
Result<void> ProcessAssetTypeEnumList(const Id& assetType, const DataDictionary& field,
                                      const AssetRepositoryRef& repository, const Data& filter,
                                      const EnumListReceiver& receiver);

} // namespace kelvo

#pragma once
// Asset link updates: assets that refer to other assets follow their new versions. A repository
// records, for each loaded updatable asset, which assets it refers to; after a store it tells
// which loaded assets are affected (also through chains of references) and in which order, and
// it writes their new state into the same version, in memory: a link update makes no new version.

#include <functional>
#include <utility>
#include <vector>

#include "asset/core/asset_description.h"

namespace kelvo {

class AssetRepositoryInterface;

// The published Ids of the two interfaces.
namespace interfaceids {
inline const Id updatableasset{"net.kelvo.interface.updatableasset"};
inline const Id updatableassetrepository{"net.kelvo.interface.updatableassetrepository"};
} // namespace interfaceids

// A reference of an asset and the updated asset it is to point at.
using AssetUpdatePair = std::pair<AssetReferenceRef, AssetDescription>;

// One asset to update: its description (version g_newVersion, the latest stored one) and the
// updated assets that it must take over.
struct PendingUpdate {
  AssetDescription description;
  std::vector<AssetDescription> updates;
};

// Offered by an asset class that takes part in link updates.
class UpdatableAssetInterface {
public:
  virtual ~UpdatableAssetInterface() = default;
  // Makes each reference of updates point at its updated asset. Called on a private copy (Clone) of
  // the loaded asset; the references are those that the loaded asset reported, which a shallow
  // copy still shares with it, so they are replaced rather than changed.
  virtual Result<void> Update(const std::vector<AssetUpdatePair>& updates, const AssetRepositoryRef& repository) = 0;
};

// Offered by repositories; one with nothing to update answers with empty operations.
class UpdatableAssetRepositoryInterface {
public:
  virtual ~UpdatableAssetRepositoryInterface() = default;
  // The loaded assets affected by the stores and updates since the last reset, in update order:
  // an asset comes after every asset of the array that it depends on. reset empties the list of
  // changes; without it the same updates are found again.
  // Errors: illegalargument for a cycle of references ("Circular node dependency involving @ and
  // @") or for a reference that matches two updated assets ("Ambiguous update.").
  virtual Result<std::vector<PendingUpdate>> GetPendingUpdates(bool reset) = 0;
  // Performs updates (as GetPendingUpdates gave them) in order, each element in place in the
  // latest stored version of its asset. An error ends the loop; earlier elements stay updated.
  virtual Result<void> Update(const std::vector<PendingUpdate>& updates) = 0;
};

// True when reference, a link that isn't NEVER, is to follow updated: same asset Id; for the same
// version only when updated is a loaded object with a greater update counter; and updated's
// repository finds the reference's repository (itself or one of its bases).
bool MatchesUpdate(const AssetReference& reference, const AssetBase& updated);

} // namespace kelvo

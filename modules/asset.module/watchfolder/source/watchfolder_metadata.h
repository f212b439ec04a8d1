#pragma once
// Metadata values of watch folder assets in the store: attribute names by kind, the encoding of
// values as metadata documents, lazy reads, attached files behind "metasq" URLs, and the table
// of live repositories through which "metasq" URLs find theirs.

#include <cstdint>
#include <memory>
#include <optional>

#include "asset/core/asset_metadata.h"
#include "kelvo/data.h"
#include "kelvo/result.h"
#include "kelvo/url.h"

namespace kelvo {

class WatchFolderStore;
class FileWatchAssetRepositoryImpl;

// URL data of a "metasq" URL: the Id of the repository that made it.
inline const Id g_metasqRepositoryKey{"net.kelvo.url.assetrepository"};

// "<metaId>.derived" for kinds with DERIVED, ".version" for VERSION, else ".meta".
std::string AttributeOf(const InternedId& metaId, std::uint32_t kind);

// Adds an entry for each value stored for the asset urlHash: not loaded yet, except attached
// files, whose "metasq" URL is the value at once.
Result<void> MergeStoredKeys(WatchFolderStore& store, std::uint64_t urlHash, const Id& repositoryId,
                             MetaEntryMap& entries);
// Writes value (or, with a non-empty source, the bytes of that file) and returns what readers
// see in memory: the value, or the "metasq" URL of an attached file. An empty value deletes.
Result<Data> WriteStoredValue(WatchFolderStore& store, std::uint64_t urlHash, const Id& repositoryId,
                              const InternedId& metaId, std::uint32_t kind, const Data& value, const Url& source);
// The stored value; nothing when none is stored or a derived value carries an old stamp.
Result<std::optional<Data>> ReadStoredValue(WatchFolderStore& store, std::uint64_t urlHash, const InternedId& metaId,
                                            std::uint32_t kind);
// The bytes behind a "metasq" URL, exposed as a "memory" URL.
Result<Url> ReadMetasqValue(WatchFolderStore& store, const Id& repositoryId, const Url& url);

// The live repositories by Id; the resolver of "metasq" URLs looks them up here.
void RegisterLiveWatchFolder(const Id& repositoryId, std::weak_ptr<FileWatchAssetRepositoryImpl> repository);
void UnregisterLiveWatchFolder(const Id& repositoryId, const FileWatchAssetRepositoryImpl* repository);
Result<Url> ResolveWatchFolderMetasqUrl(const Url& url);

} // namespace kelvo

#pragma once
// Downloads of the assets of remote databases. Such an asset lies on a RAM disk (URL scheme
// "ramdisk") whose files are fetched on demand; a download brings the asset's version directory
// here together with everything the asset depends on (dependencies, category chain, keywords),
// skipping what is present. One job per asset runs on a pool of at most ten threads (and not
// more than the machine has) that exists only while there is work; all jobs share one progress
// entry "Downloading Assets" with bytes, speed and percentage, whose cancel stops them all.
//
// Every downloaded version is checked against its version Id (the SHA-256 of its content)
// before it is kept: a mismatch removes the fetched files and is an error of that asset. A
// failed asset shows ERROR until it is requested again (no automatic retry); its error goes to
// the progress entry and the other assets download all the same. All operations: any thread.

#include <cstdint>
#include <unordered_set>
#include <vector>

#include "asset/core/asset_description.h"
#include "asset/core/asset_version_validity.h"
#include "asset/core/assetrepository.h"
#include "kelvo/background_progress.h"
#include "kelvo/result.h"

namespace kelvo {

enum class DOWNLOADSTATE : std::int32_t {
  NO = 0,          // not here, nothing is going on
  YES = 1,         // here, or of a kind that needs no download
  INPROGRESS = 2,  // queued or running
  ERROR = 3,       // the last attempt failed
  UNAVAILABLE = 4, // can't be had: the asset isn't valid or has no URL
};
const char* GetEnumName(DOWNLOADSTATE state);

namespace downloadtypes {
// Node templates of the node library, which like file assets have a content size.
inline const Id nodetemplate{"net.kelvo.node.assettype.nodetemplate"};
} // namespace downloadtypes

// Descriptions compared by asset Id, version Id and repository.
struct AssetDescriptionHash {
  std::size_t operator()(const AssetDescription& d) const;
};
struct AssetDescriptionEqual {
  bool operator()(const AssetDescription& a, const AssetDescription& b) const;
};
using AssetDescriptionSet = std::unordered_set<AssetDescription, AssetDescriptionHash, AssetDescriptionEqual>;

// The progress entry and the job index in it of the first asset that a request really queued;
// both empty when nothing needed a download.
struct DownloadStart {
  BackgroundEntryRef progress;
  std::int64_t jobIndex = -1;
};

class AssetDownloads {
public:
  // True when the asset needs no download. Never fails: what can't be decided counts as true.
  static bool IsAssetCached(const AssetDescription& asset);
  // The content size in bytes of a file or node template asset: net.kelvo.asset.size, else the
  // size its URL reports; -1 when unknown or for other types.
  static Result<std::int64_t> GetAssetFileSize(const AssetDescription& asset);
  // See DOWNLOADSTATE. toDownloadTemp: assets the caller is about to request, shown INPROGRESS.
  // Errors: those of the validity test and of the cache query.
  static Result<DOWNLOADSTATE> GetDownloadState(const AssetDescription& asset, const AssetDescriptionSet& toDownloadTemp);
  // Appends asset and, depth first behind it, everything it needs (dependencies, category,
  // keywords) found with FindLatestAsset in searchRepository, each version once (assetsProcessed
  // ends cycles). What isn't found is skipped. Errors: those of the searches.
  static Result<void> AddAssetWithDependencies(const AssetDescription& asset, const AssetRepositoryRef& searchRepository,
                                               std::vector<AssetDescription>& assetsToExport,
                                               IdAndVersionSet& assetsProcessed);
  // Queues the closure of the given assets and starts the jobs. A second request for an asset
  // in progress is merged with the first. Errors: a failed state query, queue creation.
  static Result<void> DownloadAsset(const std::vector<AssetDescription>& assetsToDownload,
                                    const AssetRepositoryRef& searchRepository);
  static Result<DownloadStart> DownloadAsset(const AssetDescription& asset, const AssetRepositoryRef& searchRepository);
  static Result<DownloadStart> DownloadMultipleAssets(const std::vector<AssetDescription>& assetsToDownload,
                                                      const AssetRepositoryRef& searchRepository);
  // Cancels every download and waits for the running ones. The errors of earlier attempts stay.
  static void DownloadManagerCancelAll();
  static bool DownloadManagerIsDownloading();
  // Waits until no download is queued or running. Fails when called from a download job.
  static Result<void> WaitForDownloads();
  // Module end: cancels and waits like DownloadManagerCancelAll and forgets the errors.
  static void FreeAssetDownloads();
};

} // namespace kelvo

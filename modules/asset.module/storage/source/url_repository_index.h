#pragma once
// The index of a URL repository in memory: what the opening of a repository reads from _index
// before it decides whether to walk the tree.

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "urlassetrepository_impl.h"

namespace kelvo {

struct UrlAssetRepositoryImpl::LoadedIndex {
  struct Asset {
    std::string directoryName;
    Id aid;
    Id type;
    std::shared_ptr<UrlVersionTable> versions;
  };
  std::vector<Asset> assets;
  bool found = false;         // at least one part was read
  std::uint64_t newestHi = 0; // hi of the first range read

  // The position of aid in assets, or assets.size() when it isn't there.
  std::size_t Find(const Id& aid);
  // Appends aid unless it is there already; the position of its entry and whether it was added.
  std::pair<std::size_t, bool> Add(const Id& aid, const std::string& directoryName, const Id& type);

private:
  // A compacted index lists its assets sorted by Id: while they keep coming in order, appending
  // needs no lookup table. The table is built when an asset comes out of order or is looked up.
  void BuildTable();
  std::unordered_map<Id, std::size_t> _byId; // index into assets, once built
  bool _tableBuilt = false;
};

// The records of one compacted metadata document, sorted by asset Id, then version Id. The Ids
// are views into the document's bytes, or into spare texts for Ids not written there as they are.
struct CompactedRecords {
  struct Record {
    std::string_view aid;
    std::string_view version;
    Data value;
  };
  std::string bytes;
  std::deque<std::string> spare;
  std::vector<Record> records;
};
// Reads a compacted metadata document; an unsorted one is a file format error.
Result<std::unique_ptr<CompactedRecords>> DecodeCompactedMetaData(std::string bytes);

// The files of one index part: the listing and the compacted documents by metadata Id.
struct IndexPartFiles {
  std::string listing;
  std::vector<std::pair<std::string, std::string>> documents;
};
// Adds the assets and versions of the part covering lo..hi to index and raises highestVersion to
// its highest number. Any inconsistency is an error (partDir names the part in it); the caller
// then walks the tree instead. No I/O.
Result<void> ParseIndexPart(const Url& partDir, std::uint64_t lo, std::uint64_t hi, IndexPartFiles files,
                            UrlAssetRepositoryImpl::LoadedIndex& index, std::uint64_t& highestVersion);

// A type Id read from asset.info or an index: old aliases mapped, and the Id that a registered
// asset type reports for itself.
Id NormalizeAssetTypeId(const std::string& text);
// NormalizeAssetTypeId with the results kept, for reading many assets of few types.
class TypeIdCache {
public:
  Id Get(const std::string& text);

private:
  std::unordered_map<std::string, Id> _types;
};

} // namespace kelvo

#pragma once
// The result model of an asset list: the grouping adder that turns each passing asset into a row
// of its group, the date and use count buckets of the groups, and the delivery walk that sorts a
// list and hands its rows to the entry delegate, recursing into child lists.

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "asset/search/asset_facts.h"
#include "asset/search/browser_entry.h"
#include "asset/search/relevance_ranking.h"

namespace kelvo {

// Whether a type or subtype counts as relevant for the kind of item a panel shows first.
bool IsTypeRelevant(MASTERFILTER relevantItems, const Id& typeId, const Id& subtypeId);

// A group of a date or use count grouping: its shown name and the number it sorts by.
struct GroupBucket {
  std::string name;
  std::int64_t sortNumber = 0;
};

// The bucket of a date seen on today (both in local time, clock cut); an empty date has the
// bucket unsetResource with the largest Int64.
GroupBucket GetDateBucket(UniversalDateTime date, UniversalDateTime today, std::string_view unsetResource);
GroupBucket GetUseCountBucket(std::int64_t count);

// The English text of a resource of the global strings, "@" replaced by value.
std::string GetGlobalString(std::string_view resource, std::string_view value = {});

// What the grouping adder of one job needs.
struct GroupingSettings {
  ASSETGROUPBY groupBy = ASSETGROUPBY::TYPE;
  ConfigSort config; // sortBy, sortOrder, sortFirst, relevantItems, context of the children
  std::string filterString;
  RelevanceInputs relevance;
  UniversalDateTime today; // the moment the job started
};

// Collects the rows of one asset list into groups. Not thread-safe: one job.
class GroupingAdder {
public:
  GroupingAdder(GroupingSettings settings, AssetFactsReader& reader);

  // Adds the row of one asset with the filter's reason. Errors of metadata reads and of the
  // ranking are returned and add nothing.
  Result<void> Add(AssetFacts& facts, std::string reasonText);

  // Room for rows assets in a list of one group (a grouping by nothing), made once.
  void ExpectRows(std::size_t rows) { _expectedRows = rows; }
  // A list whose memory the first group takes for its rows (emptied first), so that a browser
  // keeping it between jobs doesn't have fresh pages of memory handed to it each time.
  void ReuseRows(std::shared_ptr<BrowserEntryList> rows) { _spareRows = std::move(rows); }

  // The group rows, each with its children. Their keys view the adder and the facts of the
  // assets, so the adder and the facts must outlive the delivery of the rows.
  BrowserEntryList TakeGroups();
  const GroupingSettings& GetSettings() const { return _settings; }

private:
  Result<BrowserEntry*> GroupOf(AssetFacts& facts);
  Result<void> FillRow(BrowserEntry& entry, AssetFacts& facts, std::string&& reasonText);

  GroupingSettings _settings;
  AssetFactsReader& _reader;
  std::vector<std::string> _searchWords;
  std::unordered_map<Id, std::size_t> _groupIndex;
  BrowserEntryList _groups;
  std::deque<std::string> _keys; // the collation keys of the groups, which the rows view
  std::unordered_map<std::int64_t, Id> _bucketIds;
  std::int64_t _todayDay = 0; // local day number of today
  std::size_t _expectedRows = 0;
  std::size_t _lastGroup = SIZE_MAX; // index of the group of the last row
  std::shared_ptr<BrowserEntryList> _spareRows;
};

// What the delivery walk needs of the browser.
struct DeliveryContext {
  AssetBrowserRef browser;
  ASSETBROWSERMODE mode = ASSETBROWSERMODE::ASSETS;
  bool skipWatchfolders = false;
  // Tested after the sort; a cancelled job ends the walk with an OperationCancelledError.
  std::function<bool()> isCancelled;
};

// Sorts entries by config and calls delegate ADD for each row with parentData, recursing into
// the children with the Data the delegate returned. counter, when given, limits the number of
// rows without children; the row after the last is a "..." placeholder. Errors of the delegate
// end the walk and are returned.
Result<void> DeliverEntries(const DeliveryContext& context, BrowserEntryList& entries, const Data& parentData,
                            const BuildEntryDelegate& delegate, const ConfigSort& config, std::int64_t* counter);

// The config of the group list of an asset list: groups by category and type run ascending, all
// others descending.
ConfigSort GetGroupListConfig(const GroupingSettings& settings);

} // namespace kelvo

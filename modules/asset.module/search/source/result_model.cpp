#include "asset/search/result_model.h"

#include <algorithm>
#include <ctime>
#include <limits>

#include "asset/search/text_case.h"
#include "asset/watchfolder/filewatchassetrepository.h"
#include "kelvo/log.h"

namespace kelvo {
namespace {

constexpr std::int64_t kLargest = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t kSmallest = std::numeric_limits<std::int64_t>::min();

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

char LowerAscii(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

std::string Lower(std::string_view text) {
  std::string lower(text);
  for (char& c : lower) c = LowerAscii(c);
  return lower;
}

int Sign(int c) { return c < 0 ? -1 : c > 0 ? 1 : 0; }

// Days since 1970-01-01 of a civil date.
std::int64_t DaysFromCivil(std::int64_t y, unsigned m, unsigned d) {
  y -= m <= 2;
  const std::int64_t era = (y >= 0 ? y : y - 399) / 400;
  const unsigned yoe = static_cast<unsigned>(y - era * 400);
  const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<std::int64_t>(doe) - 719468;
}

// The local day of a time, and its weekday with Monday 0.
std::int64_t LocalDay(UniversalDateTime time, int& weekday) {
  const std::time_t seconds = static_cast<std::time_t>(time.ToUnixSeconds());
  std::tm local{};
  localtime_r(&seconds, &local);
  weekday = (local.tm_wday + 6) % 7;
  return DaysFromCivil(local.tm_year + 1900, static_cast<unsigned>(local.tm_mon + 1),
                       static_cast<unsigned>(local.tm_mday));
}

// The numeric value of a sort value; Int64 and date values compare as numbers.
bool NumericValue(const Data& value, long double& number) {
  if (const auto* v = value.GetPtr<std::int64_t>()) number = static_cast<long double>(*v);
  else if (const auto* t = value.GetPtr<UniversalDateTime>()) number = static_cast<long double>(t->GetValue());
  else if (const auto* i = value.GetPtr<std::int32_t>()) number = *i;
  else if (const auto* d = value.GetPtr<double>()) number = *d;
  else if (const auto* b = value.GetPtr<bool>()) number = *b ? 1 : 0;
  else return false;
  return true;
}

// Orders the sort values of two rows: Strings by their collation keys, numbers by value. Rows
// whose values are of unlike kinds order empty before numbers before Strings.
int CompareSortValues(const BrowserEntry& a, const BrowserEntry& b) {
  if (a.sortByKey && b.sortByKey) return Sign(a.sortValueKey.compare(b.sortValueKey));
  const Data& x = a.sortValue;
  const Data& y = b.sortValue;
  if (const auto* xi = x.GetPtr<std::int64_t>())
    if (const auto* yi = y.GetPtr<std::int64_t>()) return *xi < *yi ? -1 : *xi > *yi ? 1 : 0;
  if (const auto* xt = x.GetPtr<UniversalDateTime>())
    if (const auto* yt = y.GetPtr<UniversalDateTime>()) return *xt < *yt ? -1 : *xt > *yt ? 1 : 0;
  const bool xs = a.sortByKey || x.GetPtr<std::string>(), ys = b.sortByKey || y.GetPtr<std::string>();
  long double xn = 0, yn = 0;
  const int xr = xs ? 2 : NumericValue(x, xn) ? 1 : 0;
  const int yr = ys ? 2 : NumericValue(y, yn) ? 1 : 0;
  if (xr != yr) return xr < yr ? -1 : 1;
  if (xr == 1) return xn < yn ? -1 : xn > yn ? 1 : 0;
  return 0;
}

bool IsShownPrefix(std::string_view name) {
  return name.size() >= 5 && name[0] == '#' && name[1] == '$' && IsDigit(name[2]) && IsDigit(name[3]);
}

} // namespace

std::string MakeCollationKey(std::string_view text) {
  // A digit run becomes '0', its length without leading zeros, and those digits: a digit sorts
  // against any other character exactly as '0' does, and two runs by their numeric value.
  std::string key;
  key.reserve(text.size() + 2);
  for (std::size_t i = 0; i < text.size();) {
    if (!IsDigit(text[i])) {
      key += LowerAscii(text[i++]);
      continue;
    }
    while (i < text.size() && text[i] == '0') ++i;
    const std::size_t significant = i;
    while (i < text.size() && IsDigit(text[i])) ++i;
    key += '0';
    key += static_cast<char>(std::min<std::size_t>(i - significant, 255));
    key.append(text.substr(significant, i - significant));
  }
  return key;
}

bool ConfigSort::LessThan(const BrowserEntry& a, const BrowserEntry& b) const {
  if (a.hasSortKeys && b.hasSortKeys) {
    for (std::size_t i = 0; i < a.sortKeys.size(); ++i)
      if (a.sortKeys[i] != b.sortKeys[i]) return (a.sortKeys[i] < b.sortKeys[i] ? -1 : 1) == valueSign;
  } else {
    if (a.config.sortFirst == ASSETSORTFIRST::RELEVANT && a.isRelevant != b.isRelevant) return a.isRelevant;
    if (a.config.sortFirst == ASSETSORTFIRST::FAVORITES && a.isFavourite != b.isFavourite) return a.isFavourite;
    if (const int r = CompareSortValues(a, b); r != 0) return r == valueSign;
  }
  return Sign(a.nameKey.compare(b.nameKey)) == stringSign;
}

ASSETSORTBY ConfigSort::GetDefaultSortByFromGroupBy(ASSETGROUPBY groupBy) {
  switch (groupBy) {
  case ASSETGROUPBY::CATEGORY: return ASSETSORTBY::NAME;
  case ASSETGROUPBY::CREATIONDATE: return ASSETSORTBY::CREATION_DATE;
  case ASSETGROUPBY::USEDATE: return ASSETSORTBY::USEDATE;
  case ASSETGROUPBY::USECOUNT: return ASSETSORTBY::USE_COUNT;
  case ASSETGROUPBY::TYPE:
  case ASSETGROUPBY::DATABASE:
  case ASSETGROUPBY::NOTHING: return ASSETSORTBY::NAME;
  default: return ASSETSORTBY::UNDEFINED;
  }
}

bool IsTypeRelevant(MASTERFILTER relevantItems, const Id& typeId, const Id& subtypeId) {
  const std::string_view subtype = subtypeId.View();
  switch (relevantItems) {
  case MASTERFILTER::OBJECTS: return subtype == "net.kelvo.asset.subtype.object";
  case MASTERFILTER::MATERIALS: return subtype == "net.kelvo.asset.subtype.material";
  case MASTERFILTER::MEDIA:
    return subtype == "net.kelvo.asset.subtype.mediaimage" || subtype == "net.kelvo.asset.subtype.mediamovie";
  case MASTERFILTER::NODES: return typeId.View() == "net.kelvo.node.assettype.nodetemplate";
  case MASTERFILTER::SCENE_NODES: return subtype == "net.kelvo.asset.subtype.node.operator";
  case MASTERFILTER::SCENES: return subtype == "net.kelvo.asset.subtype.scene";
  case MASTERFILTER::PRESETS: return subtype.starts_with("net.kelvo.subtype.preset.");
  default: return false;
  }
}

std::string GetGlobalString(std::string_view resource, std::string_view value) {
  static const std::pair<std::string_view, std::string_view> kTexts[] = {
      {"assetcreationdateunknown", "Unknown Date"}, {"assetusednever", "Never Used"},
      {"assetonetimeused", "Used Once"},            {"assetntimesused", "Used @ Times"},
      {"assetusagefuture", "Future"},               {"assetusagetoday", "Today"},
      {"assetusageyesterday", "Yesterday"},         {"assetusagedaysago", "@ Days Ago"},
      {"assetusagelastweek", "Last Week"},          {"assetusageweeksago", "@ Weeks Ago"},
      {"assetusageagesago", "Long Ago"},
  };
  std::string text(resource);
  for (const auto& [name, format] : kTexts)
    if (name == resource) text = format;
  if (const std::size_t at = text.find('@'); at != std::string::npos) text.replace(at, 1, value);
  return text;
}

namespace {

// The sort number of a date's bucket; days gets the whole days from the date to today.
std::int64_t DateBucketNumber(UniversalDateTime date, std::int64_t todayDay, std::int64_t& days) {
  if (date.IsEmpty()) return kLargest;
  int weekday = 0;
  days = todayDay - LocalDay(date, weekday);
  if (days < 0) return -1;
  if (days <= 4) return days;
  const std::int64_t v = days - weekday;
  const std::int64_t weeks = v / 7 + 1;
  return v < 28 ? weeks * 7 + 7 : 10000;
}

// The name of the bucket of sortNumber (from DateBucketNumber, with its days).
std::string DateBucketName(std::int64_t sortNumber, std::int64_t days, std::string_view unsetResource) {
  if (sortNumber == kLargest) return GetGlobalString(unsetResource);
  if (sortNumber == -1) return GetGlobalString("assetusagefuture");
  if (sortNumber == 0) return GetGlobalString("assetusagetoday");
  if (sortNumber == 1) return GetGlobalString("assetusageyesterday");
  if (sortNumber <= 4) return GetGlobalString("assetusagedaysago", std::to_string(days));
  if (sortNumber == 14) return GetGlobalString("assetusagelastweek");
  if (sortNumber < 10000) return GetGlobalString("assetusageweeksago", std::to_string(sortNumber / 7 - 1));
  return GetGlobalString("assetusageagesago");
}

std::int64_t TodayDay(UniversalDateTime today) {
  int weekday = 0;
  return LocalDay(today, weekday);
}

} // namespace

GroupBucket GetDateBucket(UniversalDateTime date, UniversalDateTime today, std::string_view unsetResource) {
  std::int64_t days = 0;
  const std::int64_t number = DateBucketNumber(date, TodayDay(today), days);
  return {DateBucketName(number, days, unsetResource), number};
}

GroupBucket GetUseCountBucket(std::int64_t count) {
  if (count <= 0) return {GetGlobalString("assetusednever"), kSmallest};
  if (count == 1) return {GetGlobalString("assetonetimeused"), 1};
  if (count <= 10) return {GetGlobalString("assetntimesused", "2 ... 10"), 10};
  if (count <= 20) return {GetGlobalString("assetntimesused", "11 ... 20"), 20};
  if (count <= 100) return {GetGlobalString("assetntimesused", "21 ... 100"), 100};
  return {GetGlobalString("assetntimesused", "> 100"), 101};
}

GroupingAdder::GroupingAdder(GroupingSettings settings, AssetFactsReader& reader)
    : _settings(std::move(settings)), _reader(reader), _todayDay(TodayDay(_settings.today)) {
  const std::string upper = ToUpperText(_settings.filterString);
  for (std::size_t start = 0; start < upper.size();) {
    std::size_t end = upper.find(' ', start);
    if (end == std::string::npos) end = upper.size();
    if (end > start) _searchWords.push_back(upper.substr(start, end - start));
    start = end + 1;
  }
}

Result<void> GroupingAdder::Add(AssetFacts& facts, std::string reasonText) {
  // The row is made in its place in the group and never moved; one that can't be filled is
  // taken out again.
  KELVO_ASSIGN_OR_RETURN(BrowserEntry * group, GroupOf(facts));
  BrowserEntryList& rows = *group->children;
  Result<void> filled = FillRow(rows.emplace_back(), facts, std::move(reasonText));
  if (filled.HasError()) rows.pop_back();
  return filled;
}

Result<void> GroupingAdder::FillRow(BrowserEntry& entry, AssetFacts& facts, std::string&& reasonText) {
  const ConfigSort& config = _settings.config;
  // The id, like the texts, is taken from the facts on delivery: copying it here would touch
  // the id's shared count, a cache miss per row.
  entry.source = &facts;
  entry.nameKey = facts.nameKey;
  entry.reasonText = std::move(reasonText);
  entry.duplicateKind = facts.duplicateKind;
  entry.config = config;
  if (config.sortFirst == ASSETSORTFIRST::RELEVANT)
    entry.isRelevant = IsTypeRelevant(config.relevantItems, facts.typeId, facts.subtypeId);

  switch (config.sortBy) {
  case ASSETSORTBY::NAME:
    entry.sortByKey = true;
    entry.sortValueKey = facts.nameKey;
    break;
  case ASSETSORTBY::MODIFICATION_DATE:
  case ASSETSORTBY::CREATION_DATE: {
    KELVO_ASSIGN_OR_RETURN(UniversalDateTime stamp, _reader.Timestamp(facts));
    entry.sortValue = Data(stamp);
    break;
  }
  case ASSETSORTBY::USEDATE: {
    KELVO_ASSIGN_OR_RETURN(UniversalDateTime last, _reader.LastUse(facts));
    entry.sortValue = Data(last);
    break;
  }
  case ASSETSORTBY::USE_COUNT: {
    KELVO_ASSIGN_OR_RETURN(std::int64_t count, _reader.UseCount(facts));
    entry.sortValue = Data(count);
    break;
  }
  case ASSETSORTBY::SIZE: {
    KELVO_ASSIGN_OR_RETURN(std::int64_t size, _reader.FileSize(facts));
    entry.sortValue = Data(size);
    break;
  }
  case ASSETSORTBY::RELEVANCE:
    KELVO_RETURN_ON_ERROR(
        ComputeRelevanceKeys(config, entry, facts, _reader, _settings.relevance, _searchWords));
    [[fallthrough]];
  default:
    entry.sortByKey = true;
    entry.sortValueKey = facts.sortKey;
    break;
  }
  if (config.sortFirst == ASSETSORTFIRST::FAVORITES) entry.isFavourite = _reader.Favourite(facts);
  return {};
}

Result<BrowserEntry*> GroupingAdder::GroupOf(AssetFacts& facts) {
  static const Id kNone("none");
  const ASSETGROUPBY groupBy = _settings.groupBy;
  Id groupId;
  GroupBucket bucket;
  std::int64_t days = 0;
  switch (groupBy) {
  case ASSETGROUPBY::CATEGORY: groupId = facts.categoryId.IsEmpty() ? factids::uncategorized : facts.categoryId; break;
  case ASSETGROUPBY::CREATIONDATE: {
    KELVO_ASSIGN_OR_RETURN(UniversalDateTime stamp, _reader.Timestamp(facts));
    bucket.sortNumber = DateBucketNumber(stamp, _todayDay, days);
    break;
  }
  case ASSETGROUPBY::USEDATE: {
    KELVO_ASSIGN_OR_RETURN(UniversalDateTime last, _reader.LastUse(facts));
    bucket.sortNumber = DateBucketNumber(last, _todayDay, days);
    break;
  }
  case ASSETGROUPBY::USECOUNT: {
    KELVO_ASSIGN_OR_RETURN(std::int64_t count, _reader.UseCount(facts));
    bucket = GetUseCountBucket(count);
    break;
  }
  case ASSETGROUPBY::TYPE: groupId = facts.subtypeId.IsEmpty() ? facts.typeId : facts.subtypeId; break;
  case ASSETGROUPBY::DATABASE: groupId = facts.repository ? facts.repository->GetId() : Id(); break;
  default: groupId = kNone; break;
  }
  const bool dated = groupBy == ASSETGROUPBY::CREATIONDATE || groupBy == ASSETGROUPBY::USEDATE ||
                     groupBy == ASSETGROUPBY::USECOUNT;
  if (dated) {
    auto [slot, added] = _bucketIds.try_emplace(bucket.sortNumber);
    if (added) slot->second = Id("sort_" + std::to_string(bucket.sortNumber));
    groupId = slot->second;
  }
  // Rows come in runs of one group (a list grouped by nothing is one long run).
  if (_lastGroup < _groups.size() && _groups[_lastGroup].id == groupId) return &_groups[_lastGroup];
  if (auto hit = _groupIndex.find(groupId); hit != _groupIndex.end()) {
    _lastGroup = hit->second;
    return &_groups[hit->second];
  }
  if (groupBy == ASSETGROUPBY::CREATIONDATE)
    bucket.name = DateBucketName(bucket.sortNumber, days, "assetcreationdateunknown");
  else if (groupBy == ASSETGROUPBY::USEDATE)
    bucket.name = DateBucketName(bucket.sortNumber, days, "assetusednever");

  BrowserEntry group;
  group.isGroup = true;
  group.id = groupId;
  group.config = _settings.config;
  if (_spareRows) {
    group.children = std::exchange(_spareRows, nullptr);
    group.children->clear();
  } else {
    group.children = std::make_shared<BrowserEntryList>();
  }
  if (groupBy == ASSETGROUPBY::NOTHING) group.children->reserve(_expectedRows);
  const AssetRepositoryRef lookup = facts.repository;
  switch (groupBy) {
  case ASSETGROUPBY::CATEGORY: {
    KELVO_ASSIGN_OR_RETURN(group.name, _reader.CategoryName(groupId, lookup));
    group.sortValue = Data(std::int64_t(0));
    break;
  }
  case ASSETGROUPBY::TYPE: {
    KELVO_ASSIGN_OR_RETURN(TypeName type, _reader.TypeText(facts.typeId, facts.subtypeId, lookup));
    group.name = type.name;
    std::string sort = type.sort.substr(0, 4) + Lower(type.name);
    if (_settings.config.sortBy != ASSETSORTBY::RELEVANCE && _settings.config.sortFirst == ASSETSORTFIRST::RELEVANT &&
        IsTypeRelevant(_settings.config.relevantItems, groupId, groupId))
      sort = "#$00" + sort;
    group.sortByKey = true;
    group.sortValueKey = _keys.emplace_back(MakeCollationKey(sort));
    break;
  }
  case ASSETGROUPBY::DATABASE: {
    KELVO_ASSIGN_OR_RETURN(group.name, _reader.RepositoryName(facts.repository));
    break;
  }
  case ASSETGROUPBY::CREATIONDATE:
  case ASSETGROUPBY::USEDATE:
    group.name = bucket.name;
    group.sortValue = Data(-bucket.sortNumber);
    break;
  case ASSETGROUPBY::USECOUNT:
    group.name = bucket.name;
    group.sortValue = Data(bucket.sortNumber);
    break;
  default: group.sortValue = Data(std::int64_t(-1)); break;
  }
  group.nameKey = _keys.emplace_back(MakeCollationKey(Lower(group.name)));
  _groupIndex.emplace(groupId, _groups.size());
  _lastGroup = _groups.size();
  _groups.push_back(std::move(group));
  return &_groups.back();
}

BrowserEntryList GroupingAdder::TakeGroups() {
  _groupIndex.clear();
  _bucketIds.clear();
  _lastGroup = SIZE_MAX;
  return std::exchange(_groups, BrowserEntryList());
}

ConfigSort GetGroupListConfig(const GroupingSettings& settings) {
  ConfigSort config = settings.config;
  config.sortOrder = settings.groupBy == ASSETGROUPBY::CATEGORY || settings.groupBy == ASSETGROUPBY::TYPE
                         ? ASSETSORTORDER::ASCENDING
                         : ASSETSORTORDER::DESCENDING;
  return config;
}

namespace {

// Marks the rows that a relevance list leaves out: where an operator node template and a
// primitive, deformer or field command share a name, the command in the node context and the
// node template elsewhere.
std::vector<bool> FindDroppedRows(const BrowserEntryList& entries, const ConfigSort& config) {
  std::vector<bool> dropped;
  const ASSETRELEVANCECONTEXT context = config.context;
  if (config.sortBy != ASSETSORTBY::RELEVANCE ||
      !(context == ASSETRELEVANCECONTEXT::OBJECT_OM || context == ASSETRELEVANCECONTEXT::OBJECT_VP ||
        context == ASSETRELEVANCECONTEXT::NODE || context == ASSETRELEVANCECONTEXT::OTHER))
    return dropped;
  std::unordered_map<std::string, std::pair<std::vector<std::size_t>, std::vector<std::size_t>>> byName;
  for (std::size_t i = 0; i < entries.size(); ++i) {
    const std::uint8_t kind = entries[i].duplicateKind;
    if (kind == 0) continue;
    auto& slot = byName[ToUpperText(entries[i].source ? entries[i].source->name : entries[i].name)];
    (kind == 1 ? slot.first : slot.second).push_back(i);
  }
  for (const auto& [name, rows] : byName) {
    if (rows.first.empty() || rows.second.empty()) continue;
    if (dropped.empty()) dropped.assign(entries.size(), false);
    for (std::size_t i : context == ASSETRELEVANCECONTEXT::NODE ? rows.second : rows.first) dropped[i] = true;
  }
  return dropped;
}

// A keyword, smart search or category row of a watch folder.
bool IsWatchFolderTreeRow(const BrowserEntry& row) {
  if (!row.asset || !dynamic_cast<const FileWatchAssetRepositoryImpl*>(row.repository.get())) return false;
  const std::string_view type = row.asset->GetTypeId().View();
  return type == "net.kelvo.assettype.keyword" || type == "net.kelvo.assettype.smartsearch" ||
         type == "net.kelvo.assettype.category";
}

// Fills scratch with row and the id, texts, asset and repository of its facts.
BrowserEntry& Materialize(const BrowserEntry& row, BrowserEntry& scratch) {
  const AssetFacts& facts = *row.source;
  scratch.isGroup = row.isGroup;
  scratch.isPlaceholder = row.isPlaceholder;
  scratch.stateFlags = row.stateFlags;
  scratch.indexState = row.indexState;
  scratch.name.assign(facts.name);
  scratch.reasonText.assign(row.reasonText);
  scratch.noteText.assign(row.noteText);
  scratch.descriptionText.assign(facts.descriptionText);
  scratch.shortcutsText.assign(facts.shortcutsText);
  scratch.helpText.assign(facts.helpText);
  scratch.id = facts.assetId;
  scratch.asset = facts.asset;
  scratch.repository = facts.repository;
  scratch.extraFlag = row.extraFlag;
  scratch.children = row.children;
  scratch.config = row.config;
  return scratch;
}

// The rows of a long list that are handed over before the rest of it is sorted.
constexpr std::size_t kFirstRows = 200;
// How many rows ahead of the one delivered its memory is fetched.
constexpr std::size_t kAhead = 16;

bool IsFalse(const Data& data) {
  const bool* value = data.GetPtr<bool>();
  return value && !*value;
}

} // namespace

Result<void> DeliverEntries(const DeliveryContext& context, BrowserEntryList& entries, const Data& parentData,
                            const BuildEntryDelegate& delegate, const ConfigSort& config, std::int64_t* counter) {
  ConfigSort sort = config;
  bool sorted = true;
  if (context.mode == ASSETBROWSERMODE::KEYWORDSAVAILABLE) {
    sort.valueSign = config.sortOrder == ASSETSORTORDER::DESCENDING ? 1 : -1;
    sort.stringSign = -1;
  } else if (config.sortOrder == ASSETSORTORDER::ASCENDING ||
             (config.sortBy == ASSETSORTBY::RELEVANCE && !entries.empty() && !entries.front().isGroup)) {
    sort.valueSign = sort.stringSign = -1;
  } else if (config.sortOrder == ASSETSORTORDER::DESCENDING) {
    sort.valueSign = sort.stringSign = 1;
  } else {
    sorted = false;
  }
  // The rows stay in place and an order of them is sorted, which moves no strings. A long list
  // sorts its first rows alone, hands them over, and sorts the rest behind them.
  std::vector<std::uint32_t> order(entries.size());
  for (std::size_t i = 0; i < order.size(); ++i) order[i] = static_cast<std::uint32_t>(i);
  const auto less = [&](std::uint32_t a, std::uint32_t b) { return sort.LessThan(entries[a], entries[b]); };
  std::size_t sortedRows = order.size();
  if (sorted && order.size() > 2 * kFirstRows) {
    sortedRows = kFirstRows;
    std::partial_sort(order.begin(), order.begin() + kFirstRows, order.end(), less);
  } else if (sorted && order.size() >= 2) {
    std::sort(order.begin(), order.end(), less);
  }
  if (context.isCancelled && context.isCancelled()) return OperationCancelledError();

  const std::vector<bool> dropped = FindDroppedRows(entries, config);
  BrowserEntry scratch; // the delivered form of rows built from facts; its buffers are reused
  for (std::size_t position = 0; position < order.size(); ++position) {
    if (position == sortedRows) {
      std::sort(order.begin() + static_cast<std::ptrdiff_t>(position), order.end(), less);
      if (context.isCancelled && context.isCancelled()) return OperationCancelledError();
    }
    // Rows are visited in sorted order, all over memory: a row, its facts and the facts' asset
    // (whose shared count lies beside it) are asked for in turn some rows ahead.
    if (position + kAhead < order.size()) {
      const BrowserEntry& far = entries[order[position + kAhead]];
      __builtin_prefetch(&far);
      __builtin_prefetch(&far.source);
    }
    if (position + kAhead / 2 < order.size())
      if (const AssetFacts* ahead = entries[order[position + kAhead / 2]].source) __builtin_prefetch(ahead);
    if (position + kAhead / 4 < order.size())
      if (const AssetFacts* ahead = entries[order[position + kAhead / 4]].source) __builtin_prefetch(ahead->asset.get());
    const std::uint32_t i = order[position];
    if (!dropped.empty() && dropped[i]) continue;
    BrowserEntry& row = entries[i].source ? Materialize(entries[i], scratch) : entries[i];
    if (context.mode == ASSETBROWSERMODE::CATEGORIES && context.skipWatchfolders && IsWatchFolderTreeRow(row))
      continue;
    if (IsShownPrefix(row.name)) row.name.erase(0, 4);
    const bool hasChildren = row.children && !row.children->empty();
    if (counter && !hasChildren && (*counter)-- <= 0) {
      BrowserEntry more;
      more.isPlaceholder = true;
      more.name = "...";
      KELVO_RETURN_ON_ERROR(delegate(context.browser, BUILDBROWSERENTRYCOMMAND::ADD, parentData, Data(), more));
      return {};
    }
    if (context.mode != ASSETBROWSERMODE::ASSETS) {
      KELVO_ASSIGN_OR_RETURN(Data node, delegate(context.browser, BUILDBROWSERENTRYCOMMAND::ADD, parentData, Data(), row));
      if (hasChildren) {
        KELVO_RETURN_ON_ERROR(DeliverEntries(context, *row.children, node, delegate, row.config, counter));
        row.children.reset();
      }
    } else if (hasChildren) {
      row.isGroup = true;
      KELVO_ASSIGN_OR_RETURN(Data node, delegate(context.browser, BUILDBROWSERENTRYCOMMAND::ADD, parentData, Data(), row));
      KELVO_RETURN_ON_ERROR(DeliverEntries(context, *row.children, node, delegate, row.config, counter));
      row.children.reset();
      if (IsFalse(node)) break;
    } else {
      if (!row.asset && !row.repository) continue;
      row.isGroup = false;
      KELVO_ASSIGN_OR_RETURN(Data answer, delegate(context.browser, BUILDBROWSERENTRYCOMMAND::ADD, parentData, Data(), row));
      if (IsFalse(answer)) break;
    }
    if (counter && *counter < 0) break;
  }
  return {};
}

} // namespace kelvo

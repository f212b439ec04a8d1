#pragma once
// One row of a browser's list as a panel receives it, the comparator that orders a list of rows,
// and the delegate through which an update job streams its rows to the panel.

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "asset/core/assetrepository.h"
#include "asset/search/search_enums.h"
#include "kelvo/data.h"
#include "kelvo/result.h"

namespace kelvo {

// What a browser lists; fixed for the life of a browser. Numeric values are published.
enum class ASSETBROWSERMODE : std::int32_t {
  UNDEFINED = 0,
  CATEGORIES = 1,
  ASSETS = 2,
  KEYWORDSAVAILABLE = 3,
  KEYWORDSASSIGNED = 4,
  VERSIONS = 5,
  DEPENDENCIES = 6,
  DEPENDANTS = 7,
  DATABASES = 8
};

// The commands of the entry delegate.
enum class BUILDBROWSERENTRYCOMMAND : std::int32_t { START = 0, END = 1, RESET = 2, ADD = 3, SELECT = 4 };

// What a filter decided for one asset.
enum class FILTERASSETRESULT : std::int32_t { SKIP = 0, ADD = 1, ADDCATEGORYONLY = 2 };

struct BrowserEntry;
struct AssetFacts;

// How a list of rows is ordered: the settings of one child list, and the signs that the delivery
// fixes before it sorts (-1 ascending, +1 descending).
struct ConfigSort {
  ASSETSORTBY sortBy = ASSETSORTBY::NAME;
  ASSETSORTORDER sortOrder = ASSETSORTORDER::ASCENDING;
  ASSETSORTFIRST sortFirst = ASSETSORTFIRST::NONE;
  MASTERFILTER relevantItems = MASTERFILTER::ALL;
  ASSETRELEVANCECONTEXT context = ASSETRELEVANCECONTEXT::OTHER;
  int valueSign = -1;
  int stringSign = -1;

  // Whether a sorts before b: relevance keys, then relevant or favourite rows first, then the
  // sort values, then the names (without case, digit runs as numbers). Never fails; the entries
  // alone are read.
  bool LessThan(const BrowserEntry& a, const BrowserEntry& b) const;

  // The sort key that a grouping implies; UNDEFINED for UNDEFINED and out-of-range values.
  static ASSETSORTBY GetDefaultSortByFromGroupBy(ASSETGROUPBY groupBy);
};

using BrowserEntryList = std::vector<BrowserEntry>;

// One list row. The fields below "internal" order the list and never reach a delegate's use.
struct BrowserEntry {
  bool isGroup = false;
  bool isPlaceholder = false;
  std::uint32_t stateFlags = 0;
  std::int32_t indexState = 0;
  std::string name; // may start with a sort prefix until it is delivered
  std::string reasonText;
  std::string noteText;
  std::string descriptionText;
  std::string shortcutsText;
  std::string helpText;
  Id id;
  AssetDescription asset;
  AssetRepositoryRef repository;
  bool extraFlag = false;

  // ---- internal ----
  bool isFavourite = false;
  bool isRelevant = false;
  bool hasSortKeys = false;
  std::array<std::int64_t, 5> sortKeys{}; // relevance keys, lower first
  // A String sort value is kept only as its collation key (sortByKey); others are Data.
  Data sortValue;
  bool sortByKey = false;
  // Collation keys of a String sort value and of name, made once so that a compare is a memcmp.
  // They view texts that the builder of the list keeps until the list is delivered.
  std::string_view sortValueKey;
  std::string_view nameKey;
  ConfigSort config;
  std::shared_ptr<BrowserEntryList> children;
  std::uint8_t duplicateKind = 0; // a node template (1) or a command (2) that a relevance list may drop
  // A row of an asset list leaves id, name, texts, asset and repository empty and takes them
  // from these facts when it is delivered, so that building and sorting many rows copies no text.
  const AssetFacts* source = nullptr;
};

class AssetBrowserInterface;
using AssetBrowserRef = std::shared_ptr<AssetBrowserInterface>;

// The entry delegate of a panel. Its result stands for the panel's own node: the root for START,
// the list parent for RESET, the parent of an entry's children for ADD.
using BuildEntryDelegate = std::function<Result<Data>(const AssetBrowserRef& browser, BUILDBROWSERENTRYCOMMAND command,
                                                      const Data& parent, const Data& payload,
                                                      const BrowserEntry& entry)>;

// The key under which text sorts without case and with digit runs taken as numbers: comparing two
// keys bytewise gives the same order as comparing the texts that way.
std::string MakeCollationKey(std::string_view text);

} // namespace kelvo

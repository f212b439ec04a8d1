#pragma once
// Enumerations of the browser's filter language. Their numeric values are published and fixed.

#include <cstdint>

namespace kelvo {

// How the browser groups its entries (GROUPBY: token).
enum class ASSETGROUPBY : std::int32_t {
  UNDEFINED = 0,
  CATEGORY = 1,
  CREATIONDATE = 2,
  USEDATE = 3,
  USECOUNT = 4,
  TYPE = 5,
  DATABASE = 6,
  NOTHING = 7,
  _MAX = 8
};

// The sort key of the entries within a group (SORTBY: token).
enum class ASSETSORTBY : std::int32_t {
  UNDEFINED = 0,
  NAME = 1,
  MODIFICATION_DATE = 2,
  CREATION_DATE = 3,
  USEDATE = 4,
  USE_COUNT = 5,
  SIZE = 6,
  RELEVANCE = 7
};

// Which entries are listed before all others (FIRSTITEMS: token).
enum class ASSETSORTFIRST : std::int32_t { UNDEFINED = 0, NONE = 1, FAVORITES = 2, RELEVANT = 3 };

enum class ASSETSORTORDER : std::int32_t { NONE = 0, ASCENDING = 1, DESCENDING = 2 };

// Where the host uses the assets, for relevance ranking (CONTEXT: token).
enum class ASSETRELEVANCECONTEXT : std::int32_t {
  UNDEFINED = 0,
  OBJECT_OM = 1,
  OBJECT_VP = 2,
  MESH = 3,
  SPLINE = 4,
  MATERIAL = 5,
  UV_EDITOR = 6,
  UV_VP = 7,
  NODE = 8,
  OTHER = 9
};

// The master filters of a browser panel; also the kind of relevant items (RELEVANTITEMS: token).
enum class MASTERFILTER : std::int32_t {
  ALL = 0,
  OBJECTS = 1,
  MATERIALS = 2,
  MEDIA = 3,
  NODES = 4,
  SCENE_NODES = 5,
  SCENES = 6,
  PRESETS = 7,
  TOOLCOMMANDS = 8,
  OBJECTCOMMANDS = 9,
  OTHERCOMMANDS = 10,
  SPECIAL = 11
};

// Unit system of the length shown for a DIMENSIONS match.
enum class LENGTHUNITSYSTEM : std::int32_t { METRIC = 0, IMPERIAL = 1 };

} // namespace kelvo

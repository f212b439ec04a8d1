#pragma once
// The keys of filter terms and the ids that the terms test. Metadata ids are the names under which
// an asset stores the value; the short ids (assetid, dependencycount, ...) are markers for values
// that are not metadata and that the filter computes itself.

#include <cstdint>
#include <string_view>

#include "asset/core/asset_description.h"
#include "asset/core/asset_metadata.h"
#include "asset/types/keyword_asset.h"
#include "kelvo/id.h"

namespace kelvo {

namespace filterids {
inline const Id subtype = metaids::subtype.ToId();
inline const Id& name = stringkeys::name;
inline const Id annotations{"net.kelvo.object.base.annotations"};
inline const Id assetid{"assetid"};
inline const Id dependencies = metaids::dependencies.ToId();
inline const Id dependencycount{"dependencycount"};
inline const Id categoryid{"categoryid"};
inline const Id keywords = keywordids::keywords.ToId();
inline const Id keywordid{"keywordid"};
inline const Id keywordcount{"keywordcount"};
inline const Id lastusedate{"lastusedate"};
inline const Id usecount{"usecount"};
inline const Id database{"database"};
inline const Id databasetype{"databasetype"};
inline const Id size{"size"};
inline const Id installed{"installed"};
inline const Id downloading{"downloading"};
inline const Id protected_{"protected"};
inline const Id favorite{"favorite"};
inline const Id versiontag = metaids::versiontag.ToId();
inline const Id versioncount{"versioncount"};
inline const Id timestamp = metaids::timestamp.ToId();
inline const Id previewimageurl = metaids::previewimageurl.ToId();
inline const Id previewanimurl = metaids::previewanimurl.ToId();
inline const Id fps{"net.kelvo.asset.metaproperties.media.fps"};
inline const Id animlength{"net.kelvo.asset.metaproperties.media.animlength"};
inline const Id bitdepth{"net.kelvo.asset.metaproperties.media.bitdepth"};
inline const Id pixelformat{"net.kelvo.asset.metaproperties.media.pixelformat"};
inline const Id colorprofile{"net.kelvo.asset.metaproperties.media.colorprofile"};
inline const Id resolution{"net.kelvo.asset.metaproperties.media.resolution"};
inline const Id alphachannels{"net.kelvo.asset.metaproperties.media.alphachannels"};
inline const Id fileformatversion{"net.kelvo.asset.metaproperties.base.fileformatversion"};
inline const Id fileformat{"net.kelvo.asset.metaproperties.base.fileformat"};
inline const Id pointcount{"net.kelvo.asset.metaproperties.k3sfile.pointcount"};
inline const Id polygoncount{"net.kelvo.asset.metaproperties.k3sfile.polygoncount"};
inline const Id geometryobjectcount{"net.kelvo.asset.metaproperties.k3sfile.geometryobjectcount"};
inline const Id materialcount{"net.kelvo.asset.metaproperties.k3sfile.materialcount"};
inline const Id boundingbox{"net.kelvo.asset.metaproperties.k3sfile.boundingbox"};
inline const Id proxygeometry{"net.kelvo.assetmetadata.proxygeometry"};
inline const Id scope{"scope"};
} // namespace filterids

// What a term tests, as one value per row of the key table, so that evaluation dispatches on it
// without comparing ids. TEXT is free text (empty id).
enum class FILTERKEY : std::int32_t {
  TEXT, TYPE, NAME, ANNOTATIONS, ASSETID, DEPENDENCY, DEPENDENCYCOUNT, CATEGORYID, KEYWORD, KEYWORDID,
  KEYWORDCOUNT, LASTUSEDATE, USECOUNT, DATABASE, DATABASETYPE, SIZE, INSTALLED, DOWNLOADING, PROTECTED,
  FAVORITE, VERSION, VERSIONCOUNT, CREATIONDATE, PREVIEW, PREVIEWANIM, FPS, ANIMATIONLENGTH, BITDEPTH,
  PIXELFORMAT, COLORPROFILE, RESOLUTION, ALPHACHANNELS, FILEVERSION, FILEFORMAT, POINTS, POLYGONS, OBJECTS,
  MATERIALS, DIMENSIONS, PROXY, SCOPE
};

// The row of a term's metaId; TEXT for the empty id and for an id that is no row.
FILTERKEY GetFilterKey(const Id& metaId);

// The id tested by the term key (upper case, compared exactly), or null for an unknown key.
// Safe from any thread.
const Id* FindFilterKey(std::string_view upperKey);

} // namespace kelvo

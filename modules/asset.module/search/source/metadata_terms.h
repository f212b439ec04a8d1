#pragma once
// The metadata stage of filter evaluation: the terms that test one stored or computed property of
// an asset (dates, use, versions, media and file properties, sizes, flags).

#include "filter_evaluation.h"

namespace kelvo {

namespace metapropertyids {
inline const InternedId metaproperties{"net.kelvo.asset.metaproperties"};
inline const Id width{"net.kelvo.asset.metaproperties.media.width"};
inline const Id height{"net.kelvo.asset.metaproperties.media.height"};
} // namespace metapropertyids

// Whether key is a row of the metadata stage.
bool IsMetadataTerm(FILTERKEY key);

// Tests term (whose key IsMetadataTerm) on the state's asset and marks it when a value holds.
// Errors of reads are returned.
Result<void> EvaluateMetadataTerm(const SearchTerm& term, FILTERKEY key, EvaluationState& state);

// Reads into the state's record, unless read already, the byte size of the asset's content: the
// stored size, else the size of its file.
Result<void> ReadSize(EvaluationState& state);

// The text of a length in centimetres in the unit system: mm, cm, m, km or in, ft, yd, mi.
std::string FormatLengthLabel(double centimetres, LENGTHUNITSYSTEM system);

// "512 B", "1.5 KB", ... in factors of 1024.
std::string FormatByteSize(std::int64_t bytes);

} // namespace kelvo

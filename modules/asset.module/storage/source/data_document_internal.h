#pragma once
// Shared by the two readers of documents (JSON text and CBOR).

#include <cstdint>
#include <string_view>
#include <vector>

#include "data_document.h"
#include "kelvo/data.h"
#include "kelvo/result.h"

namespace kelvo::documentdetail {

inline constexpr int kFormat = 1;

Result<std::vector<std::uint8_t>> Base64Decode(std::string_view s);
// A float64 from the 16 lower-case hex digits of its bits.
Result<Data> FloatFromBits(std::string_view hex);
// A value of a registered type from its plain form; a file format error for an unknown type.
Result<Data> FromPlain(const Id& type, const Data& plain);
// The value of a binary document of documentId.
Result<Data> DecodeBinaryDocument(std::string_view bytes, const Id& documentId);
// The pairs of a binary pair document (see DecodePairDocument).
Result<void> DecodeBinaryPairDocument(std::string_view bytes, const Id& documentId, const PairReceiver& receiver);

} // namespace kelvo::documentdetail

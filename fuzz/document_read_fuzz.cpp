// Bytes as the repository reads them from metadata files, compacted index documents and
// asset.info: the document decoder in both forms, the pair reader of compacted documents, and the
// asset.info lines. Aborts when a decoded value does not encode and decode to the same bytes again,
// or when accepted asset.info lines break the rules of an Id.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "asset/storage/url_layout.h"
#include "data_document.h"
#include "url_repository_index.h"

namespace {

void Check(bool condition) {
  if (!condition) std::abort();
}

// A decoded value must survive a round trip in each form, byte for byte after the first write.
void CheckRoundTrip(const kelvo::Id& documentId, const kelvo::Data& value) {
  for (kelvo::DOCUMENTMODE mode : {kelvo::DOCUMENTMODE::TEXT, kelvo::DOCUMENTMODE::BINARY}) {
    kelvo::Result<std::string> first = kelvo::EncodeDocument(documentId, value, mode);
    Check(first.HasValue());
    kelvo::Result<kelvo::Data> again = kelvo::DecodeDocument(*first, documentId);
    Check(again.HasValue());
    kelvo::Result<std::string> second = kelvo::EncodeDocument(documentId, *again, mode);
    Check(second.HasValue() && *second == *first);
  }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);

  if (auto lines = kelvo::ParseAssetInfo(bytes)) {
    Check(kelvo::IsValidIdText(lines->aid) && kelvo::IsValidIdText(lines->type));
    Check(lines->aid.find('\n') == std::string::npos && lines->type.find('\r') == std::string::npos);
  }

  for (const kelvo::Id* documentId : {&kelvo::g_metaDataDocumentId, &kelvo::g_compactedMetaDataDocumentId}) {
    if (kelvo::Result<kelvo::Data> value = kelvo::DecodeDocument(bytes, *documentId); value.HasValue())
      CheckRoundTrip(*documentId, *value);
  }

  std::size_t pairs = 0;
  auto counted = kelvo::DecodePairDocument(bytes, kelvo::g_compactedMetaDataDocumentId,
                                           [&pairs](std::string_view, std::string_view, kelvo::Data) -> kelvo::Result<void> {
                                             ++pairs;
                                             return {};
                                           });
  if (auto records = kelvo::DecodeCompactedMetaData(std::string(bytes)); records.HasValue()) {
    Check(counted.HasValue() && (*records)->records.size() == pairs);
  }
  return 0;
}

#pragma once
// Documents: files that hold one Data value under a document Id, in one of two modes: a JSON
// text (TEXT) for files people may read, or a compact binary form (BINARY, CBOR). Every value
// carries its data type, so that a document reads back as exactly the value that was written.
//
// Types with a fixed form: none, bool, int32, int64, uint64, float64 (exact bits), string (any
// bytes), Id, Url (scheme, path, query), UniversalDateTime, blob, array, dictionary, and the
// module types IdAndVersion, ASSET_UPDATE_POLICY and AssetDependencyStruct. Other types enter
// through RegisterDocumentDataType.

#include <functional>
#include <string>
#include <string_view>

#include "kelvo/data.h"
#include "kelvo/id.h"
#include "kelvo/result.h"
#include "kelvo/url.h"

namespace kelvo {

enum class DOCUMENTMODE { BINARY = 1, TEXT = 5 };

// The document Ids of the URL repository.
inline const Id g_metaDataDocumentId{"net.kelvo.asset.metadata"};
inline const Id g_compactedMetaDataDocumentId{"net.kelvo.asset.compactedmetadata"};

// The bytes of a document holding value. Fails with an unsupported argument error for a value of
// a type that has no document form.
Result<std::string> EncodeDocument(const Id& documentId, const Data& value, DOCUMENTMODE mode);
// The value of a document; the mode is told from the bytes. Anything that is not a complete
// document of documentId is a file format error.
Result<Data> DecodeDocument(std::string_view bytes, const Id& documentId);

// A document whose value is an array of [IdAndVersion, value] pairs, read pair by pair: the Ids
// come as views valid during the call only. A binary document is read without building the
// array, which matters for the large documents of an index. Fails like DecodeDocument, and for a
// value of another shape.
using PairReceiver = std::function<Result<void>(std::string_view aid, std::string_view version, Data value)>;
Result<void> DecodePairDocument(std::string_view bytes, const Id& documentId, const PairReceiver& receiver);

// Reads and writes a document file. The write goes to a hidden temporary name in the same
// directory first and is renamed into place, so a reader sees the old or the new document.
Result<Data> ReadDocument(const Url& url, const Id& documentId);
Result<void> WriteDocument(const Url& url, const Id& documentId, const Data& value, DOCUMENTMODE mode);

// A further data type in documents: toPlain turns a value of typeId into a value of the fixed
// types, fromPlain turns that back. Registering a type again replaces its functions. Thread safe.
using DocumentTypeConverter = std::function<Result<Data>(const Data&)>;
void RegisterDocumentDataType(const Id& typeId, DocumentTypeConverter toPlain, DocumentTypeConverter fromPlain);

} // namespace kelvo

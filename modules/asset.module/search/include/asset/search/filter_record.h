#pragma once
// What filter evaluation reads of one asset, kept in one record per asset so that a filter, and
// every later filter over the same assets, reads each value once.
//
// How to keep records between filters: hold one FilterRecord beside each asset of a walk (a
// browser keeps it with its entry) and call SearchFilter::Evaluate(record, ...) for every new
// filter. The first evaluation reads what its terms need (upper-cased name, keyword ids, tags,
// subtype, size) into the record; later ones read nothing again and take no lock and make no
// allocation for the values kept here. A record is valid as long as the asset's metadata does
// not change: after a change of the asset (a new version is a new description and so a new
// record) call Reset, or make a new record. Names and tags are kept for one language and read
// again when a filter of another language evaluates the record. The keyword names are copies,
// so a record does not depend on the TypeNameCache it was evaluated with. Not synchronised: one
// thread at a time per record.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "asset/core/assetrepository.h"
#include "kelvo/language.h"

namespace kelvo {

class FilterRecord {
public:
  FilterRecord() = default;
  explicit FilterRecord(AssetDescription asset) { Reset(std::move(asset)); }

  const AssetDescription& GetAsset() const { return asset; }

  // Forgets every value read, and takes asset in place of the record's asset.
  void Reset(AssetDescription asset);
  // Forgets every value read, keeping the asset.
  void Reset() { Reset(AssetDescription(asset)); }

  // Whether net.kelvo.asset.keywords (the keyword array shared by the repository, without the
  // user's own) lists id. Needs the KEYWORDS value read.
  bool ListsRepositoryKeyword(const InternedId& id) const;

  // Which values are read (bits of `read`). A value whose read failed stays unread, so that the
  // next evaluation that needs it meets the same error.
  enum READ : std::uint32_t {
    NAME = 1,          // upperName for language
    FALLBACK_NAME = 2, // upperFallbackName for language
    TAGS = 4,          // tags for language
    KEYWORDS = 8,      // keywordIds, repositoryKeywords
    KEYWORD_NAMES = 16,
    SUBTYPE = 32,
    SIZE = 64,
    SIZE_TEXT = 128,
  };

  // What most filters test comes first, so that a walk over records touches little memory.
  AssetDescription asset;
  std::uint32_t read = 0;
  bool isCategory = false;
  bool isCommand = false;
  // One bit per id of repositoryKeywords (its hash modulo 64): an id whose bit is clear is not
  // listed, so that most tests read nothing beyond this.
  std::uint64_t repositoryKeywordBits = 0;
  std::int64_t size = 0;   // byte size of the content
  LanguageRef language;    // the language of name, fallback name and tags
  std::string upperName;   // translated name, upper case
  Id typeId;
  Id subtype;              // net.kelvo.asset.subtype when stored as one Id, else empty
  std::vector<Id> subtypeIds; // every Id that net.kelvo.asset.subtype lists

  std::string upperFallbackName; // name in the fallback language, upper case; empty when none
  std::string tags;              // the tag string of the asset
  std::vector<Id> keywordIds;    // both keyword arrays, user keywords first, each once
  // net.kelvo.asset.keywords alone, interned: comparing two is comparing two pointers.
  std::vector<InternedId> repositoryKeywords;
  std::vector<std::string> keywordNames; // the names searched, one per keyword id
  std::string sizeText;                  // size as the reason shows it
};

} // namespace kelvo

// The index of a URL repository: reading _index when a repository opens, writing it
// (compaction), removing it on every change, and the delayed background compaction.
//
// Each part _index/<lo>-<hi>/ holds the listing "index", one compacted document per metadata Id,
// ".covers" (the change token of the tree when the compaction began, see url_repository_lock.h)
// and ".checksum": the line "kelvo-index 1", then per file its SHA-256, two blanks and its name.
// A part whose checksum file is of another format or doesn't match, or whose token is not the
// tree's, is not used, and the repository is opened by walking its tree instead. A part without
// a checksum file (written by other tools) is read unchecked.

#include <algorithm>
#include <charconv>
#include <functional>
#include <nlohmann/json.hpp>
#include <set>
#include <unordered_set>

#include "data_document.h"
#include "kelvo/background_progress.h"
#include "asset/core/asset_config.h"
#include "kelvo/hash.h"
#include "kelvo/log.h"
#include "asset/storage/url_layout.h"
#include "url_repository_index.h"
#include "url_repository_lock.h"

namespace kelvo {

namespace {

constexpr const char* kChecksumFile = ".checksum";
constexpr const char* kChecksumHeader = "kelvo-index 1";
constexpr const char* kCoversFile = ".covers";
std::atomic<double> g_compactionDelayOverride{-1.0};

std::optional<std::uint64_t> ParseDecimal(std::string_view s) {
  if (s.empty() || s.size() > 19 || s.find_first_not_of("0123456789") != std::string_view::npos) return std::nullopt;
  std::uint64_t value = 0;
  std::from_chars(s.data(), s.data() + s.size(), value);
  return value;
}

std::string Sha256Hex(std::string_view bytes) {
  Sha256 h;
  h.Update(bytes.data(), bytes.size());
  return DigestToHex(h.Finish());
}

bool KeyLess(const std::pair<IdAndVersion, Data>& a, const IdAndVersion& key) {
  const int c = a.first.first.View().compare(key.first.View());
  return c < 0 || (c == 0 && a.first.second.View() < key.second.View());
}

struct Range {
  std::uint64_t lo;
  std::uint64_t hi;
  std::string name;
};

// The repository root of the index part <root>/_index/<lo>-<hi>.
Url RootOfPart(const Url& partDir) { return partDir.GetDirectory().GetDirectory(); }

// The file names of a part and their digests, from its checksum file.
// Nothing when the part has no checksum file.
Result<std::optional<std::map<std::string, std::string>>> ReadChecksums(const Url& partDir) {
  const Url file = partDir.Append(kChecksumFile);
  if (file.IoDetect() == IODETECT::NONE) return std::optional<std::map<std::string, std::string>>();
  KELVO_ASSIGN_OR_RETURN(std::string text, ReadRepositoryFile(file, kSmallFileLimit, RootOfPart(partDir)));
  LineReader reader(text);
  std::string line;
  if (!reader.Next(line) || line != kChecksumHeader)
    return FileFormatError("Index part @ is of an unknown format.", partDir);
  std::map<std::string, std::string> sums;
  while (reader.Next(line)) {
    if (line.size() < HASH_LEN + 3 || line.compare(HASH_LEN, 2, "  ") != 0)
      return FileFormatError("Malformed checksum line in @.", partDir);
    sums[line.substr(HASH_LEN + 2)] = line.substr(0, HASH_LEN);
  }
  return std::optional<std::map<std::string, std::string>>(std::move(sums));
}

// Reads a file of a part and checks it against its checksum when the part has checksums.
Result<std::string> ReadChecked(const Url& partDir, const std::string& name,
                                const std::optional<std::map<std::string, std::string>>& sums) {
  if (!sums) return ReadRepositoryFile(partDir.Append(name), kIndexFileLimit, RootOfPart(partDir));
  auto it = sums->find(name);
  if (it == sums->end()) return FileFormatError("File @ of index part @ has no checksum.", name, partDir);
  KELVO_ASSIGN_OR_RETURN(std::string bytes, ReadRepositoryFile(partDir.Append(name), kIndexFileLimit, RootOfPart(partDir)));
  if (Sha256Hex(bytes) != it->second) return FileFormatError("File @ of index part @ is damaged.", name, partDir);
  return bytes;
}

// The records of one compacted document, read along the listing. The listing and the records are
// both sorted by asset Id, so a cursor that moves forward finds each asset's run without a search;
// a listing in another order still finds it by halving.
class CompactedCursor {
public:
  CompactedCursor(InternedId metaId, std::unique_ptr<CompactedRecords> records)
      : _metaId(std::move(metaId)), _records(std::move(records)) {}

  // Moves the value of (aid, versionId), if there is one, into values.
  void Take(const Id& aid, const Id& versionId, UrlCompactedValues& values) {
    const std::string_view a = aid.View();
    auto& records = _records->records;
    const std::size_t n = records.size();
    if (_cursor < n && records[_cursor].aid < a) {
      for (int step = 0; step < 8 && _cursor < n && records[_cursor].aid < a; ++step) ++_cursor;
      if (_cursor < n && records[_cursor].aid < a) _cursor = LowerBound(_cursor, n, a);
    } else if (_cursor > 0 && !(records[_cursor - 1].aid < a)) {
      _cursor = LowerBound(0, _cursor, a);
    }
    for (std::size_t i = _cursor; i < n && records[i].aid == a; ++i) {
      if (records[i].version != versionId.View()) continue;
      values.emplace_back(_metaId, std::move(records[i].value));
      return;
    }
  }

private:
  std::size_t LowerBound(std::size_t from, std::size_t to, std::string_view aid) const {
    const auto& records = _records->records;
    auto it = std::lower_bound(records.begin() + static_cast<std::ptrdiff_t>(from),
                               records.begin() + static_cast<std::ptrdiff_t>(to), aid,
                               [](const CompactedRecords::Record& record, std::string_view a) { return record.aid < a; });
    return static_cast<std::size_t>(it - records.begin());
  }

  InternedId _metaId;
  std::unique_ptr<CompactedRecords> _records;
  std::size_t _cursor = 0;
};

bool IsDirectoryName(std::string_view name) { return IsSafePathComponent(name) && name.front() != '.'; }

} // namespace

Result<std::unique_ptr<CompactedRecords>> DecodeCompactedMetaData(std::string bytes) {
  auto out = std::make_unique<CompactedRecords>();
  out->bytes = std::move(bytes);
  const std::string_view all = out->bytes;
  auto keep = [&out, all](std::string_view text) -> std::string_view {
    if (text.data() >= all.data() && text.data() + text.size() <= all.data() + all.size()) return text;
    return out->spare.emplace_back(text);
  };
  KELVO_RETURN_ON_ERROR(DecodePairDocument(all, g_compactedMetaDataDocumentId,
                                           [&](std::string_view aid, std::string_view version, Data value) -> Result<void> {
                                             out->records.push_back({keep(aid), keep(version), std::move(value)});
                                             return {};
                                           }));
  const bool sorted = std::is_sorted(out->records.begin(), out->records.end(), [](const auto& a, const auto& b) {
    return a.aid != b.aid ? a.aid < b.aid : a.version < b.version;
  });
  if (!sorted) return FileFormatError("Compacted metadata is not sorted.");
  return out;
}

void UrlAssetRepository::SetCompactionDelayOverride(double seconds) { g_compactionDelayOverride = seconds; }

std::size_t UrlAssetRepositoryImpl::LoadedIndex::Find(const Id& aid) {
  BuildTable();
  auto it = _byId.find(aid);
  return it == _byId.end() ? assets.size() : it->second;
}

std::pair<std::size_t, bool> UrlAssetRepositoryImpl::LoadedIndex::Add(const Id& aid, const std::string& directoryName,
                                                                     const Id& type) {
  if (!_tableBuilt && !assets.empty() && !(assets.back().aid.View() < aid.View())) BuildTable();
  if (_tableBuilt) {
    auto [it, added] = _byId.emplace(aid, assets.size());
    if (!added) return {it->second, false};
  }
  assets.push_back(Asset{directoryName, aid, type, std::make_shared<UrlVersionTable>()});
  return {assets.size() - 1, true};
}

void UrlAssetRepositoryImpl::LoadedIndex::BuildTable() {
  if (_tableBuilt) return;
  _tableBuilt = true;
  _byId.reserve(assets.size());
  for (std::size_t i = 0; i < assets.size(); ++i) _byId.emplace(assets[i].aid, i);
}

// ---- reading -------------------------------------------------------------------------------------

Result<bool> UrlAssetRepositoryImpl::LoadIndex(LoadedIndex& index) {
  _indexExists = false;
  std::vector<Range> ranges;
  const Url indexDir = _url.Append("_index");
  if (indexDir.IoDetect() == IODETECT::DIRECTORY) {
    auto entries = BrowseDirectory(indexDir);
    if (entries.HasValue()) {
      for (const DirectoryEntry& e : *entries) {
        if (e.type != IODETECT::DIRECTORY || e.isLink) continue;
        const auto dash = e.name.find('-');
        if (dash == std::string::npos || e.name.find('-', dash + 1) != std::string::npos) continue;
        auto lo = ParseDecimal(std::string_view(e.name).substr(0, dash));
        auto hi = ParseDecimal(std::string_view(e.name).substr(dash + 1));
        if (!lo || !hi) continue;
        if (indexDir.Append(e.name).Append("index").IoDetect() != IODETECT::FILE) continue;
        ranges.push_back(Range{*lo, *hi, e.name});
      }
      _indexExists = true;
    }
  }

  std::uint64_t fileVersion = 0;
  if (Result<std::string> text = ReadRepositoryFile(_versionUrl, kSmallFileLimit); text.HasValue()) {
    LineReader reader(*text);
    std::string line;
    if (reader.Next(line)) {
      if (auto v = ParseDecimal(line)) fileVersion = *v;
      else WarningOutput("Ignoring the malformed version file of @.", _url);
    }
  }
  {
    std::lock_guard guard(_lock);
    _nextVersion = std::max(_nextVersion, fileVersion);
  }

  std::sort(ranges.begin(), ranges.end(), [](const Range& a, const Range& b) {
    return a.hi != b.hi ? a.hi > b.hi : a.lo < b.lo;
  });
  std::vector<std::pair<std::uint64_t, std::uint64_t>> covered;
  auto isCovered = [&covered](const Range& r) {
    return std::any_of(covered.begin(), covered.end(), [&r](const auto& c) { return c.first <= r.lo && r.hi <= c.second; });
  };
  std::uint64_t highestVersion = 0;
  bool first = true;
  const std::string token = _changeToken->Read();
  for (const Range& range : ranges) {
    if (range.lo > range.hi || isCovered(range)) continue;
    // A part made before the last change of the tree (by any process) may hide it: not used.
    // Only a local tree has a change token; a served one (a RAM disk) is as its index says.
    const Url covers = indexDir.Append(range.name).Append(kCoversFile);
    const bool hasCovers = covers.IoDetect() != IODETECT::NONE;
    if (_url.GetScheme() == "file" &&
        (hasCovers ? ReadRepositoryFile(covers, kSmallFileLimit, _url).GetValueOr(std::string("?")) : std::string()) != token) {
      DiagnosticOutput("The index of @ is older than the last change of its tree; reading the directories.", _url);
      index = LoadedIndex();
      std::lock_guard guard(_lock);
      _scanNeeded = true;
      return false;
    }
    auto loaded = LoadIndexPart(indexDir.Append(range.name), range.lo, range.hi, index, highestVersion);
    if (loaded.HasError()) {
      WarningOutput("The index of @ can't be used, reading the directories instead: @", _url, loaded.GetError());
      index = LoadedIndex();
      _indexExists = false;
      std::lock_guard guard(_lock);
      _scanNeeded = true;
      return false;
    }
    if (first) index.newestHi = range.hi;
    first = false;
    index.found = true;
    covered.emplace_back(range.lo, range.hi);
  }
  std::lock_guard guard(_lock);
  _nextVersion = std::max(_nextVersion, highestVersion);
  _scanNeeded = !index.found || _nextVersion > index.newestHi;
  return !_scanNeeded;
}

Result<void> UrlAssetRepositoryImpl::LoadIndexPart(const Url& partDir, std::uint64_t lo, std::uint64_t hi,
                                                   LoadedIndex& index, std::uint64_t& highestVersion) {
  KELVO_ASSIGN_OR_RETURN(auto sums, ReadChecksums(partDir));
  IndexPartFiles files;
  KELVO_ASSIGN_OR_RETURN(std::vector<DirectoryEntry> entries, BrowseDirectory(partDir));
  for (const DirectoryEntry& e : entries) {
    if (e.name == "index") continue;
    if (e.type != IODETECT::FILE || e.isLink) return FileFormatError("Unexpected entry @ in index part @.", e.name, partDir);
    KELVO_ASSIGN_OR_RETURN(std::string bytes, ReadChecked(partDir, e.name, sums));
    files.documents.emplace_back(e.name, std::move(bytes));
  }
  if (sums)
    for (const auto& [name, sum] : *sums)
      if (name != "index" && partDir.Append(name).IoDetect() != IODETECT::FILE)
        return FileFormatError("File @ of index part @ is missing.", name, partDir);
  if (partDir.Append(kCoversFile).IoDetect() != IODETECT::NONE) {
    KELVO_RETURN_ON_ERROR(ReadChecked(partDir, kCoversFile, sums));
  }
  KELVO_ASSIGN_OR_RETURN(files.listing, ReadChecked(partDir, "index", sums));
  return ParseIndexPart(partDir, lo, hi, std::move(files), index, highestVersion);
}

Result<void> ParseIndexPart(const Url& partDir, std::uint64_t lo, std::uint64_t hi, IndexPartFiles files,
                            UrlAssetRepositoryImpl::LoadedIndex& index, std::uint64_t& highestVersion) {
  std::vector<CompactedCursor> compacted;
  for (auto& [metaId, bytes] : files.documents) {
    KELVO_ASSIGN_OR_RETURN(auto records, DecodeCompactedMetaData(std::move(bytes)));
    compacted.emplace_back(InternedId(std::string_view(metaId)), std::move(records));
  }
  const std::string& listing = files.listing;
  if (index.assets.empty()) {
    // One line per asset begins without a tab.
    std::size_t count = listing.empty() || listing.front() == '\t' ? 0 : 1;
    for (std::size_t at = listing.find('\n'); at != std::string::npos && at + 1 < listing.size();
         at = listing.find('\n', at + 1))
      if (listing[at + 1] != '\t') ++count;
    index.assets.reserve(count);
  }
  LineReader reader(listing);
  TypeIdCache types;
  // Buffers kept across lines, so that reading a line rarely allocates.
  std::string line, directoryName, idLine, typeLine;
  bool have = reader.Next(line);
  while (have) {
    if (line.starts_with('\t')) return FileFormatError("Version without an asset in index @.", partDir);
    directoryName = line;
    if (!reader.Next(idLine) || !reader.Next(typeLine))
      return FileFormatError("Index @ ends inside the asset @.", partDir, directoryName);
    if (!IsDirectoryName(directoryName) || !IsValidIdText(idLine) || !IsValidIdText(typeLine))
      return FileFormatError("Illegal asset @ in index @.", directoryName, partDir);
    const Id aid(idLine);
    auto [slot, added] = index.Add(aid, directoryName, types.Get(typeLine));
    if (!added && index.assets[slot].directoryName != directoryName)
      return FileFormatError("Asset @ has two directories in index @.", aid, partDir);
    UrlVersionTable& table = *index.assets[slot].versions;
    have = reader.Next(line);
    while (have && line.starts_with('\t')) {
      if (line.starts_with("\t\t")) return FileFormatError("File name without a version in index @.", partDir);
      auto number = ParseDecimal(std::string_view(line).substr(1));
      if (!number) return FileFormatError("Illegal version number in index @.", partDir);
      if (*number < lo || *number > hi)
        return UnexpectedError("Assertion failed: Condition c.range.Contains(versionNumber) not fulfilled. ");
      highestVersion = std::max(highestVersion, *number);
      if (!reader.Next(line) || !line.starts_with('\t') || line.starts_with("\t\t"))
        return FileFormatError("Version @ without an Id in index @.", *number, partDir);
      const std::string_view versionId = std::string_view(line).substr(1);
      if (!IsValidIdText(versionId)) return FileFormatError("Illegal version Id in index @.", partDir);
      UrlIndexedVersion version{Id(versionId), {}, {}};
      while ((have = reader.Next(line)) && line.starts_with("\t\t")) {
        const std::string_view name = std::string_view(line).substr(2);
        if (!name.empty() || !version.names.empty()) {
          if (!IsDirectoryName(name)) return FileFormatError("Illegal file name @ in index @.", name, partDir);
        }
        version.names.emplace_back(name);
      }
      if (version.names.empty()) return FileFormatError("Version @ without files in index @.", *number, partDir);
      for (CompactedCursor& cursor : compacted) cursor.Take(aid, version.versionId, version.compacted);
      table.emplace(*number, std::move(version));
    }
  }
  return {};
}

// ---- writing ---------------------------------------------------------------------------------------

Result<void> UrlAssetRepositoryImpl::Compact() {
  // This compaction supersedes a delayed or running one: each renews the change token when it
  // begins, so running side by side they would make each other's index stale.
  CancelCompaction(true);
  return CompactCore(_changeGeneration.load());
}

Result<void> UrlAssetRepositoryImpl::CompactCore(std::uint64_t generation) {
  std::uint64_t from = 0, to = 0;
  {
    std::lock_guard guard(_lock);
    to = _nextVersion;
  }
  if (to == 0) to = 1;
  KELVO_ASSIGN_OR_RETURN(Id uuid, MakeUuid("", false));
  const std::string rangeName = std::to_string(from) + "-" + std::to_string(to);
  const Url tmp = _url.Append("tmp-" + rangeName + "-" + uuid.ToString());
  const Url tmpJson = _url.Append("tmpJson-" + rangeName + "-" + uuid.ToString());
  Result<void> result = [&]() -> Result<void> {
    // Changes from here on, by any process, renew the token and so make this index stale. Changes
    // before it that this object hasn't seen (other processes) are read by walking the tree again.
    std::string covers;
    {
      KELVO_ASSIGN_OR_RETURN(RepositoryTreeLock::Guard treeGuard, _treeLock->Lock());
      KELVO_ASSIGN_OR_RETURN(covers, _changeToken->Renew());
    }
    if (_url.GetScheme() == "file") KELVO_RETURN_ON_ERROR(ReloadIds());
    KELVO_RETURN_ON_ERROR(tmp.IoCreateDirectory(false));
    KELVO_RETURN_ON_ERROR(tmpJson.IoCreateDirectory(false));
    std::unordered_set<std::string> excluded; // paths relative to the root that index.dat leaves out
    std::map<InternedId, std::vector<std::pair<IdAndVersion, Data>>> compacted;
    std::string listing;
    const bool diagnostic = g_assetDiagnostic.Get();
    std::vector<Id> ids = GetAllIds();
    std::sort(ids.begin(), ids.end());
    for (const Id& aid : ids) {
      IdDataRef idData = FindIdData(aid);
      if (!idData) continue;
      if (diagnostic) DiagnosticOutput("Compacting @...", aid);
      // A compaction job whose repository nobody else holds any longer stops here.
      if (IsCurrentJobCancelled() || (GetCurrentJob() && weak_from_this().use_count() <= 1))
        return OperationCancelledError();
      KELVO_ASSIGN_OR_RETURN(VersionsDataRef versions, GetVersions(idData));
      Data adata;
      {
        ReadLocker guard(idData->versionsLock);
        adata = idData->adata;
      }
      const UrlAssetData* data = adata.GetPtr<UrlAssetData>();
      if (!data) return IllegalStateError("Asset @ has a foreign record.", aid);
      const std::string dirName = data->url.GetName();
      listing += dirName + "\n" + aid.ToString() + "\n" + idData->typeId.ToString() + "\n";
      excluded.insert(dirName + "/asset.info");
      for (const VersionEntry& entry : versions->entries) {
        if (IsCurrentJobCancelled()) return OperationCancelledError();
        if (entry.key.number < from || entry.key.number > to || !entry.description) continue;
        const Url* versionDir = entry.vdata.GetPtr<Url>();
        if (!versionDir) return IllegalStateError("Version of @ has a foreign record.", aid);
        const std::string number = std::to_string(entry.key.number);
        const IdAndVersion idv = entry.description->GetIdAndVersion();
        std::string contentName;
        if (!entry.description->IsDeleted()) {
          KELVO_ASSIGN_OR_RETURN(Url content, entry.description->GetUrl());
          contentName = content.GetName();
        }
        listing += "\t" + number + "\n\t" + idv.second.ToString() + "\n\t\t" + contentName + "\n";
        const std::string versionPath = dirName + "/" + versionDir->GetName() + "/";
        excluded.insert(versionPath + "hash");
        const AssetMetaDataRef meta = entry.description->GetMetaData();
        KELVO_ASSIGN_OR_RETURN(auto existing, meta->GetExistingEntries());
        std::sort(existing.begin(), existing.end());
        for (const auto& [metaId, kind] : existing) {
          if (!(kind & AssetMetaData::PERSISTENT) || (kind & (AssetMetaData::DERIVED | AssetMetaData::USER))) continue;
          KELVO_ASSIGN_OR_RETURN(std::optional<Data> value, meta->Get(metaId));
          if (!value) continue;
          if (const Url* url = value->GetPtr<Url>(); url && url->GetScheme() == "meta") {
            listing += "\t\t" + url->GetName() + "\n";
            continue;
          }
          const std::string fileName = metaId.ToString() + MetaFileSuffix(kind);
          if (!IsSafePathComponent(metaId.View()) || metaId.View().front() == '.') continue;
          listing += "\t\t" + fileName + "\n";
          excluded.insert(versionPath + fileName);
          compacted[metaId].emplace_back(idv, *value);
        }
      }
    }
    KELVO_RETURN_ON_ERROR(tmp.Append("index").WriteAll(listing));
    std::string checksums = std::string(kChecksumHeader) + "\n" + Sha256Hex(listing) + "  index\n";
    std::vector<std::string> partFiles{"index"};
    for (auto& [metaId, records] : compacted) {
      std::sort(records.begin(), records.end(), [](const auto& a, const auto& b) { return KeyLess(a, b.first); });
      DataArray array;
      array.reserve(records.size());
      for (auto& [key, value] : records) array.push_back(Data(DataArray{Data(key), value}));
      const Data document(std::move(array));
      KELVO_ASSIGN_OR_RETURN(std::string bytes,
                             EncodeDocument(g_compactedMetaDataDocumentId, document, DOCUMENTMODE::BINARY));
      KELVO_RETURN_ON_ERROR(tmp.Append(metaId.View()).WriteAll(bytes));
      checksums += Sha256Hex(bytes) + "  " + metaId.ToString() + "\n";
      partFiles.push_back(metaId.ToString());
      KELVO_RETURN_ON_ERROR(WriteDocument(tmpJson.Append(metaId.ToString() + ".json"), g_compactedMetaDataDocumentId,
                                          document, DOCUMENTMODE::TEXT));
    }
    KELVO_RETURN_ON_ERROR(tmp.Append(kCoversFile).WriteAll(covers));
    checksums += Sha256Hex(covers) + "  " + kCoversFile + "\n";
    partFiles.push_back(kCoversFile);
    KELVO_RETURN_ON_ERROR(tmp.Append(kChecksumFile).WriteAll(checksums));
    partFiles.push_back(kChecksumFile);

    // The listing of the tree for clients without directory listings: the files the index
    // replaces are left out, the new part is added as it will stand.
    std::string tree;
    std::function<Result<void>(const Url&, const std::string&)> walk = [&](const Url& dir,
                                                                          const std::string& prefix) -> Result<void> {
      KELVO_ASSIGN_OR_RETURN(std::vector<DirectoryEntry> entries, BrowseDirectory(dir));
      std::sort(entries.begin(), entries.end(), [](const auto& a, const auto& b) { return a.name < b.name; });
      for (const DirectoryEntry& e : entries) {
        if (IsCurrentJobCancelled()) return OperationCancelledError();
        const std::string path = prefix + e.name;
        std::string lower = e.name;
        std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
        if (e.isLink || lower == ".ds_store" || excluded.count(path) || e.name.find('\n') != std::string::npos) continue;
        if (prefix.empty() && (e.name == "_index" || e.name == tmp.GetName() || e.name == tmpJson.GetName())) continue;
        if (e.type == IODETECT::DIRECTORY) {
          tree += "d\t" + path + "\n";
          KELVO_RETURN_ON_ERROR(walk(dir.Append(e.name), path + "/"));
        } else if (e.type == IODETECT::FILE) {
          tree += "f\t" + path + "\n";
        }
      }
      return {};
    };
    KELVO_RETURN_ON_ERROR(walk(_url, ""));
    tree += "d\t_index\nd\t_index/" + rangeName + "\n";
    for (const std::string& name : partFiles) tree += "f\t_index/" + rangeName + "/" + name + "\n";
    tree += "d\t_index/" + rangeName + ".json\n";
    for (std::size_t i = 1; i < partFiles.size(); ++i)
      if (partFiles[i].front() != '.') tree += "f\t_index/" + rangeName + ".json/" + partFiles[i] + ".json\n";
    tree += "f\t_index/index.dat\nf\t_index/modified.dat\n";

    // Installing: only when the repository did not change since the compaction began, in this
    // process or another (whose removal of the index the tree lock keeps out meanwhile).
    std::lock_guard install(_indexLock);
    KELVO_ASSIGN_OR_RETURN(RepositoryTreeLock::Guard treeGuard, _treeLock->Lock());
    if (_changeGeneration.load() != generation || IsCurrentJobCancelled() ||
        (GetCurrentJob() && weak_from_this().use_count() <= 1) || _changeToken->Read() != covers)
      return OperationCancelledError();
    const Url indexDir = _url.Append("_index");
    const Url target = indexDir.Append(rangeName);
    const Url targetJson = indexDir.Append(rangeName + ".json");
    KELVO_RETURN_ON_ERROR(indexDir.IoCreateDirectory(true));
    for (const Url* t : {&target, &targetJson}) {
      if (t->IoDetect() != IODETECT::NONE) KELVO_RETURN_ON_ERROR(t->IoDelete(true));
      if (t->IoDetect() != IODETECT::NONE) return IoError("Can't replace @.", *t);
    }
    auto installed = [&]() -> Result<void> {
      KELVO_RETURN_ON_ERROR(tmp.IoRename(target));
      KELVO_RETURN_ON_ERROR(tmpJson.IoRename(targetJson));
      KELVO_RETURN_ON_ERROR(indexDir.Append("index.dat").WriteAll(tree));
      std::string modified;
      try {
        // The time as its 64-bit value, which readers of a remote database compare.
        modified = nlohmann::json{{"modified", UniversalDateTime::GetNow().GetValue()}}.dump() + "\n";
      } catch (const std::exception& e) {
        return UnexpectedError("Can't write the time of the index: @", e.what());
      }
      return indexDir.Append("modified.dat").WriteAll(modified);
    }();
    KELVO_RETURN_ON_ERROR(installed);
    _indexExists = true;
    return {};
  }();
  // A compaction that fails leaves no index, old or half installed; running work goes on.
  if (result.HasError() && RemoveIndexDirectory().HasError()) _indexExists = false;
  (void)tmp.IoDelete(true);
  (void)tmpJson.IoDelete(true);
  HandleBaseChanged(nullptr, false);
  return result;
}

// ---- removing and scheduling -------------------------------------------------------------------------

void UrlAssetRepositoryImpl::CancelCompaction(bool wait) {
  std::shared_ptr<Timer> timer;
  JobRef job;
  {
    std::lock_guard guard(_compactLock);
    timer = std::move(_compactTimer);
    _compactTimer.reset();
    job = _compactJob;
  }
  if (timer) timer->Cancel();
  if (job) {
    job.Cancel();
    if (wait && !(GetCurrentJob() == job)) (void)job.Wait();
  }
}

Result<void> UrlAssetRepositoryImpl::DeleteIndexFiles() {
  // A running compaction is cancelled, and the new generation keeps it from installing an index
  // of the content before this change. Waiting for it here could deadlock: the change's caller
  // may hold a lock that the compaction needs.
  ++_changeGeneration;
  if (_url.GetScheme() != "file") {
    CancelCompaction(false);
    _indexExists = false;
    return {};
  }
  if (!IsWritable()) return {};
  CancelCompaction(false);
  KELVO_ASSIGN_OR_RETURN(bool removed, RemoveIndexDirectory());
  if (removed) HandleBaseChanged(nullptr, false);
  return {};
}

Result<bool> UrlAssetRepositoryImpl::RemoveIndexDirectory() {
  const Url indexDir = _url.Append("_index");
  std::lock_guard guard(_indexLock);
  // Without an index nothing is removed and the tree lock isn't needed: an index that another
  // process installs after this look is stale already, since the change renewed the token first.
  if (indexDir.IoDetect() == IODETECT::NONE) {
    _indexExists = false;
    return false;
  }
  KELVO_ASSIGN_OR_RETURN(RepositoryTreeLock::Guard treeGuard, _treeLock->Lock());
  const bool exists = indexDir.IoDetect() == IODETECT::DIRECTORY;
  if (exists) KELVO_RETURN_ON_ERROR(indexDir.IoDelete(true));
  _indexExists = false;
  return exists;
}

Result<void> UrlAssetRepositoryImpl::CompactInBackground(double delay) {
  if (!IsWritable() || _url.GetScheme() != "file")
    return UnsupportedOperationError("Repository @ can't write an index.", GetId());
  auto self = std::dynamic_pointer_cast<UrlAssetRepositoryImpl>(shared_from_this());
  if (!self) return IllegalStateError("Repository @ isn't held by a reference.", GetId());
  std::weak_ptr<UrlAssetRepositoryImpl> weak = self;
  if (delay == 0) {
    std::lock_guard guard(_compactLock);
    if (_compactJob && !_compactJob.IsFinished()) return {};
    KELVO_ASSIGN_OR_RETURN(_compactJob, JobQueue::GetDefaultQueue()->Enqueue([weak]() -> Result<void> {
      auto repository = weak.lock();
      if (!repository) return {};
      const std::uint64_t generation = repository->_changeGeneration.load();
      repository->HandleBaseChanged(nullptr, false);
      BackgroundEntryRef entry =
          BackgroundProgress::AddActiveEntry(FormatString("Update Database Index for '@'", repository->_url.GetName()));
      entry->SetCancelDelegate([weak] {
        if (auto r = weak.lock()) r->CancelCompaction(false);
      });
      entry->SetProgress(kBackgroundProgressUnknown);
      repository->_indexExists = false;
      Result<void> r = repository->CompactCore(generation);
      if (r.HasError()) {
        if (IsCurrentJobCancelled() || r.GetError().Is(errors::OperationCancelledError)) {
          entry->AddMessage(BACKGROUNDPROGRESSSTATE::CANCELED, "Cancelled by user");
          entry->FinishCanceled();
        } else {
          entry->AddMessage(BACKGROUNDPROGRESSSTATE::ERROR, r.GetError().ToString());
          WarningOutput("Update Database Index for '@': @", repository->_url.GetName(), r.GetError());
        }
      }
      entry->Finish();
      {
        std::lock_guard guard(repository->_compactLock);
        if (repository->_compactJob == GetCurrentJob()) repository->_compactJob = JobRef();
      }
      return r;
    }));
    return {};
  }
  const double overridden = g_compactionDelayOverride.load();
  const double effective = overridden >= 0 ? overridden : delay;
  std::shared_ptr<Timer> previous;
  {
    std::lock_guard guard(_compactLock);
    previous = std::move(_compactTimer);
    _compactTimer = Timer::Create(effective, [weak]() {
      auto repository = weak.lock();
      if (!repository) return;
      {
        std::lock_guard guard(repository->_compactLock);
        if (repository->_compactTimer && !repository->_compactTimer->IsPending()) repository->_compactTimer.reset();
      }
      (void)repository->CompactInBackground(0);
    });
    if (!_compactTimer) return IllegalStateError("Can't start the compaction timer of @.", GetId());
  }
  if (previous) previous->Cancel();
  HandleBaseChanged(nullptr, false);
  return {};
}

REPOSITORYINDEXSTATE UrlAssetRepositoryImpl::GetIndexState() const {
  if (_indexExists) return REPOSITORYINDEXSTATE::EXISTS;
  std::lock_guard guard(_compactLock);
  if (_compactJob && !_compactJob.IsFinished()) return REPOSITORYINDEXSTATE::RUNNING;
  if (_compactTimer && _compactTimer->IsPending()) return REPOSITORYINDEXSTATE::PENDING;
  return REPOSITORYINDEXSTATE::NONE;
}

UrlAssetRepositoryImpl::~UrlAssetRepositoryImpl() { CancelCompaction(true); }

void UrlAssetRepositoryImpl::OwnContentChanged() {
  NoteTreeChanged();
  const REPOSITORYINDEXSTATE state = GetIndexState();
  (void)DeleteIndexFiles();
  if (state != REPOSITORYINDEXSTATE::NONE) (void)CompactInBackground(10.0);
}

} // namespace kelvo

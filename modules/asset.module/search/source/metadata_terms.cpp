#include "metadata_terms.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <optional>

#include "asset/downloads/asset_downloads.h"
#include "asset/search/text_case.h"
#include "asset/search/value_forms.h"
#include "asset/types/keyword_asset.h"
#include "asset/types/metadata_asset_type.h"

namespace kelvo {

namespace {

// How the candidate of a metadata row is compared with a value.
enum class FORM { NUMBER, REAL, DATE, BYTESIZE, BOOLEAN, TEXT, STRING_OPERATORS, VERSIONS };

// A candidate of a row: absent, or a value of the row's form with its display text.
struct Candidate {
  bool present = false;
  std::int64_t number = 0;
  double real = 0.0;
  FilterDate date;
  bool flag = false;
  std::string text;    // TEXT and STRING_OPERATORS: the candidate as stored
  std::string display; // appended to the reason on a match; may be empty
  std::vector<std::string> versions;
  // Display texts made only when a value matched: a length label or a byte size.
  std::optional<LENGTHUNITSYSTEM> lengthUnitSystem;
  bool byteSize = false;

  std::string_view Display() {
    if (lengthUnitSystem) display = FormatLengthLabel(real, *lengthUnitSystem);
    else if (byteSize) display = FormatByteSize(number);
    return display;
  }
};

std::optional<double> NumberOf(const Data& data) {
  if (auto v = data.Get<double>()) return *v;
  if (auto v = data.Get<std::int64_t>()) return static_cast<double>(*v);
  if (auto v = data.Get<std::int32_t>()) return static_cast<double>(*v);
  if (auto v = data.Get<std::uint64_t>()) return static_cast<double>(*v);
  return std::nullopt;
}

std::optional<std::int64_t> IntegerOf(const Data& data) {
  if (auto v = data.Get<std::int64_t>()) return *v;
  if (auto v = data.Get<std::int32_t>()) return *v;
  if (auto v = data.Get<std::uint64_t>()) return *v > static_cast<std::uint64_t>(INT64_MAX) ? INT64_MAX : std::int64_t(*v);
  if (auto v = data.Get<double>(); v && std::isfinite(*v) && std::fabs(*v) < 9.2e18) return static_cast<std::int64_t>(*v);
  return std::nullopt;
}

Candidate DateCandidate(const UniversalDateTime& time) {
  Candidate c;
  if (time.IsEmpty()) return c;
  c.display = time.FormatLocal("%Y-%m-%d");
  if (std::optional<FilterDate> date = ParseDate(c.display)) {
    c.present = true;
    c.date = *date;
  }
  return c;
}

Candidate FlagCandidate(bool flag) {
  Candidate c;
  c.present = true;
  c.flag = flag;
  return c;
}

Candidate NumberCandidate(std::optional<std::int64_t> number, bool minusOneIsAbsent) {
  Candidate c;
  if (!number || (minusOneIsAbsent && *number == -1)) return c;
  c.present = true;
  c.number = *number;
  c.display = std::to_string(*number);
  return c;
}

Candidate RealCandidate(std::optional<double> real) {
  Candidate c;
  if (!real) return c;
  c.present = true;
  c.real = *real;
  c.display = FormatReal(*real);
  return c;
}

// The largest edge of a box stored as six numbers, minimum x, y, z then maximum x, y, z.
Candidate BoxCandidate(const Data& data, LENGTHUNITSYSTEM system) {
  Candidate c;
  const DataArray* box = data.GetPtr<DataArray>();
  if (!box || box->size() != 6) return c;
  double v[6];
  for (std::size_t i = 0; i < 6; ++i) {
    std::optional<double> n = NumberOf((*box)[i]);
    if (!n) return c;
    v[i] = *n;
  }
  // The default box (minimum at +max float, maximum at -max float) means no geometry.
  if (v[0] == FLT_MAX && v[1] == FLT_MAX && v[2] == FLT_MAX && v[3] == -FLT_MAX && v[4] == -FLT_MAX && v[5] == -FLT_MAX)
    return c;
  double edge = 0.0;
  bool inverted = false;
  for (std::size_t i = 0; i < 3; ++i) {
    if (v[i + 3] < v[i]) inverted = true;
    edge = std::max(edge, v[i + 3] - v[i]);
  }
  if (inverted || !std::isfinite(edge)) edge = 0.0;
  c.present = true;
  c.real = edge;
  c.lengthUnitSystem = system; // the label is made on a match only
  return c;
}

Result<Candidate> VersionsCandidate(EvaluationState& state) {
  Candidate c;
  c.present = true;
  const AssetRepositoryRef repository = state.LookupRepository();
  if (!repository) return c;
  const IdAndVersion aid = state.asset->GetIdAndVersion();
  KELVO_RETURN_ON_ERROR(repository->FindAssets(TypeArray{state.asset->GetTypeId()}, aid.first, Id(),
                                               ALL | CHECK_CANCELLATION,
                                               [&](const AssetDescription& version) -> Result<bool> {
                                                 KELVO_ASSIGN_OR_RETURN(std::optional<std::string> tag,
                                                                        ReadMeta<std::string>(version, metaids::versiontag));
                                                 c.versions.push_back(tag.value_or(std::string()));
                                                 return true;
                                               }));
  c.number = static_cast<std::int64_t>(c.versions.size());
  c.display = "versioncount:" + std::to_string(c.number);
  return c;
}

// The size of the asset's content: the stored size, else the size of its file. Kept in the
// asset's record.
Result<Candidate> SizeCandidate(EvaluationState& state) {
  KELVO_RETURN_ON_ERROR(ReadSize(state));
  const FilterRecord& record = state.record;
  Candidate c;
  c.present = true;
  c.number = record.size;
  c.byteSize = true; // the text is made on a match only
  return c;
}

FORM FormOf(FILTERKEY key) {
  switch (key) {
  case FILTERKEY::CREATIONDATE:
  case FILTERKEY::LASTUSEDATE: return FORM::DATE;
  case FILTERKEY::SIZE: return FORM::BYTESIZE;
  case FILTERKEY::PREVIEW:
  case FILTERKEY::PREVIEWANIM:
  case FILTERKEY::PROXY:
  case FILTERKEY::INSTALLED:
  case FILTERKEY::DOWNLOADING:
  case FILTERKEY::PROTECTED:
  case FILTERKEY::FAVORITE: return FORM::BOOLEAN;
  case FILTERKEY::VERSION: return FORM::VERSIONS;
  case FILTERKEY::PIXELFORMAT: return FORM::TEXT;
  case FILTERKEY::FPS:
  case FILTERKEY::ANIMATIONLENGTH:
  case FILTERKEY::DIMENSIONS: return FORM::REAL;
  case FILTERKEY::COLORPROFILE:
  case FILTERKEY::FILEVERSION:
  case FILTERKEY::FILEFORMAT: return FORM::STRING_OPERATORS;
  default: return FORM::NUMBER;
  }
}

// The candidate of the row key for the state's asset.
Result<Candidate> ReadCandidate(FILTERKEY key, const Id& metaId, EvaluationState& state) {
  const AssetDescription& asset = state.asset;
  const auto usage = [&]() -> Result<DataDictionary> {
    KELVO_ASSIGN_OR_RETURN(std::optional<DataDictionary> value, ReadMeta<DataDictionary>(asset, keywordids::usage));
    return value.value_or(DataDictionary());
  };
  const auto property = [&](const Id& id) -> Result<Data> {
    KELVO_ASSIGN_OR_RETURN(std::optional<DataDictionary> properties,
                           ReadMeta<DataDictionary>(asset, metapropertyids::metaproperties));
    return properties ? properties->GetData(id) : Data();
  };
  switch (key) {
  case FILTERKEY::CREATIONDATE: {
    KELVO_ASSIGN_OR_RETURN(std::optional<UniversalDateTime> time, ReadMeta<UniversalDateTime>(asset, metaids::timestamp));
    return DateCandidate(time.value_or(UniversalDateTime()));
  }
  case FILTERKEY::LASTUSEDATE: {
    KELVO_ASSIGN_OR_RETURN(DataDictionary use, usage());
    return DateCandidate(use.Get<UniversalDateTime>(keywordids::usageLastUse).value_or(UniversalDateTime()));
  }
  case FILTERKEY::USECOUNT: {
    KELVO_ASSIGN_OR_RETURN(DataDictionary use, usage());
    Candidate c = NumberCandidate(IntegerOf(use.GetData(keywordids::usageCount)).value_or(0), false);
    c.display = "used " + c.display + " times";
    return c;
  }
  case FILTERKEY::PREVIEW:
  case FILTERKEY::PREVIEWANIM:
  case FILTERKEY::PROXY: {
    KELVO_ASSIGN_OR_RETURN(std::optional<Url> url, ReadMeta<Url>(asset, InternedId(metaId)));
    return FlagCandidate(url && !url->IsEmpty());
  }
  case FILTERKEY::VERSION:
  case FILTERKEY::VERSIONCOUNT: return VersionsCandidate(state);
  case FILTERKEY::INSTALLED:
  case FILTERKEY::DOWNLOADING: {
    // Asked anew each time and kept in no record: a download changes the answer, not the asset.
    static const AssetDescriptionSet none;
    KELVO_ASSIGN_OR_RETURN(DOWNLOADSTATE download, AssetDownloads::GetDownloadState(asset, none));
    return FlagCandidate(download == (key == FILTERKEY::INSTALLED ? DOWNLOADSTATE::YES : DOWNLOADSTATE::INPROGRESS));
  }
  case FILTERKEY::PROTECTED: {
    const AssetRepositoryRef repository = asset->GetRepository();
    return FlagCandidate(!repository || !repository->IsWritable());
  }
  case FILTERKEY::FAVORITE: return FlagCandidate(KeywordAssetInterface::IsFavouriteAsset(asset));
  case FILTERKEY::SIZE: return SizeCandidate(state);
  case FILTERKEY::DIMENSIONS: {
    KELVO_ASSIGN_OR_RETURN(Data box, property(metaId));
    return BoxCandidate(box, state.filter.GetLengthUnitSystem());
  }
  case FILTERKEY::RESOLUTION: {
    KELVO_ASSIGN_OR_RETURN(Data width, property(metapropertyids::width));
    KELVO_ASSIGN_OR_RETURN(Data height, property(metapropertyids::height));
    const std::optional<std::int64_t> w = IntegerOf(width), h = IntegerOf(height);
    if (!w && !h) return Candidate();
    return NumberCandidate(std::max(w.value_or(INT64_MIN), h.value_or(INT64_MIN)), false);
  }
  default: break;
  }
  KELVO_ASSIGN_OR_RETURN(Data value, property(metaId));
  switch (FormOf(key)) {
  case FORM::TEXT: {
    Candidate c;
    if (value.IsEmpty()) return c;
    c.present = true;
    c.text = value.GetPtr<std::string>() ? *value.GetPtr<std::string>() : value.ToString();
    return c;
  }
  case FORM::STRING_OPERATORS: {
    Candidate c;
    const std::string* text = value.GetPtr<std::string>();
    if (!text || text->empty()) return c;
    c.present = true;
    c.text = *text;
    c.display = *text;
    return c;
  }
  case FORM::REAL: {
    std::optional<double> real = NumberOf(value);
    if (key == FILTERKEY::FPS && real == -1.0) real.reset();
    return RealCandidate(real);
  }
  default: return NumberCandidate(IntegerOf(value), true);
  }
}

// Whether value holds for the candidate in the form of the row.
bool Holds(FORM form, std::string_view value, const Candidate& c) {
  switch (form) {
  case FORM::BOOLEAN: {
    const std::optional<bool> wanted = ParseBoolean(value);
    return wanted && *wanted == c.flag;
  }
  case FORM::TEXT: return ContainsText(c.text, value);
  case FORM::STRING_OPERATORS: {
    const ValueComparison comparison = SplitComparison(value);
    if (!comparison.hasPrefix) return ContainsText(c.text, value);
    if (comparison.op == VALUEOPERATOR::EQUAL) return c.text == comparison.operand;
    return Compare(comparison.op, CompareWithNumbers(c.text, comparison.operand), 0);
  }
  default: break;
  }
  const std::optional<ValueComparison> comparison = SplitNumericComparison(value);
  if (!comparison) return false;
  switch (form) {
  case FORM::NUMBER: {
    const std::optional<std::int64_t> operand = ParseNumber(comparison->operand);
    return operand && Compare(comparison->op, c.number, *operand);
  }
  case FORM::REAL: {
    const std::optional<double> operand = ParseReal(comparison->operand);
    return operand && Compare(comparison->op, c.real, *operand);
  }
  case FORM::DATE: {
    const std::optional<FilterDate> operand = ParseDate(comparison->operand);
    return operand && Compare(comparison->op, c.date, *operand);
  }
  case FORM::BYTESIZE: {
    const std::optional<std::int64_t> operand = ParseByteSize(comparison->operand);
    return operand && Compare(comparison->op, c.number, *operand);
  }
  default: return false;
  }
}

std::string FormatLength(double value, const char* unit) {
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, "%.2f", value);
  std::string text = buffer;
  // Trailing zeros of the fraction say nothing.
  while (text.find('.') != std::string::npos && (text.back() == '0' || text.back() == '.')) {
    const bool dot = text.back() == '.';
    text.pop_back();
    if (dot) break;
  }
  return text + " " + unit;
}

} // namespace

Result<void> ReadSize(EvaluationState& state) {
  FilterRecord& record = state.record;
  if (record.read & FilterRecord::SIZE) return {};
  const AssetDescription& asset = state.asset;
  std::int64_t size = 0;
  KELVO_ASSIGN_OR_RETURN(std::optional<Data> stored, asset->GetMetaData()->Get(metaids::size));
  if (stored) {
    size = IntegerOf(*stored).value_or(0);
  } else if (Result<Url> url = asset->GetUrl(); url.HasValue() && url->GetScheme() == "file") {
    std::error_code error;
    // symlink_status: a link is not followed out of the repository.
    const auto status = std::filesystem::symlink_status(url->GetPath(), error);
    if (!error && std::filesystem::is_regular_file(status)) {
      const std::uintmax_t bytes = std::filesystem::file_size(url->GetPath(), error);
      if (!error) size = static_cast<std::int64_t>(std::min<std::uintmax_t>(bytes, INT64_MAX));
    }
  }
  record.size = size;
  record.read |= FilterRecord::SIZE;
  return {};
}

bool IsMetadataTerm(FILTERKEY key) {
  switch (key) {
  case FILTERKEY::CREATIONDATE: case FILTERKEY::LASTUSEDATE: case FILTERKEY::USECOUNT: case FILTERKEY::PREVIEW:
  case FILTERKEY::PREVIEWANIM: case FILTERKEY::PROXY: case FILTERKEY::VERSION: case FILTERKEY::VERSIONCOUNT:
  case FILTERKEY::INSTALLED: case FILTERKEY::DOWNLOADING: case FILTERKEY::PIXELFORMAT: case FILTERKEY::FPS:
  case FILTERKEY::ANIMATIONLENGTH: case FILTERKEY::RESOLUTION: case FILTERKEY::DIMENSIONS: case FILTERKEY::BITDEPTH:
  case FILTERKEY::ALPHACHANNELS: case FILTERKEY::POINTS: case FILTERKEY::POLYGONS: case FILTERKEY::OBJECTS:
  case FILTERKEY::MATERIALS: case FILTERKEY::FILEFORMAT: case FILTERKEY::FILEVERSION: case FILTERKEY::COLORPROFILE:
  case FILTERKEY::SIZE: case FILTERKEY::PROTECTED: case FILTERKEY::FAVORITE: return true;
  default: return false;
  }
}

Result<void> EvaluateMetadataTerm(const SearchTerm& term, FILTERKEY key, EvaluationState& state) {
  if (term.values.empty()) return {};
  KELVO_ASSIGN_OR_RETURN(Candidate candidate, ReadCandidate(key, term.metaId, state));
  if (!candidate.present) return {};
  for (const std::string& v : term.values) {
    if (key == FILTERKEY::VERSION) {
      const std::vector<std::string_view> versions(candidate.versions.begin(), candidate.versions.end());
      if (std::optional<std::string> hit = CollectionTest(v, versions)) return MarkTerm(term, v, *hit, state);
      continue;
    }
    if (!Holds(FormOf(key), v, candidate)) continue;
    const bool shown = FormOf(key) != FORM::BOOLEAN && FormOf(key) != FORM::TEXT;
    if (key == FILTERKEY::SIZE) {
      // The byte size text is made once per record.
      FilterRecord& record = state.record;
      if (!(record.read & FilterRecord::SIZE_TEXT)) {
        record.sizeText = FormatByteSize(record.size);
        record.read |= FilterRecord::SIZE_TEXT;
      }
      return MarkTerm(term, v, record.sizeText, state);
    }
    return MarkTerm(term, v, shown ? candidate.Display() : std::string_view(), state);
  }
  return {};
}

std::string FormatLengthLabel(double centimetres, LENGTHUNITSYSTEM system) {
  const double d = centimetres / 100.0;
  if (system == LENGTHUNITSYSTEM::IMPERIAL) {
    if (d >= 1609.344) return FormatLength(d / 1609.344, "mi");
    if (d >= 0.9144) return FormatLength(d / 0.9144, "yd");
    if (d >= 0.3048) return FormatLength(d / 0.3048, "ft");
    return FormatLength(d / 0.0254, "in");
  }
  if (d >= 1000.0) return FormatLength(d / 1000.0, "km");
  if (d >= 1.0) return FormatLength(d, "m");
  if (d >= 0.01) return FormatLength(d * 100.0, "cm");
  return FormatLength(d * 1000.0, "mm");
}

std::string FormatByteSize(std::int64_t bytes) {
  static const char* const units[] = {"B", "KB", "MB", "GB", "TB", "PB"};
  double value = static_cast<double>(bytes);
  std::size_t unit = 0;
  while (std::fabs(value) >= 1024.0 && unit + 1 < sizeof units / sizeof units[0]) {
    value /= 1024.0;
    ++unit;
  }
  if (unit == 0) return std::to_string(bytes) + " B";
  return FormatLength(value, units[unit]);
}

} // namespace kelvo

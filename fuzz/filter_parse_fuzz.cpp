// Filter text from anywhere: control tokens, term parsing (with the DIMENSIONS formulas), the value
// forms of every parsed value, and length formulas on the raw input. Aborts when an operation that
// must not fail does, or when a parsed filter breaks an invariant of the language.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "asset/search/control_tokens.h"
#include "asset/search/filter_keys.h"
#include "asset/search/length_formula.h"
#include "asset/search/search_filter.h"
#include "asset/search/text_case.h"
#include "asset/search/value_forms.h"

namespace {

void Check(bool condition) {
  if (!condition) std::abort();
}

void CheckValueForms(std::string_view value) {
  Check(kelvo::CompareWithNumbers(value, value) == 0);
  if (auto comparison = kelvo::SplitNumericComparison(value)) {
    (void)kelvo::ParseNumber(comparison->operand);
    (void)kelvo::ParseDate(comparison->operand);
    (void)kelvo::ParseByteSize(comparison->operand);
    if (auto real = kelvo::ParseReal(comparison->operand)) Check(kelvo::ParseReal(kelvo::FormatReal(*real)) == *real);
  }
  (void)kelvo::ParseBoolean(value);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);

  std::string text = input;
  auto settings = kelvo::ReadControlTokens(text, kelvo::ASSETGROUPBY::TYPE);
  Check(settings.HasValue());
  Check(text.size() <= input.size());
  Check(kelvo::TrimText(text).size() == text.size());

  kelvo::SearchFilter filter;
  Check(filter.Parse(text).HasValue());
  std::size_t typeTerms = 0;
  for (const kelvo::SearchTerm& term : filter.GetTerms()) {
    if (term.metaId == kelvo::filterids::subtype) ++typeTerms;
    for (const std::string& value : term.values) {
      Check(!value.empty() && kelvo::TrimText(value).size() == value.size());
      Check(value.find('|') == std::string::npos);
      CheckValueForms(value);
    }
  }
  Check(typeTerms <= 1);

  if (auto length = kelvo::EvaluateLengthFormula(std::string_view(input).substr(0, 300)))
    Check(kelvo::ParseReal(kelvo::FormatReal(*length)) == *length);
  return 0;
}

#pragma once
// Length formulas of DIMENSIONS terms: arithmetic on decimal numbers, each optionally followed by
// a length unit (MM, CM, M, KM, IN, FT, in any case). The result is in centimetres, the unit in
// which sizes are stored; a number without a unit is already in centimetres.

#include <string>
#include <string_view>

#include "kelvo/result.h"

namespace kelvo {

// Evaluates formula, e.g. "2m", "1.5M+20CM", "(3FT)*2". IllegalArgumentError for text that is no
// formula, has too deep nesting or more than 256 characters, or whose value is not finite.
// Safe from any thread (each thread evaluates with its own parser).
Result<double> EvaluateLengthFormula(std::string_view formula);

// Rewrites one DIMENSIONS value: the part from its first decimal digit on is evaluated and
// replaced by the number in centimetres (FormatReal); what precedes it, such as ">=", is kept.
// A value without a digit, or whose formula fails, is returned unchanged.
std::string RewriteDimensionsValue(std::string_view value);

} // namespace kelvo

#include "asset/search/length_formula.h"

#include <cmath>
#include <exception>
#include <memory>

#include <muParser.h>

#include "asset/search/value_forms.h"

namespace kelvo {
namespace {

constexpr std::size_t kMaxFormulaLength = 256;
constexpr int kMaxNesting = 32;

double Millimetres(double v) { return v * 0.1; }
double Centimetres(double v) { return v; }
double Metres(double v) { return v * 100.0; }
double Kilometres(double v) { return v * 100000.0; }
double Inches(double v) { return v * 2.54; }
double Feet(double v) { return v * 30.48; }

// The formula parser allows numbers, arithmetic and the length units; its functions and constants
// have lower-case names and are out of reach of upper-cased text.
std::unique_ptr<mu::Parser> MakeParser() {
  auto parser = std::make_unique<mu::Parser>();
  parser->DefinePostfixOprt("MM", Millimetres);
  parser->DefinePostfixOprt("CM", Centimetres);
  parser->DefinePostfixOprt("M", Metres);
  parser->DefinePostfixOprt("KM", Kilometres);
  parser->DefinePostfixOprt("IN", Inches);
  parser->DefinePostfixOprt("FT", Feet);
  return parser;
}

// Only characters a length formula needs reach the parser, which keeps hostile text (and the
// parser's rarely used paths: strings, variables, assignments) out of it.
bool IsFormulaText(std::string_view formula) {
  if (formula.empty() || formula.size() > kMaxFormulaLength) return false;
  int depth = 0;
  for (char c : formula) {
    if (c == '(' && ++depth > kMaxNesting) return false;
    if (c == ')') --depth;
    const bool allowed = (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || c == '.' || c == '+' || c == '-' ||
                         c == '*' || c == '/' || c == '^' || c == '(' || c == ')' || c == ' ';
    if (!allowed) return false;
  }
  return true;
}

} // namespace

Result<double> EvaluateLengthFormula(std::string_view formula) {
  std::string text(formula);
  for (char& c : text)
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  if (!IsFormulaText(text)) return IllegalArgumentError("Not a length formula: \"@\".", text);
  try {
    thread_local std::unique_ptr<mu::Parser> parser = MakeParser();
    parser->SetExpr(text);
    const double value = parser->Eval();
    if (!std::isfinite(value)) return IllegalArgumentError("Length formula \"@\" has no finite value.", text);
    return value;
  } catch (const mu::Parser::exception_type& e) {
    return IllegalArgumentError("Length formula \"@\": @", text, e.GetMsg());
  } catch (const std::exception& e) {
    return IllegalArgumentError("Length formula \"@\": @", text, e.what());
  }
}

std::string RewriteDimensionsValue(std::string_view value) {
  const std::size_t digit = value.find_first_of("0123456789");
  if (digit == std::string_view::npos) return std::string(value);
  Result<double> length = EvaluateLengthFormula(value.substr(digit));
  if (!length) return std::string(value);
  return std::string(value.substr(0, digit)) + FormatReal(*length);
}

} // namespace kelvo

#include "asset/search/text_case.h"

#include <clocale>
#include <cwctype>
#include <locale.h>

namespace kelvo {
namespace {

constexpr char AsciiUpper(char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; }

// The C library's Unicode case tables, independent of the process locale. Null when the C.UTF-8
// locale is missing, in which case only ASCII is folded.
locale_t Utf8Locale() {
  static const locale_t locale = newlocale(LC_CTYPE_MASK, "C.UTF-8", locale_t(0));
  return locale;
}

// Decodes one well-formed UTF-8 sequence at text[i]; returns its length, 0 if it is malformed
// (overlong forms, surrogates and values past U+10FFFF included).
std::size_t DecodeUtf8(std::string_view text, std::size_t i, char32_t& cp) {
  const auto byte = [&](std::size_t k) { return static_cast<unsigned char>(text[k]); };
  const unsigned char b0 = byte(i);
  std::size_t length;
  char32_t min;
  if (b0 >= 0xC2 && b0 <= 0xDF) length = 2, cp = b0 & 0x1F, min = 0x80;
  else if (b0 >= 0xE0 && b0 <= 0xEF) length = 3, cp = b0 & 0x0F, min = 0x800;
  else if (b0 >= 0xF0 && b0 <= 0xF4) length = 4, cp = b0 & 0x07, min = 0x10000;
  else return 0;
  if (text.size() - i < length) return 0;
  for (std::size_t k = 1; k < length; ++k) {
    if ((byte(i + k) & 0xC0) != 0x80) return 0;
    cp = (cp << 6) | (byte(i + k) & 0x3F);
  }
  if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return 0;
  return length;
}

void AppendUtf8(std::string& out, char32_t cp) {
  if (cp < 0x80) {
    out += static_cast<char>(cp);
  } else if (cp < 0x800) {
    out += static_cast<char>(0xC0 | (cp >> 6));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else if (cp < 0x10000) {
    out += static_cast<char>(0xE0 | (cp >> 12));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (cp >> 18));
    out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  }
}

} // namespace

std::string ToUpperText(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  const locale_t locale = Utf8Locale();
  for (std::size_t i = 0; i < text.size();) {
    const char c = text[i];
    char32_t cp = 0;
    std::size_t length = static_cast<unsigned char>(c) < 0x80 || !locale ? 0 : DecodeUtf8(text, i, cp);
    if (length == 0) {
      out += AsciiUpper(c);
      ++i;
      continue;
    }
    const wint_t upper = towupper_l(static_cast<wint_t>(cp), locale);
    const auto mapped = static_cast<char32_t>(upper);
    if (mapped == 0 || mapped > 0x10FFFF || (mapped >= 0xD800 && mapped <= 0xDFFF)) out.append(text.substr(i, length));
    else AppendUtf8(out, mapped);
    i += length;
  }
  return out;
}

std::string_view TrimText(std::string_view text) {
  std::size_t begin = 0, end = text.size();
  while (begin < end && IsFilterSpace(text[begin])) ++begin;
  while (end > begin && IsFilterSpace(text[end - 1])) --end;
  return text.substr(begin, end - begin);
}

bool StartsWithIgnoringCase(std::string_view text, std::string_view upperPrefix) {
  if (text.size() < upperPrefix.size()) return false;
  for (std::size_t k = 0; k < upperPrefix.size(); ++k)
    if (AsciiUpper(text[k]) != upperPrefix[k]) return false;
  return true;
}

std::size_t FindIgnoringCase(std::string_view text, std::string_view upperNeedle, std::size_t from) {
  if (upperNeedle.empty()) return from <= text.size() ? from : std::string_view::npos;
  // The first byte is compared before the rest: most positions end there.
  const char first = upperNeedle[0];
  for (std::size_t i = from; i + upperNeedle.size() <= text.size(); ++i)
    if (AsciiUpper(text[i]) == first && StartsWithIgnoringCase(text.substr(i), upperNeedle)) return i;
  return std::string_view::npos;
}

} // namespace kelvo

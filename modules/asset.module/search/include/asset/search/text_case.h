#pragma once
// Case folding and trimming for the filter language. Filter values are kept in upper case, so a
// candidate text is upper-cased with the same function before a substring test.

#include <cstddef>
#include <string>
#include <string_view>

namespace kelvo {

// Upper case of UTF-8 text: ASCII directly, other code points by the C library's Unicode tables.
// Bytes that are not valid UTF-8 are copied unchanged. Never fails; safe from any thread.
std::string ToUpperText(std::string_view text);

// Whether the byte counts as white space in filter text: every byte with a code of 32 or less.
constexpr bool IsFilterSpace(char c) { return static_cast<unsigned char>(c) <= 32; }

// The text without leading and trailing filter white space.
std::string_view TrimText(std::string_view text);

// Index of the first occurrence of upperNeedle (ASCII, upper case) in text at or after from,
// comparing ASCII letters without case; std::string_view::npos when there is none.
std::size_t FindIgnoringCase(std::string_view text, std::string_view upperNeedle, std::size_t from = 0);

// Whether text begins with upperPrefix (ASCII, upper case), comparing ASCII letters without case.
bool StartsWithIgnoringCase(std::string_view text, std::string_view upperPrefix);

} // namespace kelvo

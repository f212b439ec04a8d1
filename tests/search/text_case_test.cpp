#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "asset/search/text_case.h"

using namespace kelvo;

TEST(TextCase, UpperCaseOfUtf8Text) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"oak beam 12", "OAK BEAM 12"},
      {"\xC3\xA4pfel", "\xC3\x84PFEL"},                     // äpfel
      {"\xCE\xB1\xCE\xB2\xCE\xB3", "\xCE\x91\xCE\x92\xCE\x93"}, // αβγ
      {"\xD0\xB4\xD0\xBE\xD0\xBC", "\xD0\x94\xD0\x9E\xD0\x9C"}, // дом
      {"\xE6\x9C\xA8", "\xE6\x9C\xA8"},                     // a CJK character has no case
      {"\xF0\x9F\x8C\xB3x", "\xF0\x9F\x8C\xB3X"},           // an emoji
      {"\xC5\xBF", "S"},                                      // long s folds to ASCII
      {std::string("a\0b", 3), std::string("A\0B", 3)},
      {"\xFF\xFEz", "\xFF\xFEZ"},                              // not UTF-8: bytes kept
      {"\xC3", "\xC3"},                                        // truncated sequence
      {"\xC0\xA1", "\xC0\xA1"},                                // overlong form
      {"\xED\xA0\x80", "\xED\xA0\x80"},                        // surrogate
  };
  for (const auto& [text, upper] : cases) EXPECT_EQ(ToUpperText(text), upper) << text;
}

TEST(TextCase, TrimAndSearchWithoutCase) {
  EXPECT_EQ(TrimText(" \t\r\n x y \x01"), "x y");
  EXPECT_EQ(TrimText("   "), "");
  EXPECT_EQ(TrimText("\xC2\xA0x"), "\xC2\xA0x"); // non-ASCII space is text
  EXPECT_EQ(FindIgnoringCase("a GroupBy:type", "GROUPBY:"), 2u);
  EXPECT_EQ(FindIgnoringCase("groupby:a groupby:b", "GROUPBY:", 1), 10u);
  EXPECT_EQ(FindIgnoringCase("groupby", "GROUPBY:"), std::string_view::npos);
  EXPECT_EQ(FindIgnoringCase("", "X"), std::string_view::npos);
  EXPECT_TRUE(StartsWithIgnoringCase("TypeWriter", "TYPE"));
  EXPECT_FALSE(StartsWithIgnoringCase("TY", "TYPE"));
}

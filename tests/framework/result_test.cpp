#include <gtest/gtest.h>

#include "kelvo/data.h"
#include "kelvo/result.h"

using namespace kelvo;

static Result<int> Half(int v) {
  if (v % 2) return IllegalArgumentError("Odd value @ in @.", v, "Half"); // the line checked below
  return v / 2;
}

static Result<int> Quarter(int v) {
  KELVO_ASSIGN_OR_RETURN(int h, Half(v));
  return Half(h);
}

TEST(Result, ValueErrorAndFormatting) {
  EXPECT_EQ(*Quarter(8), 2);
  auto r = Quarter(6);
  ASSERT_TRUE(r.HasError());
  EXPECT_TRUE(r.GetError().Is(errors::illegalargument));
  EXPECT_EQ(r.GetError().GetMessage(), "Odd value 3 in Half.");
  // The location is where the error was made, not inside the error classes.
  EXPECT_EQ(r.GetError().GetLocation().line, 9u);
  EXPECT_NE(std::string(r.GetError().GetLocation().file).find("result_test.cpp"), std::string::npos);
  EXPECT_EQ(FormatString("@ and @", 1), "1 and @");
}

TEST(Result, CauseChainsIntoText) {
  Error inner = IoError("disk gone");
  Error outer = ErrorWithCause(inner, errors::unknown, "store failed");
  EXPECT_EQ(outer.ToString(), "store failed: disk gone");
  EXPECT_TRUE(outer.GetCause()->Is(errors::io));
}

TEST(Data, TypedAccessAndEquality) {
  Data a(std::int64_t(5));
  EXPECT_EQ(a.GetType(), datatypes::int64);
  EXPECT_EQ(a.Get<std::int64_t>(), 5);
  EXPECT_FALSE(a.Get<std::int32_t>().has_value());
  EXPECT_FALSE(Data("x") == Data(Id("x")));
  DataDictionary d;
  d.SetData("k", Data(DataArray{Data(1), Data("two")}));
  EXPECT_EQ(Data(d), Data(d));
  EXPECT_EQ(Data(d).GetHashCode(), Data(DataDictionary(d)).GetHashCode());
  EXPECT_TRUE(Data().IsEmpty());
}

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <thread>
#include <vector>

#include "asset/search/length_formula.h"

using namespace kelvo;

TEST(LengthFormula, UnitsBecomeCentimetres) {
  const std::vector<std::pair<const char*, double>> cases = {
      {"2", 2.0},         {"2cm", 2.0},          {"15MM", 1.5},       {"2m", 200.0},
      {"1.5km", 150000},  {"1in", 2.54},         {"2FT", 60.96},      {"1m+50cm", 150.0},
      {"(1M + 2M) * 2", 600.0}, {"(2^3)mm", 0.8}, {"-3M", -300.0},     {"1e2cm", 100.0},
      {"1mm+1m", 100.1},
  };
  for (const auto& [formula, cm] : cases) {
    Result<double> value = EvaluateLengthFormula(formula);
    ASSERT_TRUE(value.HasValue()) << formula << ": " << value.GetError().ToString();
    EXPECT_NEAR(*value, cm, 1e-9) << formula;
  }
}

TEST(LengthFormula, BadFormulasAreErrorsNotExceptions) {
  for (const char* formula : {"", "2parsecs", "2m)", "((2", "1/0", "1e999", "2 # 3", "sin(1)", "a=1", "2mm m",
                              "\"x\"", "1,2"}) {
    Result<double> value = EvaluateLengthFormula(formula);
    ASSERT_TRUE(value.HasError()) << formula;
    EXPECT_TRUE(value.GetError().Is(errors::illegalargument)) << formula;
  }
  EXPECT_TRUE(EvaluateLengthFormula(std::string(300, '1')).HasError());
  EXPECT_TRUE(EvaluateLengthFormula(std::string(40, '(') + "1" + std::string(40, ')')).HasError());
  EXPECT_TRUE(EvaluateLengthFormula(std::string(20, '(') + "1" + std::string(20, ')')).HasValue());
}

TEST(LengthFormula, DimensionsValueRewriting) {
  const std::vector<std::pair<const char*, const char*>> cases = {
      {">2M", ">200"}, {">=1.5KM", ">=150000"}, {"2IN", "5.08"}, {">M", ">M"}, {"", ""},
      {"ABOUT 2M", "ABOUT 200"}, {">2Q", ">2Q"}, {"<.5M", "<.500"},
  };
  for (const auto& [value, rewritten] : cases) EXPECT_EQ(RewriteDimensionsValue(value), rewritten) << value;
}

TEST(LengthFormula, ThreadsEvaluateIndependently) {
  std::vector<std::thread> threads;
  std::vector<int> failures(4, 0);
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([t, &failures] {
      for (int i = 0; i < 500; ++i) {
        const std::string formula = std::to_string(i) + (t % 2 ? "M" : "MM");
        Result<double> value = EvaluateLengthFormula(formula);
        const double expected = t % 2 ? i * 100.0 : i * 0.1;
        if (!value || std::abs(*value - expected) > 1e-9) ++failures[t];
      }
    });
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(failures, std::vector<int>(4, 0));
}

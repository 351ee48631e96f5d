// The numeric gate: what a file may hold as a number, and what the engine writes for values
// that are not finite.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "base/sentinels.h"
#include "base/text.h"

namespace kx {
namespace {

constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

TEST(NumericGate, OnlyFiniteNumbersAreRead) {
  const std::pair<const char*, std::optional<double>> cases[] = {
      {"1.5", 1.5},           {" -2e3 ", -2000.0},   {"1d2", 100.0},
      {"1.7976931348623157e308", 1.7976931348623157e308},
      {"1e-400", 0.0},        // underflow reads as zero
      {"1e999", std::nullopt}, {"-1e999", std::nullopt}, {"2e308", std::nullopt},
      {"inf", std::nullopt},  {"-Infinity", std::nullopt}, {"nan", std::nullopt},
      {"0x10", std::nullopt}, {"", std::nullopt},          {"1.5.2", std::nullopt},
  };
  for (const auto& [text, expected] : cases) EXPECT_EQ(ParseNumber(text), expected) << text;
}

// Whatever value the engine holds, the text it writes reads back through the gate.
TEST(NumericGate, WrittenValuesReadBack) {
  const std::pair<double, double> cases[] = {
      {kInf, kUnlimited}, {-kInf, -kUnlimited}, {kNaN, kNoValue},
      {1.0 / 3.0, 1.0 / 3.0}, {kUnsetUpper, kUnsetUpper}, {-0.0, -0.0},
  };
  for (const auto& [held, written] : cases) {
    const double w = WritableValue(held);
    EXPECT_EQ(w, written) << held;
    EXPECT_EQ(ParseNumber(FormatReal(w)), w) << held;
  }
}

}  // namespace
}  // namespace kx

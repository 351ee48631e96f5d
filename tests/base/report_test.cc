#include "base/report.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "base/sentinels.h"
#include "base/text.h"
#include "base/timers.h"

namespace kx {
namespace {

TEST(Report, FatalPrintsMessageThenStopLineAndThrows) {
  OutputCapture out;
  try {
    Fatal({"first", "second"}, "Stopping...");
    FAIL() << "Fatal returned";
  } catch (const Stop& s) {
    EXPECT_EQ(s.stop_line(), "Stopping...");
    EXPECT_EQ(s.lines().size(), 3u);
  }
  EXPECT_EQ(out.lines(), (std::vector<std::string>{"first", "second", "Stopping..."}));
}

TEST(Timers, NestedStartsCountOnceAndTableIsBounded) {
  TimerTable t;
  int a = t.Id("a");
  t.Start(a);
  t.Start(a);
  t.Stop(a);
  t.Stop(a);
  EXPECT_EQ(t.Calls(a), 1);
  for (int i = 0; i < 100; ++i) t.Id("timer " + std::to_string(i));
  EXPECT_EQ(t.size(), TimerTable::kMaxTimers);
}

// The numeric gate: what a file may hold as a number, and what the engine writes for values
// that are not finite.
constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

TEST(NumericGate, OnlyFiniteNumbersAreRead) {
  const std::pair<const char*, std::optional<double>> cases[] = {
      {"1.5", 1.5},           {" -2e3 ", -2000.0},   {"1d2", 100.0},    {".5", 0.5},
      {"2.5D-3", 2.5e-3},     {"abc", std::nullopt},
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
      {1.23456789e-40, 1.23456789e-40}, {9.999999747378752e-06, 9.999999747378752e-06},
  };
  for (const auto& [held, written] : cases) {
    const double w = WritableValue(held);
    EXPECT_EQ(w, written) << held;
    EXPECT_EQ(ParseNumber(FormatReal(w)), w) << held;
  }
}

}  // namespace
}  // namespace kx

// Values read from DBS files pass one gate: finite numbers only, integer options within the
// int range; and every value the store holds is written as text the gate accepts.
#include <gtest/gtest.h>

#include <limits>

#include "base/report.h"
#include "base/sentinels.h"
#include "dbs/cycle_outcome.h"
#include "dbs/dbs_file.h"
#include "dbs/options_json.h"

namespace kx::dbs {
namespace {

constexpr double kInf = std::numeric_limits<double>::infinity();

// Each line is refused with one warning naming file and line; the value before it stays.
TEST(DbsNumericGate, RefusedValuesWarnAndKeepThePreviousValue) {
  struct Case {
    const char* line;
    const char* owner;
    const char* key;
    double kept;
    const char* warning;
  };
  const Case cases[] = {
      {"ZPM.MAX_ITER = 1e10", "ZPM", "MAX_ITER", 100,
       "Warning: g.dbs line 1: value of ZPM.MAX_ITER is out of the integer range: \"1e10\", "
       "100 kept; line skipped"},
      {"ZPM.CYCLECOUNT = 1e21", "ZPM", "CYCLECOUNT", 0,
       "Warning: g.dbs line 1: value of ZPM.CYCLECOUNT is out of the integer range: \"1e21\", "
       "0 kept; line skipped"},
      {"ZPM.MAX_ITER -3e9", "ZPM", "MAX_ITER", 100, nullptr},
      {"x.UPPER = 1e999", "x", "UPPER", kUnsetUpper,
       "Warning: g.dbs line 1: value of x.UPPER is not a number: \"1e999\"; line skipped"},
      {"x.MEAS = -1e999", "x", "MEAS", kNoValue, nullptr},
      {"x.LOWER = inf", "x", "LOWER", kUnsetLower, nullptr},
      {"ZPM.OTOL = nan", "ZPM", "OTOL", 1e-6, nullptr},
  };
  for (const Case& c : cases) {
    OptionStore s;
    s.AddVariable("x", VarClass::kCV);
    OutputCapture out;
    DbsReadResult r = ReadDbsText(c.line, "g.dbs", s);
    EXPECT_EQ(r.warnings, 1) << c.line;
    EXPECT_EQ(r.applied, 0) << c.line;
    EXPECT_EQ(s.GetReal(c.owner, c.key), c.kept) << c.line;
    ASSERT_EQ(out.lines().size(), 1u) << c.line;
    if (c.warning) EXPECT_EQ(out.lines()[0], c.warning);
  }
}

TEST(DbsNumericGate, IntegerLimitsThemselvesAreAccepted) {
  OptionStore s;
  OutputCapture out;
  EXPECT_EQ(ReadDbsText("ZPM.MAX_ITER = 2147483647\nZPM.CYCLECOUNT -2147483647.9\n", "g", s)
                .applied, 2);
  EXPECT_EQ(s.Int("MAX_ITER"), std::numeric_limits<int>::max());
  EXPECT_EQ(s.Int("CYCLECOUNT"), -std::numeric_limits<int>::max());
}

// Counters stop at the largest int instead of wrapping to a negative count.
TEST(DbsNumericGate, CountersSaturate) {
  OptionStore s;
  s.SetGlobal("CYCLECOUNT", std::numeric_limits<int>::max());
  s.SetGlobal("BAD_CYCLES", std::numeric_limits<int>::max());
  RecordCycleOutcome(s, false);
  EXPECT_EQ(s.Int("CYCLECOUNT"), std::numeric_limits<int>::max());
  EXPECT_EQ(s.Int("BAD_CYCLES"), std::numeric_limits<int>::max());
  s.SetGlobal("MAX_ITER", 1e30);  // engine-set values convert without overflow
  EXPECT_EQ(s.Int("MAX_ITER"), std::numeric_limits<int>::max());
}

// Infinite and NaN values held by the store are written as the sentinels, in both DBS forms
// and options.json, and a second read of the written file changes nothing and warns nothing.
TEST(DbsNumericGate, NothingWrittenIsRefusedOnTheNextRead) {
  OptionStore s;
  s.AddVariable("inflow", VarClass::kMV);
  s.Set("inflow", "UPPER", kInf);
  s.Set("inflow", "LOWER", -kInf);
  s.Set("inflow", "DMAX", kInf);
  s.Set("inflow", "MEAS", std::numeric_limits<double>::quiet_NaN());
  s.SetGlobal("OBJFCNVAL", -kInf);
  s.SetGlobal("MAX_ITER", kInf);
  s.SetGlobal("NODES", std::numeric_limits<double>::quiet_NaN());
  s.SetGlobal("CTRL_HOR", -1e30);
  for (int form : {1, 2}) {
    const std::string text = FormatDbs(s, form, 1);
    EXPECT_EQ(text.find("inf"), text.find("inflow"))  // only the variable's name
        << text;
    EXPECT_EQ(text.find("nan"), std::string::npos);
    OptionStore back;
    back.AddVariable("inflow", VarClass::kMV);
    OutputCapture out;
    DbsReadResult r = ReadDbsText(text, "w.dbs", back);
    EXPECT_EQ(r.warnings, 0) << out.text();
    EXPECT_EQ(back.GetReal("inflow", "UPPER"), kUnsetUpper);
    EXPECT_EQ(back.GetReal("inflow", "LOWER"), kUnsetLower);
    EXPECT_EQ(back.GetReal("inflow", "DMAX"), kUnlimited);
    EXPECT_EQ(back.GetReal("inflow", "MEAS"), kNoValue);
    EXPECT_EQ(back.Real("OBJFCNVAL"), -kUnlimited);
    EXPECT_EQ(back.Int("MAX_ITER"), std::numeric_limits<int>::max());
    EXPECT_EQ(back.Int("NODES"), 2);
    EXPECT_EQ(back.Int("CTRL_HOR"), -std::numeric_limits<int>::max());
  }
  const std::string json = FormatOptionsJson(s);
  EXPECT_EQ(json.find("null"), std::string::npos);
  EXPECT_NE(json.find("1.23456789e+20"), std::string::npos);
}

}  // namespace
}  // namespace kx::dbs

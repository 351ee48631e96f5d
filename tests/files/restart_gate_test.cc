// Restart and results files never hold a value the engine refuses to read, and a restart
// line whose value is not a finite number is reported and read as missing.
#include <gtest/gtest.h>

#include <limits>

#include "base/report.h"
#include "base/sentinels.h"
#include "files/restart.h"
#include "files/results.h"
#include "model/builder.h"
#include "testing/scratch_dir.h"

namespace kx::files {
namespace {

using kx::testing::ScratchDir;

constexpr const char* kModel =
    "Model m\n  Variables\n    a = 1\n    b = 2\n  End Variables\n"
    "  Equations\n    a + b = 3\n  End Equations\nEnd Model\n";

model::ModelStore Build() {
  OutputCapture quiet;
  return model::BuildModelFromText(kModel, model::BuildOptions{});
}

TEST(RestartGate, ValueThatIsNotFiniteWarnsWithFileAndLine) {
  ScratchDir dir("kx_restart_gate");
  dir.Write("ss.t0", "! header\nss.a = 1e999\nss.b = 5 *\nss.a = nan\n");
  model::ModelStore s = Build();
  OutputCapture out;
  RestartStats stats;
  ASSERT_TRUE(ReadRestart(dir.File("ss.t0"), RestartRead::kByName, s, &stats));
  EXPECT_EQ(out.lines(),
            (std::vector<std::string>{
                "Warning: " + dir.File("ss.t0") + " line 2: value of ss.a is not a number, "
                                                  "read as no value",
                "Warning: " + dir.File("ss.t0") + " line 4: value of ss.a is not a number, "
                                                  "read as no value"}));
  EXPECT_EQ(stats.matched, 1);
  EXPECT_EQ(s.Var(1).val, 1.0);  // declared value kept
  EXPECT_EQ(s.Var(2).val, 5.0);
}

TEST(RestartGate, InfiniteAndNaNValuesAreWrittenAsSentinelsThatReadBack) {
  ScratchDir dir("kx_restart_gate");
  model::ModelStore s = Build();
  s.Var(1).val = std::numeric_limits<double>::infinity();
  s.Var(2).val = std::numeric_limits<double>::quiet_NaN();
  ASSERT_TRUE(WriteRestart(dir.File("ss.t0"), s, false));
  const std::string text = dir.Read("ss.t0");
  EXPECT_EQ(text.find("inf"), std::string::npos) << text;
  EXPECT_EQ(text.find("nan"), std::string::npos) << text;
  model::ModelStore back = Build();
  OutputCapture out;
  ASSERT_TRUE(ReadRestart(dir.File("ss.t0"), RestartRead::kByPosition, back));
  EXPECT_TRUE(out.text().empty()) << out.text();
  EXPECT_EQ(back.Var(1).val, kUnlimited);
  EXPECT_EQ(back.Var(2).val, kNoValue);
}

// A value that is not finite is an empty cell: the data reader's "no value".
TEST(ResultsGate, NonFiniteValuesAreEmptyCells) {
  ScratchDir dir("kx_results_gate");
  ResultsTable t;
  t.time = {0, 1};
  t.names = {"x", "y"};
  t.values = {{1.5, std::numeric_limits<double>::infinity()},
              {std::numeric_limits<double>::quiet_NaN(), 2}};
  ASSERT_TRUE(WriteResultsCsv(dir.File("results.csv"), t));
  EXPECT_EQ(dir.Read("results.csv"), "time,x,y\n0,1.5,\n1,,2\n");
}

}  // namespace
}  // namespace kx::files

#include "files/restart.h"

#include <gtest/gtest.h>

#include <limits>

#include "base/report.h"
#include "base/sentinels.h"
#include "files/info_file.h"
#include "files/replay.h"
#include "files/results.h"
#include "model/builder.h"
#include "testing/scratch_dir.h"

namespace kx::files {
namespace {

using kx::testing::WorkingDir;

// Parameter p, variables a and b (b with an alias c through a connection).
constexpr const char* kModel =
    "Model m\n  Parameters\n    p = 1\n  End Parameters\n"
    "  Variables\n    a = 1\n    b = 2\n    c = 0\n  End Variables\n"
    "  Connections\n    b = c\n  End Connections\n"
    "  Equations\n    a + b = p\n  End Equations\nEnd Model\n";

model::ModelStore Build() {
  OutputCapture quiet;
  return model::BuildModelFromText(kModel, model::BuildOptions{});
}

model::Variable& Named(model::ModelStore& s, const char* name) {
  for (int n = 1; n <= s.nvar; ++n)
    if (s.Var(n).name == name) return s.Var(n);
  throw std::runtime_error(name);
}

TEST(RestartNames, PrefixesOfModesAndNodesAreStripped) {
  const std::pair<const char*, const char*> cases[] = {
      {"ss.x", "x"},           {"p(1).n(2).x", "x"},   {"p(12).n(3).tank.level", "tank.level"},
      {"x", "x"},              {"ss.p(1).n(1).y", "y"}, {"p().x", "p().x"},
      {"pump.speed", "pump.speed"}, {"n(2)x", "n(2)x"},
  };
  for (const auto& [name, root] : cases) EXPECT_EQ(RootName(name), root) << name;
}

// Each reading rule through its zpm_files request: golden case files.

TEST(RestartRead, WrittenFileReadsBackExactlyByPositionAndSmartly) {
  WorkingDir dir("kx_restart_round");
  model::ModelStore store = Build();
  store.Var(2).val = 0.1 + 1e-17;  // needs all 17 digits
  store.Var(3).fixed = true;
  ASSERT_TRUE(WriteRestart("w.t0", store, false));
  for (RestartRead how : {RestartRead::kByPosition, RestartRead::kSmart}) {
    model::ModelStore back = Build();
    ASSERT_TRUE(ReadRestart("w.t0", how, back));
    for (int n = 1; n <= store.nvar; ++n) {
      EXPECT_EQ(back.Var(n).val, store.Var(n).val) << n;
      EXPECT_EQ(back.Var(n).fixed, store.Var(n).fixed) << n;
    }
  }
  ASSERT_TRUE(WriteRestart("calc.t0", store, true));
  EXPECT_EQ(dir.Read("calc.t0").find("ss.p ="), std::string::npos);
  EXPECT_FALSE(ReadRestart("missing.t0", RestartRead::kByName, store));
}

TEST(RestartRead, MultipliersNeedOneValuePerRow) {
  WorkingDir dir("kx_restart_lam");
  model::ModelStore store = Build();
  model::ModelAccess access(store);
  access.Row(1).lambda = -2.5;
  ASSERT_TRUE(WriteMultipliers("lam.t0", access));
  access.Row(1).lambda = 0;
  EXPECT_TRUE(ReadMultipliers("lam.t0", access));
  EXPECT_EQ(access.Row(1).lambda, -2.5);
  dir.Write("lam.t0", "eqn 1 = 1\neqn 2 = 2\n");
  EXPECT_FALSE(ReadMultipliers("lam.t0", access));
  EXPECT_EQ(access.Row(1).lambda, -2.5);  // the request's warning: golden case files
}

// A restart value that is not a finite number is reported with file and line and read as no
// value; a value the engine holds that is not finite is written as a sentinel that reads back.
TEST(RestartGate, NonFiniteValuesWarnOnReadingAndAreWrittenAsSentinels) {
  kx::testing::ScratchDir dir("kx_restart_gate");
  dir.Write("ss.t0", "! header\nss.a = 1e999\nss.b = 5 *\nss.a = nan\n");
  model::ModelStore s = Build();
  {
    OutputCapture out;
    RestartStats stats;
    ASSERT_TRUE(ReadRestart(dir.File("ss.t0"), RestartRead::kByName, s, &stats));
    const std::string at = "Warning: " + dir.File("ss.t0") + " line ";
    EXPECT_EQ(out.lines(),
              (std::vector<std::string>{
                  at + "2: value of ss.a is not a number, read as no value",
                  at + "4: value of ss.a is not a number, read as no value"}));
    EXPECT_EQ(stats.matched, 1);
  }
  EXPECT_EQ(Named(s, "a").val, 1.0);  // declared value kept
  EXPECT_EQ(Named(s, "b").val, 5.0);
  Named(s, "a").val = std::numeric_limits<double>::infinity();
  Named(s, "b").val = std::numeric_limits<double>::quiet_NaN();
  ASSERT_TRUE(WriteRestart(dir.File("ss.t0"), s, false));
  const std::string text = dir.Read("ss.t0");
  EXPECT_EQ(text.find("inf"), std::string::npos) << text;
  EXPECT_EQ(text.find("nan"), std::string::npos) << text;
  model::ModelStore back = Build();
  OutputCapture out;
  ASSERT_TRUE(ReadRestart(dir.File("ss.t0"), RestartRead::kByPosition, back));
  EXPECT_TRUE(out.text().empty()) << out.text();
  EXPECT_EQ(Named(back, "a").val, kUnlimited);
  EXPECT_EQ(Named(back, "b").val, kNoValue);
}

// A value that is not finite is an empty cell: the data reader's "no value".
TEST(ResultsGate, NonFiniteValuesAreEmptyCells) {
  kx::testing::ScratchDir dir("kx_results_gate");
  ResultsTable t;
  t.time = {0, 1};
  t.names = {"x", "y"};
  t.values = {{1.5, std::numeric_limits<double>::infinity()},
              {std::numeric_limits<double>::quiet_NaN(), 2}};
  ASSERT_TRUE(WriteResultsCsv(dir.File("results.csv"), t));
  EXPECT_EQ(dir.Read("results.csv"), "time,x,y\n0,1.5,\n1,,2\n");
}

// The requests without a model, the header read and the bookkeeping of the database write:
// golden case files.

// The info file's lines and their checks against a model: golden case info-file.
TEST(InfoFile, WithoutAModelEveryNameIsKept) {
  dbs::OptionStore store;
  RegisterInfoEntries(ParseInfoText("CV, anything\n", "app.info"), "app.info", store, nullptr);
  EXPECT_NE(store.FindVariable("anything"), nullptr);
}

TEST(Replay, WritesTheSelectedRowAsDbsLines) {
  WorkingDir dir("kx_replay");
  dir.Write("replay.csv", "\"tank.level.MEAS\", ZPM.FILTER ,x.MEAS\n1,0.5,7\n2.5,,nan\n3,0.25,9\n");
  OutputCapture out;
  ASSERT_TRUE(ReplayRow(2, "replay.csv", "measurements.dbs"));
  EXPECT_EQ(dir.Read("measurements.dbs"),
            "! replay of row 2 of replay.csv\ntank.level.MEAS = 2.5\n");
  ASSERT_TRUE(ReplayRow(3, "replay.csv", "measurements.dbs"));
  EXPECT_NE(dir.Read("measurements.dbs").find("ZPM.FILTER = 0.25\nx.MEAS = 9\n"),
            std::string::npos);
  dir.Write("measurements.dbs", "kept\n");
  EXPECT_FALSE(ReplayRow(4, "replay.csv", "measurements.dbs"));
  EXPECT_FALSE(ReplayRow(1, "missing.csv", "measurements.dbs"));
  EXPECT_EQ(dir.Read("measurements.dbs"), "kept\n");
  EXPECT_TRUE(out.Contains("Warning: replay.csv has no data row 4"));
  EXPECT_TRUE(out.Contains("Warning: replay file not found: missing.csv"));
}

}  // namespace
}  // namespace kx::files

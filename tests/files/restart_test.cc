#include "files/restart.h"

#include <gtest/gtest.h>

#include <limits>
#include <tuple>

#include "base/report.h"
#include "base/sentinels.h"
#include "files/file_routine.h"
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

// Values and fixed marks of p, a, b after a read.
struct State {
  double p, a, b;
  bool p_fixed, a_fixed;
};

model::Variable& Named(model::ModelStore& s, const char* name) {
  for (int n = 1; n <= s.nvar; ++n)
    if (s.Var(n).name == name) return s.Var(n);
  throw std::runtime_error(name);
}

State StateOf(model::ModelStore& s) {
  return {Named(s, "p").val, Named(s, "a").val, Named(s, "b").val, Named(s, "p").fixed,
          Named(s, "a").fixed};
}

auto Fields(const State& s) { return std::tie(s.p, s.a, s.b, s.p_fixed, s.a_fixed); }

TEST(RestartNames, PrefixesOfModesAndNodesAreStripped) {
  const std::pair<const char*, const char*> cases[] = {
      {"ss.x", "x"},           {"p(1).n(2).x", "x"},   {"p(12).n(3).tank.level", "tank.level"},
      {"x", "x"},              {"ss.p(1).n(1).y", "y"}, {"p().x", "p().x"},
      {"pump.speed", "pump.speed"}, {"n(2)x", "n(2)x"},
  };
  for (const auto& [name, root] : cases) EXPECT_EQ(RootName(name), root) << name;
}

// Lists b before a and p fixed; a line "q" names nothing in the model.
constexpr const char* kMixedFile =
    "! header line\n\nss.b = 20 *\np(1).n(1).a = 10\nss.p = 5\nq = 7 *\nnot a value line\n";

// Each reading rule, and the zpm_files request that reads by it.
TEST(RestartRead, EachRequestMatchesLinesItsOwnWay) {
  struct Case {
    int request;
    RestartRead how;
    State want;
    int matched;
  };
  const Case cases[] = {
      // by name: only "ss." names match; no specs
      {1, RestartRead::kByName, {5, 1, 20, true, false}, 2},
      // by root: node prefixes stripped too
      {4, RestartRead::kByRoot, {5, 10, 20, true, false}, 3},
      // by position: line k is variable k (p, a, b, c absorbed), specs read
      {5, RestartRead::kByPosition, {20, 10, 5, false, true}, 3},
      // specs only: values kept, a becomes fixed (no "*"), p stays fixed
      {6, RestartRead::kSpecsOnly, {1, 1, 2, true, true}, 3},
      {7, RestartRead::kByRootWithSpecs, {5, 10, 20, true, true}, 3},
      // smart: the order differs from the model's, so names are used
      {8, RestartRead::kSmart, {5, 10, 20, true, true}, 3},
      // calculated only: p is fixed and keeps its value
      {11, RestartRead::kCalculatedOnly, {1, 10, 20, true, false}, 2},
  };
  WorkingDir dir("kx_restart_read");
  dir.Write("r.t0", kMixedFile);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.request);
    model::ModelStore store = Build(), routed = Build();
    RestartStats stats;
    ASSERT_TRUE(ReadRestart("r.t0", c.how, store, &stats));
    EXPECT_EQ(Fields(StateOf(store)), Fields(c.want));
    EXPECT_EQ(stats.matched, c.matched);
    model::ModelAccess access(routed);
    dbs::OptionStore options;
    FileRoutine routine(options, "m");
    routine.set_model(&access);
    ASSERT_EQ(routine.Run(c.request, "r.t0"), 0);
    EXPECT_EQ(Fields(StateOf(routed)), Fields(c.want));
  }
}

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
  EXPECT_EQ(access.Row(1).lambda, -2.5);

  dbs::OptionStore options;
  FileRoutine routine(options, "m");
  routine.set_model(&access);
  OutputCapture out;
  EXPECT_EQ(routine.Run(12, ""), 1);
  EXPECT_TRUE(out.Contains("Warning: lam.t0 file load was unsuccessful\n"));
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

TEST(FileRoutine, UnknownCodeStopsAndUnbuiltCodesSaySo) {
  dbs::OptionStore store;
  FileRoutine routine(store, "app");
  OutputCapture out;
  EXPECT_THROW(routine.Run(99, "x"), Stop);
  EXPECT_TRUE(out.Contains("ERROR: invalid option 99 for zpm_files\nSTOPPING...\n"));
  for (int code : {1, 2, 8, 13, 21, 57, 66, 83, 91}) EXPECT_EQ(routine.Run(code, "ss.t0"), 1);
  EXPECT_TRUE(out.Contains("zpm_files: request 2 needs a model, none is built"));
  EXPECT_TRUE(
      out.Contains("zpm_files: request 66 is not available yet, nothing done (66 = "));
  EXPECT_TRUE(out.Contains("zpm_files: request 13 is not supported"));
}

TEST(FileRoutine, HeaderReadRegistersInfoVariablesAndChecksTheMode) {
  WorkingDir dir("kx_files_header");
  dir.Write("app.info", "MV, valve\ncv, Level\n");
  dir.Write("app.dbs", "valve.COST 2\nlevel.SPHI = 4, 1, m\nZPM.IMODE 6\n");
  dir.Write("overrides.dbs", "ZPM.IMODE = 12\n");
  dbs::OptionStore store;
  FileRoutine routine(store, "app");
  OutputCapture out;
  EXPECT_EQ(routine.Run(55, "defaults"), 1);  // missing: nothing read, no message
  EXPECT_EQ(routine.Run(55, "app"), 0);
  EXPECT_EQ(store.GetReal("valve", "COST"), 2);
  EXPECT_EQ(store.GetReal("level", "SPHI"), 4);
  EXPECT_TRUE(out.text().empty()) << out.text();
  EXPECT_THROW(routine.Run(55, "overrides"), Stop);
  EXPECT_TRUE(
      out.Contains("Error: DBS not initialized because imode out of bounds: 12\n"
                   "STOPPING\n"));
}

TEST(FileRoutine, DbsWriteDoesTheCycleBookkeeping) {
  WorkingDir dir("kx_files_write");
  dbs::OptionStore store;
  FileRoutine routine(store, "app");
  store.SetGlobal("COLDSTART", 1);
  store.SetGlobal("REPLAY", 2);
  OutputCapture out;
  ASSERT_EQ(routine.Run(53, "app"), 0);
  ASSERT_EQ(routine.Run(53, "app"), 0);
  EXPECT_EQ(store.Int("BAD_CYCLES"), 2);
  EXPECT_EQ(store.Int("COLDSTART"), 1);
  EXPECT_NE(dir.Read("app.dbs").find("ZPM.BAD_CYCLES 2\n"), std::string::npos);
  store.SetGlobal("DBS_WRITE", 2);
  ASSERT_EQ(routine.Run(52, "app.dbs"), 0);
  EXPECT_EQ(store.Int("BAD_CYCLES"), 0);
  EXPECT_EQ(store.Int("COLDSTART"), 0);
  EXPECT_EQ(store.Int("CYCLECOUNT"), 3);
  EXPECT_EQ(store.Int("REPLAY"), 5);
  std::string text = dir.Read("app.dbs");
  EXPECT_NE(text.find("ZPM.CYCLECOUNT = 3, 3,\n"), std::string::npos);
  ASSERT_EQ(routine.Run(56, ""), 0);
  EXPECT_NE(dir.Read("options.json").find("\"CYCLECOUNT\": 3"), std::string::npos);
  store.SetGlobal("DBS_WRITE", 0);
  dir.Write("app.dbs", "untouched");
  EXPECT_EQ(routine.Run(52, "app"), 1);
  EXPECT_EQ(dir.Read("app.dbs"), "untouched");
}

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

#include "files/file_routine.h"

#include <gtest/gtest.h>

#include "base/report.h"
#include "base/timers.h"
#include "files/info_file.h"
#include "files/replay.h"
#include "testing/scratch_dir.h"

namespace kx::files {
namespace {

using kx::testing::WorkingDir;

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

TEST(FileRoutine, EveryCallIsTimedUnderOneTimer) {
  WorkingDir dir("kx_files_timer");
  dbs::OptionStore store;
  FileRoutine routine(store, "app");
  int id = Timers().Id("zpm_files");
  int before = Timers().Calls(id);
  OutputCapture out;
  routine.Run(34, "");
  routine.Run(51, "none");
  routine.Run(2, "ss.t0");
  EXPECT_EQ(Timers().Calls(id), before + 3);
  EXPECT_TRUE(dir.Exists("sparsity.unt"));
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

TEST(InfoFile, ParsesDeclarationsInFileOrder) {
  auto entries = ParseInfoText("! classes\n\nFV, K\n  mv ,valve\nSv temp\n# done\n% note\nCV,tank.level\n",
                               "app.info");
  ASSERT_EQ(entries.size(), 4u);
  EXPECT_EQ(entries[0].name, "k");
  EXPECT_EQ(entries[1].cls, dbs::VarClass::kMV);
  EXPECT_EQ(entries[1].name, "valve");
  EXPECT_EQ(entries[2].cls, dbs::VarClass::kSV);
  EXPECT_EQ(entries[3].name, "tank.level");
  EXPECT_EQ(entries[3].line, 8);
}

TEST(InfoFile, BadLinesStopNamingTheLine) {
  struct Case {
    const char* text;
    const char* message;
  } cases[] = {{"FV, a\nXV, b\n", "Error in app.info at line 2: class must be FV, MV, SV or CV"},
               {"MV\n", "Error in app.info at line 1: expected CLASS, name"},
               {"CV, a b\n", "Error in app.info at line 1: expected one variable name"}};
  for (const auto& c : cases) {
    OutputCapture out;
    EXPECT_THROW(ParseInfoText(c.text, "app.info"), Stop) << c.text;
    EXPECT_TRUE(out.Contains(c.message)) << out.text();
  }
}

TEST(InfoFile, ModelCheckRefusesUnknownNamesAndWrongKinds) {
  // 1 parameter, 2 variable, 0 unknown.
  ModelKindFn kind = [](std::string_view n) { return n == "p" ? 1 : n == "x" ? 2 : 0; };
  struct Case {
    const char* text;
    const char* message;  // "" when accepted
  } cases[] = {{"FV, p\nCV, x\n", ""},
               {"MV, p\nSV, x\n", ""},
               {"FV, p\nCV, y\n", "line 2: y is not in the model"},
               {"SV, p\n", "line 1: p must be a variable for class SV"},
               {"MV, x\n", "line 1: x must be a parameter for class MV"},
               {"FV, p\nMV, p\n", "line 2: p is already declared with another class"}};
  for (const auto& c : cases) {
    dbs::OptionStore store;
    OutputCapture out;
    auto entries = ParseInfoText(c.text, "app.info");
    if (*c.message == '\0') {
      EXPECT_NO_THROW(RegisterInfoEntries(entries, "app.info", store, kind)) << c.text;
    } else {
      EXPECT_THROW(RegisterInfoEntries(entries, "app.info", store, kind), Stop) << c.text;
      EXPECT_TRUE(out.Contains(c.message)) << c.text << "\n" << out.text();
    }
  }
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

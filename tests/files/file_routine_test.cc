#include "files/file_routine.h"

#include <gtest/gtest.h>

#include "base/report.h"
#include "base/timers.h"
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

}  // namespace
}  // namespace kx::files

#include "driver/cycle.h"

#include <gtest/gtest.h>

#include "base/report.h"
#include "testing/scratch_dir.h"

namespace kx::driver {
namespace {

using kx::testing::WorkingDir;

int RunWith(std::vector<std::string> args, const ModelStage& stage) {
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(a.data());
  return RunCycle(static_cast<int>(argv.size()), argv.data(), stage);
}

TEST(RunCycle, AGoodSolveExitsWithOneAndEndsTheColdStart) {
  WorkingDir dir("kx_cycle_good");
  dir.Write("tank.zpm", "! model\n");
  dir.Write("tank.dbs", "ZPM.BAD_CYCLES 4\nZPM.COLDSTART 1\n");
  CycleState seen;
  auto good = [&](CycleState& s) {
    seen.app = s.app;
    seen.mode_word = s.mode_word;
    seen.flags = s.flags;
    s.store.SetGlobal("OBJFCNVAL", 42.5);
    return 0;
  };
  OutputCapture out;
  EXPECT_EQ(RunWith({"kestrix", "Tank.zpm", "-sim"}, good), 1);
  EXPECT_EQ(seen.app, "tank");
  EXPECT_EQ(seen.mode_word, "sim");
  EXPECT_EQ(seen.flags.coldstart, 1);
  std::string dbs = dir.Read("tank.dbs");
  for (const char* line : {"ZPM.BAD_CYCLES 0\n", "ZPM.COLDSTART 0\n", "ZPM.CYCLECOUNT 1\n",
                           "NLC.OBJFCNVAL 42.5\n", "ZPM.IMODE 4\n"})
    EXPECT_NE(dbs.find(line), std::string::npos) << line;
  EXPECT_FALSE(out.Contains("not available"));
}

TEST(RunCycle, AFailedSolveExitsWithZeroAndCountsABadCycle) {
  WorkingDir dir("kx_cycle_bad");
  dir.Write("tank.zpm", "! model\n");
  OutputCapture out;
  EXPECT_EQ(RunWith({"kestrix", "tank"}, [](CycleState&) { return 3; }), 0);
  EXPECT_NE(dir.Read("tank.dbs").find("ZPM.BAD_CYCLES 1\n"), std::string::npos);
  EXPECT_TRUE(dir.Exists("options.json"));
  auto unsolved = [](CycleState& s) {
    s.store.SetGlobal("APPSTATUS", 0);
    return -1;
  };
  EXPECT_EQ(RunWith({"kestrix", "tank"}, unsolved), 0);
  EXPECT_NE(dir.Read("tank.dbs").find("ZPM.BAD_CYCLES 2\n"), std::string::npos);
  EXPECT_NE(dir.Read("tank.dbs").find("NLC.APPSTATUS 0\n"), std::string::npos);
}

}  // namespace
}  // namespace kx::driver

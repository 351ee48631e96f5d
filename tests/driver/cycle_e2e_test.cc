// Runs the built program in a fresh working directory, as a user would, and checks what it
// prints, its exit status and the files it leaves.
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "driver/cycle_fixture.h"

namespace kx::driver {
namespace {

// A small steady-state model: parameter u, variables y and z.
const std::string kModel = AppModel("y = 0\nz = 1, >= 0", "y = 2*u\nz^2 = y + 1", "u = 1");

// Every test starts with the small model as app.zpm.
class CycleE2e : public CycleTest {
 protected:
  void SetUp() override { Write("app.zpm", kModel); }
};

// Switches override the DBS files and are written back: golden case cycle.

// The warnings of bad DBS lines, and the options the overrides and measurements give: golden
// case cycle. The rewritten file is clean: the next cycle reads it without a warning.
TEST_F(CycleE2e, BadDbsLinesAreNotWrittenBack) {
  Write("app.info", "MV, u\nCV, y\n");
  Write("app.dbs", "ZPM.NODES 3\ngarbage\nu.COST = 2, 1, kg\nZPM.NOPE 1\ny.SPHI = high\n");
  ASSERT_TRUE(Run("app").Has("Warning"));
  const RunResult r = Run("app");
  EXPECT_FALSE(r.Has("Warning")) << r.out;
}

// Steady-state cycles end to end: the solve, its report, the files a cycle leaves and what
// the next cycle reads from them.

// The classic four-variable problem with a product constraint; optimum 17.0140173.
const std::string kHs071 = AppModel("x[1:4] = 1, >= 1, <= 5",
                                    "x[1]*x[2]*x[3]*x[4] >= 25\nx[1]^2 + x[2]^2 + x[3]^2 + x[4]^2 = 40\n"
                                    "minimize x[1]*x[4]*(x[1]+x[2]+x[3]) + x[3]");

// A parameter p that an FV with STATUS = 1 frees; y follows it.
const std::string kFvModel = AppModel("y = 0", "y = 2*p\nminimize (y - 6)^2", "p = 1");

// The parameters a data-file row gives, and those kept with CSV_READ = 0: golden case cycle.
class SteadyCycle : public CycleTest {};

TEST_F(SteadyCycle, GoodCycleWritesEveryFileAndTheNextCycleStartsWarm) {
  Write("app.zpm", kHs071);
  // What it prints up to the solve, the outcome in the DBS and options files, the results'
  // columns and no infeasibility file: golden case cycle.
  RunResult r = Run("app -ipopt");
  ASSERT_EQ(r.status, 1) << r.out;
  EXPECT_TRUE(r.Has("Solver         :  IPOPT (v3.9)\n"));
  EXPECT_TRUE(r.Has("Successful solution\n"));
  std::string dbs = Read("app.dbs");
  EXPECT_NEAR(DbsValue(dbs, "NLC.OBJFCNVAL"), 17.0140173, 1e-6);
  const double cold_iterations = DbsValue(dbs, "NLC.ITERATIONS");
  EXPECT_GT(cold_iterations, 5);

  std::string restart = Read("rto.t0");
  EXPECT_NE(restart.find("ss.x[2] = 4.74299"), std::string::npos) << restart;
  EXPECT_NE(restart.find(" *\n"), std::string::npos);
  auto json = nlohmann::json::parse(Read("results.json"));
  EXPECT_NEAR(json["x[3]"][0].get<double>(), 3.82115, 1e-5);
  EXPECT_EQ(json["time"][0], 0.0);

  r = Run("app -ipopt");
  ASSERT_EQ(r.status, 1) << r.out;
  EXPECT_FALSE(r.Has("restart file not found"));
  EXPECT_LT(DbsValue(Read("app.dbs"), "NLC.ITERATIONS"), cold_iterations / 2);
}

TEST_F(SteadyCycle, FailedCycleIsCountedReportedAndResetByTheNextGoodOne) {
  // What the failed cycle prints, its outcome and infeasibility file and no restart file: golden
  // case cycle.
  Write("app.zpm", AppModel("x = 1", "x^2 = -1"));
  RunResult r = Run("app -ipopt");
  EXPECT_TRUE(r.Has("Unsuccessful with error code ")) << r.out;
  EXPECT_EQ(DbsValue(Read("app.dbs"), "ZPM.BAD_CYCLES"), 1);

  Write("app.zpm", AppModel("x = 1, >= 0", "x^2 = 4"));
  r = Run("app -ipopt");
  EXPECT_EQ(r.status, 1) << r.out;
  EXPECT_EQ(DbsValue(Read("app.dbs"), "ZPM.BAD_CYCLES"), 0);
}

TEST_F(SteadyCycle, ClassifiedVariablesTakeTheirDbsValuesAndReportTheSolution) {
  Write("app.zpm", kFvModel);
  Write("app.info", "FV, p\nSV, y\n");
  Write("measurements.dbs", "p.STATUS = 1\n");
  RunResult r = Run("app -ipopt");
  ASSERT_EQ(r.status, 1) << r.out;
  std::string dbs = Read("app.dbs");
  EXPECT_NEAR(DbsValue(dbs, "p.NEWVAL"), 3.0, 1e-6) << dbs;
  EXPECT_NEAR(DbsValue(dbs, "y.MODEL"), 6.0, 1e-6);

  // In simulation the FV stays fixed; a measurement moves it by FSTATUS.
  Write("measurements.dbs", "p.STATUS = 1\np.MEAS = 5\np.FSTATUS = 0.5\n");
  r = Run("app -ipopt -ss");
  dbs = Read("app.dbs");
  EXPECT_NEAR(DbsValue(dbs, "p.NEWVAL"), 4.0, 1e-9) << r.out;  // restart value 3 -> 0.5*5+0.5*3
  EXPECT_NEAR(DbsValue(dbs, "p.LSTVAL"), 3.0, 1e-6);
  EXPECT_NEAR(DbsValue(dbs, "y.MODEL"), 8.0, 1e-6);
}

// Dynamic simulation cycles end to end with the bundled tank example: the files of a cycle,
// the warm start of the next one with and without the time shift, and the horizon's stops.

class DynamicCycle : public CycleTest {
 protected:
  void SetUp() override { CopyTankExample(); }
};

TEST_F(DynamicCycle, TankSimulationWritesItsFilesAndTheNextCycleMovesOneStepOn) {
  RunResult r = Run("tank");
  ASSERT_EQ(r.status, 1) << r.out;
  EXPECT_TRUE(r.Has("Prediction Horizon: 8\n"));
  EXPECT_TRUE(r.Has("WARNING: restart file not found - sim.t0\n"));
  EXPECT_TRUE(r.Has("Dynamic Simulation with Interior Point Solver\n"));
  for (const char* f : {"sim.t0", "ic.t0", "sim.dxdt", "results.csv", "results.json", "lam.t0"})
    EXPECT_TRUE(Exists(f)) << f;
  const auto first = Cells(Read("results.csv"));
  ASSERT_EQ(first.size(), 10u);  // header and the 9 time points of the data file
  EXPECT_EQ(first[0], (std::vector<std::string>{"time", "inflow", "cv", "area", "level", "outflow"}));
  EXPECT_EQ(first[4][1], "1.5");  // the inflow column of the data file
  std::string dbs = Read("tank.dbs");
  EXPECT_NE(dbs.find("ZPM.PRED_HOR 8\n"), std::string::npos);
  EXPECT_NE(dbs.find("level.PRED[8] " + first[9][4] + "\n"), std::string::npos) << dbs;
  EXPECT_NE(Read("sim.t0").find("p(1).n(1).level = 1\n"), std::string::npos);  // fixed: no *
  EXPECT_NE(Read("ic.t0").find("outflow = 0.5 *\n"), std::string::npos);

  r = Run("tank");
  ASSERT_EQ(r.status, 1) << r.out;
  EXPECT_FALSE(r.Has("restart file not found"));
  const auto second = Cells(Read("results.csv"));
  EXPECT_EQ(second[1][4], first[2][4]);  // level at 0 = previous level at 0.5

  Write("overrides.dbs", "ZPM.TIME_SHIFT = 0\n");
  r = Run("tank");
  EXPECT_TRUE(r.Has("Variable time shift OFF\n")) << r.out;
  EXPECT_EQ(Cells(Read("results.csv"))[1][4], second[1][4]);
}

// Memory exhaustion ends with one clear line, never an exception's text.
TEST_F(CycleE2e, MemoryExhaustionIsOneClearLine) {
  Write("app.zpm", AppModel("x[1:10000000] = 1", "x[1:10000000] = 2"));
  Write("app.dbs", "ZPM.IMODE = 1\nZPM.MAX_MEMORY = 6\n");
  const std::string out = Run("app", "ulimit -v 400000").out;
  EXPECT_TRUE(out.find("Error: out of memory") != std::string::npos) << out;
  EXPECT_EQ(out.find("bad_alloc"), std::string::npos) << out;
}

}  // namespace
}  // namespace kx::driver

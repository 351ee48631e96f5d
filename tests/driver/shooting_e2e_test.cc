// Sequential estimation and control (IMODE 8, 9) run as a user runs them: single shooting
// reaches the optimum the simultaneous modes (5, 6) reach on the same horizon, and leaves the
// files of its mode.
#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "driver/cycle_fixture.h"

namespace kx::driver {
namespace {

// A tank drained through a valve: area h' = u - k sqrt(h).
constexpr const char* kTank =
    "Model app\n"
    "  Parameters\n    u = 1, >= 0, <= 3\n    k = 0.5, >= 0.05, <= 5\n  End Parameters\n"
    "  Variables\n    h = 4, >= 0\n  End Variables\n"
    "  Equations\n    0.5 * $h = u - k * sqrt(h)\n  End Equations\n"
    "End Model\n";
constexpr const char* kTight = "ZPM.OTOL = 1e-9\nZPM.RTOL = 1e-9\nZPM.COLDSTART = 1\n";

struct Solved {
  double objective = 0;
  double newval = 0;         // NEWVAL of the free input
  std::vector<double> path;  // the free input's results column
};

class Shooting : public CycleTest {
 protected:
  // Runs the application with `dbs` as its DBS file; `input` names the free input.
  Solved Solve(const std::string& dbs, const std::string& input) {
    Write("app.dbs", dbs);
    RunResult r = Run("app -ipopt");
    EXPECT_EQ(r.status, 1) << r.out;
    const std::string out = Read("app.dbs");
    return {DbsValue(out, "ZPM.OBJFCNVAL"), DbsValue(out, input + ".NEWVAL"),
            Column(Read("results.csv"), input)};
  }

  void ExpectSameSolution(const Solved& simultaneous, const Solved& shooting,
                          const std::string& what) {
    EXPECT_NEAR(shooting.objective, simultaneous.objective,
                1e-6 * (1 + std::abs(simultaneous.objective)))
        << what;
    EXPECT_NEAR(shooting.newval, simultaneous.newval, 1e-4) << what;
    ASSERT_EQ(shooting.path.size(), simultaneous.path.size()) << what;
    for (size_t i = 0; i < shooting.path.size(); ++i)
      EXPECT_NEAR(shooting.path[i], simultaneous.path[i], 1e-4) << what << " row " << i;
  }
};

// Level measurements of the tank with k = 0.6 and a wandering inflow, with noise.
std::string EstimationData() {
  std::string csv = "time,u,h\n";
  double h = 4.0;
  for (int i = 0; i <= 12; ++i) {
    const double u = 1.0 + 0.4 * std::sin(i / 3.0);
    if (i > 0)
      for (int s = 0; s < 50; ++s) h += 0.5 / 50 * (u - 0.6 * std::sqrt(h)) / 0.5;
    csv += fmt::format("{},{},{}\n", 0.5 * i, u, h + 0.01 * std::sin(7.0 * i));
  }
  return csv;
}

TEST_F(Shooting, EstimationReachesTheSimultaneousFit) {
  Write("app.zpm", kTank);
  Write("app.info", "FV, k\nMV, u\nCV, h\n");
  Write("app.csv", EstimationData());
  for (int ev_type : {1, 2}) {
    for (int nodes : {2, 3}) {
      const std::string dbs =
          fmt::format("ZPM.EV_TYPE = {}\nZPM.NODES = {}\nk.STATUS = 1\nh.FSTATUS = 1\n{}", ev_type,
                      nodes, kTight);
      const Solved five = Solve("ZPM.IMODE = 5\n" + dbs, "k");
      const Solved eight = Solve("ZPM.IMODE = 8\n" + dbs, "k");
      const std::string what = fmt::format("EV_TYPE {} NODES {}", ev_type, nodes);
      EXPECT_GT(five.newval, 0.55) << what;  // the fit found the plant's coefficient
      EXPECT_LT(five.newval, 0.65) << what;
      ExpectSameSolution(five, eight, what);
    }
  }
}

// SEQUENTIAL = 1 shoots in mode 5 too, where ICD_CALC = 1 makes the initial level one more
// input of the shooting.
TEST_F(Shooting, SequentialOptionShootsWithCalculatedInitialConditions) {
  Write("app.zpm", kTank);
  Write("app.info", "FV, k\nMV, u\nCV, h\n");
  Write("app.csv", EstimationData());
  const std::string dbs =
      fmt::format("ZPM.IMODE = 5\nZPM.EV_TYPE = 2\nZPM.ICD_CALC = 1\nk.STATUS = 1\n{}", kTight);
  const Solved simultaneous = Solve(dbs, "k");
  const std::vector<double> level = Column(Read("results.csv"), "h");
  Write("app.dbs", dbs + "ZPM.SEQUENTIAL = 1\n");
  RunResult r = Run("app -ipopt");
  ASSERT_EQ(r.status, 1) << r.out;
  EXPECT_TRUE(r.Has("Sequential (single shooting)")) << r.out;
  EXPECT_NEAR(DbsValue(Read("app.dbs"), "k.NEWVAL"), simultaneous.newval, 1e-4);
  const std::vector<double> shot = Column(Read("results.csv"), "h");
  ASSERT_FALSE(shot.empty());
  EXPECT_NE(level.front(), 4.0) << "the initial level was calculated";
  EXPECT_NEAR(shot.front(), level.front(), 1e-4);
}

TEST_F(Shooting, ControlReachesTheSimultaneousMoves) {
  Write("app.zpm", kTank);
  Write("app.info", "FV, k\nMV, u\nCV, h\n");
  for (int cv_type : {1, 2}) {
    for (int step_hor : {1, 2}) {
      const std::string dbs = fmt::format(
          "ZPM.NODES = 3\nZPM.CSV_READ = 0\nZPM.CTRL_HOR = 8\nZPM.PRED_HOR = 8\n"
          "ZPM.CTRL_TIME = 0.5\nZPM.PRED_TIME = 0.5\nZPM.CV_TYPE = {}\nZPM.MV_STEP_HOR = {}\n"
          "u.STATUS = 1\nu.DCOST = 0.05\nu.DMAX = 0.3\nh.STATUS = 1\nh.SPHI = 3.1\n"
          "h.SPLO = 2.9\nh.SP = 3\nh.TAU = 0.5\nh.TR_INIT = 0\n{}",
          cv_type, step_hor, kTight);
      const Solved six = Solve("ZPM.IMODE = 6\n" + dbs, "u");
      const Solved nine = Solve("ZPM.IMODE = 9\n" + dbs, "u");
      const std::string what = fmt::format("CV_TYPE {} MV_STEP_HOR {}", cv_type, step_hor);
      EXPECT_LT(six.newval, 1.0) << what;  // the level is above its band: the inflow drops
      ExpectSameSolution(six, nine, what);
    }
  }
}

TEST_F(Shooting, EstimationKeepsItsInitialConditionsAndWritesTheFilesOfTheMode) {
  Write("app.zpm", kTank);
  Write("app.info", "FV, k\nMV, u\nCV, h\n");
  Write("app.csv", EstimationData());
  Write("app.dbs", "ZPM.IMODE = 8\nZPM.EV_TYPE = 2\nZPM.ICD_CALC = 1\nk.STATUS = 1\n");
  RunResult r = Run("app");
  ASSERT_EQ(r.status, 1) << r.out;
  const std::string message =
      "Calculated Initial Conditions Not Available for Sequential Estimation";
  EXPECT_TRUE(r.Has(message + "\n")) << r.out;
  EXPECT_EQ(r.out.find(message), r.out.rfind(message)) << "said once";
  EXPECT_FALSE(Exists("icd_calc.txt"));
  EXPECT_DOUBLE_EQ(Column(Read("results.csv"), "h").front(), 4.0) << "the initial level holds";
  for (const char* file : {"sqe.t0", "est.xfer", "est.meas", "ic.t0", "sqe.dxdt"})
    EXPECT_TRUE(Exists(file)) << file;
}

// The level may not fall below 3.5 while the set point asks for 3: the bound is active, a row
// of the reduced program, and holds as in the simultaneous solve.
TEST_F(Shooting, AnActiveStateBoundHoldsAsInTheSimultaneousSolve) {
  std::string model = kTank;
  model.replace(model.find("h = 4, >= 0"), 11, "h = 4, >= 3.5");
  Write("app.zpm", model);
  Write("app.info", "MV, u\nCV, h\n");
  const std::string dbs =
      "ZPM.NODES = 3\nZPM.CSV_READ = 0\nZPM.CTRL_HOR = 8\nZPM.PRED_HOR = 8\n"
      "ZPM.CTRL_TIME = 0.5\nZPM.PRED_TIME = 0.5\nZPM.CV_TYPE = 2\nu.STATUS = 1\n"
      "u.DCOST = 0.01\nh.STATUS = 1\nh.SP = 3\nh.TAU = 0.5\n" +
      std::string(kTight);
  const Solved six = Solve("ZPM.IMODE = 6\n" + dbs, "u");
  const Solved nine = Solve("ZPM.IMODE = 9\n" + dbs, "u");
  ExpectSameSolution(six, nine, "bounded level");
  const std::vector<double> level = Column(Read("results.csv"), "h");
  ASSERT_FALSE(level.empty());
  EXPECT_NEAR(*std::min_element(level.begin(), level.end()), 3.5, 1e-6) << "the bound is active";
}

// The reduced program carries exact second derivatives, so every solver takes it; a warm cycle
// starts from the mode's own restart file.
TEST_F(Shooting, EverySolverControlsAndWarmCyclesRestartFromTheirOwnFile) {
  Write("app.zpm", kTank);
  Write("app.info", "MV, u\nCV, h\n");
  const std::string dbs =
      "ZPM.NODES = 2\nZPM.CSV_READ = 0\nZPM.CTRL_HOR = 5\nZPM.PRED_HOR = 5\nu.STATUS = 1\n"
      "u.DCOST = 0.05\nh.STATUS = 1\nh.SPHI = 3.1\nh.SPLO = 2.9\nZPM.RTOL = 1e-8\n"
      "ZPM.OTOL = 1e-8\nZPM.COLDSTART = 1\n";
  const Solved six = Solve("ZPM.IMODE = 6\n" + dbs, "u");
  for (const char* solver : {"-asopt", "-biopt", "-ipopt"}) {
    Write("app.dbs", "ZPM.IMODE = 9\n" + dbs);
    RunResult first = Run(std::string("app ") + solver);
    ASSERT_EQ(first.status, 1) << solver << first.out;
    EXPECT_NEAR(DbsValue(Read("app.dbs"), "ZPM.OBJFCNVAL"), six.objective,
                1e-5 * (1 + std::abs(six.objective)))
        << solver;
    EXPECT_NEAR(DbsValue(Read("app.dbs"), "u.NEWVAL"), six.newval, 1e-4) << solver;
    EXPECT_TRUE(Exists("sqc.t0"));
    RunResult second = Run(std::string("app ") + solver);
    ASSERT_EQ(second.status, 1) << solver << second.out;
    EXPECT_FALSE(second.Has("restart file not found")) << second.out;
  }
}

}  // namespace
}  // namespace kx::driver

// Sequential estimation and control (IMODE 8, 9) run as a user runs them: single shooting
// reaches the optimum the simultaneous modes (5, 6) reach on the same horizon, and leaves the
// files of its mode.
#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <string>
#include <vector>

#include "driver/cycle_fixture.h"

namespace kx::driver {
namespace {

// A tank drained through a valve: area h' = u - k sqrt(h); LEVEL_BOUND is h's lower bound.
std::string Tank(const char* level_bound = "0") {
  return fmt::format(
      "Model app\n  Parameters\n    u = 1, >= 0, <= 3\n    k = 0.5, >= 0.05, <= 5\n"
      "  End Parameters\n  Variables\n    h = 4, >= {}\n  End Variables\n"
      "  Equations\n    0.5 * $h = u - k * sqrt(h)\n  End Equations\nEnd Model\n",
      level_bound);
}
constexpr const char* kTight = "ZPM.OTOL = 1e-9\nZPM.RTOL = 1e-9\nZPM.COLDSTART = 1\n";

// Level measurements of the tank with k = 0.6 and a wandering inflow, with noise.
std::string EstimationData() {
  std::string csv = "time,u,h\n";
  double h = 4.0;
  for (int i = 0; i <= 12; ++i) {
    const double u = 1.0 + 0.4 * std::sin(i / 3.0);
    for (int s = 0; i > 0 && s < 50; ++s) h += 0.5 / 50 * (u - 0.6 * std::sqrt(h)) / 0.5;
    csv += fmt::format("{},{},{}\n", 0.5 * i, u, h + 0.01 * std::sin(7.0 * i));
  }
  return csv;
}

struct Solved {
  double objective = 0, newval = 0;  // the optimum and the free input's NEWVAL
  std::vector<double> path;          // the free input's results column
};

class Shooting : public CycleTest {
 protected:
  void SetUp() override {
    Write("app.zpm", Tank());
    Write("app.info", "FV, k\nMV, u\nCV, h\n");
    Write("app.csv", EstimationData());
  }
  // Runs the application with `dbs`; `input` names the free input.
  Solved Solve(const std::string& dbs, const std::string& input,
               const std::string& solver = "-ipopt") {
    Write("app.dbs", dbs);
    RunResult r = Run("app " + solver);
    EXPECT_EQ(r.status, 1) << r.out;
    const std::string out = Read("app.dbs");
    return {DbsValue(out, "ZPM.OBJFCNVAL"), DbsValue(out, input + ".NEWVAL"),
            Column(Read("results.csv"), input)};
  }
  // Solves in the simultaneous mode `mode` and in mode + 3 and expects the same optimum.
  Solved ExpectSameSolution(int mode, const std::string& dbs, const std::string& input,
                            const std::string& what) {
    const Solved a = Solve(fmt::format("ZPM.IMODE = {}\n{}{}", mode, dbs, kTight), input);
    const Solved b = Solve(fmt::format("ZPM.IMODE = {}\n{}{}", mode + 3, dbs, kTight), input);
    EXPECT_NEAR(b.objective, a.objective, 1e-6 * (1 + std::abs(a.objective))) << what;
    EXPECT_NEAR(b.newval, a.newval, 1e-4) << what;
    EXPECT_EQ(b.path.size(), a.path.size()) << what;
    for (size_t i = 0; i < std::min(a.path.size(), b.path.size()); ++i)
      EXPECT_NEAR(b.path[i], a.path[i], 1e-4) << what << " row " << i;
    return a;
  }
};

// With a lower bound of 3.5 on the level and a set point of 3 the bound is active: a row of
// the reduced program, it holds as in the simultaneous solve.
TEST_F(Shooting, ControlReachesTheSimultaneousMoves) {
  const std::string horizon =
      "ZPM.NODES = 3\nZPM.CSV_READ = 0\nZPM.CTRL_HOR = 8\nZPM.PRED_HOR = 8\nZPM.CTRL_TIME = 0.5\n"
      "ZPM.PRED_TIME = 0.5\nu.STATUS = 1\nh.STATUS = 1\nh.SP = 3\nh.TAU = 0.5\n";
  const std::string band = "u.DCOST = 0.05\nu.DMAX = 0.3\nh.SPHI = 3.1\nh.SPLO = 2.9\n";
  std::vector<std::pair<const char*, std::string>> cases;  // h's lower bound, options
  for (int cv_type : {1, 2}) {
    for (int step_hor : {1, 2})
      cases.emplace_back(
          "0", fmt::format("{}ZPM.CV_TYPE = {}\nZPM.MV_STEP_HOR = {}\nh.TR_INIT = 0\n", band,
                           cv_type, step_hor));
  }
  cases.emplace_back("3.5", "ZPM.CV_TYPE = 2\nu.DCOST = 0.01\n");
  for (const auto& [bound, dbs] : cases) {
    Write("app.zpm", Tank(bound));
    const Solved six = ExpectSameSolution(6, horizon + dbs, "u", dbs);
    EXPECT_LT(six.newval, 1.0) << dbs;  // the level is above its band: the inflow drops
    const std::vector<double> level = Column(Read("results.csv"), "h");
    ASSERT_FALSE(level.empty());
    if (bound[0] == '3') {
      EXPECT_NEAR(*std::min_element(level.begin(), level.end()), 3.5, 1e-6) << "active bound";
    }
    if (&dbs != &cases.front().second) continue;
    // Exact second derivatives let every solver take the reduced program; a warm cycle starts
    // from the mode's own restart file.
    for (const char* solver : {"-asopt", "-biopt"}) {
      const std::string nine = fmt::format("ZPM.IMODE = 9\n{}{}{}", horizon, dbs, kTight);
      const Solved other = Solve(nine, "u", solver);
      EXPECT_NEAR(other.objective, six.objective, 1e-5 * (1 + std::abs(six.objective))) << solver;
      EXPECT_NEAR(other.newval, six.newval, 1e-4) << solver;
      const RunResult warm = Run(std::string("app ") + solver);
      EXPECT_EQ(warm.status, 1) << solver << warm.out;
      EXPECT_FALSE(warm.Has("restart file not found")) << solver;
    }
  }
}

// SEQUENTIAL = 1 shoots in mode 5 too, where ICD_CALC = 1 makes the initial level one more
// input of the shooting; mode 8 keeps the initial conditions and says so once.
TEST_F(Shooting, InitialConditionsCalculatedInModeFiveAndKeptInModeEight) {
  const std::string dbs =
      fmt::format("ZPM.EV_TYPE = 2\nZPM.ICD_CALC = 1\nk.STATUS = 1\n{}", kTight);
  const Solved simultaneous = Solve("ZPM.IMODE = 5\n" + dbs, "k");
  const std::vector<double> level = Column(Read("results.csv"), "h");
  const Solved shot = Solve("ZPM.IMODE = 5\nZPM.SEQUENTIAL = 1\n" + dbs, "k");
  EXPECT_NEAR(shot.newval, simultaneous.newval, 1e-4);
  ASSERT_FALSE(level.empty());
  EXPECT_NE(level.front(), 4.0) << "the initial level was calculated";
  EXPECT_NEAR(Column(Read("results.csv"), "h").at(0), level.front(), 1e-4);

  const char* kFiles[] = {"icd_calc.txt", "sqe.t0", "est.xfer", "est.meas", "ic.t0", "sqe.dxdt"};
  for (const char* file : kFiles) std::filesystem::remove(dir_.File(file));
  Write("app.dbs", "ZPM.IMODE = 8\n" + dbs);
  RunResult r = Run("app");
  ASSERT_EQ(r.status, 1) << r.out;
  const std::string message =
      "Calculated Initial Conditions Not Available for Sequential Estimation";
  EXPECT_TRUE(r.Has(message + "\n")) << r.out;
  EXPECT_EQ(r.out.find(message), r.out.rfind(message)) << "said once";
  EXPECT_DOUBLE_EQ(Column(Read("results.csv"), "h").front(), 4.0) << "the initial level holds";
  for (const char* file : kFiles) EXPECT_EQ(Exists(file), file != kFiles[0]) << file;
}

}  // namespace
}  // namespace kx::driver

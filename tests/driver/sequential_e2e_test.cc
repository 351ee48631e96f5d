// The step-by-step simulation through the program: the sequential mode gives the simultaneous
// solution, and a cold simultaneous solve starts from it.
#include <cmath>
#include <vector>

#include "driver/cycle_fixture.h"

namespace kx::driver {
namespace {

// Logistic growth from far below its capacity: a flat start is far from the solution.
const std::string kGrowth = AppModel("x = 0.5", "$x = 0.8 * x * (1 - x/5)");

// Implicit Euler of the same equation, each step solved by Newton's method.
std::vector<double> ImplicitEuler(double x, double dt, int steps) {
  std::vector<double> out = {x};
  for (int k = 0; k < steps; ++k) {
    double y = x;
    for (int it = 0; it < 50; ++it) y -= (y - x - dt * 0.8 * y * (1 - y / 5)) /
                                         (1 - dt * 0.8 * (1 - 2 * y / 5));
    out.push_back(x = y);
  }
  return out;
}

class Sequential : public CycleTest {};

TEST_F(Sequential, ColdSimultaneousSolveStartsFromTheStepByStepTrajectory) {
  Write("app.zpm", kGrowth);
  Write("app.dbs", "ZPM.IMODE = 4\nZPM.NODES = 2\nZPM.CSV_READ = 0\nZPM.CTRL_HOR = 8\n"
                   "ZPM.PRED_HOR = 8\nZPM.CTRL_TIME = 1.25\nZPM.PRED_TIME = 1.25\n"
                   "ZPM.RTOL = 1e-10\nZPM.OTOL = 1e-10\n");
  const std::vector<double> expected = ImplicitEuler(0.5, 1.25, 8);
  for (const char* solver : {"-asopt", "-biopt", "-ipopt"}) {
    RunResult r = Run(std::string("app -cold ") + solver);
    ASSERT_EQ(r.status, 1) << solver << r.out;
    EXPECT_TRUE(r.Has("Horizon initialised step by step (8 steps")) << r.out;
    const std::vector<double> x = Column(Read("results.csv"), "x");
    ASSERT_EQ(x.size(), expected.size());
    for (size_t k = 0; k < x.size(); ++k) EXPECT_NEAR(x[k], expected[k], 1e-7) << k;
  }
}

TEST_F(Sequential, SequentialModeEqualsTheSimultaneousSolution) {
  CopyTankExample();
  ASSERT_EQ(Run("tank -cold -sim").status, 1);
  const std::string simultaneous = Read("results.csv");
  RunResult r = Run("tank -cold -sqs");
  ASSERT_EQ(r.status, 1) << r.out;
  EXPECT_TRUE(r.Has("Sequential simulation: 8 of 8 steps solved")) << r.out;
  EXPECT_TRUE(Exists("sqs.t0") && Exists("sqs.dxdt"));
  const std::string sequential = Read("results.csv");
  const std::vector<std::string> names = Cells(simultaneous).at(0);
  for (const std::string& name : names) {
    const std::vector<double> a = Column(sequential, name), b = Column(simultaneous, name);
    ASSERT_EQ(a.size(), b.size()) << name;
    for (size_t k = 0; k < a.size(); ++k) EXPECT_NEAR(a[k], b[k], 1e-7) << name << " row " << k;
  }
}

}  // namespace
}  // namespace kx::driver

// The step-by-step simulation through the program: the sequential mode gives the simultaneous
// solution, and a cold simultaneous solve starts from it.
#include <cmath>
#include <vector>

#include "driver/cycle_fixture.h"

namespace kx::driver {
namespace {

// The data rows of a results file as numbers.
std::vector<std::vector<double>> Rows(const std::string& csv) {
  const std::vector<std::vector<std::string>> cells = Cells(csv);
  std::vector<std::vector<double>> rows;
  for (size_t r = 1; r < cells.size(); ++r) {
    rows.emplace_back();
    for (const std::string& cell : cells[r]) rows.back().push_back(std::stod(cell));
  }
  return rows;
}

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
    const auto rows = Rows(Read("results.csv"));
    ASSERT_EQ(rows.size(), expected.size());
    for (size_t k = 0; k < rows.size(); ++k) EXPECT_NEAR(rows[k][1], expected[k], 1e-7) << k;
  }
}

TEST_F(Sequential, SequentialModeEqualsTheSimultaneousSolution) {
  CopyTankExample();
  ASSERT_EQ(Run("tank -cold -sim").status, 1);
  const auto simultaneous = Rows(Read("results.csv"));
  RunResult r = Run("tank -cold -sqs");
  ASSERT_EQ(r.status, 1) << r.out;
  EXPECT_TRUE(r.Has("Sequential simulation: 8 of 8 steps solved")) << r.out;
  EXPECT_TRUE(Exists("sqs.t0") && Exists("sqs.dxdt"));
  const auto sequential = Rows(Read("results.csv"));
  ASSERT_EQ(sequential.size(), simultaneous.size());
  for (size_t k = 0; k < sequential.size(); ++k)
    for (size_t c = 0; c < sequential[k].size(); ++c)
      EXPECT_NEAR(sequential[k][c], simultaneous[k][c], 1e-7) << k << "," << c;
}

}  // namespace
}  // namespace kx::driver

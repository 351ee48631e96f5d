// Sensitivities of square models against finite differences of re-solves through the program.
#include <algorithm>
#include <cmath>
#include <vector>

#include "driver/cycle_fixture.h"

namespace kx::driver {
namespace {

// d(variable)/d(input) from sensitivity.txt.
double TableValue(const std::string& table, const std::string& variable, int input) {
  for (const std::vector<std::string>& row : Cells(table))
    if (!row.empty() && row[0] == variable) return std::stod(row.at(input + 1));
  return std::nan("");
}

class Sensitivity : public CycleTest {
 protected:
  // Central difference of results.csv's `variable` at `row` for input `name` moved by MEAS.
  double FiniteDifference(const std::string& name, double value, const std::string& variable,
                          int row, const std::string& args) {
    const double h = 1e-4 * std::max(1.0, std::abs(value));
    double at[2];
    for (int s = 0; s < 2; ++s) {
      // The engine writes MEAS and the restart file back: each run starts from the base.
      Write("app.dbs", dbs_);
      Write("ss.t0", "");
      Write("measurements.dbs", name + ".MEAS = " + std::to_string(value + (s ? -h : h)) + "\n");
      EXPECT_EQ(Run(args).status, 1);
      at[s] = Column(Read("results.csv"), variable)[row];
    }
    Write("measurements.dbs", "");
    return (at[0] - at[1]) / (2 * h);
  }
  std::string dbs_;  // the options of the re-solves
};

TEST_F(Sensitivity, SteadyStateAgreesWithReSolves) {
  Write("app.zpm", AppModel("x = 1, >= 0\ny = 1", "x^2 + a*x = 5*b\ny = exp(x/4) * b", "a = 2\nb = 3"));
  Write("app.info", "FV, a\nMV, b\n");
  Write("app.dbs", "ZPM.IMODE = 1\nZPM.SENSITIVITY = 1\nZPM.RTOL = 1e-12\nZPM.OTOL = 1e-12\n");
  ASSERT_EQ(Run("app -cold").status, 1);
  const std::string table = Read("sensitivity.txt");
  EXPECT_NE(Read("sensitivity_dof.t0").find("a = 2\nb = 3\n"), std::string::npos);
  dbs_ = "ZPM.IMODE = 1\nZPM.RTOL = 1e-12\nZPM.OTOL = 1e-12\n";
  const char* inputs[] = {"a", "b"};
  const double values[] = {2, 3};
  for (int i = 0; i < 2; ++i)
    for (const char* v : {"x", "y"}) {
      const double fd = FiniteDifference(inputs[i], values[i], v, 0, "app -cold");
      EXPECT_NEAR(TableValue(table, v, i), fd, 1e-5 * std::max(1.0, std::abs(fd)))
          << v << " by " << inputs[i];
    }
}

TEST_F(Sensitivity, HorizonAgreesWithReSolves) {
  Write("app.zpm", AppModel("x = 1", "$x = -k * x^2 + 1", "k = 0.5"));
  Write("app.info", "FV, k\n");
  const std::string horizon = "ZPM.IMODE = 4\nZPM.NODES = 3\nZPM.CSV_READ = 0\nZPM.PRED_HOR = 4\n"
                              "ZPM.CTRL_HOR = 4\nZPM.RTOL = 1e-12\nZPM.OTOL = 1e-12\n";
  Write("app.dbs", horizon + "ZPM.SENSITIVITY = 1\n");
  ASSERT_EQ(Run("app -cold").status, 1);
  const double dx_dk = TableValue(Read("sensitivity.txt"), "p(4).n(3).x", 0);
  dbs_ = horizon;
  const double fd = FiniteDifference("k", 0.5, "x", 4, "app -cold");
  EXPECT_NEAR(dx_dk, fd, 1e-5 * std::abs(fd));
}

}  // namespace
}  // namespace kx::driver

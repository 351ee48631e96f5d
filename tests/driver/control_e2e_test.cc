// Control cycles run as a user runs them: a first-order plant, its controller's moves read
// back from the DBS and results files and checked against an independent optimum.
#include <fmt/format.h>

#include <cmath>
#include <vector>

#include "driver/cycle_fixture.h"
#include "testing/dense_solve.h"


namespace kx::driver {
namespace {

// tau x' = -x + K u with tau = 2, K = 3.
const std::string kPlant = AppModel("x = 0", "2 * $x = -x + 3 * u", "u = 0");
constexpr double kTau = 2.0, kGain = 3.0;
constexpr int kSteps = 10;
constexpr const char* kHorizon =
    "ZPM.IMODE = 6\nZPM.NODES = 2\nZPM.CSV_READ = 0\nZPM.CTRL_HOR = 10\nZPM.PRED_HOR = 10\n"
    "ZPM.CTRL_TIME = 1\nZPM.PRED_TIME = 1\nZPM.OTOL = 1e-10\nZPM.RTOL = 1e-10\n";

// The same discretised problem (implicit Euler, unit steps), solved here: minimise
// sum_k wsp (x_k - tr_k)^2 + dcost_k (u_k - u_{k-1})^2 with x = G u, the trajectory tr from
// tau_cv tr' + tr = sp started at the CV, an unconstrained quadratic in u_1..u_N.
std::vector<double> QuadraticOptimum(double sp, double tau_cv, double wsp, double dcost,
                                     double dcost_slope) {
  const int n = kSteps;
  const double a = 1.0 / (1.0 + 1.0 / kTau), b = kGain / kTau * a;
  std::vector<double> tr(n), g(n * n, 0.0);
  double t = 0.0;
  for (int k = 0; k < n; ++k) {
    t = (t + sp / tau_cv) / (1.0 + 1.0 / tau_cv);
    tr[k] = t;
    for (int j = 0; j <= k; ++j) g[k * n + j] = b * std::pow(a, k - j);
  }
  // Normal equations H u = r.
  std::vector<double> h(n * n, 0.0), r(n, 0.0);
  for (int i = 0; i < n; ++i) {
    for (int j = 0; j < n; ++j)
      for (int k = 0; k < n; ++k) h[i * n + j] += wsp * g[k * n + i] * g[k * n + j];
    for (int k = 0; k < n; ++k) r[i] += wsp * g[k * n + i] * tr[k];
  }
  for (int k = 0; k < n; ++k) {  // move k: u_k - u_{k-1}, u_{-1} = 0
    const double q = dcost * (1.0 + k * dcost_slope);
    h[k * n + k] += q;
    if (k > 0) h[(k - 1) * n + (k - 1)] += q, h[k * n + k - 1] -= q, h[(k - 1) * n + k] -= q;
  }
  return kx::testing::SolveDense(h, r);
}

// A required MV that is off lowers the mode and holds the moves: golden case cycle.
class Control : public CycleTest {
 protected:
  void SetUp() override {
    Write("app.zpm", kPlant);
    Write("app.info", "MV, u\nCV, x\n");
  }
};

TEST_F(Control, SquaredErrorMovesEqualTheQuadraticOptimum) {
  for (const char* solver : {"-asopt", "-ipopt"}) {
    // Each solver starts from u = 0 (a later cycle would start from the NEWVAL written).
    Write("app.dbs", std::string(kHorizon) +
                         "ZPM.CV_TYPE = 2\nZPM.MV_DCOST_SLOPE = 0.1\nu.STATUS = 1\n"
                         "u.DCOST = 0.5\nx.STATUS = 1\nx.SP = 1\nx.TAU = 3\nx.WSP = 20\n");
    RunResult r = Run(std::string("app -cold ") + solver);
    ASSERT_EQ(r.status, 1) << r.out;
    const std::vector<double> expected = QuadraticOptimum(1.0, 3.0, 20.0, 0.5, 0.1);
    const std::vector<double> u = Column(Read("results.csv"), "u");
    ASSERT_EQ(u.size(), expected.size() + 1);
    for (int k = 0; k < kSteps; ++k) EXPECT_NEAR(u[k + 1], expected[k], 1e-6) << solver << k;
    EXPECT_NEAR(DbsValue(Read("app.dbs"), "u.NEWVAL"), expected[0], 1e-6) << solver;
  }
}

TEST_F(Control, DeadBandLimitsAndMoveEverySecondStep) {
  Write("app.dbs", std::string(kHorizon) +
                       "ZPM.CV_TYPE = 1\nu.STATUS = 1\nu.DCOST = 0.01\nu.UPPER = 0.5\n"
                       "u.DMAX = 0.2\nu.MV_STEP_HOR = 2\nx.STATUS = 1\nx.SPHI = 1.1\n"
                       "x.SPLO = 0.9\nx.TAU = 1\nx.TR_INIT = 0\n");
  RunResult r = Run("app -cold");
  ASSERT_EQ(r.status, 1) << r.out;
  const std::string csv = Read("results.csv");
  const std::vector<double> u = Column(csv, "u"), x = Column(csv, "x");
  for (int k = 1; k <= kSteps; ++k) {
    EXPECT_LE(u[k], 0.5 + 1e-7) << k;
    EXPECT_LE(std::abs(u[k] - u[k - 1]), 0.2 + 1e-7) << k;
    // Every second step may not move.
    EXPECT_NEAR(u[k], k % 2 == 0 ? u[k - 1] : u[k], 1e-7) << "step " << k;
  }
  EXPECT_GE(x.back(), 0.9 - 1e-6);
  EXPECT_LE(x.back(), 1.1 + 1e-6);
}

}  // namespace
}  // namespace kx::driver

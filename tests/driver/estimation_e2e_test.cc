// Estimation cycles run as a user runs them: parameters fitted over data sets (IMODE 2) and
// over a moving horizon (IMODE 5), checked against estimates computed here independently.
#include <fmt/format.h>

#include <cmath>
#include <limits>
#include <vector>

#include "driver/cycle_fixture.h"

namespace kx::driver {
namespace {

// ----- IMODE 2: a straight line y = a x + b fitted to six data sets -----

const std::string kLineModel = AppModel("y = 0", "y = a * x + b", "x = 0\na = 1\nb = 0");
const std::vector<double> kX = {0, 1, 2, 3, 4, 5};
const std::vector<double> kY = {1.1, 2.9, 5.2, 6.8, 9.3, 10.7};

struct Line {
  double a, b;
};

Line LeastSquares() {
  double sx = 0, sy = 0, sxx = 0, sxy = 0, n = kX.size();
  for (size_t i = 0; i < kX.size(); ++i) {
    sx += kX[i], sy += kY[i], sxx += kX[i] * kX[i], sxy += kX[i] * kY[i];
  }
  const double a = (n * sxy - sx * sy) / (n * sxx - sx * sx);
  return {a, (sy - a * sx) / n};
}

// A least-absolute-deviation line passes through two of the points: try every pair.
Line LeastAbsoluteDeviation() {
  Line best{0, 0};
  double best_sum = std::numeric_limits<double>::max();
  for (size_t i = 0; i < kX.size(); ++i) {
    for (size_t j = i + 1; j < kX.size(); ++j) {
      const double a = (kY[j] - kY[i]) / (kX[j] - kX[i]), b = kY[i] - a * kX[i];
      double sum = 0;
      for (size_t k = 0; k < kX.size(); ++k) sum += std::abs(kY[k] - a * kX[k] - b);
      if (sum < best_sum) best_sum = sum, best = {a, b};
    }
  }
  return best;
}

// sum r tanh(r) over the residuals r = y - a x - b, minimised by Newton's method.
Line SmoothAbsolute() {
  Line l = LeastSquares();
  for (int it = 0; it < 100; ++it) {
    double g[2] = {0, 0}, h[3] = {0, 0, 0};
    for (size_t k = 0; k < kX.size(); ++k) {
      const double r = kY[k] - l.a * kX[k] - l.b, t = std::tanh(r), s = 1 - t * t;
      const double d1 = t + r * s, d2 = 2 * s - 2 * r * t * s;  // of r tanh r
      g[0] -= d1 * kX[k], g[1] -= d1;
      h[0] += d2 * kX[k] * kX[k], h[1] += d2 * kX[k], h[2] += d2;
    }
    const double det = h[0] * h[2] - h[1] * h[1];
    l.a -= (h[2] * g[0] - h[1] * g[1]) / det;
    l.b -= (h[0] * g[1] - h[1] * g[0]) / det;
  }
  return l;
}

class DataSetFit : public CycleTest {
 protected:
  void SetUp() override {
    Write("app.zpm", kLineModel);
    std::string csv = "x,y\n";
    for (size_t i = 0; i < kX.size(); ++i) csv += fmt::format("{},{}\n", kX[i], kY[i]);
    Write("app.csv", csv);
    Write("app.info", "FV, a\nFV, b\nCV, y\n");
  }
  Line Fit(int ev_type, const std::string& solver) {
    Write("app.dbs", fmt::format("ZPM.IMODE = 2\nZPM.EV_TYPE = {}\na.STATUS = 1\nb.STATUS = 1\n"
                                 "y.WMODEL = 0\ny.MEAS_GAP = 0\nZPM.OTOL = 1e-9\n"
                                 "ZPM.RTOL = 1e-9\n",
                                 ev_type));
    last_ = Run("app " + solver);
    EXPECT_EQ(last_.status, 1) << last_.out;
    const std::string dbs = Read("app.dbs");
    return {DbsValue(dbs, "a.NEWVAL"), DbsValue(dbs, "b.NEWVAL")};
  }
  RunResult last_;
};

TEST_F(DataSetFit, EachErrorModelReachesItsIndependentOptimum) {
  struct Case {
    int ev_type;
    Line expected;
    double tol;
  };
  for (const Case& c : {Case{2, LeastSquares(), 1e-6}, Case{1, LeastAbsoluteDeviation(), 1e-5},
                        Case{3, SmoothAbsolute(), 1e-5}}) {
    for (const char* solver : {"-asopt", "-ipopt"}) {
      const Line fit = Fit(c.ev_type, solver);
      EXPECT_NEAR(fit.a, c.expected.a, c.tol) << "EV_TYPE " << c.ev_type << " " << solver;
      EXPECT_NEAR(fit.b, c.expected.b, c.tol) << "EV_TYPE " << c.ev_type << " " << solver;
    }
  }
}

// ----- IMODE 5: the gain of tau x' = -x + K u over a moving horizon -----

const std::string kLagModel = AppModel("x = 0", "2 * $x = -x + k * u", "u = 1\nk = 1, >= 0, <= 10");
constexpr double kTau = 2.0;
const std::vector<double> kU = {1, 1, 2, 2, 2, 0.5, 0.5, 1, 1, 1, 1};
// Noisy measurements of x at t = 0..10; NaN marks an empty cell.
const std::vector<double> kMeas = {0, 0.9, 2.1, NAN, 3.9, 3.4, 2.2, NAN, 2.4, 2.35, 2.6};

// Response at the step ends to K = 1 of the collocation equations with `nodes` 2 or 3 (unit
// steps, u over step k the value of row k): x(K) = K * response, since x(0) = 0.
std::vector<double> UnitResponse(int nodes) {
  std::vector<double> s = {0.0};
  for (size_t k = 1; k < kU.size(); ++k) {
    const double x1 = s.back(), u = kU[k];
    if (nodes == 2) {
      s.push_back((x1 + u / kTau) / (1 + 1 / kTau));  // x - x1 = (-x + u)/tau
      continue;
    }
    // x2 - x1 = 0.75 d2 - 0.25 d3, x3 - x1 = d2, d = (-x + u)/tau.
    const double a11 = 1 + 0.75 / kTau, a12 = -0.25 / kTau, r1 = x1 + 0.5 * u / kTau;
    const double a21 = 1 / kTau, a22 = 1, r2 = x1 + u / kTau;
    s.push_back((a11 * r2 - a21 * r1) / (a11 * a22 - a12 * a21));
  }
  return s;
}

double LeastSquaresGain(int nodes) {
  const std::vector<double> s = UnitResponse(nodes);
  double num = 0, den = 0;
  for (size_t k = 0; k < s.size(); ++k) {
    if (std::isnan(kMeas[k])) continue;
    num += kMeas[k] * s[k], den += s[k] * s[k];
  }
  return num / den;
}

class MovingHorizon : public CycleTest {
 protected:
  void SetUp() override {
    Write("app.zpm", kLagModel);
    std::string csv = "time,u,x\n";
    for (size_t i = 0; i < kU.size(); ++i)
      csv += fmt::format("{},{},{}\n", i, kU[i], std::isnan(kMeas[i]) ? "" : fmt::format("{}", kMeas[i]));
    Write("app.csv", csv);
    Write("app.info", "FV, k\nMV, u\nCV, x\n");
  }
};

TEST_F(MovingHorizon, SquaredErrorGivesTheLeastSquaresGainOfTheDiscretisedModel) {
  for (int nodes : {2, 3}) {
    Write("app.dbs", fmt::format("ZPM.IMODE = 5\nZPM.EV_TYPE = 2\nZPM.NODES = {}\n"
                                 "ZPM.COLDSTART = 1\nk.STATUS = 1\nx.WMODEL = 0\n"
                                 "ZPM.OTOL = 1e-10\nZPM.RTOL = 1e-10\n",
                                 nodes));
    RunResult r = Run("app -ipopt");
    ASSERT_EQ(r.status, 1) << r.out;
    EXPECT_NEAR(DbsValue(Read("app.dbs"), "k.NEWVAL"), LeastSquaresGain(nodes), 1e-6)
        << "NODES " << nodes;
  }
}

// The first cycle's measurement and transfer files: golden case cycle.
TEST_F(MovingHorizon, WarmCyclesShiftTheMeasurementHistoryAndTakeTheNewMeas) {
  Write("app.dbs", "ZPM.IMODE = 5\nZPM.EV_TYPE = 2\nk.STATUS = 1\n");
  ASSERT_EQ(Run("app").status, 1);
  // Next period: only the newest measurement is written.
  Write("measurements.dbs", "x.MEAS = 2.55\n");
  RunResult r = Run("app");
  ASSERT_EQ(r.status, 1) << r.out;
  const std::string second = Read("est.meas");
  EXPECT_NE(second.find("x, 0, 0.9\n"), std::string::npos) << second;
  EXPECT_NE(second.find("x, 10, 2.55\n"), std::string::npos) << second;
}

}  // namespace
}  // namespace kx::driver

// Control objects simulated by the program (IMODE 4) against closed forms and against a
// direct simulation written here.
#include <gtest/gtest.h>

#include <array>
#include <cmath>

#include "objects_testing.h"

namespace kx::objects {
namespace {

using testing::RunModel;

// A data file with a time column 0, dt, ..., n*dt.
std::string TimeColumn(double dt, int n) {
  std::string csv = "time\n";
  for (int k = 0; k <= n; ++k) csv += std::to_string(k * dt) + "\n";
  return csv;
}

// Simulates `model` (IMODE 4) over a time column with steps dt, with the data files `files`.
testing::Run Simulate(const std::string& model, double dt, int n,
                      std::map<std::string, std::string> files = {}) {
  files["m.zpm"] = model;
  files["m.csv"] = TimeColumn(dt, n);
  files["m.dbs"] = "ZPM.IMODE = 4\nZPM.NODES = 4\n";
  testing::Run r = RunModel(files);
  EXPECT_EQ(r.status, 1) << r.out;
  r.results.try_emplace("time");
  return r;
}

// One simulation of independent parts, each against its closed form:
// - a vector of lags, each element with its own time constant (one set by a connection);
// - PIDs in open loop with a constant error: the output ramps as bias + kc (e + e t / taui);
//   clamped at op_hi, the integral does not wind up but tracks back to the limit: with
//   kc = taui = 1, e = 1 and op_hi = 3 it is t until t = 2 and 3 - exp(-(t - 2)) after;
// - a PID on a ramp pv = t: e = -t, its integral -t^2/2; the filtered derivative (filter time
//   constant taud/n_d = 0.5) of the ramp is 1 - exp(-t/0.5);
// - a PI loop on the first-order plant tau dpv/dt = op - pv, kc = 1, taui = tau: the loop is
//   then pv' = (sp - pv)/tau (pole cancellation) and pv = sp (1 - exp(-t/tau)).
TEST(LagAndPid, FollowTheirClosedForms) {
  const std::string model =
      "Objects\n f[1:2] = lag(tau=2, k=3)\n c = pid(kc=1, taui=1, op_hi=3, op_lo=-10)\n"
      " d = pid(kc=2, taui=4, bias=1)\n g = pid(kc=2, taui=4, taud=0.5, n_d=1, bias=1, "
      "op_lo=-100)\n"
      " cl = pid(kc=1, taui=2)\n plant = lag(tau=2)\nEnd Objects\n"
      "Equations\n f[1:2].u = 1\n c.pv = 0\n c.sp = 1\n d.pv = 0.5\n d.sp = 1\n $g.pv = 1\n"
      " g.sp = 0\n cl.sp = 10\nEnd Equations\n"
      "Connections\n f[2].tau = 0.5\n cl.op = plant.u\n cl.pv = plant.y\nEnd Connections\n";
  const testing::Run r = Simulate(model, 0.25, 24);
  for (size_t k = 0; k < r.results.at("time").size(); ++k) {
    const double t = r.At("time", k);
    EXPECT_NEAR(r.At("f[1].y", k), 3 * (1 - std::exp(-t / 2)), 1e-5) << t;
    EXPECT_NEAR(r.At("f[2].y", k), 3 * (1 - std::exp(-t / 0.5)), 1e-3) << t;
    EXPECT_NEAR(r.At("d.op", k), 1 + 2 * (0.5 + 0.5 * t / 4), 1e-6) << t;
    EXPECT_NEAR(r.At("c.op", k), std::min(3.0, 1 + t), 1e-6) << t;
    EXPECT_NEAR(r.At("c.ie", k), t <= 2 ? t : 3 - std::exp(-(t - 2)), 1e-4) << t;
    EXPECT_NEAR(r.At("g.op", k), 1 + 2 * (-t - t * t / 8 - 0.5 * (1 - std::exp(-t / 0.5))), 5e-4)
        << t;
    EXPECT_NEAR(r.At("plant.y", k), 10 * (1 - std::exp(-t / 2)), 1e-4) << t;
  }
}

// dx/dt = A x + B u, y = C x + D u from rest with a unit step in u, against a fine
// fourth-order Runge-Kutta simulation.
TEST(StateSpace, MatchesADirectSimulation) {
  const double a[2][2] = {{-1, 0.5}, {-0.4, -2}}, b[2] = {1, 0.3}, c[2] = {1, -2}, d = 0.5;
  const std::string model =
      "Objects\n s = lti(a.csv, b.csv, c.csv, d.csv)\nEnd Objects\nEquations\n s.u[1] = 1\nEnd "
      "Equations\n";
  const testing::Run r = Simulate(model, 0.2, 20,
                                  {{"a.csv", "-1, 0.5\n-0.4, -2\n"},
                                   {"b.csv", "1\n0.3\n"},
                                   {"c.csv", "1 -2\n"},
                                   {"d.csv", "0.5\n"}});
  using V2 = std::array<double, 2>;
  auto f = [&](const V2& x, double w, const V2& dx) {  // the right-hand side at x + w dx
    V2 out;
    for (int i = 0; i < 2; ++i)
      out[i] = a[i][0] * (x[0] + w * dx[0]) + a[i][1] * (x[1] + w * dx[1]) + b[i];
    return out;
  };
  V2 x = {0, 0};
  double t = 0;
  const double h = 1e-3;
  for (size_t k = 0; k < r.results.at("time").size(); ++k) {
    for (; t < r.At("time", k) - h / 2; t += h) {
      const V2 k1 = f(x, 0, x), k2 = f(x, h / 2, k1), k3 = f(x, h / 2, k2), k4 = f(x, h, k3);
      for (int i = 0; i < 2; ++i) x[i] += h / 6 * (k1[i] + 2 * k2[i] + 2 * k3[i] + k4[i]);
    }
    EXPECT_NEAR(r.At("s.x[1]", k), x[0], 1e-4) << t;
    EXPECT_NEAR(r.At("s.x[2]", k), x[1], 1e-4) << t;
    EXPECT_NEAR(r.At("s.y[1]", k), c[0] * x[0] + c[1] * x[1] + d, 1e-4) << t;
  }
}

}  // namespace
}  // namespace kx::objects

// The objects that tie time points of the horizon (arx, periodic), run by the program against
// the difference equation and the periodic orbit computed here.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "objects_testing.h"

namespace kx::objects {
namespace {

using testing::RunModel;

constexpr int kSteps = 10;
constexpr double kDt = 0.5;

double Input(int k) { return std::sin(k) + (k > 3 ? 1.0 : 0.0); }

std::string InputFile() {
  std::string csv = "time,uin\n";
  for (int k = 0; k <= kSteps; ++k) csv += fmt::format("{},{}\n", k * kDt, Input(k));
  return csv;
}

// y(k) = sum a_i y(k-i) + sum b_j u(k-j) + c, samples before 0 held at sample 0; y(0) is
// `y0`, or at rest when `y0` is NaN.
std::vector<double> SimulateArx(const std::vector<double>& a, const std::vector<double>& b,
                                double c, const std::vector<double>& u, double y0 = NAN) {
  double sa = 0, sb = 0;
  for (double v : a) sa += v;
  for (double v : b) sb += v;
  std::vector<double> y = {std::isnan(y0) ? (sb * u[0] + c) / (1 - sa) : y0};
  for (int k = 1; k <= kSteps; ++k) {
    double next = c;
    for (size_t i = 0; i < a.size(); ++i) next += a[i] * y[std::max<int>(k - 1 - i, 0)];
    for (size_t j = 0; j < b.size(); ++j) next += b[j] * u[std::max<int>(k - 1 - j, 0)];
    y.push_back(next);
  }
  return y;
}

struct ArxCase {
  const char* a_file;  // file texts: rows or columns
  const char* b_file;
  std::vector<double> a, b;
  double c;
  int imode, nodes;
  int rest;  // 0: y(0) is the declared 2 (s[1]) or 0 (s[2]); 1: at rest
};

// Two objects in a vector, the second driven by the first's output; the first's y is a
// declared variable of value 2. z' = y integrates the
// output: with NODES = 3 the collocation row of the step end weighs the
// middle node only (M row 3 = [1, 0]), so z(k) - z(k-1) = dt y(middle of step k), which is
// y(k-1) when y holds its value through the step.
TEST(Arx, FollowsTheDifferenceEquationOverTheHorizon) {
  const std::vector<ArxCase> cases = {
      {"0.6\n-0.1\n", "0.5, 0.2\n", {0.6, -0.1}, {0.5, 0.2}, 0.3, 4, 2, 1},
      {"0.6 -0.1\n", "0.5\n0.2\n", {0.6, -0.1}, {0.5, 0.2}, 0.3, 4, 3, 1},
      {"0\n", "1.5\n", {0}, {1.5}, 0, 4, 2, 1},
      {"0.9, 0, -0.2\n", "0, -0.4\n", {0.9, 0, -0.2}, {0, -0.4}, 1, 7, 3, 1},  // step by step
      {"0.6 -0.1\n", "0.5 0.2\n", {0.6, -0.1}, {0.5, 0.2}, 0.3, 7, 3, 0},
      {"0.9, 0, -0.2\n", "0, -0.4\n", {0.9, 0, -0.2}, {0, -0.4}, 1, 4, 3, 0},
  };
  for (const ArxCase& t : cases) {
    const std::string model = fmt::format(
        "Parameters\n uin = 0\nEnd Parameters\nVariables\n z = 0\n yv = 2\nEnd Variables\n"
        "Objects\n s[1:2] = arx(a.txt, b.txt, c={}, rest={})\nEnd Objects\n"
        "Connections\n s[1].y = yv\nEnd Connections\n"
        "Equations\n s[1].u = uin\n s[2].u = s[1].y\n $z = s[1].y\nEnd Equations\n",
        t.c, t.rest);
    const testing::Run r =
        RunModel({{"m.zpm", model},
                  {"a.txt", t.a_file},
                  {"b.txt", t.b_file},
                  {"m.csv", InputFile()},
                  {"m.dbs", fmt::format("ZPM.IMODE = {}\nZPM.NODES = {}\n", t.imode, t.nodes)}});
    ASSERT_EQ(r.status, 1) << t.a_file << r.out;
    EXPECT_FALSE(r.Has("steps differ in length")) << r.out;
    std::vector<double> u;
    for (int k = 0; k <= kSteps; ++k) u.push_back(Input(k));
    const std::vector<double> y = SimulateArx(t.a, t.b, t.c, u, t.rest ? NAN : 2.0);
    const std::vector<double> y2 = SimulateArx(t.a, t.b, t.c, y, t.rest ? NAN : 0.0);
    double z = 0;
    for (int k = 0; k <= kSteps; ++k) {
      EXPECT_NEAR(r.At("yv", k), y[k], 1e-8) << t.a_file << t.rest << " k = " << k;
      EXPECT_NEAR(r.At("s[2].y", k), y2[k], 1e-7) << t.a_file << t.rest << " k = " << k;
      if (t.nodes == 3) {
        EXPECT_NEAR(r.At("z", k), z, 1e-8) << t.a_file << " k = " << k;
      }
      z += kDt * y[k];
    }
  }
}

// With rest = 0 the output's start is an initial condition: the next cycle starts from the
// previous one's value one step on (TIME_SHIFT), and holds it before the start.
TEST(Arx, StartValueMovesOnWithTheRestartFile) {
  kx::testing::ScratchDir dir("kx_objects");
  dir.Write("m.zpm",
            "Parameters\n uin = 0\nEnd Parameters\nVariables\n yv = 2\nEnd Variables\n"
            "Objects\n s = arx(a.txt, b.txt, c=0.3, rest=0)\nEnd Objects\n"
            "Connections\n s.y = yv\nEnd Connections\nEquations\n s.u = uin\nEnd Equations\n");
  dir.Write("a.txt", "0.6 -0.1\n");
  dir.Write("b.txt", "0.5 0.2\n");
  dir.Write("m.csv", InputFile());
  dir.Write("m.dbs", "ZPM.IMODE = 4\nZPM.NODES = 2\n");
  std::vector<double> u;
  for (int k = 0; k <= kSteps; ++k) u.push_back(Input(k));
  double y0 = 2;
  for (int cycle = 1; cycle <= 2; ++cycle) {
    ASSERT_EQ(driver::RunIn(dir, "m").status, 1) << cycle;
    const std::vector<double> y = SimulateArx({0.6, -0.1}, {0.5, 0.2}, 0.3, u, y0);
    const std::vector<double> got = testing::ReadResults(dir.Read("results.csv")).at("yv");
    ASSERT_EQ(got.size(), y.size());
    for (int k = 0; k <= kSteps; ++k) EXPECT_NEAR(got[k], y[k], 1e-8) << cycle << " k = " << k;
    y0 = y[1];
  }
}

// Steps of different lengths, one sample each after a warning: golden case cycle.

// In a steady-state mode arx is y (1 - sum a) = (sum b) u + c, and periodic adds nothing.
TEST(CrossTimeObjects, SteadyStateFormsStandAlone) {
  const std::string model =
      "Variables\n x = 0\nEnd Variables\n"
      "Objects\n s = arx(a.txt, b.txt, c=0.3)\n p = periodic\nEnd Objects\n"
      "Connections\n p.x = x\nEnd Connections\n"
      "Equations\n s.u = 2\n $x = -0.5*x + 1\nEnd Equations\n";
  const testing::Run r = RunModel({{"m.zpm", model},
                                   {"a.txt", "0.6 -0.1\n"},
                                   {"b.txt", "0.5 0.2\n"},
                                   {"m.dbs", "ZPM.IMODE = 1\n"}});
  ASSERT_EQ(r.status, 1) << r.out;
  EXPECT_NEAR(r.At("s.y"), (0.7 * 2 + 0.3) / 0.5, 1e-8);
  EXPECT_NEAR(r.At("x"), 2, 1e-8);
}

// x' = -x/2 + u(t) over one period of u, its initial value free: the periodic orbit of the
// implicit Euler steps, x(0) = B / (1 - A) where x(end) = A x(0) + B.
TEST(Periodic, SimulationFindsThePeriodicOrbit) {
  constexpr double kStep = 0.6;
  auto u = [](int k) { return std::sin(2 * M_PI * k / kSteps) + 1; };
  std::string csv = "time,u\n";
  for (int k = 0; k <= kSteps; ++k) csv += fmt::format("{},{}\n", k * kStep, u(k));
  auto orbit = [&](double x0) {
    std::vector<double> x = {x0};
    for (int k = 1; k <= kSteps; ++k) x.push_back((x.back() + kStep * u(k)) / (1 + kStep / 2));
    return x;
  };
  const double b = orbit(0).back(), a = orbit(1).back() - b;
  const std::vector<double> x = orbit(b / (1 - a));
  const std::string model =
      "Parameters\n u = 0\nEnd Parameters\nVariables\n x = 0\nEnd Variables\n"
      "Objects\n p = periodic\nEnd Objects\nConnections\n p.x = x\nEnd Connections\n"
      "Equations\n $x = -0.5*x + u\nEnd Equations\n";
  const testing::Run r =
      RunModel({{"m.zpm", model}, {"m.csv", csv}, {"m.dbs", "ZPM.IMODE = 4\nZPM.NODES = 2\n"}});
  ASSERT_EQ(r.status, 1) << r.out;
  EXPECT_NEAR(r.At("x", kSteps), r.At("x", 0), 1e-9);
  for (int k = 0; k <= kSteps; ++k) EXPECT_NEAR(r.At("x", k), x[k], 1e-8) << k;
}

// A tank whose inflow (an MV) tracks a level target over one period: the periodic level ends
// where it starts, at a start the optimiser chooses (the declared 4 is not on the orbit), in
// the simultaneous solve (IMODE 6) and the single shooting (IMODE 9) alike.
TEST(Periodic, DynamicOptimisationEndsWhereItStarts) {
  const std::string model =
      "Parameters\n inflow = 1, >= 0, <= 3\n target = 4\nEnd Parameters\n"
      "Variables\n level = 4, >= 0\n outflow = 1\nEnd Variables\n"
      "Objects\n p = periodic\nEnd Objects\nConnections\n p.x = level\nEnd Connections\n"
      "Equations\n outflow = 0.5*sqrt(level)\n 0.5*$level = inflow - outflow\n"
      " minimize (level - target)^2\nEnd Equations\n";
  std::string csv = "time,target\n";
  for (int k = 0; k <= 12; ++k)
    csv += fmt::format("{},{}\n", k * 0.5, 3.5 + std::sin(M_PI * k / 6));
  for (int imode : {6, 9}) {
    const testing::Run r = RunModel(
        {{"m.zpm", model},
         {"m.csv", csv},
         {"m.info", "MV, inflow\n"},
         {"m.dbs", fmt::format("ZPM.IMODE = {}\nZPM.NODES = 3\ninflow.STATUS = 1\n", imode)}});
    ASSERT_EQ(r.status, 1) << r.out;
    EXPECT_NEAR(r.At("level", 12), r.At("level", 0), 1e-6) << imode;
    EXPECT_GT(std::abs(r.At("level", 0) - 4), 0.1) << imode;
  }
}

}  // namespace
}  // namespace kx::objects

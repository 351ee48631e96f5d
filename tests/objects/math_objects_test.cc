// Mathematical objects against independent references: complementarity forms solved by the
// program, interpolation written out here, the spline's defining properties, linear algebra
// solved here.
#include <gtest/gtest.h>

#include <cmath>

#include "objects_testing.h"

namespace kx::objects {
namespace {

using kx::testing::ScratchDir;
using testing::EvalAt;
using testing::Prepare;
using testing::RunModel;

std::string Curve(const std::string& type_text, const ScratchDir& dir,
                  const char* key = "{curve}") {
  ObjectInstance o = Prepare(type_text, dir.str());
  return InstantiateText(key, o, *FindObjectType(o.type), 0);
}

// Linear interpolation between the points, end slopes continued.
double Interpolate(const std::vector<double>& x, const std::vector<double>& y, double at) {
  size_t k = 0;
  while (k + 2 < x.size() && at > x[k + 1]) ++k;
  return y[k] + (y[k + 1] - y[k]) * (at - x[k]) / (x[k + 1] - x[k]);
}

TEST(Spline, PassesThroughItsKnotsWithContinuousSlopeAndCurvature) {
  ScratchDir dir;
  const std::vector<double> x = {-1, 0.5, 1, 3, 3.5, 6}, y = {2, -1, 0.5, 4, 3, -2};
  std::string text = "x, y\n";
  for (size_t k = 0; k < x.size(); ++k)
    text += std::to_string(x[k]) + ", " + std::to_string(y[k]) + "\n";
  dir.Write("knots.csv", text);
  const std::string s = Curve("cspline(knots.csv)", dir);
  const double h = 1e-4;
  // One-sided differences at a, to the right (side 1) or to the left (side -1).
  auto slope = [&](double a, int side) {
    return side * (EvalAt(s, a + side * h) - EvalAt(s, a)) / h;
  };
  auto curv = [&](double a, int side) {
    return (EvalAt(s, a + 2 * side * h) - 2 * EvalAt(s, a + side * h) + EvalAt(s, a)) / (h * h);
  };
  for (size_t k = 0; k < x.size(); ++k) {
    EXPECT_NEAR(EvalAt(s, x[k]), y[k], 1e-12) << "knot " << k;
    if (k == 0 || k + 1 == x.size()) continue;
    EXPECT_NEAR(slope(x[k], -1), slope(x[k], 1), 1e-2) << "slope at knot " << k;
    EXPECT_NEAR(curv(x[k], -1), curv(x[k], 1), 0.05) << "curvature at knot " << k;
  }
  // Natural ends: no curvature at the first and last knot.
  EXPECT_NEAR(curv(x.front(), 1), 0, 0.05);
  EXPECT_NEAR(curv(x.back(), -1), 0, 0.05);
}

TEST(Spline, ReproducesAStraightLineAndReadsKnotsAndValuesFromTwoFiles) {
  ScratchDir dir;
  dir.Write("k.csv", "0 1 2.5 4\n");
  dir.Write("v.csv", "1\n3\n6\n9\n");
  const std::string s = Curve("cspline(k.csv, v.csv)", dir);
  for (double a : {-1.0, 0.3, 1.7, 3.9, 5.0}) EXPECT_NEAR(EvalAt(s, a), 1 + 2 * a, 1e-12) << a;
}

// Both interpolate linearly and continue the end slopes; pwl reads the first value column.
TEST(PiecewiseLinearAndLookup, InterpolateEveryColumn) {
  ScratchDir dir;
  const std::vector<double> x = {10, 20, 25, 40};
  const std::vector<std::vector<double>> ys = {{1, 2, 3, 4}, {0, -5, -1, 5}};
  dir.Write("t.csv", "x y1 y2\n10 1 0\n20 2 -5\n25 3 -1\n40 4 5\n");
  const std::string pwl = Curve("pwl(t.csv)", dir);
  ObjectInstance o = Prepare("table(t.csv)", dir.str());
  EXPECT_EQ(o.numbers.at("m"), 2);
  for (int j = 1; j <= 2; ++j) {
    const std::string s = InstantiateText("{curve[i]}", o, *FindObjectType("lookup"), j);
    for (double a : {5.0, 10.0, 15.0, 20.0, 22.0, 33.0, 40.0, 50.0}) {
      EXPECT_NEAR(EvalAt(s, a), Interpolate(x, ys[j - 1], a), 1e-12) << j << " at " << a;
      if (j == 1) {
        EXPECT_NEAR(EvalAt(pwl, a), Interpolate(x, ys[0], a), 1e-12) << a;
      }
    }
  }
}

// Each form solved by the program on both sides of the switching point: the smooth
// complementarity form with the built-in SQP and with Ipopt, the integer form with branch
// and bound (ASOPT).
TEST(Complementarity, AbsMaxMinSignOnBothSides) {
  struct Case {
    const char* declaration;
    const char* inputs;  // equations fixing the inputs
    double y;
  };
  const Case kCases[] = {
      {"o = abs", "o.x = -2.5", 2.5},
      {"o = abs", "o.x = 1.75", 1.75},
      {"o = max", "o.x1 = -1\n o.x2 = 3", 3},
      {"o = max", "o.x1 = 4\n o.x2 = -3", 4},
      {"o = min", "o.x1 = -1\n o.x2 = 3", -1},
      {"o = min", "o.x1 = 4\n o.x2 = -3", -3},
      {"o = sign", "o.x = -4", -1},
      {"o = sign", "o.x = 0.5", 1},
  };
  for (const Case& c : kCases) {
    for (const char* form : {"", "(integer=1)"}) {
      for (int solver : {1, 3}) {
        if (form[0] != '\0' && solver != 1) continue;  // Ipopt solves only the relaxation
        const std::string model = std::string("Objects\n ") + c.declaration + form +
                                  "\nEnd Objects\nEquations\n " + c.inputs + "\nEnd Equations\n";
        const testing::Run r =
            RunModel({{"m.zpm", model},
                      {"m.dbs", "ZPM.IMODE = 3\nZPM.SOLVER = " + std::to_string(solver) + "\n"}});
        ASSERT_EQ(r.status, 1) << model << r.out;
        EXPECT_NEAR(r.At("o.y"), c.y, 1e-5) << model << " solver " << solver;
      }
    }
  }
}

TEST(LinearObjects, SumAxbAndQuadraticObjectiveAgainstDirectSolutions) {
  // A x = b with A = [[4, 1, 0], [1, 3, -1], [0, -1, 2]], b = [1, 2, 3]; the solution was
  // found by elimination: x3 = (3 + x2)/2, then 4 x1 + x2 = 1 and x1 + 2.5 x2 = 3.5.
  const double x2 = (3.5 - 0.25) / (2.5 - 0.25), x1 = (1 - x2) / 4, x3 = (3 + x2) / 2;
  // minimize 1/2 x'Qx + c'x with Q = [[2, 1], [1, 4]], c = [-1, 2]: Q x = -c.
  const double det = 2 * 4 - 1 * 1, q1 = (4 * 1 - 1 * -2) / det, q2 = (2 * -2 - 1 * 1) / det;
  const std::string model =
      "Objects\n s = sum(3)\n l = axb(a.csv, b.csv)\n q = qobj(q.csv, c.csv)\nEnd Objects\n"
      "Equations\n s.x[1:3] = l.x[1:3]\nEnd Equations\n";
  const testing::Run r = RunModel({{"m.zpm", model},
                                   {"a.csv", "4 1 0\n1 3 -1\n0 -1 2\n"},
                                   {"b.csv", "1 2 3\n"},
                                   {"q.csv", "2 1\n1 4\n"},
                                   {"c.csv", "-1\n2\n"},
                                   {"m.dbs", "ZPM.IMODE = 3\n"}});
  ASSERT_EQ(r.status, 1) << r.out;
  EXPECT_NEAR(r.At("l.x[1]"), x1, 1e-8);
  EXPECT_NEAR(r.At("l.x[2]"), x2, 1e-8);
  EXPECT_NEAR(r.At("l.x[3]"), x3, 1e-8);
  EXPECT_NEAR(r.At("s.y"), x1 + x2 + x3, 1e-8);
  EXPECT_NEAR(r.At("q.x[1]"), q1, 1e-6);
  EXPECT_NEAR(r.At("q.x[2]"), q2, 1e-6);
  EXPECT_NEAR(r.At("q.f"), 0.5 * (2 * q1 * q1 + 2 * q1 * q2 + 4 * q2 * q2) - q1 + 2 * q2, 1e-6);
}

}  // namespace
}  // namespace kx::objects

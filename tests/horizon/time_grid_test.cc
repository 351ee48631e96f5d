// The data file reader, the horizon settings and the time grid (its stops and printed lines:
// golden case time-grid).
#include "horizon/time_grid.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "base/report.h"
#include "horizon/collocation.h"
#include "testing/dense_solve.h"

namespace kx::horizon {
namespace {

using Lines = std::vector<std::string>;

TEST(DataFile, ReadsNamesRowsAndNoValueCells) {
  DataFile d = ParseDataFile(
      " \"Time\" , Feed ,\"T C\"\r\n0, 1.5d0, 2\n\n1,,nan\r\n2.5, - ,NaN\n3,4\n", "app.csv");
  EXPECT_EQ(d.columns, (Lines{"time", "feed", "tc"}));
  ASSERT_EQ(d.num_rows, 4);
  EXPECT_EQ(d.At(0, 1), 1.5);
  EXPECT_EQ(d.At(2, 0), 2.5);
  for (auto [r, c] : std::vector<std::pair<int, int>>{{1, 1}, {1, 2}, {2, 1}, {2, 2}, {3, 2}}) {
    EXPECT_TRUE(DataFile::IsNoValue(d.At(r, c))) << r << "," << c;
  }
  EXPECT_EQ(d.Column("feed"), 1);
  EXPECT_EQ(d.Column("missing"), -1);
  // A text cell is no value too (its warning, one for the file: golden case time-grid).
  OutputCapture quiet;
  DataFile t = ParseDataFile("time,u\n0,abc\n1,xyz\n", "app.csv");
  EXPECT_TRUE(DataFile::IsNoValue(t.At(0, 1)));
  EXPECT_TRUE(DataFile::IsNoValue(t.At(1, 1)));
}

// The steps and times a grid takes from the options are the golden case time-grid.
TEST(TimeGrid, PointsAreNamedByStepAndNode) {
  HorizonSettings s;
  s.nodes = 3;
  s.pred_hor = 4;
  OutputCapture quiet;
  TimeGrid g = BuildTimeGrid(s, nullptr);
  // The step boundary belongs to the earlier step as its last node.
  EXPECT_EQ(g.StepOf(0), 1);
  EXPECT_EQ(g.NodeOf(0), 1);
  EXPECT_EQ(g.StepOf(2), 1);
  EXPECT_EQ(g.NodeOf(2), 3);
  EXPECT_EQ(g.StepOf(3), 2);
  EXPECT_EQ(g.NodeOf(3), 2);
  EXPECT_EQ(g.Point(2, 1), 2);
}

// The steps and interior times data rows give: golden case time-grid.
TEST(TimeGrid, DataRowsGiveTheStepsAndTheirRows) {
  HorizonSettings s;
  s.nodes = 4;
  s.pred_hor = 99;  // ignored: the data sets the horizon
  DataFile d = ParseDataFile("x,time\n5,0\n6,0.5\n7,2\n", "app.csv");
  OutputCapture quiet;
  TimeGrid g = BuildTimeGrid(s, &d);
  EXPECT_TRUE(g.from_data);
  EXPECT_EQ(g.ctrl_hor, 2);
  ASSERT_EQ(g.num_points(), 7);
  EXPECT_EQ(g.RowOf(3), 1);
  EXPECT_EQ(g.RowOf(4), -1);
  s.csv_read = 0;  // the data is not looked at: the options give the horizon
  s.pred_hor = 2;
  EXPECT_EQ(BuildTimeGrid(s, &d).num_steps(), 2);
}

// The Lobatto positions and the collocation matrices, checked against an independent
// construction: positions as roots of the Legendre derivative, M as the inverse of the
// differentiation matrix restricted to the non-initial nodes, rounded to single precision.

// Derivative of the Legendre polynomial of degree n at x, by the three-term recurrence.
double LegendreDerivative(int n, double x) {
  double p0 = 1, p1 = x, d0 = 0, d1 = 1;
  if (n == 0) return 0;
  for (int k = 2; k <= n; ++k) {
    double p2 = ((2 * k - 1) * x * p1 - (k - 1) * p0) / k;
    double d2 = d0 + (2 * k - 1) * p1;
    p0 = p1, p1 = p2, d0 = d1, d1 = d2;
  }
  return d1;
}

// Interior Lobatto points on [0, 1]: sign changes of P'_{nodes-1} found on a fine grid and
// refined by bisection.
std::vector<double> IndependentPositions(int nodes) {
  std::vector<double> pos = {0.0};
  const int kGrid = 10000;
  for (int g = 0; g < kGrid; ++g) {
    double a = -1 + 2.0 * g / kGrid, b = -1 + 2.0 * (g + 1) / kGrid;
    double fa = LegendreDerivative(nodes - 1, a), fb = LegendreDerivative(nodes - 1, b);
    if (fa == 0 && g > 0) pos.push_back((1 + a) / 2);
    if (fa * fb >= 0) continue;
    for (int it = 0; it < 200; ++it) {
      double mid = (a + b) / 2, fm = LegendreDerivative(nodes - 1, mid);
      (fa * fm <= 0 ? b : a) = mid;
      if (fa * fm > 0) fa = fm;
    }
    pos.push_back((1 + (a + b) / 2) / 2);
  }
  pos.push_back(1.0);
  return pos;
}

// Exact M: inverse of the Lagrange differentiation matrix without its first row and column.
std::vector<double> ExactCollocationMatrix(const std::vector<double>& t) {
  int n = static_cast<int>(t.size()), m = n - 1;
  std::vector<long double> w(n, 1.0L);
  for (int j = 0; j < n; ++j) {
    for (int k = 0; k < n; ++k) {
      if (k != j) w[j] /= (t[j] - t[k]);
    }
  }
  // D22: the differentiation matrix without its first row and column; M = D22^-1 by columns.
  std::vector<long double> d(m * m, 0);
  for (int i = 1; i < n; ++i) {
    for (int j = 0; j < n; ++j) {
      if (j == i) continue;
      const long double dij = (w[j] / w[i]) / (t[i] - t[j]);
      d[(i - 1) * m + i - 1] -= dij;
      if (j > 0) d[(i - 1) * m + j - 1] = dij;
    }
  }
  std::vector<double> inv(m * m);
  for (int k = 0; k < m; ++k) {
    std::vector<long double> e(m, 0);
    e[k] = 1;
    const std::vector<long double> col = kx::testing::SolveDense(d, e);
    for (int r = 0; r < m; ++r) inv[r * m + k] = static_cast<double>(col[r]);
  }
  return inv;
}

TEST(Collocation, PositionsAreTheLobattoPoints) {
  for (int nodes = kMinNodes; nodes <= kMaxNodes; ++nodes) {
    std::vector<double> expected = IndependentPositions(nodes);
    std::vector<double> pos = LobattoPositions(nodes);
    ASSERT_EQ(pos.size(), expected.size()) << "nodes " << nodes;
    for (size_t k = 0; k < pos.size(); ++k) {
      EXPECT_NEAR(pos[k], expected[k], 1e-13) << "nodes " << nodes << " node " << k + 1;
    }
  }
}

TEST(Collocation, MatrixHoldsSinglePrecisionRoundingOfTheExactInverse) {
  for (int nodes = kMinNodes; nodes <= kMaxNodes; ++nodes) {
    std::vector<double> exact = ExactCollocationMatrix(IndependentPositions(nodes));
    std::vector<double> m = CollocationMatrix(nodes);
    ASSERT_EQ(m.size(), exact.size());
    for (size_t k = 0; k < m.size(); ++k) {
      bool last_of_five = nodes == 5 && k + 1 == m.size();
      // The 5-node last entry is zero up to rounding and is held as exactly 0.
      double want = last_of_five ? 0.0 : static_cast<double>(static_cast<float>(exact[k]));
      EXPECT_EQ(m[k], want) << "nodes " << nodes << " entry " << k << " exact " << exact[k];
    }
  }
  // The single-precision value differs from the exact one: the rounding is kept on purpose.
  EXPECT_EQ(CollocationMatrix(4)[0], 0.43633899092674255);
  EXPECT_NE(CollocationMatrix(4)[0], 0.436338998074);
}

}  // namespace
}  // namespace kx::horizon

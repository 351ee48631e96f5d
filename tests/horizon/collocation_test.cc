// The Lobatto positions and the collocation matrices, checked against an independent
// construction: positions as roots of the Legendre derivative, M as the inverse of the
// differentiation matrix restricted to the non-initial nodes, rounded to single precision.
#include "horizon/collocation.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "testing/stop_lines.h"

namespace kx::horizon {
namespace {

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
  // Augmented [D22 | I], Gauss-Jordan with partial pivoting.
  std::vector<std::vector<long double>> a(m, std::vector<long double>(2 * m, 0));
  for (int i = 1; i < n; ++i) {
    long double diag = 0;
    for (int j = 0; j < n; ++j) {
      if (j == i) continue;
      long double dij = (w[j] / w[i]) / (t[i] - t[j]);
      diag -= dij;
      if (j > 0) a[i - 1][j - 1] = dij;
    }
    a[i - 1][i - 1] = diag;
    a[i - 1][m + i - 1] = 1;
  }
  for (int c = 0; c < m; ++c) {
    int piv = c;
    for (int r = c + 1; r < m; ++r) {
      if (std::fabs(a[r][c]) > std::fabs(a[piv][c])) piv = r;
    }
    std::swap(a[c], a[piv]);
    for (int r = 0; r < m; ++r) {
      if (r == c) continue;
      long double f = a[r][c] / a[c][c];
      for (int k = 0; k < 2 * m; ++k) a[r][k] -= f * a[c][k];
    }
  }
  std::vector<double> inv(m * m);
  for (int r = 0; r < m; ++r) {
    for (int k = 0; k < m; ++k) inv[r * m + k] = static_cast<double>(a[r][m + k] / a[r][r]);
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

TEST(Collocation, NodeCountOutsideTwoToSixStops) {
  for (int nodes : {1, 7, 0, -3}) {
    auto lines = testing::StopLines([&] { CollocationMatrix(nodes); });
    std::vector<std::string> want = {fmt::format("Lobatto Order {} is not available", nodes),
                                     "Stopping. . ."};
    EXPECT_EQ(lines, want);
  }
}

}  // namespace
}  // namespace kx::horizon

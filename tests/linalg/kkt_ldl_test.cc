#include "linalg/kkt_ldl.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

namespace kx::linalg {
namespace {

// A symmetric matrix as lower-triangle triplets (a position may repeat: the values add).
struct Triplets {
  explicit Triplets(int size) : n(size) {}
  int n = 0;
  std::vector<int> rows, cols;
  std::vector<double> values;
  void Add(int r, int c, double v) {
    rows.push_back(std::max(r, c));
    cols.push_back(std::min(r, c));
    values.push_back(v);
  }
  std::vector<double> Times(const std::vector<double>& x) const {
    std::vector<double> y(n, 0.0);
    for (size_t k = 0; k < values.size(); ++k) {
      y[rows[k]] += values[k] * x[cols[k]];
      if (rows[k] != cols[k]) y[cols[k]] += values[k] * x[rows[k]];
    }
    return y;
  }
};

TEST(KktLdl, ReportsInertia) {
  struct Case {
    const char* name;
    Triplets matrix;
    int negative;
    bool singular;
  };
  Triplets kkt{3};  // [2 0 1; 0 1 1; 1 1 0]: two positive, one negative eigenvalue
  kkt.Add(0, 0, 2.0);
  kkt.Add(1, 1, 1.0);
  kkt.Add(2, 0, 1.0);
  kkt.Add(2, 1, 1.0);
  Triplets split{2};  // a diagonal given in two pieces that cancel to an indefinite 2x2
  split.Add(0, 0, 1.0);
  split.Add(0, 0, -3.0);
  split.Add(1, 1, 4.0);
  Triplets singular{2};  // [1 1; 1 1]
  singular.Add(0, 0, 1.0);
  singular.Add(1, 0, 1.0);
  singular.Add(1, 1, 1.0);
  const Case cases[] = {{"kkt", kkt, 1, false}, {"repeated", split, 1, false},
                        {"singular", singular, 0, true}};
  for (const Case& c : cases) {
    KktLdl ldl;
    ASSERT_TRUE(ldl.Factor(c.matrix.n, c.matrix.rows, c.matrix.cols, c.matrix.values)) << c.name;
    EXPECT_EQ(ldl.num_negative(), c.negative) << c.name;
    EXPECT_EQ(ldl.num_null() > 0, c.singular) << c.name;
  }
}

// The KKT matrix of an active-set step on a discretised control problem: second differences
// with a mesh factor 1/(n-1)^2 on the control, curvature 2 on the state and 2e-3 on the
// control, most controls fixed on a bound (unit rows). Its solution has multipliers of order
// 1e5 against a right-hand side of order 1; the linearised rows must still be met to
// rounding level, which a single solve misses by orders of magnitude.
TEST(KktLdl, SolvesBadlyScaledSystemsToRoundingLevel) {
  const int n = 2000;
  const double h2 = 1.0 / ((n - 1.0) * (n - 1.0));
  Triplets k{3 * n};  // u: 0..n-1, v: n..2n-1, rows: 2n..3n-1
  for (int i = 0; i < n; ++i) {
    k.Add(i, i, 2.0);
    const bool fixed = (i % 30) != 0;
    k.Add(n + i, n + i, fixed ? 1.0 : 2e-3 + 1e-8);
    k.Add(i, i, 1e-8);
    const int row = 2 * n + i;
    if (i == 0 || i == n - 1) {
      k.Add(row, i, 1.0);
      continue;
    }
    k.Add(row, i - 1, 1.0);
    k.Add(row, i, -2.0 + h2);
    k.Add(row, i + 1, 1.0);
    k.Add(row, n + i, fixed ? 0.0 : -h2);
  }
  std::vector<double> b(3 * n);
  for (int i = 0; i < 3 * n; ++i) b[i] = i < n ? -1.0 : i < 2 * n ? 0.0 : 1e-9 * (i % 7);
  KktLdl ldl;
  ASSERT_TRUE(ldl.Factor(k.n, k.rows, k.cols, k.values));
  EXPECT_EQ(ldl.num_negative(), n);
  std::vector<double> x = b;
  ASSERT_TRUE(ldl.Solve(x));
  const std::vector<double> kx = k.Times(x);
  double residual = 0.0, xmax = 0.0;
  for (int i = 0; i < 3 * n; ++i) xmax = std::max(xmax, std::abs(x[i]));
  for (int i = 2 * n; i < 3 * n; ++i) residual = std::max(residual, std::abs(kx[i] - b[i]));
  EXPECT_GT(xmax, 1e4);  // the large multipliers that make the system hard
  EXPECT_LE(residual, 1e-13) << "largest solution entry " << xmax;
}

}  // namespace
}  // namespace kx::linalg

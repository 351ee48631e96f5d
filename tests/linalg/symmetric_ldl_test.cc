#include "linalg/symmetric_ldl.h"

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

// Full row-major matrix to lower triplets; the whole lower triangle stays in the pattern.
Triplets FromDense(int n, const std::vector<double>& a) {
  Triplets t{n};
  for (int i = 0; i < n; ++i) {
    for (int j = 0; j <= i; ++j) t.Add(i, j, a[i * n + j]);
  }
  return t;
}

// The dense factorisation, the sparse one with null-pivot detection (the active-set QP) and
// the sparse one relying on the library's singularity test (the interior-point method).
const LdlSettings kFactorisations[] = {
    {.dense_limit = 10},
    {.detect_null_pivots = true},
    {.pivot_threshold = 1e-6, .transversal_ordering = false, .workspace_percent = 100},
};

TEST(SymmetricLdl, ReportsInertiaAndSingularityOnEveryFactorisation) {
  struct Case {
    const char* name;
    int n;
    std::vector<double> dense;
    int negative;
    bool singular;
  };
  const Case cases[] = {
      {"positive diagonal", 3, {2, 0, 0, 0, 3, 0, 0, 0, 4}, 0, false},
      {"mixed diagonal", 3, {2, 0, 0, 0, -3, 0, 0, 0, -4}, 2, false},
      {"indefinite 2x2", 2, {1, 2, 2, 1}, 1, false},  // eigenvalues 3 and -1
      {"saddle point", 3, {1, 0, 1, 0, 1, 1, 1, 1, 0}, 1, false},
      // Two identical constraint rows make the saddle-point matrix singular.
      {"rank-deficient saddle", 4, {1, 0, 1, 1, 0, 1, 1, 1, 1, 1, 0, 0, 1, 1, 0, 0}, 1, true},
      {"rank one", 2, {1, 1, 1, 1}, 0, true},
      {"zero matrix", 2, {0, 0, 0, 0}, 0, true},
  };
  for (const LdlSettings& settings : kFactorisations) {
    for (const Case& c : cases) {
      SCOPED_TRACE(::testing::Message() << c.name << ", dense limit " << settings.dense_limit
                                        << ", null pivots " << settings.detect_null_pivots);
      Triplets t = FromDense(c.n, c.dense);
      t.Add(0, 0, 5.0), t.Add(0, 0, -5.0);  // a repeated position: the values add
      SymmetricLdl ldl(settings);
      const FactorOutcome outcome = ldl.Factor(t.n, t.rows, t.cols, t.values);
      ASSERT_NE(outcome, FactorOutcome::kFailed);
      EXPECT_EQ(outcome == FactorOutcome::kSingular, c.singular);
      if (!c.singular) {
        EXPECT_EQ(ldl.num_negative(), c.negative);
      }
    }
  }
}

// A tridiagonal indefinite matrix refactorised with new values against one analysis (once
// given through its upper triangle): every solution reproduces its right-hand side. An empty
// system is trivial.
TEST(SymmetricLdl, SolvesAccuratelyAfterRefactorisation) {
  const int n = 200;
  for (const LdlSettings& settings : kFactorisations) {
    SymmetricLdl ldl(settings);
    for (double shift : {4.0, -4.0, 0.5}) {
      SCOPED_TRACE(shift);
      Triplets t{n};
      std::vector<double> diag(n);
      for (int i = 0; i < n; ++i) {
        diag[i] = (i % 2 == 0 ? shift : -shift) + 0.01 * i;
        t.Add(i, i, diag[i] / 2);
        t.Add(i, i, diag[i] / 2);
        if (i > 0) t.Add(i, i - 1, 1.0);
      }
      std::vector<double> x_true(n);
      for (int i = 0; i < n; ++i) x_true[i] = std::sin(i + 1.0);
      std::vector<double> b = t.Times(x_true);
      if (shift < 0) std::swap(t.rows, t.cols);  // the same matrix through its upper triangle
      ASSERT_NE(ldl.Factor(n, t.rows, t.cols, t.values), FactorOutcome::kFailed);
      ASSERT_TRUE(ldl.Solve(b));
      for (int i = 0; i < n; ++i) ASSERT_NEAR(b[i], x_true[i], 1e-9) << "at " << i;
    }
    EXPECT_EQ(ldl.Factor(0, {}, {}, {}), FactorOutcome::kOk);
    EXPECT_EQ(ldl.num_negative(), 0);
    std::vector<double> none;
    EXPECT_TRUE(ldl.Solve(none));
  }
}

// The KKT matrix of an active-set step on a discretised control problem: second differences
// with a mesh factor 1/(n-1)^2 on the control, curvature 2 on the state and 2e-3 on the
// control, most controls fixed on a bound (unit rows). Its solution has multipliers of order
// 1e5 against a right-hand side of order 1; the linearised rows must still be met to
// rounding level, which a single solve misses by orders of magnitude. One refinement step
// (the active-set QP) and a residual-tested series (the interior-point method) both reach it.
TEST(SymmetricLdl, RefinementSolvesBadlyScaledSystemsToRoundingLevel) {
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
  const LdlSettings refined[] = {
      {.detect_null_pivots = true, .refinement_rounds = 1},
      {.transversal_ordering = false, .refinement_rounds = 3, .refinement_tol = 1e-12},
  };
  for (const LdlSettings& settings : refined) {
    SymmetricLdl ldl(settings);
    ASSERT_EQ(ldl.Factor(k.n, k.rows, k.cols, k.values), FactorOutcome::kOk);
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
}

}  // namespace
}  // namespace kx::linalg

#include "linalg/symmetric_solver.h"

#include <cmath>
#include <vector>

#include <gtest/gtest.h>

namespace kx::linalg {
namespace {

// A symmetric matrix as lower-triangle triplets.
struct Triplets {
  int n;
  std::vector<int> rows, cols;
  std::vector<double> values;
};

// Dense symmetric matrix (row-major, full) to lower triplets, zeros skipped.
Triplets FromDense(int n, const std::vector<double>& a) {
  Triplets t{n, {}, {}, {}};
  for (int i = 0; i < n; ++i) {
    for (int j = 0; j <= i; ++j) {
      if (a[i * n + j] == 0.0) continue;
      t.rows.push_back(i);
      t.cols.push_back(j);
      t.values.push_back(a[i * n + j]);
    }
  }
  return t;
}

struct InertiaCase {
  const char* name;
  int n;
  std::vector<double> dense;
  int negative;
  bool singular;
};

TEST(SymmetricSolver, ReportsInertiaAndSingularity) {
  const std::vector<InertiaCase> cases = {
      {"positive diagonal", 3, {2, 0, 0, 0, 3, 0, 0, 0, 4}, 0, false},
      {"mixed diagonal", 3, {2, 0, 0, 0, -3, 0, 0, 0, -4}, 2, false},
      // [[1,2],[2,1]] has eigenvalues 3 and -1.
      {"indefinite 2x2", 2, {1, 2, 2, 1}, 1, false},
      // A saddle-point matrix [[I, a^T], [a, 0]] with one constraint: one negative eigenvalue.
      {"saddle point", 3, {1, 0, 1, 0, 1, 1, 1, 1, 0}, 1, false},
      // Two identical constraint rows: the saddle-point matrix is singular.
      {"rank-deficient saddle", 4, {1, 0, 1, 1, 0, 1, 1, 1, 1, 1, 0, 0, 1, 1, 0, 0}, 1, true},
      {"zero matrix", 2, {0, 0, 0, 0}, 0, true},
  };
  for (const InertiaCase& c : cases) {
    SCOPED_TRACE(c.name);
    Triplets t = FromDense(c.n, c.dense);
    if (t.rows.empty()) {  // keep the diagonal in the pattern so the matrix has entries
      for (int i = 0; i < c.n; ++i) {
        t.rows.push_back(i);
        t.cols.push_back(i);
        t.values.push_back(0.0);
      }
    }
    auto solver = MakeMultifrontalSolver();
    ASSERT_TRUE(solver->Analyse(t.n, t.rows, t.cols));
    const FactorOutcome outcome = solver->Factorise(t.values);
    ASSERT_NE(outcome, FactorOutcome::kFailed);
    EXPECT_EQ(outcome == FactorOutcome::kSingular, c.singular);
    if (!c.singular) {
      EXPECT_EQ(solver->NegativeEigenvalues(), c.negative);
    }
  }
}

// A tridiagonal indefinite matrix with repeated pattern entries, refactorised with new values
// against the same analysis: every solution must reproduce its right-hand side.
TEST(SymmetricSolver, SolvesAccuratelyAfterRefactorisation) {
  const int n = 200;
  std::vector<int> rows, cols;
  for (int i = 0; i < n; ++i) {
    rows.push_back(i), cols.push_back(i);
    rows.push_back(i), cols.push_back(i);  // repeated diagonal: values add
    if (i > 0) rows.push_back(i), cols.push_back(i - 1);
  }
  auto solver = MakeMultifrontalSolver();
  ASSERT_TRUE(solver->Analyse(n, rows, cols));
  for (double shift : {4.0, -4.0, 0.5}) {
    SCOPED_TRACE(shift);
    std::vector<double> values;
    std::vector<double> diag(n);
    for (int i = 0; i < n; ++i) {
      diag[i] = (i % 2 == 0 ? shift : -shift) + 0.01 * i;
      values.push_back(diag[i] / 2);
      values.push_back(diag[i] / 2);
      if (i > 0) values.push_back(1.0);
    }
    ASSERT_NE(solver->Factorise(values), FactorOutcome::kFailed);
    std::vector<double> x_true(n), b(n, 0.0);
    for (int i = 0; i < n; ++i) x_true[i] = std::sin(i + 1.0);
    for (int i = 0; i < n; ++i) {
      b[i] += diag[i] * x_true[i];
      if (i > 0) b[i] += x_true[i - 1], b[i - 1] += x_true[i];
    }
    ASSERT_TRUE(solver->Solve(b));
    for (int i = 0; i < n; ++i) EXPECT_NEAR(b[i], x_true[i], 1e-9) << "at " << i;
  }
}

TEST(SymmetricSolver, EmptySystemIsTrivial) {
  auto solver = MakeMultifrontalSolver();
  ASSERT_TRUE(solver->Analyse(0, {}, {}));
  EXPECT_EQ(solver->Factorise({}), FactorOutcome::kOk);
  EXPECT_EQ(solver->NegativeEigenvalues(), 0);
  std::vector<double> none;
  EXPECT_TRUE(solver->Solve(none));
}

}  // namespace
}  // namespace kx::linalg

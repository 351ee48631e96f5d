#include "solvers/asopt_qp.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

namespace kx::solvers {
namespace {

constexpr double kNone = 1e20;

// A QP with a diagonal Hessian and dense rows.
QpProblem MakeQp(const std::vector<double>& hdiag, const std::vector<double>& grad,
                 const std::vector<std::vector<double>>& rows, const std::vector<double>& rl,
                 const std::vector<double>& ru, double lower = -kNone, double upper = kNone) {
  QpProblem qp;
  qp.num_vars = static_cast<int>(grad.size());
  qp.num_rows = static_cast<int>(rows.size());
  for (int j = 0; j < qp.num_vars; ++j) {
    qp.h_rows.push_back(j);
    qp.h_cols.push_back(j);
    qp.h_vals.push_back(hdiag[j]);
  }
  qp.grad = grad;
  for (int i = 0; i < qp.num_rows; ++i) {
    for (int j = 0; j < qp.num_vars; ++j) {
      if (rows[i][j] == 0) continue;
      qp.a_rows.push_back(i);
      qp.a_cols.push_back(j);
      qp.a_vals.push_back(rows[i][j]);
    }
  }
  qp.rl = rl;
  qp.ru = ru;
  qp.xl.assign(qp.num_vars, lower);
  qp.xu.assign(qp.num_vars, upper);
  qp.tolerance = 1e-9;
  return qp;
}

TEST(AsoptQpTest, KnownSolutions) {
  struct Case {
    const char* name;
    QpProblem qp;
    std::vector<double> x;
    std::vector<double> lambda;  // checked when not empty
  };
  const Case cases[] = {
      {"inequalities and bounds",
       MakeQp({2, 2}, {-2, -5}, {{1, -2}, {-1, -2}, {-1, 2}}, {-2, -6, -2}, {kNone, kNone, kNone},
              0.0),
       {1.4, 1.7},
       {}},
      {"equality only", MakeQp({1, 1, 1}, {0, 0, 0}, {{1, 1, 1}}, {3}, {3}), {1, 1, 1}, {-1}},
      {"degenerate vertex with a repeated row",
       MakeQp({2, 2}, {-4, -4}, {{1, 1}, {1, -1}, {-1, 1}, {1, 1}}, {-kNone, -kNone, -kNone, -kNone},
              {1, 1, 1, 1}, 0.0),
       {0.5, 0.5},
       {}},
      {"active upper bounds", MakeQp({1, 1}, {-5, 1}, {}, {}, {}, -1.0, 2.0), {2, -1}, {}},
      {"range row at its upper side",
       MakeQp({1, 1}, {-3, -3}, {{1, 1}}, {-1}, {2}), {1, 1}, {2}},
  };
  for (const Case& c : cases) {
    const QpResult r = SolveQp(c.qp, {});
    ASSERT_EQ(r.status, QpStatus::kOptimal) << c.name;
    for (size_t j = 0; j < c.x.size(); ++j) EXPECT_NEAR(r.x[j], c.x[j], 1e-8) << c.name;
    for (size_t i = 0; i < c.lambda.size(); ++i) {
      EXPECT_NEAR(r.lambda[i], c.lambda[i], 1e-8) << c.name;
    }
  }
}

TEST(AsoptQpTest, MultipliersSatisfyStationarity) {
  QpProblem qp = MakeQp({2, 2}, {-2, -5}, {{1, -2}, {-1, -2}, {-1, 2}}, {-2, -6, -2},
                        {kNone, kNone, kNone}, 0.0);
  qp.xu = {1.0, kNone};  // an active upper bound as well
  const QpResult r = SolveQp(qp, {});
  ASSERT_EQ(r.status, QpStatus::kOptimal);
  // c + H x + A' lambda - z = 0 with the signs of the active sides.
  std::vector<double> res = {qp.grad[0] + 2 * r.x[0], qp.grad[1] + 2 * r.x[1]};
  for (size_t k = 0; k < qp.a_rows.size(); ++k) {
    res[qp.a_cols[k]] += qp.a_vals[k] * r.lambda[qp.a_rows[k]];
  }
  for (int j = 0; j < 2; ++j) EXPECT_NEAR(res[j] - r.z[j], 0.0, 1e-8);
  EXPECT_NEAR(r.x[0], 1.0, 1e-9);
  EXPECT_LE(r.z[0], 0.0);  // pushing against an upper bound
  for (double l : r.lambda) EXPECT_LE(l, 1e-12);  // lower sides only
}

TEST(AsoptQpTest, InconsistentRowsEndInfeasibleWithLeastViolation) {
  const QpProblem qp =
      MakeQp({1, 1}, {0, 0}, {{1, 1}, {1, 1}}, {3, -kNone}, {kNone, 1});
  const QpResult r = SolveQp(qp, {});
  EXPECT_EQ(r.status, QpStatus::kInfeasible);
  EXPECT_NEAR(r.violation, 2.0, 1e-6);
}

TEST(AsoptQpTest, NegativeCurvatureIsReported) {
  const QpProblem qp = MakeQp({-1, 1}, {1, 1}, {}, {}, {});
  EXPECT_EQ(SolveQp(qp, {}).status, QpStatus::kNonconvex);
  QpProblem shifted = qp;
  shifted.delta = 2.0;
  EXPECT_EQ(SolveQp(shifted, {}).status, QpStatus::kOptimal);
}

TEST(AsoptQpTest, WarmStartFromTheFinalWorkingSetNeedsFewerIterations) {
  const int n = 30;
  std::vector<double> hdiag(n, 1.0), grad(n);
  std::vector<std::vector<double>> rows(1, std::vector<double>(n, 1.0));
  for (int j = 0; j < n; ++j) grad[j] = (j % 2 == 0) ? -5.0 : 5.0;  // half push up, half down
  const QpProblem qp = MakeQp(hdiag, grad, rows, {-kNone}, {10.0}, -1.0, 1.0);
  const QpResult cold = SolveQp(qp, {});
  ASSERT_EQ(cold.status, QpStatus::kOptimal);
  const QpResult warm = SolveQp(qp, cold.active);
  ASSERT_EQ(warm.status, QpStatus::kOptimal);
  EXPECT_LT(warm.iterations, cold.iterations);
  EXPECT_LE(warm.iterations, 2);
  for (int j = 0; j < n; ++j) EXPECT_NEAR(warm.x[j], cold.x[j], 1e-9);
}

TEST(AsoptQpTest, IterationLimitEndsTheSolve) {
  const int n = 20;
  std::vector<double> hdiag(n, 1.0), grad(n, -5.0);
  QpProblem qp = MakeQp(hdiag, grad, {}, {}, {}, -1.0, 1.0);
  qp.xl.assign(n, -kNone);  // every upper bound ends active
  qp.max_iterations = 1;     // room for the first working-set guess only
  const QpResult r = SolveQp(qp, {});
  EXPECT_EQ(r.status, QpStatus::kIterationLimit);
  EXPECT_EQ(r.iterations, 1);
}

TEST(AsoptQpTest, PassedDeadlineEndsTheSolveBeforeAnyIteration) {
  QpProblem qp = MakeQp({1.0, 1.0}, {-5.0, -5.0}, {{1.0, 1.0}}, {-kNone}, {1.0});
  qp.deadline = std::chrono::steady_clock::now() - std::chrono::seconds(1);
  const QpResult r = SolveQp(qp, {});
  EXPECT_EQ(r.status, QpStatus::kTimeLimit);
  EXPECT_EQ(r.iterations, 0);
}

}  // namespace
}  // namespace kx::solvers

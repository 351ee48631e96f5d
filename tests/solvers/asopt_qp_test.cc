#include "solvers/asopt_qp.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <string>
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

// Optimality of r for qp: feasibility, stationarity c + H x + A' lambda - z = 0, and every
// multiplier on the side its constraint is on and zero away from it.
void ExpectOptimal(const QpProblem& qp, const QpResult& r, double tol, const std::string& name) {
  ASSERT_EQ(r.status, QpStatus::kOptimal) << name;
  std::vector<double> res(qp.grad), ax(qp.num_rows, 0.0);
  for (size_t k = 0; k < qp.h_rows.size(); ++k) {
    const int i = qp.h_rows[k], j = qp.h_cols[k];
    res[i] += qp.h_vals[k] * r.x[j];
    if (i != j) res[j] += qp.h_vals[k] * r.x[i];
  }
  for (size_t k = 0; k < qp.a_rows.size(); ++k) {
    res[qp.a_cols[k]] += qp.a_vals[k] * r.lambda[qp.a_rows[k]];
    ax[qp.a_rows[k]] += qp.a_vals[k] * r.x[qp.a_cols[k]];
  }
  for (int j = 0; j < qp.num_vars; ++j) {
    EXPECT_NEAR(res[j] - r.z[j], 0.0, tol) << name << " stationarity of x" << j;
    EXPECT_GE(r.x[j], qp.xl[j] - tol) << name;
    EXPECT_LE(r.x[j], qp.xu[j] + tol) << name;
    if (r.z[j] > tol) {
      EXPECT_NEAR(r.x[j], qp.xl[j], tol) << name << " z of x" << j;
    } else if (r.z[j] < -tol) {
      EXPECT_NEAR(r.x[j], qp.xu[j], tol) << name << " z of x" << j;
    }
  }
  for (int i = 0; i < qp.num_rows; ++i) {
    EXPECT_GE(ax[i], qp.rl[i] - tol) << name << " row " << i;
    EXPECT_LE(ax[i], qp.ru[i] + tol) << name << " row " << i;
    if (r.lambda[i] < -tol) {
      EXPECT_NEAR(ax[i], qp.rl[i], tol) << name << " lambda of row " << i;
    } else if (r.lambda[i] > tol) {
      EXPECT_NEAR(ax[i], qp.ru[i], tol) << name << " lambda of row " << i;
    }
  }
}

TEST(AsoptQpTest, KnownSolutions) {
  struct Case {
    const char* name;
    QpProblem qp;
    std::vector<double> x;
    std::vector<double> lambda;  // checked when not empty
  };
  QpProblem with_upper = MakeQp({2, 2}, {-2, -5}, {{1, -2}, {-1, -2}, {-1, 2}}, {-2, -6, -2},
                                {kNone, kNone, kNone}, 0.0);
  with_upper.xu = {1.0, kNone};
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
      {"rows and an active upper bound", with_upper, {1.0, 1.5}, {}},
  };
  for (const Case& c : cases) {
    const QpResult r = SolveQp(c.qp, {});
    ExpectOptimal(c.qp, r, 1e-8, c.name);
    for (size_t j = 0; j < c.x.size(); ++j) EXPECT_NEAR(r.x[j], c.x[j], 1e-8) << c.name;
    for (size_t i = 0; i < c.lambda.size(); ++i) {
      EXPECT_NEAR(r.lambda[i], c.lambda[i], 1e-8) << c.name;
    }
  }
}

// Inconsistent rows end infeasible with the least violation; negative curvature is reported
// unless a shift removes it.
TEST(AsoptQpTest, InfeasibleAndNonconvexQpsSaySo) {
  const QpResult r = SolveQp(MakeQp({1, 1}, {0, 0}, {{1, 1}, {1, 1}}, {3, -kNone}, {kNone, 1}), {});
  EXPECT_EQ(r.status, QpStatus::kInfeasible);
  EXPECT_NEAR(r.violation, 2.0, 1e-6);
  const QpProblem qp = MakeQp({-1, 1}, {1, 1}, {}, {}, {});
  EXPECT_EQ(SolveQp(qp, {}).status, QpStatus::kNonconvex);
  QpProblem shifted = qp;
  shifted.delta = 2.0;
  EXPECT_EQ(SolveQp(shifted, {}).status, QpStatus::kOptimal);
}

// A chain of n variables with one row per neighbour pair, a[0] x_i + a[1] x_{i+1} in [lo, hi].
QpProblem ChainQp(int n, double h, double g, std::array<double, 2> a, double lo, double hi) {
  QpProblem qp;
  qp.num_vars = n;
  qp.num_rows = n - 1;
  for (int j = 0; j < n; ++j) {
    qp.h_rows.push_back(j);
    qp.h_cols.push_back(j);
    qp.h_vals.push_back(h);
  }
  qp.grad.assign(n, g);
  for (int i = 0; i + 1 < n; ++i) {
    for (int k = 0; k < 2; ++k) {
      qp.a_rows.push_back(i);
      qp.a_cols.push_back(i + k);
      qp.a_vals.push_back(a[k]);
    }
  }
  qp.rl.assign(n - 1, lo);
  qp.ru.assign(n - 1, hi);
  qp.xl.assign(n, -kNone);
  qp.xu.assign(n, kNone);
  return qp;
}

// Degenerate chains whose rows all sit on their bounds at the solution (half of them with a
// zero multiplier in the second kind), started cold and from working-set guesses that are
// right, half right and wrong. The solve must reach the optimum, and with far fewer
// working-set changes than one per active row, on dense and on sparse factorisations.
TEST(AsoptQpTest, DegenerateChainsReachTheOptimumInFewIterations) {
  struct Chain {
    const char* name;
    QpProblem qp;
    double x;  // every component of the solution
  };
  std::vector<Chain> chains;
  for (int n : {60, 400}) {
    // Nonincreasing x pulled towards a rising target: every row active with lambda < 0.
    QpProblem rising = ChainQp(n, 1.0, 0.0, {1.0, -1.0}, 0.0, kNone);
    for (int j = 0; j < n; ++j) rising.grad[j] = -static_cast<double>(j) / n;
    chains.push_back({"rising target", rising, (n - 1) / (2.0 * n)});
    // Pair sums capped at 1 with the unconstrained minimiser at 2: every row on its bound,
    // multipliers 3, 0, 3, 0, ... along the chain.
    chains.push_back({"pair sums", ChainQp(n, 2.0, -4.0, {1.0, 1.0}, -kNone, 1.0), 0.5});
  }
  for (const Chain& c : chains) {
    const int m = c.qp.num_rows;
    std::vector<QpWorkingSet> guesses(4);
    const Activity side = c.qp.rl[0] > -kNone ? Activity::kLower : Activity::kUpper;
    guesses[1] = {std::vector<Activity>(c.qp.num_vars, Activity::kFree),
                  std::vector<Activity>(m, side)};
    guesses[2] = guesses[1];
    for (int i = 0; i < m; i += 2) guesses[2].rows[i] = Activity::kFree;
    guesses[3] = guesses[1];
    guesses[3].vars.assign(c.qp.num_vars, Activity::kLower);  // no bound to be on: ignored
    for (size_t g = 0; g < guesses.size(); ++g) {
      const std::string name = std::string(c.name) + " n=" + std::to_string(c.qp.num_vars) +
                               " guess " + std::to_string(g);
      const QpResult r = SolveQp(c.qp, guesses[g]);
      ExpectOptimal(c.qp, r, 1e-7, name);
      for (double v : r.x) ASSERT_NEAR(v, c.x, 1e-7) << name;
      EXPECT_LE(r.iterations, 12 + m / 10) << name;
    }
  }
}

}  // namespace
}  // namespace kx::solvers

#include "solvers/biopt.h"

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "base/report.h"
#include "testing/dense_problem.h"
#include "solvers/status.h"
#include "testing/nlp_suite.h"
#include "testing/scratch_dir.h"

namespace kx::solvers {
namespace {

using testing::DenseProblem;
using Vec = std::vector<double>;

constexpr double kInf = kInfinity;

SolverSettings Tight() {
  SolverSettings s;
  s.objective_tol = 1e-8;
  s.constraint_tol = 1e-8;
  return s;
}

using testing::BarrierRule;
using testing::BarrierRules;

// Solves quietly (no log file) under the default barrier rule or the given one.
SolverResult Solve(Problem& p, const SolverSettings& s = Tight(),
                   const biopt::Options& options = BarrierRules()[1].options) {
  OutputCapture quiet;
  return SolveBiopt(p, s, options);
}

// Thousands of active bounds with small multipliers, each product within the tolerance: the
// sum of the products is the objective's distance from its optimum (0), and that must meet the
// tolerance as well. (Small multipliers keep the points clear of the bounds' relaxation.)
constexpr const char* kManyActiveBounds = R"(Model lpbox
  Variables
    x[1:3000] = 1, >= 0, <= 2
  End Variables
  Equations
    minimize 1e-3*x[1:3000]
  End Equations
End Model)";

TEST(Biopt, ManyActiveBoundsTogetherMeetTheObjectiveTolerance) {
  for (const BarrierRule& rule : BarrierRules()) {
    SCOPED_TRACE(rule.name);
    auto model = kx::testing::LoadModelText(kManyActiveBounds);
    const SolverResult r = Solve(*model->problem, Tight(), rule.options);
    ASSERT_EQ(r.status, kSuccess);
    EXPECT_GE(r.objective, 0.0);
    EXPECT_LE(r.objective, 2 * Tight().objective_tol);
  }
}

// A simulation step written out: implicit Euler of a draining tank over a horizon, as many
// equations as variables, no objective, and lower bounds on the levels that stay far from
// active. Only the barrier terms keep the multipliers away from zero, so the solve ends by
// steps that move the multipliers but hardly the point.
constexpr const char* kTankHorizon = R"(Model tank
  Constants
    n = 20
  End Constants
  Parameters
    qin = 1
    k = 0.5
    dt = 0.25
    h0 = 1
  End Parameters
  Variables
    h[1:n] = 1, >= 0
    q[1:n] = 0, >= -100, <= 100
  End Variables
  Equations
    q[1:n] = k*sqrt(h[1:n])
    h[1] = h0 + dt*(qin - q[1])
    h[2:n] = h[1:n-1] + dt*(qin - q[2:n])
  End Equations
End Model)";

TEST(Biopt, ConvergesOnSquareSystemsWithInactiveBounds) {
  for (const BarrierRule& rule : BarrierRules()) {
    for (double tol : {1e-6, 1e-8, 1e-10}) {
      SCOPED_TRACE(fmt::format("tolerance {} rule {}", tol, rule.name));
      auto model = kx::testing::LoadModelText(kTankHorizon);
      SolverSettings s;
      s.objective_tol = s.constraint_tol = tol;
      const SolverResult r = Solve(*model->problem, s, rule.options);
      ASSERT_EQ(r.status, kSuccess);
      EXPECT_LE(r.iterations, 12);
      // The level rises from 1 towards the steady state (qin / k)^2 = 4.
      Vec c(model->problem->num_cons());
      ASSERT_TRUE(model->problem->Constraints(r.x, c));
      Vec cl(c.size()), cu(c.size()), xl(r.x.size()), xu(r.x.size());
      model->problem->ConstraintBounds(cl, cu);
      model->problem->Bounds(xl, xu);
      for (size_t i = 0; i < c.size(); ++i) EXPECT_NEAR(c[i], cl[i], 10 * tol);
      // Parameters are fixed variables and carry sensitivities; the free ones sit inside.
      for (size_t j = 0; j < r.x.size(); ++j) {
        if (xl[j] != xu[j]) {
          EXPECT_LE(r.z_lower[j] + r.z_upper[j], tol);
        }
      }
    }
  }
}

// min x1^2 + x2^2 + x3^2  s.t.  x1 + x2 + x3 = 4 (one row), x3 fixed at 2 by its bounds.
DenseProblem FixedVariableProblem() {
  DenseProblem p;
  p.n = 3, p.m = 1;
  p.xl = {-kInf, -kInf, 2}, p.xu = {kInf, kInf, 2}, p.cl = {4}, p.cu = {4};
  p.x0 = {0, 0, 2};
  p.f = [](const Vec& x) { return x[0] * x[0] + x[1] * x[1] + x[2] * x[2]; };
  p.grad = [](const Vec& x) { return Vec{2 * x[0], 2 * x[1], 2 * x[2]}; };
  p.cons = [](const Vec& x) { return Vec{x[0] + x[1] + x[2]}; };
  p.jac = [](const Vec&) { return Vec{1, 1, 1}; };
  p.hess = [](const Vec&, double s, const Vec&) {
    return Vec{2 * s, 0, 0, 0, 2 * s, 0, 0, 0, 2 * s};
  };
  return p;
}

// The suite's hanging chain (20000 variables, equality rows only): once the supports, fixed
// variables, are taken out it has no bounds, so the adaptive rule has no products to follow.
TEST(Biopt, AdaptiveRuleSolvesALargeProblemWithoutBounds) {
  const auto suite = kx::testing::NlpSuite(true);
  const auto chain = std::find_if(suite.begin(), suite.end(),
                                  [](const auto& e) { return e.name == "hanging_chain"; });
  ASSERT_NE(chain, suite.end());
  auto model = kx::testing::LoadModelFile(chain->path);
  const SolverResult r = Solve(*model->problem, Tight(), BarrierRules()[1].options);
  ASSERT_EQ(r.status, kSuccess);
  EXPECT_LE(r.iterations, 40);
  EXPECT_LE(kx::testing::RelativeError(r.objective, chain->optimum), 1e-6);
}

TEST(Biopt, EndsDegenerateInputsWithAStatus) {
  struct Case {
    const char* name;
    DenseProblem problem;
    SolverSettings settings;
    int status;
  };
  DenseProblem crossed = FixedVariableProblem();
  crossed.xl[1] = 3, crossed.xu[1] = 1;
  DenseProblem crossed_rows = FixedVariableProblem();
  crossed_rows.cl = {5}, crossed_rows.cu = {4};
  DenseProblem no_hessian = FixedVariableProblem();
  no_hessian.exact_hessian = false;
  DenseProblem empty;
  empty.f = [](const Vec&) { return 7.0; };
  empty.grad = empty.cons = empty.jac = [](const Vec&) { return Vec{}; };
  empty.hess = [](const Vec&, double, const Vec&) { return Vec{}; };
  DenseProblem all_fixed = FixedVariableProblem();
  all_fixed.xl = all_fixed.xu = all_fixed.x0 = {1, 1, 2};
  DenseProblem all_fixed_bad = all_fixed;
  all_fixed_bad.cl = all_fixed_bad.cu = {5};
  SolverSettings few = Tight();
  few.max_iter = 3;
  SolverSettings no_time = Tight();
  no_time.max_time = -1;
  std::vector<Case> cases = {
      {"lower bound above upper", crossed, Tight(), kInvalidBounds},
      {"row lower above upper", crossed_rows, Tight(), kInvalidBounds},
      {"no second derivatives", no_hessian, Tight(), kBadInputs},
      {"no variables, no rows", empty, Tight(), kSuccess},
      {"every variable fixed, row satisfied", all_fixed, Tight(), kSuccess},
      {"every variable fixed, row violated", all_fixed_bad, Tight(), kNoFeasibleSolution},
      {"time limit", FixedVariableProblem(), no_time, kExternalAbort},
  };
  for (Case& c : cases) {
    SCOPED_TRACE(c.name);
    const SolverResult r = Solve(c.problem, c.settings);
    EXPECT_EQ(r.status, c.status);
    EXPECT_EQ(r.x.size(), static_cast<size_t>(c.problem.n));
  }
  auto hs071 = kx::testing::LoadModelText(kx::testing::ModelCaseText("hs071"));
  EXPECT_EQ(Solve(*hs071->problem, few).status, kMaxIterations);
}

}  // namespace
}  // namespace kx::solvers

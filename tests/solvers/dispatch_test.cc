#include "solvers/dispatch.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <limits>
#include <vector>

#include "base/report.h"
#include "solvers/problem_view.h"
#include "solvers/status.h"
#include "testing/dense_problem.h"
#include "testing/forwarding_problem.h"
#include "testing/nlp_suite.h"
#include "testing/scratch_dir.h"

namespace kx::solvers {
namespace {

const std::string kModel = testing::ModelText("    x = 3\n", "    x >= 1\n    minimize (x - 2)^2\n");

TEST(Dispatch, BioptWithoutSecondDerivativesDoesNotSolve) {
  auto m = testing::LoadModelText(kModel);
  testing::WithoutHessian problem(*m->problem);
  OutputCapture out;
  SolverResult r = DispatchSolver(2, problem, SolverSettings{});
  EXPECT_EQ(r.status, kBadInputs);
  EXPECT_EQ(out.text(), "BIOPT: l-BFGS not available\n");
}

using Vec = std::vector<double>;

// min x0^2 + x1 + x2 s.t. x0 * x1 in [1, 2], with x2 fixed at 3; x0 < 0 gives NaN results.
testing::DenseProblem Problem3() {
  testing::DenseProblem p;
  p.n = 3, p.m = 1;
  p.xl = {-5, 0, 3}, p.xu = {5, 4, 3}, p.cl = {1}, p.cu = {2}, p.x0 = {1, 1, 3};
  const double nan = std::numeric_limits<double>::quiet_NaN();
  p.f = [nan](const Vec& x) { return x[0] < 0 ? nan : x[0] * x[0] + x[1] + x[2]; };
  p.grad = [nan](const Vec& x) { return Vec{x[0] < 0 ? nan : 2 * x[0], 1, 1}; };
  p.cons = [nan](const Vec& x) { return Vec{x[0] < 0 ? nan : x[0] * x[1]}; };
  p.jac = [nan](const Vec& x) { return Vec{x[1], x[0] < 0 ? nan : x[0], 0}; };
  p.hess = [](const Vec&, double s, const Vec& l) { return Vec{2 * s, l[0], 0, 0, 0, 0, 0, 0, 0}; };
  return p;
}

TEST(ProblemView, ReadsTheProblemOnceAndMapsFixedVariables) {
  testing::DenseProblem p = Problem3();
  ProblemView view(p, 1e20);
  EXPECT_EQ(view.n(), 3);
  EXPECT_EQ(view.nnz_jac(), 3);
  EXPECT_EQ(view.nnz_hess(), 6);
  EXPECT_EQ(view.free_vars(), (std::vector<int>{0, 1}));
  EXPECT_EQ(view.free_index(), (std::vector<int>{0, 1, -1}));
  EXPECT_EQ(view.CheckInputs(), InputFault::kNone);
  p.exact_hessian = false;
  EXPECT_EQ(ProblemView(p, 1e20).nnz_hess(), 0);
}

TEST(ProblemView, ChecksInputsInOrder) {
  struct Case {
    const char* name;
    void (*spoil)(testing::DenseProblem&);
    InputFault fault;
  };
  const Case cases[] = {
      {"NaN bound", [](testing::DenseProblem& p) { p.cu[0] = std::nan(""); },
       InputFault::kNotANumber},
      {"crossed variable bounds", [](testing::DenseProblem& p) { p.xl[1] = 5; },
       InputFault::kCrossedBounds},
      {"crossed row bounds", [](testing::DenseProblem& p) { p.cl[0] = 3; },
       InputFault::kCrossedBounds},
      {"crossed bounds and a NaN", [](testing::DenseProblem& p) { p.xl[1] = 5, p.xu[0] = NAN; },
       InputFault::kNotANumber},
  };
  for (const Case& c : cases) {
    testing::DenseProblem p = Problem3();
    c.spoil(p);
    EXPECT_EQ(ProblemView(p, 1e20).CheckInputs(), c.fault) << c.name;
  }
  // A Jacobian position in a row the problem does not have.
  struct OutsideRow : testing::DenseProblem {
    void JacobianStructure(std::span<int> rows, std::span<int> cols) override {
      DenseProblem::JacobianStructure(rows, cols);
      rows[0] = m;
    }
  };
  OutsideRow outside;
  static_cast<testing::DenseProblem&>(outside) = Problem3();
  EXPECT_EQ(ProblemView(outside, 1e20).CheckInputs(), InputFault::kBadStructure);
}

TEST(ProblemView, EvaluationsFailOnNonFiniteResultsAndAreCounted) {
  testing::DenseProblem p = Problem3();
  ProblemView view(p, 1e20);
  Vec good = {1, 2, 3}, bad = {-1, 2, 3}, g(3), c(1), jac(3), hess(6);
  double f = 0;
  EXPECT_TRUE(view.Objective(good, f));
  EXPECT_EQ(f, 6.0);
  EXPECT_FALSE(view.Objective(bad, f));
  EXPECT_TRUE(view.Gradient(good, g));
  EXPECT_FALSE(view.Gradient(bad, g));
  EXPECT_TRUE(view.Constraints(good, c));
  EXPECT_FALSE(view.Constraints(bad, c));
  EXPECT_TRUE(view.Jacobian(good, jac));
  EXPECT_FALSE(view.Jacobian(bad, jac));
  EXPECT_TRUE(view.Hessian(good, 1.0, Vec{2.0}, hess));
  EXPECT_EQ(view.residual_evals(), 2);
  EXPECT_EQ(view.jacobian_evals(), 2);
}

// MAX_TIME 0 (or less) is already over; a huge one is no limit (held at 1e9 seconds).
TEST(ProblemView, KeepsTheDeadline) {
  testing::DenseProblem p = Problem3();
  const ProblemView over(p, -1.0), unlimited(p, 1e20);
  const auto now = std::chrono::steady_clock::now();
  EXPECT_LE(over.deadline(), now);
  EXPECT_GT(unlimited.deadline(), now + std::chrono::hours(24 * 365 * 30));
  EXPECT_FALSE(unlimited.TimeUp());
}

}  // namespace
}  // namespace kx::solvers

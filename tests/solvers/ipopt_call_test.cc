#include "solvers/ipopt_call.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "base/report.h"
#include "testing/nlp_suite.h"
#include "testing/scratch_dir.h"

namespace kx::solvers {
namespace {

using testing::LoadModelText;
using testing::WorkingDir;

constexpr const char* kHs071 = R"(
Model hs071
  Variables
    x[1:4] = 1, >= 1, <= 5
  End Variables
  Equations
    x[1]*x[2]*x[3]*x[4] >= 25
    x[1]^2 + x[2]^2 + x[3]^2 + x[4]^2 = 40
    minimize x[1]*x[4]*(x[1]+x[2]+x[3]) + x[3]
  End Equations
End Model
)";

// min (x1 - 1)^2 + 100 (x2 - x1^2)^2  s.t.  x1 + x2 >= lower_sum, written by hand with first
// derivatives only. `wrong_gradient` spoils d f / d x1 so the derivative checker has
// something to find.
class NoHessianProblem : public Problem {
 public:
  explicit NoHessianProblem(double lower_sum, bool wrong_gradient = false)
      : lower_sum_(lower_sum), wrong_gradient_(wrong_gradient) {}
  int num_vars() override { return 2; }
  int num_cons() override { return 1; }
  int nnz_jac() override { return 2; }
  int nnz_hess() override { return 0; }
  bool has_hessian() override { return false; }
  void Bounds(std::span<double> xl, std::span<double> xu) override {
    xl[0] = xl[1] = -kInfinity;
    xu[0] = xu[1] = kInfinity;
  }
  void ConstraintBounds(std::span<double> cl, std::span<double> cu) override {
    cl[0] = lower_sum_;
    cu[0] = kInfinity;
  }
  void Start(std::span<double> x) override { x[0] = -1.2, x[1] = 1.0; }
  void JacobianStructure(std::span<int> rows, std::span<int> cols) override {
    rows[0] = rows[1] = 0;
    cols[0] = 0, cols[1] = 1;
  }
  void HessianStructure(std::span<int>, std::span<int>) override {}
  bool Objective(std::span<const double> x, double& f) override {
    f = std::pow(x[0] - 1, 2) + 100 * std::pow(x[1] - x[0] * x[0], 2);
    return true;
  }
  bool Gradient(std::span<const double> x, std::span<double> g) override {
    g[0] = (2 * (x[0] - 1) - 400 * x[0] * (x[1] - x[0] * x[0])) * (wrong_gradient_ ? 1.1 : 1.0);
    g[1] = 200 * (x[1] - x[0] * x[0]);
    return true;
  }
  bool Constraints(std::span<const double> x, std::span<double> c) override {
    c[0] = x[0] + x[1];
    return true;
  }
  bool JacobianValues(std::span<const double>, std::span<double> v) override {
    v[0] = v[1] = 1.0;
    return true;
  }
  bool HessianValues(std::span<const double>, double, std::span<const double>,
                     std::span<double>) override {
    ADD_FAILURE() << "Hessian asked for although the problem has none";
    return false;
  }

 private:
  double lower_sum_;
  bool wrong_gradient_;
};

TEST(IpoptCallTest, SolvesAConstrainedProblemWithExactDerivatives) {
  WorkingDir dir;
  auto model = LoadModelText(kHs071);
  OutputCapture out;
  SolverResult r = SolveIpopt(*model->problem, SolverSettings{.constraint_tol = 1e-8});
  ASSERT_EQ(r.status, 0) << out.text();
  EXPECT_NEAR(r.objective, 17.0140173, 1e-6);
  const double x[] = {1.0, 4.74299963, 3.82114998, 1.37940829};
  for (int j = 0; j < 4; ++j) EXPECT_NEAR(r.x[j], x[j], 1e-6) << j;
  // Multipliers of L = f + lambda^T c: the product row is active from below (lambda < 0).
  EXPECT_NEAR(r.lambda[0], -0.55229366, 1e-5);
  EXPECT_NEAR(r.lambda[1], 0.16146857, 1e-5);
  EXPECT_NEAR(r.z_lower[0], 1.08787121, 1e-5);
  EXPECT_NEAR(r.z_upper[0], 0.0, 1e-6);
  EXPECT_GT(r.iterations, 3);
  EXPECT_GT(r.residual_evals, r.iterations);
  EXPECT_GE(r.jacobian_evals, r.iterations);
  const auto lines = out.lines();
  ASSERT_GE(lines.size(), 3u);
  EXPECT_EQ(lines[0], std::string(46, '*'));
  EXPECT_EQ(lines[1], "Steady State Optimization with Interior Point Solver");
  EXPECT_EQ(lines[2], std::string(46, '*'));
  EXPECT_TRUE(out.Contains("Info: Exact Hessian"));
  EXPECT_TRUE(out.Contains("The solution was found."));
  EXPECT_TRUE(out.Contains("The final value of the objective function is 17.01401"));
  EXPECT_NE(dir.Read("ipopt.out").find("EXIT: Optimal Solution Found."), std::string::npos);
}

TEST(IpoptCallTest, SolvesWithLimitedMemoryHessianWhenNoneIsSupplied) {
  WorkingDir dir;
  NoHessianProblem problem(/*lower_sum=*/2.5);
  OutputCapture out;
  SolverResult r = SolveIpopt(problem, SolverSettings{.constraint_tol = 1e-9, .max_iter = 500});
  ASSERT_EQ(r.status, 0) << out.text();
  EXPECT_TRUE(out.Contains("Info: L-BFGS Hessian"));
  EXPECT_FALSE(out.Contains("Info: Exact Hessian"));
  // The unconstrained minimum (1, 1) violates x1 + x2 >= 2.5, so the row is active.
  EXPECT_NEAR(r.x[0] + r.x[1], 2.5, 1e-7);
  EXPECT_LT(r.lambda[0], 0.0);
}

TEST(IpoptCallTest, DiagnosticLevelChoosesTheDerivativeCheck) {
  struct Case {
    int diaglevel;
    bool first_order;
    bool second_order;
  };
  // The second-order check includes the first-order one.
  for (const Case& c : {Case{4, false, false}, Case{5, true, false}, Case{6, true, true}}) {
    WorkingDir dir;
    auto model = LoadModelText(kHs071);
    OutputCapture out;
    SolverResult r = SolveIpopt(*model->problem, SolverSettings{.diaglevel = c.diaglevel});
    EXPECT_EQ(r.status, 0) << c.diaglevel;
    const std::string log = dir.Read("ipopt.out");
    auto has = [&](const char* s) { return log.find(s) != std::string::npos; };
    EXPECT_EQ(has("Starting derivative checker for first derivatives"), c.first_order)
        << c.diaglevel;
    EXPECT_EQ(has("Starting derivative checker for second derivatives"), c.second_order)
        << c.diaglevel;
    // Exact derivatives from the compiler pass the check.
    EXPECT_EQ(has("No errors detected by derivative checker."), c.first_order) << c.diaglevel;
  }
}

TEST(IpoptCallTest, DerivativeCheckFindsAWrongGradient) {
  WorkingDir dir;
  NoHessianProblem problem(2.5, /*wrong_gradient=*/true);
  OutputCapture out;
  SolveIpopt(problem, SolverSettings{.max_iter = 5, .diaglevel = 5});
  EXPECT_NE(dir.Read("ipopt.out").find("Derivative checker detected"), std::string::npos);
}

TEST(IpoptCallTest, FailuresReturnTheLibraryStatus) {
  // x + y <= -1 with x, y >= 0 has no feasible point.
  constexpr const char* kInfeasible = R"(
Model infeasible
  Variables
    x = 1, >= 0
    y = 1, >= 0
  End Variables
  Equations
    x + y <= -1
    minimize (x - 2)^2 + (y - 1)^2
  End Equations
End Model
)";
  struct Case {
    const char* text;
    SolverSettings settings;
    int status;
  };
  const Case cases[] = {
      {kInfeasible, SolverSettings{}, 2},          // infeasible problem detected
      {kHs071, SolverSettings{.max_iter = 2}, -1},  // iteration limit
      {kHs071, SolverSettings{.max_time = 0.0}, 5},  // wall time used up: stopped at once
  };
  for (const Case& c : cases) {
    WorkingDir dir;
    auto model = LoadModelText(c.text);
    OutputCapture out;
    SolverResult r = SolveIpopt(*model->problem, c.settings);
    EXPECT_EQ(r.status, c.status) << out.text();
    EXPECT_TRUE(out.Contains("An error occured.")) << c.status;
    EXPECT_TRUE(out.Contains("The error code is " + std::to_string(c.status))) << c.status;
    EXPECT_FALSE(out.Contains("The solution was found.")) << c.status;
    EXPECT_EQ(r.x.size(), static_cast<size_t>(model->problem->num_vars()));
    if (c.status == -1) {
      EXPECT_EQ(r.iterations, 2);
    }
  }
}

TEST(IpoptCallTest, BacksOffFromAFailedEvaluation) {
  // From x = 10 the Newton step lands near x = -33, where sqrt has no value.
  auto model = LoadModelText(R"(
Model backoff
  Variables
    x = 10
  End Variables
  Equations
    minimize x - 2*sqrt(x)
  End Equations
End Model
)");
  WorkingDir dir;
  OutputCapture out;
  SolverResult r = SolveIpopt(*model->problem, SolverSettings{});
  ASSERT_EQ(r.status, 0) << out.text();
  EXPECT_NEAR(r.x[0], 1.0, 1e-5);
  EXPECT_NEAR(r.objective, -1.0, 1e-8);
}

TEST(IpoptCallTest, WarmStartFromGivenMultipliers) {
  WorkingDir dir;
  auto model = LoadModelText(kHs071);
  OutputCapture out;
  SolverResult cold = SolveIpopt(*model->problem, SolverSettings{});
  ASSERT_EQ(cold.status, 0);
  model->problem->start_multipliers = cold.lambda;
  SolverResult warm = SolveIpopt(*model->problem, SolverSettings{.warm = true});
  ASSERT_EQ(warm.status, 0) << out.text();
  EXPECT_NEAR(warm.objective, cold.objective, 1e-6);
  // A multiplier vector of the wrong length is ignored rather than read past its end.
  model->problem->start_multipliers = {1.0};
  EXPECT_EQ(SolveIpopt(*model->problem, SolverSettings{.warm = true}).status, 0);
}

}  // namespace
}  // namespace kx::solvers

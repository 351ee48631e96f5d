#include "solvers/ipopt_call.h"

#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <span>
#include <string>
#include <vector>

#include "base/report.h"
#include "testing/dense_problem.h"
#include "testing/nlp_suite.h"
#include "testing/scratch_dir.h"

namespace kx::solvers {
namespace {

using testing::LoadModelText;
using testing::WorkingDir;

using Vec = std::vector<double>;

const std::string& Hs071() { return testing::ModelCaseText("hs071"); }

// min (x1 - 1)^2 + 100 (x2 - x1^2)^2  s.t.  x1 + x2 >= 2.5, with first derivatives only.
// `gradient_error` scales d f / d x1 so that the derivative checker has something to find.
testing::DenseProblem NoHessianProblem(double gradient_error = 1.0) {
  testing::DenseProblem p;
  p.n = 2, p.m = 1;
  p.xl = {-kInfinity, -kInfinity}, p.xu = {kInfinity, kInfinity};
  p.cl = {2.5}, p.cu = {kInfinity}, p.x0 = {-1.2, 1.0};
  p.exact_hessian = false;
  p.f = [](const Vec& x) { return std::pow(x[0] - 1, 2) + 100 * std::pow(x[1] - x[0] * x[0], 2); };
  p.grad = [gradient_error](const Vec& x) {
    return Vec{(2 * (x[0] - 1) - 400 * x[0] * (x[1] - x[0] * x[0])) * gradient_error,
               200 * (x[1] - x[0] * x[0])};
  };
  p.cons = [](const Vec& x) { return Vec{x[0] + x[1]}; };
  p.jac = [](const Vec&) { return Vec{1.0, 1.0}; };
  p.hess = [](const Vec&, double, const Vec&) {
    ADD_FAILURE() << "Hessian asked for although the problem has none";
    return Vec(4, 0.0);
  };
  return p;
}

TEST(IpoptCallTest, SolvesWithLimitedMemoryHessianWhenNoneIsSupplied) {
  WorkingDir dir;
  testing::DenseProblem problem = NoHessianProblem();
  OutputCapture out;
  SolverResult r = SolveIpopt(problem, SolverSettings{.constraint_tol = 1e-9, .max_iter = 500});
  ASSERT_EQ(r.status, 0) << out.text();
  EXPECT_TRUE(out.Contains("Info: L-BFGS Hessian"));
  EXPECT_FALSE(out.Contains("Info: Exact Hessian"));
  // The unconstrained minimum (1, 1) violates x1 + x2 >= 2.5, so the row is active.
  EXPECT_NEAR(r.x[0] + r.x[1], 2.5, 1e-7);
  EXPECT_LT(r.lambda[0], 0.0);
}

TEST(IpoptCallTest, DerivativeCheckFindsAWrongGradient) {
  WorkingDir dir;
  testing::DenseProblem problem = NoHessianProblem(1.1);
  OutputCapture out;
  SolveIpopt(problem, SolverSettings{.max_iter = 5, .diaglevel = 5});
  EXPECT_NE(dir.Read("ipopt.out").find("Derivative checker detected"), std::string::npos);
}

TEST(IpoptCallTest, FailuresReturnTheLibraryStatus) {
  // x + y <= -1 with x, y >= 0 has no feasible point.
  const std::string infeasible =
      testing::ModelText("    x = 1, >= 0\n    y = 1, >= 0\n",
                         "    x + y <= -1\n    minimize (x - 2)^2 + (y - 1)^2\n");
  struct Case {
    std::string text;
    SolverSettings settings;
    int status;
  };
  const Case cases[] = {
      {infeasible, SolverSettings{}, 2},          // infeasible problem detected
      {Hs071(), SolverSettings{.max_iter = 2}, -1},  // iteration limit
      {Hs071(), SolverSettings{.max_time = 0.0}, 5},  // wall time used up: stopped at once
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

// A problem the library refuses (a row without Jacobian entries) and a log file that cannot be
// opened both end the call before a solve: the start point stands and the status is non-zero.
TEST(IpoptCallTest, CallsThatCannotSolveKeepTheStart) {
  struct RowWithoutEntries : testing::DenseProblem {
    int nnz_jac() override { return 0; }
    void JacobianStructure(std::span<int>, std::span<int>) override {}
  };
  struct Case {
    bool refused;  // else the log file is a directory
    std::string message;
  };
  const Case cases[] = {{true, "Error creating an Ipopt Problem handle."},
                        {false, "Error opening the Ipopt output file."}};
  for (const Case& c : cases) {
    WorkingDir dir;
    RowWithoutEntries refused;
    static_cast<testing::DenseProblem&>(refused) = NoHessianProblem();
    testing::DenseProblem plain = NoHessianProblem();
    if (!c.refused) std::filesystem::create_directory("ipopt.out");
    OutputCapture out;
    SolverResult r = SolveIpopt(c.refused ? refused : plain, SolverSettings{});
    EXPECT_NE(r.status, 0) << c.message;
    EXPECT_TRUE(out.Contains(c.message)) << out.text();
    EXPECT_FALSE(out.Contains("The solution was found.")) << c.message;
    EXPECT_EQ(r.x, (Vec{-1.2, 1.0})) << c.message;
    EXPECT_EQ(r.lambda, Vec{0.0}) << c.message;
  }
}

}  // namespace
}  // namespace kx::solvers

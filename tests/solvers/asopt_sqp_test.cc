#include "solvers/asopt.h"

#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <utility>
#include <string>

#include "base/base.h"
#include "solvers/ipopt_call.h"
#include "solvers/status.h"
#include "testing/forwarding_problem.h"
#include "testing/nlp_suite.h"
#include "testing/scratch_dir.h"

namespace kx::solvers {
namespace {

using testing::ModelText;

const std::string& Hs071() { return testing::ModelCases()[0].text; }

testing::Solved SolveText(const std::string& text, const std::string& options) {
  auto model = testing::LoadModelText(text);
  return testing::SolveAsoptWithOptions(*model->problem, options);
}

TEST(AsoptSqpTest, IterationLimitFromTheOptionsFile) {
  const testing::Solved s = SolveText(Hs071(), "nlp_maximum_iterations 2\n");
  EXPECT_EQ(s.result.status, kMaxIterations);
  EXPECT_EQ(s.result.iterations, 2);
}

// Solves the model text with ASOPT and with the interior-point library and expects both to
// succeed with the same objective, relative to the objective less `constant` (a cost that is
// the same at every point). Returns the ASOPT result.
SolverResult ExpectInteriorPointOptimum(const std::string& text, const SolverSettings& settings,
                                        double constant = 0.0) {
  auto asopt_model = testing::LoadModelText(text);
  auto ipopt_model = testing::LoadModelText(text);
  const SolverResult a =
      testing::SolveQuietly(testing::SolverKind::kAsopt, *asopt_model->problem, settings).result;
  const SolverResult b =
      testing::SolveQuietly(testing::SolverKind::kIpopt, *ipopt_model->problem, settings).result;
  EXPECT_EQ(a.status, kSuccess);
  EXPECT_EQ(b.status, kSuccess);
  EXPECT_LE(std::abs(a.objective - b.objective), 1e-6 * std::abs(b.objective - constant))
      << "ASOPT " << a.objective << ", interior point " << b.objective;
  return a;
}

// A control problem whose cost is weighted by the mesh width and a small factor: every
// gradient entry is below 1e-6, so an absolute stationarity test at the default tolerance
// passes after the first step, far from the optimum. The objective itself is about 1.6e-6:
// compare it relative to its own size.
TEST(AsoptSqpTest, SmallGradientObjectiveReachesItsOptimum) {
  const std::string body =
      "  Variables\n    u[1:n] = 0\n    f[1:n] = 0, >= -10, <= 10\n  End Variables\n"
      "  Equations\n"
      "    -2*u[1] + u[2] + h^2*(2*exp(u[1]) + f[1]) = 0\n"
      "    u[1:n-2] - 2*u[2:n-1] + u[3:n] + h^2*(2*exp(u[2:n-1]) + f[2:n-1]) = 0\n"
      "    u[n-1] - 2*u[n] + h^2*(2*exp(u[n]) + f[n]) = 0\n"
      "    minimize 1e-4*h*((u[1:n] - 0.3)^2 + 0.01*f[1:n]^2)\n";
  const std::string head =
      "Model control\n  Constants\n    n = 400\n    h = 1/(n + 1)\n  End Constants\n";
  // The second model adds a constant cost through a parameter: a fixed variable whose large
  // gradient must not loosen the stationarity test of the free ones.
  const SolverSettings settings{.constraint_tol = 1e-10, .max_iter = 200};
  ExpectInteriorPointOptimum(head + body + "  End Equations\nEnd Model\n", settings);
  ExpectInteriorPointOptimum(head + "  Parameters\n    price = 3\n  End Parameters\n" + body +
                                 "    minimize 100*price\n  End Equations\nEnd Model\n",
                             settings, 300.0);
}

// Beam control: the fourth derivative of u plus exp(u) equals v, clamped at both ends,
// discretised with the fourth difference. The rows' smallest eigenvalue is about (pi/n)^4, so
// the row multipliers are about 1e8 times the objective gradient. The linear solves then miss
// the rows by about eps * |multiplier|, and near the optimum the penalty times the rounding of
// the violation swamps the predicted merit decrease, as the stationarity's rounding does the
// dual error: each of these turns the iteration into a crawl that never meets the tolerances.
TEST(AsoptSqpTest, HugeMultipliersStillConverge) {
  const std::string text =
      "Model beam\n  Constants\n    n = 300\n    h4 = 1/(n-1)^4\n  End Constants\n"
      "  Variables\n    u[1:n] = 0\n    v[1:n] = 0, >= -2, <= 2\n  End Variables\n"
      "  Equations\n    u[1] = 0\n    u[2] = 0\n    u[n-1] = 0\n    u[n] = 0\n"
      "    u[1:n-4] - 4*u[2:n-3] + 6*u[3:n-2] - 4*u[4:n-1] + u[5:n] + h4*exp(u[3:n-2]) = "
      "h4*v[3:n-2]\n"
      "    minimize (u[1:n] - 0.5)^2\n    minimize 1e-3*v[1:n]^2\n  End Equations\n"
      "End Model\n";
  const SolverSettings settings{.objective_tol = 1e-8, .constraint_tol = 1e-8, .max_iter = 100};
  EXPECT_LE(ExpectInteriorPointOptimum(text, settings).iterations, 10);
}

// An implicit-Euler simulation of an exothermic stirred tank: a square system (fixed initial
// state, one equation per unknown) whose first Newton step leaves the variable bounds. It
// must be solved like a damped Newton method, in a few iterations.
TEST(AsoptSqpTest, SquareSimulationSystemConvergesLikeNewton) {
  const std::string text =
      "Model tank\n  Constants\n    n = 60\n    dt = 0.05\n  End Constants\n"
      "  Parameters\n    q = 100\n    v = 100\n    rho = 1000\n    cp = 0.239\n"
      "    mdelh = 5e4\n    er = 8750\n    k0 = 7.2e10\n    ua = 5e4\n    tf = 350\n"
      "    caf = 1\n    tc = 300\n  End Parameters\n"
      "  Variables\n    ca[1] = 0.8, >= 0.8, <= 0.8\n    ca[2:n+1] = 0.8, >= 0\n"
      "    t[1] = 335, >= 335, <= 335\n    t[2:n+1] = 335, >= 250, <= 500\n"
      "    rate[1:n+1] = 0\n    qgen[1:n+1] = 0\n  End Variables\n"
      "  Equations\n"
      "    rate[1:n+1] = k0*exp(-er/t[1:n+1])*ca[1:n+1]\n"
      "    qgen[1:n+1] = mdelh*v*rate[1:n+1]\n"
      "    v*(ca[2:n+1] - ca[1:n]) = dt*(q*(caf - ca[2:n+1]) - v*rate[2:n+1])\n"
      "    rho*cp*v*(t[2:n+1] - t[1:n]) = dt*(q*rho*cp*(tf - t[2:n+1]) + qgen[2:n+1] + "
      "ua*(tc - t[2:n+1]))\n"
      "  End Equations\nEnd Model\n";
  auto model = testing::LoadModelText(text);
  const SolverResult r = testing::SolveQuietly(testing::SolverKind::kAsopt, *model->problem,
                                               SolverSettings{.constraint_tol = 1e-8})
                             .result;
  ASSERT_EQ(r.status, kSuccess);
  EXPECT_LE(r.iterations, 25);
  Problem& p = *model->problem;
  std::vector<double> c(p.num_cons()), cl(p.num_cons()), cu(p.num_cons());
  ASSERT_TRUE(p.Constraints(r.x, c));
  p.ConstraintBounds(cl, cu);
  for (int i = 0; i < p.num_cons(); ++i) EXPECT_NEAR(c[i], cl[i], 1e-8) << "row " << i;
  std::vector<double> xl(p.num_vars()), xu(p.num_vars());
  p.Bounds(xl, xu);
  for (int j = 0; j < p.num_vars(); ++j) {
    EXPECT_GE(r.x[j], xl[j]) << j;
    EXPECT_LE(r.x[j], xu[j]) << j;
  }
}

// A hanging chain of rigid links between two fixed supports, started from a V shape: the
// Hessian at the start is nearly zero and the supports are fixed variables. ASOPT must reach
// the interior-point solver's optimum in a modest number of iterations.
TEST(AsoptSqpTest, HangingChainFromAFlatStart) {
  const std::string text =
      "Model chain\n  Constants\n    m = 200\n    len = 1.5/m\n  End Constants\n"
      "  Variables\n    dx[1:m] = 0.8*len\n    dy[1:m/2] = -0.6*len\n    dy[m/2+1:m] = 0.6*len\n"
      "    y[1] = 0, >= 0, <= 0\n    y[2:m+1] = 0\n    sx[1] = 0, >= 0, <= 0\n    sx[2:m] = 0\n"
      "    sx[m+1] = 1, >= 1, <= 1\n  End Variables\n"
      "  Equations\n    dx[1:m]^2 + dy[1:m]^2 = len^2\n    y[2:m+1] = y[1:m] + dy[1:m]\n"
      "    sx[2:m+1] = sx[1:m] + dx[1:m]\n    y[m+1] = 0\n"
      "    minimize len*(y[1:m] + y[2:m+1])/2\n  End Equations\nEnd Model\n";
  const SolverSettings settings{.constraint_tol = 1e-9, .max_iter = 500};
  EXPECT_LE(ExpectInteriorPointOptimum(text, settings).iterations, 60);
}

// A problem that supplies no second derivatives: the solver keeps its own diagonal estimate,
// chosen by initial_hessian_estimate_option (0 identity, 1 scaled identity, 2 finite
// differences). Every choice must still reach the optimum.
class NoSecondDerivatives : public testing::ForwardingProblem {
 public:
  using ForwardingProblem::ForwardingProblem;
  bool has_hessian() override { return false; }
  int nnz_hess() override { return 0; }
  bool HessianValues(std::span<const double>, double, std::span<const double>,
                     std::span<double>) override {
    ADD_FAILURE() << "second derivatives asked for";
    return false;
  }
};

TEST(AsoptSqpTest, HessianEstimateWithoutSecondDerivatives) {
  const std::string& hs071 = Hs071();
  const std::string hs035 =
      ModelText("    x[1:3] = 0.5, >= 0\n",
            "    x[1] + x[2] + 2*x[3] <= 3\n"
            "    minimize 9 - 8*x[1] - 6*x[2] - 4*x[3] + 2*x[1]^2 + 2*x[2]^2 + x[3]^2"
            " + 2*x[1]*x[2] + 2*x[1]*x[3]\n");
  for (int option : {0, 1, 2}) {
    for (const auto& [text, optimum] : {std::pair{hs071, 17.0140172891563}, {hs035, 1.0 / 9.0}}) {
      SCOPED_TRACE(::testing::Message() << "option " << option << ", optimum " << optimum);
      testing::WorkingDir dir("asopt_estimate");
      std::ofstream("asopt.opt") << "initial_hessian_estimate_option " << option << "\n";
      auto model = testing::LoadModelText(text);
      NoSecondDerivatives problem(*model->problem);
      OutputCapture out;
      const SolverResult r = SolveAsopt(problem, SolverSettings{.max_iter = 500});
      ASSERT_EQ(r.status, 0) << out.text();
      EXPECT_NEAR(r.objective, optimum, 1e-5);
    }
  }
}

using testing::MovedBound;

struct WarmCase {
  std::string name;
  bool row;     // move a row bound (else a variable bound)
  int index;    // 0-based row or variable
  bool upper;   // which side
  double step;  // added to the bound
};

// Moving a bound and solving again from the previous solution with its working set and
// multipliers (mode 3) must reach the optimum that a cold solve reaches, in no more
// iterations. The kept working set may hold rows the moved bound makes inconsistent.
TEST(AsoptWarmStartTest, MovedBoundReachesTheColdOptimum) {
  const WarmCase cases[] = {
      {"hs106", true, 0, false, 0.01},    // an active row tightened
      {"hs106", true, 2, false, 0.01},
      {"hs071", false, 0, false, 0.01},   // an active variable bound raised
      {"hs071", true, 0, false, 0.25},    // the product row tightened
      {"colville3", false, 0, false, 0.78},
      {"hs035", true, 0, false, 0.03},
      {"hs076", false, 2, false, 0.05},   // a convex QP, a bound at 0 moved
  };
  testing::WorkingDir dir("asopt_warm");
  const std::string root = testing::NlpSuite(false).front().path;
  for (const WarmCase& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string path = root.substr(0, root.rfind('/') + 1) + c.name + ".zpm";
    auto model = testing::LoadModelFile(path);
    Problem& base = *model->problem;
    MovedBound first(base);
    first.start.resize(base.num_vars());
    base.Start(first.start);
    const std::vector<double> start = first.start;
    OutputCapture out;
    const SolverSettings settings{.constraint_tol = 1e-9, .max_iter = 3000};
    SqpState state;
    const SolverResult r0 = SolveAsopt(first, settings, state, WarmStart::kCold);
    ASSERT_EQ(r0.status, 0) << out.text();
    MovedBound moved(base);
    moved.start = start;
    (c.row ? moved.row : moved.var) = c.index;
    moved.upper = c.upper;
    {
      const int n = base.num_vars(), m = base.num_cons();
      std::vector<double> xl(n), xu(n), cl(m), cu(m);
      base.Bounds(xl, xu);
      base.ConstraintBounds(cl, cu);
      const std::vector<double>& b = c.row ? (c.upper ? cu : cl) : (c.upper ? xu : xl);
      moved.value = b[c.index] + c.step;
    }
    const SolverResult cold = SolveAsopt(moved, settings);
    ASSERT_EQ(cold.status, 0) << out.text();
    moved.start = r0.x;
    SolverSettings warm_settings = settings;
    warm_settings.warm = true;
    const SolverResult warm = SolveAsopt(moved, warm_settings, state, WarmStart::kWorkingSet);
    ASSERT_EQ(warm.status, 0) << out.text();
    EXPECT_LE(testing::RelativeError(warm.objective, cold.objective), 1e-6)
        << "warm " << warm.objective << ", cold " << cold.objective;
    EXPECT_LE(warm.iterations, cold.iterations);
  }
}

}  // namespace
}  // namespace kx::solvers

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

struct Solved {
  SolverResult result;
  std::string output;
  int nodes = 0;
};

// Solves a model text in a scratch directory (the solver writes its log there).
Solved SolveText(const std::string& text, const std::string& options = "") {
  testing::ScratchDir dir("asopt");
  const auto cwd = std::filesystem::current_path();
  std::filesystem::current_path(dir.path());
  if (!options.empty()) dir.Write("asopt.opt", options);
  auto model = testing::LoadModelText(text);
  Solved s;
  {
    OutputCapture capture;
    SqpState state;
    SolverSettings settings;
    s.result = SolveAsopt(*model->problem, settings, state, 0, &s.nodes);
    s.output = capture.text();
  }
  std::filesystem::current_path(cwd);
  return s;
}

std::string Model(const std::string& variables, const std::string& equations) {
  return "Model test\n  Variables\n" + variables + "  End Variables\n  Equations\n" + equations +
         "  End Equations\nEnd Model\n";
}

TEST(AsoptSqpTest, ReachesKnownOptima) {
  struct Case {
    const char* name;
    std::string text;
    double optimum;
  };
  const Case cases[] = {
      {"hs071",
       Model("    x[1:4] = 1, >= 1, <= 5\n",
             "    x[1]*x[2]*x[3]*x[4] >= 25\n    x[1]^2 + x[2]^2 + x[3]^2 + x[4]^2 = 40\n"
             "    minimize x[1]*x[4]*(x[1]+x[2]+x[3]) + x[3]\n"),
       17.0140172891563},
      {"linear program",
       Model("    x = 0, >= 0\n    y = 0, >= 0\n",
             "    x + 2*y <= 4\n    3*x + y <= 6\n    maximize x + y\n"),
       -2.8},
      {"equality only", Model("    x = 0\n    y = 0\n", "    x + y = 2\n    minimize x^2 + y^2\n"),
       2.0},
      {"active bounds",
       Model("    x = 1, >= 0, <= 2\n    y = 1, >= 0\n", "    minimize (x-3)^2 + (y+1)^2\n"), 2.0},
      {"domain error at a trial point", Model("    x = 10\n", "    minimize x - 2*log(x)\n"),
       2.0 - 2.0 * std::log(2.0)},
      {"rank-deficient Jacobian",
       Model("    x = 0\n    y = 3\n",
             "    x + y = 2\n    2*x + 2*y = 4\n    minimize x^2 + y^2\n"),
       2.0},
      {"nonconvex objective on a circle",
       Model("    x = 0.8\n    y = -0.2\n", "    x^2 + y^2 = 1\n    minimize x*y\n"), -0.5},
      {"infeasible start of a curved equality",
       Model("    x = 3, >= 0\n    y = 3, >= 0\n",
             "    x^2 + y^2 = 4\n    x*y = 1\n    minimize x + 3*y\n"),
       0.0},
  };
  for (const Case& c : cases) {
    const Solved s = SolveText(c.text);
    ASSERT_EQ(s.result.status, kSuccess) << c.name << "\n" << s.output;
    if (std::string(c.name) == "infeasible start of a curved equality") {
      // x^2 + y^2 = 4, xy = 1 with the smaller y: y = sqrt(2 - sqrt(3)).
      const double y = std::sqrt(2.0 - std::sqrt(3.0)), x = 1.0 / y;
      EXPECT_NEAR(s.result.objective, x + 3 * y, 1e-6) << c.name;
      continue;
    }
    EXPECT_LE(testing::RelativeError(s.result.objective, c.optimum), 1e-6)
        << c.name << " f = " << s.result.objective;
  }
}

TEST(AsoptSqpTest, FailuresEndWithTheirStatus) {
  struct Case {
    const char* name;
    std::string text;
    int status;
  };
  const Case cases[] = {
      {"infeasible rows",
       Model("    x = 0\n    y = 0\n", "    x^2 + y^2 <= 1\n    x + y >= 3\n    minimize x\n"),
       kNoFeasibleSolution},
      {"unbounded objective", Model("    x = 0, >= 0\n    y = 1\n", "    y = 1\n    minimize -x\n"),
       kUnbounded},
  };
  for (const Case& c : cases) {
    const Solved s = SolveText(c.text);
    EXPECT_EQ(s.result.status, c.status) << c.name << "\n" << s.output;
  }
}

TEST(AsoptSqpTest, IterationLimitFromTheOptionsFile) {
  const Solved s =
      SolveText(Model("    x[1:4] = 1, >= 1, <= 5\n",
                      "    x[1]*x[2]*x[3]*x[4] >= 25\n    x[1]^2 + x[2]^2 + x[3]^2 + x[4]^2 = 40\n"
                      "    minimize x[1]*x[4]*(x[1]+x[2]+x[3]) + x[3]\n"),
                "nlp_maximum_iterations 2\n");
  EXPECT_EQ(s.result.status, kMaxIterations);
  EXPECT_EQ(s.result.iterations, 2);
}

// Solves a loaded model in a scratch directory with the given settings.
SolverResult SolveModel(testing::LoadedModel& model, const SolverSettings& settings,
                        bool ipopt = false) {
  testing::ScratchDir dir("asopt");
  const auto cwd = std::filesystem::current_path();
  std::filesystem::current_path(dir.path());
  SolverResult r;
  {
    OutputCapture capture;
    r = ipopt ? SolveIpopt(*model.problem, settings) : SolveAsopt(*model.problem, settings);
  }
  std::filesystem::current_path(cwd);
  return r;
}

// Solves the model text with ASOPT and with the interior-point library and expects both to
// succeed with the same objective, relative to the objective less `constant` (a cost that is
// the same at every point). Returns the ASOPT result.
SolverResult ExpectInteriorPointOptimum(const std::string& text, const SolverSettings& settings,
                                        double constant = 0.0) {
  auto asopt_model = testing::LoadModelText(text);
  auto ipopt_model = testing::LoadModelText(text);
  const SolverResult a = SolveModel(*asopt_model, settings);
  const SolverResult b = SolveModel(*ipopt_model, settings, true);
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
  const SolverResult r = SolveModel(*model, SolverSettings{.constraint_tol = 1e-8});
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

TEST(AsoptSqpTest, MultipliersSatisfyStationarity) {
  auto model = testing::LoadModelText(
      Model("    x[1:4] = 1, >= 1, <= 5\n",
            "    x[1]*x[2]*x[3]*x[4] >= 25\n    x[1]^2 + x[2]^2 + x[3]^2 + x[4]^2 = 40\n"
            "    minimize x[1]*x[4]*(x[1]+x[2]+x[3]) + x[3]\n"));
  testing::ScratchDir dir("asopt");
  const auto cwd = std::filesystem::current_path();
  std::filesystem::current_path(dir.path());
  SolverResult r;
  {
    OutputCapture capture;
    r = SolveAsopt(*model->problem, SolverSettings{});
  }
  std::filesystem::current_path(cwd);
  ASSERT_EQ(r.status, kSuccess);
  Problem& p = *model->problem;
  std::vector<double> g(4), jac(p.nnz_jac());
  std::vector<int> rows(p.nnz_jac()), cols(p.nnz_jac());
  p.Gradient(r.x, g);
  p.JacobianValues(r.x, jac);
  p.JacobianStructure(rows, cols);
  for (int k = 0; k < p.nnz_jac(); ++k) g[cols[k]] += jac[k] * r.lambda[rows[k]];
  for (int j = 0; j < 4; ++j) EXPECT_NEAR(g[j] - r.z_lower[j] + r.z_upper[j], 0.0, 1e-5) << j;
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
  const std::string hs071 =
      Model("    x[1:4] = 1, >= 1, <= 5\n",
            "    x[1]*x[2]*x[3]*x[4] >= 25\n    x[1]^2 + x[2]^2 + x[3]^2 + x[4]^2 = 40\n"
            "    minimize x[1]*x[4]*(x[1]+x[2]+x[3]) + x[3]\n");
  const std::string hs035 =
      Model("    x[1:3] = 0.5, >= 0\n",
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

}  // namespace
}  // namespace kx::solvers

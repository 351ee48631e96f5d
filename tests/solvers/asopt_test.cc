#include "solvers/asopt.h"

#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "base/report.h"
#include "solvers/ipopt_call.h"
#include "solvers/status.h"
#include "testing/forwarding_problem.h"
#include "testing/nlp_suite.h"
#include "testing/scratch_dir.h"

namespace kx::solvers {
namespace {

using testing::ModelText;

const std::string& Hs071() { return testing::ModelCaseText("hs071"); }

// A model of tests/models/sqp/.
std::string SqpModel(const std::string& name) {
  return std::string(KX_SOURCE_DIR) + "/tests/models/sqp/" + name + ".zpm";
}

// Solves the model file with ASOPT and with the interior-point library and expects both to
// succeed with the same objective, relative to the objective less `constant` (a cost that is
// the same at every point). Returns the ASOPT result.
SolverResult ExpectInteriorPointOptimum(const std::string& name, const SolverSettings& settings,
                                        double constant = 0.0) {
  auto asopt_model = testing::LoadModelFile(SqpModel(name));
  auto ipopt_model = testing::LoadModelFile(SqpModel(name));
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

// Every gradient entry is below 1e-6, so an absolute stationarity test at the default
// tolerance passes after the first step, far from the optimum. The objective itself is about
// 1.6e-6: compare it relative to its own size.
TEST(AsoptSqpTest, SmallGradientObjectiveReachesItsOptimum) {
  const SolverSettings settings{.constraint_tol = 1e-10, .max_iter = 200};
  ExpectInteriorPointOptimum("small_gradient", settings);
  ExpectInteriorPointOptimum("small_gradient_constant", settings, 300.0);
}

// The rows' smallest eigenvalue is about (pi/n)^4, so the row multipliers are about 1e8 times
// the objective gradient. The linear solves then miss the rows by about eps * |multiplier|,
// and near the optimum the penalty times the rounding of the violation swamps the predicted
// merit decrease, as the stationarity's rounding does the dual error: each of these turns the
// iteration into a crawl that never meets the tolerances.
TEST(AsoptSqpTest, HugeMultipliersStillConverge) {
  const SolverSettings settings{.objective_tol = 1e-8, .constraint_tol = 1e-8, .max_iter = 100};
  EXPECT_LE(ExpectInteriorPointOptimum("beam", settings).iterations, 10);
}

// A square system whose first Newton step leaves the variable bounds must be solved like a
// damped Newton method, in a few iterations.
TEST(AsoptSqpTest, SquareSimulationSystemConvergesLikeNewton) {
  auto model = testing::LoadModelFile(SqpModel("stirred_tank"));
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

// From a V shape the Hessian at the start is nearly zero and the supports are fixed
// variables: ASOPT must reach the interior-point solver's optimum in a modest number of
// iterations.
TEST(AsoptSqpTest, HangingChainFromAFlatStart) {
  const SolverSettings settings{.constraint_tol = 1e-9, .max_iter = 500};
  EXPECT_LE(ExpectInteriorPointOptimum("chain", settings).iterations, 60);
}

// A problem that supplies no second derivatives: the solver keeps its own diagonal estimate,
// chosen by initial_hessian_estimate_option (0 identity, 1 scaled identity, 2 finite
// differences). Every choice must still reach the optimum.
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
      testing::WithoutHessian problem(*model->problem);
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

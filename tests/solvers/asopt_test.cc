#include "solvers/asopt.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "base/base.h"
#include "base/report.h"
#include "solvers/ipopt_call.h"
#include "solvers/residual_dump.h"
#include "solvers/status.h"
#include "testing/forwarding_problem.h"
#include "testing/nlp_suite.h"
#include "testing/scratch_dir.h"

namespace kx::solvers {
namespace {

using testing::ModelText;

const std::string& Hs071() { return testing::ModelCaseText("hs071"); }

testing::Solved SolveText(const std::string& text, const std::string& options) {
  auto model = testing::LoadModelText(text);
  return testing::SolveAsoptWithOptions(*model->problem, options);
}

TEST(AsoptSqpTest, IterationLimitFromTheOptionsFile) {
  const testing::Solved s = SolveText(Hs071(), "nlp_maximum_iterations 2\n");
  EXPECT_EQ(s.result.status, kMaxIterations);
  EXPECT_EQ(s.result.iterations, 2);
}

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

using testing::Solved;

Solved Solve(const std::string& variables, const std::string& equations,
             const std::string& options = "minlp_print_level 2\n") {
  auto model = testing::LoadModelText(testing::ModelText(variables, equations));
  return testing::SolveAsoptWithOptions(*model->problem, options);
}

TEST(AsoptMinlpTest, BranchAndBoundCases) {
  struct Case {
    const char* name;
    std::string variables, equations;
    double optimum;
    std::vector<std::string> messages;
  };
  const Case cases[] = {
      {"no integer variables", "    x = 0\n", "    minimize (x-1.5)^2\n", 0.0,
       {"No integer variables - completed branching"}},
      {"integer solution at the root", "    int_x = 0, >= 0, <= 10\n",
       "    minimize (int_x-3)^2\n", 0.0, {"Found integer solution on root node"}},
      {"upper leaf crosses the absolute bound", "    int_x = 0, >= 0, <= 2.5\n",
       "    minimize (int_x-5)^2\n", 9.0,
       {"The upper leaf violated an absolute bound and was eliminated",
        "MINLP: no other leaves, optimal solution found"}},
      {"convex, two integers", "    int_x = 0, >= 0, <= 10\n    int_y = 0, >= 0, <= 10\n",
       "    minimize (int_x-2.6)^2 + (int_y-3.3)^2\n", 0.25,
       {"First integer solution", "--Integer Solution: "}},
      {"nonconvex row", "    int_x = 1, >= 0, <= 5\n    y = 1, >= 0, <= 5\n",
       "    int_x*y >= 2\n    minimize (int_x-1.4)^2 + (y-1)^2\n", 0.36, {"Not an integer solution"}},
  };
  for (const Case& c : cases) {
    const Solved s = Solve(c.variables, c.equations);
    ASSERT_EQ(s.result.status, kSuccess) << c.name << "\n" << s.output;
    EXPECT_NEAR(s.result.objective, c.optimum, 1e-6) << c.name << "\n" << s.output;
    for (const std::string& m : c.messages) {
      EXPECT_NE(s.output.find(m), std::string::npos) << c.name << ": " << m << "\n" << s.output;
    }
  }
}

TEST(AsoptMinlpTest, LimitsEndTheSearch) {
  const std::string variables = "    int_x = 0, >= 0, <= 10\n    int_y = 0, >= 0, <= 10\n";
  const std::string equations = "    minimize (int_x-2.6)^2 + (int_y-3.3)^2\n";
  // A negative gap tolerance turns the gap test off.
  const Solved full = Solve(variables, equations, "minlp_gap_tol -1\n");
  const Solved iterations = Solve(variables, equations, "minlp_maximum_iterations 3\n");
  const Solved gap = Solve(variables, equations, "minlp_gap_tol 10\n");
  const Solved with_int = Solve(variables, equations, "minlp_gap_tol -1\nminlp_max_iter_with_int_sol 1\n");
  const struct {
    const char* name;
    const Solved& s;
    std::vector<std::string> messages;
  } cases[] = {
      {"leaf limit", iterations,
       {"Warning: reached maximum MINLP iterations, returning best solution",
        "Adjust minlp_maximum_iterations 3 in asopt.opt to change limit"}},
      {"gap", gap, {"within minlp_gap_tol, returning the best integer solution"}},
      {"leaves after an integer solution", with_int,
       {"Warning: best integer solution returned after maximum MINLP iterations",
        "Adjust minlp_max_iter_with_int_sol 1 in asopt.opt to change limit"}},
  };
  for (const auto& c : cases) {
    for (const std::string& m : c.messages) {
      EXPECT_NE(c.s.output.find(m), std::string::npos) << c.name << ": " << m << "\n"
                                                       << c.s.output;
    }
  }
  EXPECT_EQ(iterations.nodes, 3);
  // The gap test stops at the first integer solution, the other limit one leaf later; both
  // return an integer solution before the full search has finished.
  ASSERT_EQ(gap.result.status, kSuccess);
  ASSERT_EQ(with_int.result.status, kSuccess);
  EXPECT_EQ(with_int.nodes, gap.nodes + 1);
  EXPECT_LT(with_int.nodes, full.nodes);
  EXPECT_NEAR(full.result.objective, 0.25, 1e-6);
  for (const Solved* s : {&gap, &with_int}) {
    EXPECT_NEAR(s->result.x[0], std::round(s->result.x[0]), 1e-2);
    EXPECT_NEAR(s->result.x[1], std::round(s->result.x[1]), 1e-2);
  }
}

// The ASOPT call around the solver: the dump of a setup it refuses and the residual dump that
// nlp_debug_level asks for.

// Two variables, one row: x + y >= 1, minimize x^2 + y^2.
constexpr const char* kModel =
    "Model call\n  Variables\n    x = 1, >= 0, <= 4\n    y = 1, >= 0, <= 4\n  End Variables\n"
    "  Equations\n    x + y >= 1\n    minimize x^2 + y^2\n  End Equations\nEnd Model\n";

// The model with one thing broken: a bound, a start value or a derivative entry.
class Broken : public testing::ForwardingProblem {
 public:
  using ForwardingProblem::ForwardingProblem;
  void Bounds(std::span<double> xl, std::span<double> xu) override {
    base_.Bounds(xl, xu);
    if (inverted_var) xl[1] = xu[1] + 1;
  }
  void ConstraintBounds(std::span<double> cl, std::span<double> cu) override {
    base_.ConstraintBounds(cl, cu);
    if (inverted_row) cu[0] = cl[0] - 1;
  }
  void Start(std::span<double> x) override {
    base_.Start(x);
    if (nan_start) x[0] = std::nan("");
  }
  bool Gradient(std::span<const double> x, std::span<double> g) override {
    base_.Gradient(x, g);
    if (nan_gradient) g[1] = std::nan("");
    return !nan_gradient;
  }
  bool JacobianValues(std::span<const double> x, std::span<double> v) override {
    base_.JacobianValues(x, v);
    if (nan_jacobian) v[0] = std::numeric_limits<double>::infinity();
    return true;
  }
  bool inverted_var = false, inverted_row = false, nan_start = false;
  bool nan_gradient = false, nan_jacobian = false;
};

struct Outcome {
  SolverResult result;
  std::vector<std::string> lines;
};

Outcome Solve(Problem& problem, const std::string& options = "") {
  testing::Solved s = testing::SolveAsoptWithOptions(problem, options);
  std::vector<std::string> lines = Split(s.output, '\n');
  if (!lines.empty() && lines.back().empty()) lines.pop_back();
  return {s.result, lines};
}

bool HasLine(const std::vector<std::string>& lines, const std::string& line) {
  return std::find(lines.begin(), lines.end(), line) != lines.end();
}

TEST(AsoptCallTest, RefusedSetupPrintsTheSolverDump) {
  struct Case {
    const char* name;
    void (*Break)(Broken&);
    std::string options;
    int status;
    std::vector<std::string> lines;  // lines of the dump beyond the common frame
  };
  const Case cases[] = {
      {"inverted variable bounds", [](Broken& b) { b.inverted_var = true; }, "", kInvalidBounds,
       {"       g", "    g(1)  = 2", "    g(2)  = 2", "       a", "    a(1)  = 1"}},
      {"inverted row bounds", [](Broken& b) { b.inverted_row = true; }, "", kInvalidBounds, {}},
      {"start value not a number", [](Broken& b) { b.nan_start = true; }, "", kBadInputs, {}},
      {"gradient fails at the start", [](Broken& b) { b.nan_gradient = true; }, "",
       kBadDerivatives, {"       g (errors only)", "       a"}},
      {"Jacobian entry infinite at the start", [](Broken& b) { b.nan_jacobian = true; }, "",
       kBadDerivatives, {"       g", "       a (errors only)", "    a(1)  = inf"}},
      {"too many degrees of freedom", [](Broken&) {}, "max_degrees_of_freedom 1\n", kBadInputs,
       {"       g"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto model = testing::LoadModelText(kModel);
    Broken problem(*model->problem);
    c.Break(problem);
    const Outcome out = Solve(problem, c.options);
    EXPECT_EQ(out.result.status, c.status);
    const auto dump = std::find(out.lines.begin(), out.lines.end(), "***** Solver Dump *****");
    ASSERT_NE(dump, out.lines.end()) << ::testing::PrintToString(out.lines);
    const std::vector<std::string> head(dump + 1, dump + 7);
    const std::vector<std::string> want = {fmt::format("info : {}", c.status), "n    : 2",
                                           "m    : 1", "nz   : 2", "p    : 2", "mode : 0"};
    EXPECT_EQ(head, want);
    for (const std::string& line : c.lines) {
      EXPECT_TRUE(HasLine(out.lines, line)) << line << "\n" << ::testing::PrintToString(out.lines);
    }
    EXPECT_EQ(out.lines.back(), fmt::format("Error: Problems with Setup.  info = {}", c.status));
  }
}

TEST(AsoptCallTest, DebugLevelPrintsTheResidualDumpOfTheStartPoint) {
  for (const int level : {0, 1}) {
    auto model = testing::LoadModelText(kModel);
    const Outcome out = Solve(*model->problem, fmt::format("nlp_debug_level {}\n", level));
    EXPECT_EQ(out.result.status, kSuccess);
    EXPECT_NEAR(out.result.objective, 0.5, 1e-8);
    EXPECT_EQ(HasLine(out.lines, "----- Kestrix Residual Evaluation -----"), level == 1);
    EXPECT_EQ(HasLine(out.lines, "x(1:n): 1 1"), level == 1);
  }
}

TEST(ResidualDump, PrintsEverySectionClippedAtTenValues) {
  // 12 variables, two rows: the second row's non-zeros come first in the model's triplets
  // only if the assembly orders them so; the combined index is in row order either way.
  auto m = testing::LoadModelText(
      "Model d\n  Variables\n    x[1:12] = 2\n  End Variables\n  Equations\n"
      "    x[1] + x[12] = 3\n    x[2]*x[3] = 1\n    minimize x[1]^2\n  End Equations\nEnd Model\n");
  std::vector<double> x(12, 2.0);
  OutputCapture out;
  ProblemView view(*m->problem, 1e20);
  PrintResidualDump(view, x);
  const std::vector<std::string> lines = out.lines();
  for (const char* want : {"nvar (n): 12", "x(1:n): 2 2 2 2 2 2 2 2 2 2", "residuals (f(1:m)): 1 3",
                           "obj grad (g(1:n)): 4 0 0 0 0 0 0 0 0 0", "1st derivs (a(1:nz)): 1 1 2 2",
                           "1st deriv sparsity (ia(0:nz+m+1)): 4 1 12 2 3 1 3 5"})
    EXPECT_TRUE(HasLine(lines, want)) << want << "\n" << out.text();
}

}  // namespace
}  // namespace kx::solvers

// The ASOPT call around the solver: the dump of a setup it refuses and the residual dump that
// nlp_debug_level asks for.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "base/base.h"
#include "base/report.h"
#include "solvers/asopt.h"
#include "solvers/residual_dump.h"
#include "solvers/status.h"
#include "testing/forwarding_problem.h"
#include "testing/nlp_suite.h"
#include "testing/scratch_dir.h"

namespace kx::solvers {
namespace {

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
  const std::vector<std::string> want = {
      "----- Kestrix Residual Evaluation -----",
      "note: clipped at 10 values max",
      "Variables -------",
      "nvar (n): 12",
      "x(1:n): 2 2 2 2 2 2 2 2 2 2",
      "xl(1:n) lower: -1e+20 -1e+20 -1e+20 -1e+20 -1e+20 -1e+20 -1e+20 -1e+20 -1e+20 -1e+20",
      "xu(1:n) upper: 1e+20 1e+20 1e+20 1e+20 1e+20 1e+20 1e+20 1e+20 1e+20 1e+20",
      "Equations -------",
      "neqn (m): 2",
      "residuals (f(1:m)): 1 3",
      "Objective -------",
      "objective: 4",
      "obj grad (g(1:n)): 4 0 0 0 0 0 0 0 0 0",
      "Equation Derivatives -------",
      "1st deriv non-zeros (nz): 4",
      "1st derivs (a(1:nz)): 1 1 2 2",
      "1st deriv sparsity (ia(0:nz+m+1)): 4 1 12 2 3 1 3 5",
  };
  EXPECT_EQ(out.lines(), want);
}

}  // namespace
}  // namespace kx::solvers

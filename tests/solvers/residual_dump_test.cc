#include "solvers/residual_dump.h"

#include <gtest/gtest.h>

#include "base/report.h"
#include "testing/nlp_suite.h"

namespace kx::solvers {
namespace {

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

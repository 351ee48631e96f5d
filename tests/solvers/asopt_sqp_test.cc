#include "solvers/asopt.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "base/base.h"
#include "solvers/status.h"
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

}  // namespace
}  // namespace kx::solvers

#include "solvers/asopt.h"

#include <gtest/gtest.h>

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

Solved Solve(const std::string& variables, const std::string& equations,
             const std::string& options = "minlp_print_level 2\n") {
  testing::ScratchDir dir("asopt_minlp");
  const auto cwd = std::filesystem::current_path();
  std::filesystem::current_path(dir.path());
  dir.Write("asopt.opt", options);
  auto model = testing::LoadModelText("Model test\n  Variables\n" + variables +
                                      "  End Variables\n  Equations\n" + equations +
                                      "  End Equations\nEnd Model\n");
  Solved s;
  {
    OutputCapture capture;
    SqpState state;
    s.result = SolveAsopt(*model->problem, SolverSettings{}, state, 0, &s.nodes);
    s.output = capture.text();
  }
  std::filesystem::current_path(cwd);
  return s;
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

TEST(AsoptMinlpTest, IterationLimitReturnsTheBestIntegerSolution) {
  const Solved s = Solve("    int_x = 0, >= 0, <= 10\n    int_y = 0, >= 0, <= 10\n",
                         "    minimize (int_x-2.6)^2 + (int_y-3.3)^2\n",
                         "minlp_maximum_iterations 3\nminlp_print_level 0\n");
  EXPECT_NE(s.output.find("Warning: reached maximum MINLP iterations, returning best solution"),
            std::string::npos)
      << s.output;
  EXPECT_NE(s.output.find("Adjust minlp_maximum_iterations 3 in asopt.opt to change limit"),
            std::string::npos);
  EXPECT_EQ(s.nodes, 3);
}

}  // namespace
}  // namespace kx::solvers

#include "solvers/asopt.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "base/base.h"
#include "solvers/status.h"
#include "testing/nlp_suite.h"

namespace kx::solvers {
namespace {

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

}  // namespace
}  // namespace kx::solvers

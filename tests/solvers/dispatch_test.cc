#include "solvers/dispatch.h"

#include <gtest/gtest.h>

#include "base/report.h"
#include "solvers/status.h"
#include "testing/forwarding_problem.h"
#include "testing/nlp_suite.h"
#include "testing/scratch_dir.h"

namespace kx::solvers {
namespace {

const std::string kModel = testing::ModelText("    x = 3\n", "    x >= 1\n    minimize (x - 2)^2\n");

// The model's problem, claiming to have no second derivatives.
class NoHessian : public testing::ForwardingProblem {
 public:
  using ForwardingProblem::ForwardingProblem;
  bool has_hessian() override { return false; }
  void HessianStructure(std::span<int>, std::span<int>) override {
    ADD_FAILURE() << "Hessian structure asked for";
  }
  bool HessianValues(std::span<const double>, double, std::span<const double>,
                     std::span<double>) override {
    ADD_FAILURE() << "Hessian values asked for";
    return false;
  }
};

TEST(Dispatch, EachNumberReachesItsSolverAndOthersFallBackToTheDefault) {
  struct Case {
    int solver;
    const char* banner;    // line the called solver prints
    const char* fallback;  // "" when the number is supported
  };
  const Case cases[] = {
      {1, "Steady State Optimization with ASOPT Solver", ""},
      {2, "Steady State Optimization with BIOPT Solver", ""},
      {3, "Steady State Optimization with Interior Point Solver", ""},
      {4, "Steady State Optimization with Interior Point Solver", ""},
      {5, "Steady State Optimization with ASOPT Solver",
       "solver 5 not supported\nusing default solver: ASOPT\n"},
      {6, "Steady State Optimization with ASOPT Solver",
       "solver 6 not supported\nusing default solver: ASOPT\n"},
      {9, "Steady State Optimization with ASOPT Solver",
       "solver 9 not supported\nusing default solver: ASOPT\n"},
  };
  testing::WorkingDir dir("kx_dispatch");
  for (const Case& c : cases) {
    auto m = testing::LoadModelText(kModel);
    OutputCapture out;
    SolverResult r = DispatchSolver(c.solver, *m->problem, SolverSettings{});
    EXPECT_EQ(r.status, 0) << c.solver << out.text();
    EXPECT_NEAR(r.objective, 0.0, 1e-6) << c.solver;
    EXPECT_TRUE(out.Contains(c.banner)) << c.solver;
    EXPECT_EQ(out.text().rfind(c.fallback, 0), 0u) << c.solver << out.text();
  }
}

TEST(Dispatch, BioptWithoutSecondDerivativesDoesNotSolve) {
  auto m = testing::LoadModelText(kModel);
  NoHessian problem(*m->problem);
  OutputCapture out;
  SolverResult r = DispatchSolver(2, problem, SolverSettings{});
  EXPECT_EQ(r.status, kBadInputs);
  EXPECT_EQ(out.text(), "BIOPT: l-BFGS not available\n");
}

// The benchmark table's column is twelve characters wide.
TEST(Dispatch, DisplayNamesAreTwelveCharacters) {
  for (int s = 1; s <= 6; ++s) EXPECT_EQ(SolverDisplayName(s).size(), 12u) << s;
  EXPECT_EQ(SolverDisplayName(1), "ASOPT (v1.0)");
  EXPECT_EQ(SolverDisplayName(0), "");
  EXPECT_EQ(SolverDisplayName(7), "");
}

}  // namespace
}  // namespace kx::solvers

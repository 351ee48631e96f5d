// The shared test problems solved by ASOPT: every small NLP to its known optimum, and every
// MINLP to its known integer optimum.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "base/report.h"
#include "solvers/asopt.h"
#include "testing/forwarding_problem.h"
#include "testing/nlp_suite.h"
#include "testing/scratch_dir.h"

namespace kx::solvers {
namespace {

using testing::LoadModelFile;
using testing::SuiteEntry;

// Solves one suite file in a scratch directory (ASOPT writes its log there) and checks the
// objective against the known optimum.
void ExpectKnownOptimum(const SuiteEntry& entry) {
  testing::WorkingDir dir("asopt_suite");
  auto model = LoadModelFile(entry.path);
  OutputCapture out;
  const SolverResult r =
      SolveAsopt(*model->problem, SolverSettings{.constraint_tol = 1e-9, .max_iter = 3000});
  ASSERT_EQ(r.status, 0) << out.text();
  EXPECT_LE(testing::RelativeError(r.objective, entry.optimum), 1e-6)
      << "objective " << r.objective << ", known optimum " << entry.optimum;
}

class AsoptNlpSuiteTest : public ::testing::TestWithParam<SuiteEntry> {};

TEST_P(AsoptNlpSuiteTest, ReachesTheKnownOptimum) { ExpectKnownOptimum(GetParam()); }

INSTANTIATE_TEST_SUITE_P(Suite, AsoptNlpSuiteTest, ::testing::ValuesIn(testing::NlpSuite(false)),
                         testing::SuiteEntryName);

// The problem with one bound held at another value and a given start point.
class MovedBound : public testing::ForwardingProblem {
 public:
  using ForwardingProblem::ForwardingProblem;
  void Bounds(std::span<double> xl, std::span<double> xu) override {
    base_.Bounds(xl, xu);
    if (var >= 0) (upper ? xu : xl)[var] = value;
  }
  void ConstraintBounds(std::span<double> cl, std::span<double> cu) override {
    base_.ConstraintBounds(cl, cu);
    if (row >= 0) (upper ? cu : cl)[row] = value;
  }
  void Start(std::span<double> x) override { std::copy(start.begin(), start.end(), x.begin()); }
  int var = -1, row = -1;
  bool upper = false;
  double value = 0.0;
  std::vector<double> start;
};

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
    auto model = LoadModelFile(path);
    Problem& base = *model->problem;
    MovedBound first(base);
    first.start.resize(base.num_vars());
    base.Start(first.start);
    const std::vector<double> start = first.start;
    OutputCapture out;
    const SolverSettings settings{.constraint_tol = 1e-9, .max_iter = 3000};
    SqpState state;
    const SolverResult r0 = SolveAsopt(first, settings, state, 0);
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
    const SolverResult warm = SolveAsopt(moved, warm_settings, state, 3);
    ASSERT_EQ(warm.status, 0) << out.text();
    EXPECT_LE(testing::RelativeError(warm.objective, cold.objective), 1e-6)
        << "warm " << warm.objective << ", cold " << cold.objective;
    EXPECT_LE(warm.iterations, cold.iterations);
  }
}

class AsoptMinlpSuiteTest : public ::testing::TestWithParam<SuiteEntry> {};
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(AsoptMinlpSuiteTest);

TEST_P(AsoptMinlpSuiteTest, ReachesTheKnownOptimum) {
  ExpectKnownOptimum(GetParam());
}

INSTANTIATE_TEST_SUITE_P(Suite, AsoptMinlpSuiteTest, ::testing::ValuesIn(testing::MinlpSuite()),
                         testing::SuiteEntryName);

}  // namespace
}  // namespace kx::solvers

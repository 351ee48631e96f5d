// The shared test problems: every small NLP solved by the interior-point call routine to its
// known optimum, and every MINLP file built by the compiler.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "base/report.h"
#include "solvers/ipopt_call.h"
#include "testing/forwarding_problem.h"
#include "testing/nlp_suite.h"
#include "testing/scratch_dir.h"

namespace kx::solvers {
namespace {

using testing::LoadModelFile;
using testing::SuiteEntry;

class SmallNlpTest : public ::testing::TestWithParam<SuiteEntry> {};

TEST_P(SmallNlpTest, ReachesTheKnownOptimum) {
  const SuiteEntry& entry = GetParam();
  testing::WorkingDir dir;
  auto model = LoadModelFile(entry.path);
  OutputCapture out;
  SolverResult r = SolveIpopt(*model->problem,
                              SolverSettings{.constraint_tol = 1e-9, .max_iter = 3000});
  ASSERT_EQ(r.status, 0) << out.text();
  EXPECT_LE(testing::RelativeError(r.objective, entry.optimum), 1e-6)
      << "objective " << r.objective << ", known optimum " << entry.optimum;
}

INSTANTIATE_TEST_SUITE_P(Suite, SmallNlpTest, ::testing::ValuesIn(testing::NlpSuite(false)),
                         testing::SuiteEntryName);

class MinlpFileTest : public ::testing::TestWithParam<SuiteEntry> {};
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(MinlpFileTest);

// The branch-and-bound solver is tested elsewhere; here each file must build and declare at
// least one integer variable.
TEST_P(MinlpFileTest, BuildsWithIntegerVariables) {
  auto model = LoadModelFile(GetParam().path);
  EXPECT_GT(model->problem->num_vars(), 0);
  EXPECT_FALSE(model->problem->IntegerVariables().empty());
}

INSTANTIATE_TEST_SUITE_P(Suite, MinlpFileTest, ::testing::ValuesIn(testing::MinlpSuite()),
                         testing::SuiteEntryName);

// The problem with its integer variables held at given values; multi-start support through a
// replaceable starting point.
class FixedIntegers : public testing::ForwardingProblem {
 public:
  FixedIntegers(Problem& base, const std::vector<int>& vars)
      : ForwardingProblem(base), vars_(vars) {}
  std::vector<double> values;  // one per integer variable
  std::vector<double> start;   // starting point; empty: the problem's own

  void Bounds(std::span<double> xl, std::span<double> xu) override {
    base_.Bounds(xl, xu);
    for (size_t k = 0; k < vars_.size(); ++k) xl[vars_[k]] = xu[vars_[k]] = values[k];
  }
  void Start(std::span<double> x) override {
    if (start.empty()) base_.Start(x);
    else std::copy(start.begin(), start.end(), x.begin());
    for (size_t k = 0; k < vars_.size(); ++k) x[vars_[k]] = values[k];
  }
  std::vector<int> IntegerVariables() override { return {}; }  // held: a plain NLP

 private:
  const std::vector<int>& vars_;
};

// The best objective over every integer assignment within the bounds, each leaf solved from
// the problem's start and from two random points in the bounds (leaves may be nonconvex).
double EnumerateIntegers(Problem& problem, long& leaves) {
  const std::vector<int> ints = problem.IntegerVariables();
  const int n = problem.num_vars();
  std::vector<double> xl(n), xu(n), x0(n);
  problem.Bounds(xl, xu);
  problem.Start(x0);
  FixedIntegers fixed(problem, ints);
  fixed.values.resize(ints.size());
  for (size_t k = 0; k < ints.size(); ++k) fixed.values[k] = std::ceil(xl[ints[k]]);
  std::mt19937 random(7);
  double best = INFINITY;
  for (leaves = 1;; ++leaves) {
    for (int s = 0; s < 3; ++s) {
      fixed.start = x0;
      for (int j = 0; s > 0 && j < n; ++j) {
        const double lo = IsFinite(xl[j]) ? xl[j] : x0[j] - 2, hi = IsFinite(xu[j]) ? xu[j] : x0[j] + 2;
        fixed.start[j] = lo + (hi - lo) * std::uniform_real_distribution<double>(0, 1)(random);
      }
      OutputCapture quiet;
      SolverResult r = SolveIpopt(fixed, SolverSettings{.constraint_tol = 1e-10, .max_iter = 1000});
      if (r.status == 0 || r.status == 1) best = std::min(best, r.objective);
    }
    size_t k = 0;  // next assignment, odometer order
    while (k < ints.size() && ++fixed.values[k] > std::floor(xu[ints[k]])) {
      fixed.values[k] = std::ceil(xl[ints[k]]);
      ++k;
    }
    if (k == ints.size()) return best;
  }
}

class MinlpEnumerationTest : public ::testing::TestWithParam<SuiteEntry> {};
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(MinlpEnumerationTest);

// Checks the optimum written in each MINLP file by full enumeration (slow, several
// minutes: run by hand with --gtest_also_run_disabled_tests).
TEST_P(MinlpEnumerationTest, DISABLED_OptimumMatchesEnumeration) {
  testing::WorkingDir dir;
  auto model = LoadModelFile(GetParam().path);
  long leaves = 0;
  const double best = EnumerateIntegers(*model->problem, leaves);
  EXPECT_LE(testing::RelativeError(best, GetParam().optimum), 1e-6)
      << "best over " << leaves << " leaves: " << fmt::format("{:.12g}", best);
}

INSTANTIATE_TEST_SUITE_P(Suite, MinlpEnumerationTest, ::testing::ValuesIn(testing::MinlpSuite()),
                         testing::SuiteEntryName);

TEST(NlpSuiteTest, HasTheSmallAndLargeProblems) {
  const auto small = testing::NlpSuite(false);
  const auto all = testing::NlpSuite(true);
  EXPECT_GE(small.size(), 32u);
  EXPECT_GE(all.size() - small.size(), 8u);
  for (const auto& entry : all) EXPECT_TRUE(std::isfinite(entry.optimum)) << entry.name;
  EXPECT_GE(testing::MinlpSuite().size(), 15u);
}

}  // namespace
}  // namespace kx::solvers

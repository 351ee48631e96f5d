// The shared test problems: every small NLP solved by the interior-point call routine to its
// known optimum, and every MINLP file built by the compiler.
#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "base/report.h"
#include "solvers/ipopt_call.h"
#include "testing/nlp_suite.h"
#include "testing/scratch_dir.h"

namespace kx::testing {
// Test names and failure messages show the problem by name.
void PrintTo(const SuiteEntry& entry, std::ostream* os) { *os << entry.name; }
}  // namespace kx::testing

namespace kx::solvers {
namespace {

using testing::LoadModelFile;
using testing::SuiteEntry;

std::string EntryName(const ::testing::TestParamInfo<SuiteEntry>& info) {
  return info.param.name;
}

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
                         EntryName);

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
                         EntryName);

TEST(NlpSuiteTest, HasTheSmallAndLargeProblems) {
  const auto small = testing::NlpSuite(false);
  const auto all = testing::NlpSuite(true);
  EXPECT_GE(small.size(), 32u);
  EXPECT_GE(all.size() - small.size(), 8u);
  for (const auto& entry : all) EXPECT_TRUE(std::isfinite(entry.optimum)) << entry.name;
}

}  // namespace
}  // namespace kx::solvers

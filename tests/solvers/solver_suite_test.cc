// Every solver on the shared test problems: the suite files (known optima) for ASOPT, BIOPT and
// the interior-point library, the MINLP files for ASOPT's branch and bound, and the small
// model cases (known outcomes, failures included) for ASOPT and BIOPT under each barrier rule.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <tuple>
#include <vector>

#include "solvers/status.h"
#include "testing/nlp_suite.h"

namespace kx::solvers {
namespace {

using testing::ModelCase;
using testing::SolverKind;
using testing::SuiteEntry;

struct SolverConfig {
  const char* name;
  SolverKind kind;
  SolverSettings settings;
  biopt::Options options;  // BIOPT only
};

constexpr SolverSettings kSuiteSettings{.constraint_tol = 1e-9, .max_iter = 3000};
constexpr SolverSettings kTight{.objective_tol = 1e-8, .constraint_tol = 1e-8};
const biopt::Options kQuiet = [] {
  biopt::Options options;
  options.log_file = "";
  return options;
}();

const SolverConfig kSuiteSolvers[] = {
    {"asopt", SolverKind::kAsopt, kSuiteSettings, {}},
    {"biopt", SolverKind::kBiopt, kTight, kQuiet},
    {"ipopt", SolverKind::kIpopt, kSuiteSettings, {}},
};

std::vector<SolverConfig> ModelCaseSolvers() {
  std::vector<SolverConfig> solvers = {{"asopt", SolverKind::kAsopt, SolverSettings{}, {}}};
  for (const testing::BarrierRule& rule : testing::BarrierRules()) {
    solvers.push_back({rule.name, SolverKind::kBiopt, kTight, rule.options});
  }
  return solvers;
}

// Nonconvex suite problems on which a solver stops, from the suite's start point, at another
// local minimum than the known optimum: the objective accepted instead.
struct OtherMinimum {
  SolverKind solver;
  const char* problem;
  double objective;
};
const OtherMinimum kOtherMinima[] = {
    {SolverKind::kBiopt, "hs108", -0.674981},
};

// The objective a solver must reach on a suite problem.
double AcceptedObjective(SolverKind solver, const SuiteEntry& entry) {
  for (const OtherMinimum& other : kOtherMinima) {
    if (other.solver == solver && entry.name == other.problem) return other.objective;
  }
  return entry.optimum;
}

template <typename Problem>
std::string CaseName(const ::testing::TestParamInfo<std::tuple<SolverConfig, Problem>>& info) {
  return std::string(std::get<0>(info.param).name) + "_" + std::get<1>(info.param).name;
}

void PrintTo(const SolverConfig& c, std::ostream* os) { *os << c.name; }

using SuiteParam = std::tuple<SolverConfig, SuiteEntry>;
class SolverSuiteTest : public ::testing::TestWithParam<SuiteParam> {};

// Success at the known optimum (or the stated other minimum), at a first-order point.
TEST_P(SolverSuiteTest, ReachesTheAcceptedObjective) {
  const auto& [solver, entry] = GetParam();
  auto model = testing::LoadModelFile(entry.path);
  const testing::Solved s =
      testing::SolveQuietly(solver.kind, *model->problem, solver.settings, solver.options);
  ASSERT_EQ(s.result.status, kSuccess) << s.output;
  const double accepted = AcceptedObjective(solver.kind, entry);
  const double tolerance = accepted == entry.optimum ? 1e-6 : 1e-5;
  EXPECT_LE(testing::RelativeError(s.result.objective, accepted), tolerance)
      << "objective " << s.result.objective << ", accepted " << accepted;
  if (model->problem->IntegerVariables().empty()) {
    EXPECT_LE(testing::Stationarity(*model->problem, s.result), 1e-5);
  }
}

std::vector<SuiteParam> SuiteCases() {
  std::vector<SuiteParam> cases;
  for (const SolverConfig& solver : kSuiteSolvers) {
    for (const SuiteEntry& entry : testing::NlpSuite(false)) cases.emplace_back(solver, entry);
  }
  for (const SuiteEntry& entry : testing::MinlpSuite()) {
    cases.emplace_back(kSuiteSolvers[0], entry);
  }
  return cases;
}

INSTANTIATE_TEST_SUITE_P(Suite, SolverSuiteTest, ::testing::ValuesIn(SuiteCases()),
                         CaseName<SuiteEntry>);

using ModelParam = std::tuple<SolverConfig, ModelCase>;
class ModelCaseTest : public ::testing::TestWithParam<ModelParam> {};

TEST_P(ModelCaseTest, EndsWithTheKnownOutcome) {
  const auto& [solver, c] = GetParam();
  auto model = testing::LoadModelText(c.text);
  const testing::Solved s =
      testing::SolveQuietly(solver.kind, *model->problem, solver.settings, solver.options);
  ASSERT_EQ(s.result.status, c.status) << s.output;
  EXPECT_GT(s.result.residual_evals, 0);
  if (c.status != kSuccess) return;
  EXPECT_NEAR(s.result.objective, c.optimum, 1e-6 * (1 + std::abs(c.optimum)));
  // Multipliers in the convention L = f + lambda'c, bound multipliers nonnegative.
  EXPECT_LE(testing::Stationarity(*model->problem, s.result), 1e-5);
  for (size_t j = 0; j < s.result.x.size(); ++j) {
    EXPECT_GE(s.result.z_lower[j], 0.0) << j;
    EXPECT_GE(s.result.z_upper[j], 0.0) << j;
  }
}

INSTANTIATE_TEST_SUITE_P(Cases, ModelCaseTest,
                         ::testing::Combine(::testing::ValuesIn(ModelCaseSolvers()),
                                            ::testing::ValuesIn(testing::ModelCases())),
                         CaseName<ModelCase>);

TEST(SolverSuiteTest, HasTheSmallAndLargeProblems) {
  const auto small = testing::NlpSuite(false);
  const auto all = testing::NlpSuite(true);
  EXPECT_GE(small.size(), 32u);
  EXPECT_GE(all.size() - small.size(), 8u);
  for (const auto& entry : all) EXPECT_TRUE(std::isfinite(entry.optimum)) << entry.name;
  EXPECT_GE(testing::MinlpSuite().size(), 15u);
}

}  // namespace
}  // namespace kx::solvers

// The fast evaluation path (PointHome::kArrays) against the record path on the same models:
// rows sharing one program in full and partial blocks, objective rows and variables, a row
// that reads one column twice, time derivatives, rows whose multiplier is zero, and domain
// faults.
#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "builder_testing.h"
#include "model/nlp.h"
#include "test_models.h"

namespace kx::model {
namespace {

using testing::Build;
using testing::ScratchDir;

struct Case {
  const char* name;
  ModelStore (*make)();
  bool dynamic;
};

ModelStore Built(const char* text) {
  ScratchDir dir;
  testing::BuildResult built = Build(text, dir);
  EXPECT_FALSE(built.stopped) << built.output;
  return std::move(built.store);
}

// 70 copies of one row program (two full blocks and a partial one), objective rows of one
// program plus an objective variable, rows joined through a connection, and a row under a log
// whose argument a test point makes negative.
const char kSteady[] = R"(Parameters
  p = 0.5
End Parameters
Variables
  x[0:70] = 0.3, >= -2, <= 2
  u[0:70] = 0.1
  obj_u = 0
  b[1:3] = 0.2
  y = 1.5
End Variables
Connections
  b[2] = x[2]
End Connections
Equations
  x[1:70] - x[0:69] - p*(sin(u[1:70]) + sin(u[0:69]))*exp(x[1:70]) = 0
  minimize (u[1:70] - x[1:70])^2 + cos(x[0:69])
  obj_u = u[5]^2
  x[1:3]*b[1:3] + 0.5*y = 1 + y^3
  log(y) + y = 2
End Equations
)";

const char kDynamic[] = R"(Variables
  h[1:40] = 1, >= 0.01
  q[1:40] = 0.5
End Variables
Equations
  $h[1:40] = q[1:40] - 0.3*sqrt(h[1:40])*h[1:40]
  q[1:40] = 0.5 + 0.1*h[1:40]^2
End Equations
)";

class EvalPlanAgrees : public ::testing::TestWithParam<Case> {};

// Values of every callback at one point through one Nlp.
struct Results {
  double f = 0;
  std::vector<double> g, c, jac, hess;
  long faults = 0;
};

Results Evaluate(const Case& c, PointHome home, bool zero_some_multipliers) {
  ModelStore store = c.make();
  ModelAccess access(store);
  Nlp nlp(access, c.dynamic, /*scaled=*/false, home);
  const int n = nlp.num_vars(), m = nlp.num_cons();
  std::vector<double> x(n), lambda(m);
  nlp.GetStart(x);
  std::mt19937 rng(7);
  std::uniform_real_distribution<double> shift(-0.2, 0.2);
  for (double& v : x) v += shift(rng);
  for (int r = 0; r < m; ++r) lambda[r] = zero_some_multipliers && r % 3 == 0 ? 0.0 : 1.0 + r;
  Results out;
  out.g.resize(n);
  out.c.resize(m);
  out.jac.resize(nlp.nnz_jac());
  out.hess.resize(nlp.nnz_hess());
  out.f = nlp.Objective(x);
  nlp.Gradient(x, out.g);
  nlp.Constraints(x, out.c);
  nlp.JacobianValues(x, out.jac);
  nlp.HessianValues(x, 0.5, lambda, out.hess);
  out.faults = access.domain_errors().Total();
  return out;
}

void ExpectClose(const std::vector<double>& a, const std::vector<double>& b, const char* what) {
  ASSERT_EQ(a.size(), b.size()) << what;
  for (size_t k = 0; k < a.size(); ++k) {
    if (std::isnan(a[k]) || std::isnan(b[k])) {
      EXPECT_EQ(std::isnan(a[k]), std::isnan(b[k])) << what << " " << k;
      continue;
    }
    EXPECT_NEAR(a[k], b[k], 1e-13 * (1 + std::abs(b[k]))) << what << " " << k;
  }
}

TEST_P(EvalPlanAgrees, WithTheRecordPath) {
  for (bool zeros : {false, true}) {
    const Results plan = Evaluate(GetParam(), PointHome::kArrays, zeros);
    const Results records = Evaluate(GetParam(), PointHome::kRecords, zeros);
    EXPECT_NEAR(plan.f, records.f, 1e-13 * (1 + std::abs(records.f)));
    ExpectClose(plan.g, records.g, "gradient");
    ExpectClose(plan.c, records.c, "residuals");
    ExpectClose(plan.jac, records.jac, "Jacobian");
    ExpectClose(plan.hess, records.hess, "Hessian");
    EXPECT_EQ(plan.faults, records.faults);
  }
}

INSTANTIATE_TEST_SUITE_P(Models, EvalPlanAgrees,
                         ::testing::Values(
                             Case{"steady", [] { return Built(kSteady); }, false},
                             Case{"dynamic", [] { return Built(kDynamic); }, true},
                             // Random rows with intermediates and a column read twice.
                             Case{"random_steady",
                                  [] { return testing::MakeRandomModel(3, 12, 9); }, false},
                             Case{"random_dynamic",
                                  [] { return testing::MakeRandomModel(5, 12, 9); }, true}),
                         [](const auto& info) { return std::string(info.param.name); });

// The log row goes negative at this point: with its multiplier zero the Hessian is finite
// and that row's fault is not counted, while the residual and Jacobian calls count it; the
// store sees the point only when a solve ends.
TEST(EvalPlan, SkipsZeroWeightRowsAndLeavesTheRecordsAlone) {
  ScratchDir dir;
  testing::BuildResult built = Build(kSteady, dir);
  ASSERT_FALSE(built.stopped) << built.output;
  ModelAccess access(built.store);
  Nlp nlp(access, false, false, PointHome::kArrays);
  const int n = nlp.num_vars(), m = nlp.num_cons();
  std::vector<double> x(n), lambda(m, 1.0), hess(nlp.nnz_hess()), c(m);
  nlp.GetStart(x);
  int y = 0, log_row = 0;
  for (int k = 1; k <= n; ++k)
    if (built.store.Var(k).name == "y") y = k;
  for (int r = 1; r <= m; ++r)
    if (access.Row(r).Text().find("log(y)") != std::string::npos) log_row = r;
  ASSERT_GT(y, 0);
  ASSERT_GT(log_row, 0);
  const double start_y = built.store.Var(y).val;
  x[y - 1] = -1;
  lambda[log_row - 1] = 0;
  nlp.HessianValues(x, 1.0, lambda, hess);
  for (double v : hess) EXPECT_TRUE(std::isfinite(v));
  EXPECT_EQ(access.domain_errors().log_negative, 0);
  nlp.Constraints(x, c);
  EXPECT_TRUE(std::isnan(c[log_row - 1]));
  EXPECT_EQ(access.domain_errors().log_negative, 1);
  // A Jacobian call needs no log for its values (d log y = 1/y) but still counts its fault.
  std::vector<double> jac(nlp.nnz_jac());
  nlp.JacobianValues(x, jac);
  EXPECT_EQ(access.domain_errors().log_negative, 2);
  EXPECT_EQ(built.store.Var(y).val, start_y);
  x[y - 1] = 2;
  nlp.StoreSolution(x, lambda);
  EXPECT_EQ(built.store.Var(y).val, 2);
  EXPECT_NEAR(access.Row(log_row).residual, std::log(2.0) + 2 - 2, 1e-15);
}

}  // namespace
}  // namespace kx::model

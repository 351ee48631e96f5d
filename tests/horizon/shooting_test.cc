// Single shooting's reduced program: its exact first derivatives (forward sensitivities
// through the collocation steps) against central differences of its own values, and the
// trajectory it leaves in the store.
#include "horizon/shooting.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "base/sentinels.h"
#include "horizon/horizon_testing.h"
#include "horizon/inputs.h"

namespace kx::horizon {
namespace {

using testing::BuildQuietly;
using testing::ReplicateQuietly;

int Number(const model::ModelStore& base, const std::string& name) {
  for (int n = 1; n <= base.nvar; ++n)
    if (base.Var(n).name == name) return n;
  return 0;
}

// Frees every copy of the parameter u (one input per copy) and k, whose copies are one value
// for the horizon (link rows, as a free FV has them) unless `share_k` is off.
void FreeInputs(Horizon& h, const model::ModelStore& base, bool share_k = true) {
  const int u = Number(base, "u"), k = Number(base, "k");
  for (int p = 0; p < h.grid.num_points(); ++p) {
    h.store.Var(h.Number(p, u)).fixed = false;
    if (!share_k) h.store.Var(h.Number(p, k)).fixed = false;
  }
  if (!share_k) return;
  OutputCapture quiet;
  HorizonRows rows(h);
  ShareOverHorizon(rows, k, "k");
  rows.Finish();
}

struct Values {
  double f = 0;
  std::vector<double> c;
};

Values Evaluate(Shooting& s, const std::vector<double>& z) {
  Values v;
  v.c.resize(s.num_cons());
  EXPECT_TRUE(s.Objective(z, v.f));
  EXPECT_TRUE(s.Constraints(z, v.c));
  return v;
}

struct Case {
  int nodes;
  std::vector<double> dt;
};

TEST(Shooting, DerivativesMatchCentralDifferences) {
  const model::ModelStore base = BuildQuietly("shooting");
  for (const Case& t : {Case{2, {0.5, 0.5, 0.5}}, Case{3, {0.4, 0.8}}, Case{4, {1.0}}}) {
    Horizon h = ReplicateQuietly(base, t.nodes, t.dt);
    FreeInputs(h, base);
    model::ModelAccess access(h.store);
    Shooting s(h, base, access, SequentialSettings{.tolerance = 1e-13, .max_iter = 50});
    ASSERT_GT(s.num_inputs(), 0);
    ASSERT_GT(s.num_states(), 0);
    const int n = s.num_vars(), m = s.num_cons();
    std::vector<double> z(n), g(n), jac(s.nnz_jac());
    s.Start(z);
    for (int i = 0; i < n; ++i) z[i] += 0.05 * std::sin(i + 1.0);  // away from uniform values
    ASSERT_TRUE(s.Gradient(z, g));
    ASSERT_TRUE(s.JacobianValues(z, jac));
    std::vector<int> rows(jac.size()), cols(jac.size());
    s.JacobianStructure(rows, cols);
    std::vector<double> dense(static_cast<size_t>(m) * n, 0.0);
    for (size_t k = 0; k < jac.size(); ++k) dense[rows[k] * n + cols[k]] += jac[k];
    constexpr double kStep = 1e-6;
    for (int i = 0; i < n; ++i) {
      std::vector<double> zp = z, zm = z;
      zp[i] += kStep, zm[i] -= kStep;
      const Values vp = Evaluate(s, zp), vm = Evaluate(s, zm);
      EXPECT_NEAR(g[i], (vp.f - vm.f) / (2 * kStep), 1e-6) << "NODES " << t.nodes << " z" << i;
      for (int r = 0; r < m; ++r)
        EXPECT_NEAR(dense[r * n + i], (vp.c[r] - vm.c[r]) / (2 * kStep), 1e-6)
            << "NODES " << t.nodes << " row " << r << " z" << i;
    }
  }
}

// Gradient of the reduced Lagrangian obj_factor f + lambda^T c at z.
std::vector<double> LagrangianGradient(Shooting& s, const std::vector<double>& z, double sigma,
                                       const std::vector<double>& lambda) {
  std::vector<double> g(s.num_vars()), jac(s.nnz_jac());
  std::vector<int> rows(jac.size()), cols(jac.size());
  EXPECT_TRUE(s.Gradient(z, g));
  EXPECT_TRUE(s.JacobianValues(z, jac));
  s.JacobianStructure(rows, cols);
  for (double& v : g) v *= sigma;
  for (size_t k = 0; k < jac.size(); ++k) g[cols[k]] += lambda[rows[k]] * jac[k];
  return g;
}

// The reduced Hessian (adjoint multipliers on the model rows, projected through dx/dz)
// against central differences of the reduced Lagrangian's gradient.
TEST(Shooting, HessianMatchesDifferencesOfTheLagrangianGradient) {
  const model::ModelStore base = BuildQuietly("shooting");
  for (const Case& t : {Case{2, {0.5, 0.5, 0.5}}, Case{3, {0.4, 0.8}}}) {
    Horizon h = ReplicateQuietly(base, t.nodes, t.dt);
    FreeInputs(h, base);
    model::ModelAccess access(h.store);
    Shooting s(h, base, access, SequentialSettings{.tolerance = 1e-13, .max_iter = 50});
    ASSERT_TRUE(s.has_hessian());
    const int n = s.num_vars();
    std::vector<double> z(n), lambda(s.num_cons());
    s.Start(z);
    for (int i = 0; i < n; ++i) z[i] += 0.05 * std::cos(i + 2.0);
    for (size_t r = 0; r < lambda.size(); ++r) lambda[r] = 0.3 + 0.1 * static_cast<double>(r);
    constexpr double kSigma = 0.7;
    std::vector<double> values(s.nnz_hess());
    std::vector<int> rows(values.size()), cols(values.size());
    s.HessianStructure(rows, cols);
    ASSERT_TRUE(s.HessianValues(z, kSigma, lambda, values));
    std::vector<double> dense(static_cast<size_t>(n) * n, 0.0);
    for (size_t k = 0; k < values.size(); ++k) {
      ASSERT_GE(rows[k], cols[k]);
      dense[rows[k] * n + cols[k]] += values[k];
    }
    constexpr double kStep = 1e-5;
    for (int j = 0; j < n; ++j) {
      std::vector<double> zp = z, zm = z;
      zp[j] += kStep, zm[j] -= kStep;
      const std::vector<double> gp = LagrangianGradient(s, zp, kSigma, lambda);
      const std::vector<double> gm = LagrangianGradient(s, zm, kSigma, lambda);
      for (int i = j; i < n; ++i)
        EXPECT_NEAR(dense[i * n + j], (gp[i] - gm[i]) / (2 * kStep), 1e-5)
            << "NODES " << t.nodes << " (" << i << ", " << j << ")";
    }
  }
}

TEST(Shooting, AModelWithoutSecondDerivativesGivesAReducedProgramWithout) {
  model::ModelStore base = BuildQuietly("shooting");
  base.exact_hessian = false;
  Horizon h = ReplicateQuietly(base, 2, {0.5, 0.5});
  FreeInputs(h, base);
  model::ModelAccess access(h.store);
  Shooting s(h, base, access, SequentialSettings{});
  EXPECT_FALSE(s.has_hessian());
  EXPECT_EQ(s.nnz_hess(), 0);
}

// The link rows of a shared parameter make its copies one unknown and one input, and leave
// the program.
TEST(Shooting, LinkedCopiesAreOneInput) {
  const model::ModelStore base = BuildQuietly("shooting");
  int inputs[2] = {0, 0}, rows[2] = {0, 0};
  for (bool share : {false, true}) {
    Horizon h = ReplicateQuietly(base, 3, {0.5, 0.5});
    FreeInputs(h, base, share);
    model::ModelAccess access(h.store);
    Shooting s(h, base, access, SequentialSettings{});
    inputs[share] = s.num_inputs();
    rows[share] = s.num_cons();
  }
  EXPECT_EQ(inputs[0], 2 * inputs[1] - 2) << "u and k per copy against u per copy and one k";
  EXPECT_EQ(rows[1], rows[0]) << "the link rows left the program";
}

TEST(Shooting, StoredPointSatisfiesTheModelRowsAndHoldsTheInputs) {
  const model::ModelStore base = BuildQuietly("shooting");
  Horizon h = ReplicateQuietly(base, 3, {0.5, 0.5, 0.5, 0.5});
  FreeInputs(h, base);
  model::ModelAccess access(h.store);
  Shooting s(h, base, access, SequentialSettings{.tolerance = 1e-12, .max_iter = 50});
  std::vector<double> z(s.num_vars());
  s.Start(z);
  for (double& v : z) v *= 1.5;
  ASSERT_TRUE(s.Store(z, {}));
  // Every equality row of the store holds; the inequality x*u <= 3 is the reduced program's.
  for (const model::Equation& e : h.store.eqns) {
    if (!e.active || e.obj_eqn || e.lower != e.upper) continue;
    EXPECT_NEAR(e.residual, e.lower, 1e-9);
  }
  std::vector<double> back(s.num_vars());
  s.Start(back);
  for (size_t i = 0; i < z.size(); ++i) EXPECT_DOUBLE_EQ(back[i], z[i]);
}

// The bounds of the states are rows of the reduced program (one per bounded state, x within
// its bounds) while the shooting lives, and back on the records after.
TEST(Shooting, StateBoundsAreRowsWhileItLives) {
  const model::ModelStore base = BuildQuietly("shooting");
  Horizon h = ReplicateQuietly(base, 2, {0.5, 0.5, 0.5});
  FreeInputs(h, base);
  const int x = Number(base, "x");
  ASSERT_GT(x, 0);
  const int x_last = h.Number(h.grid.num_points() - 1, x);
  model::ModelAccess access(h.store);
  {
    Shooting s(h, base, access, SequentialSettings{.tolerance = 1e-12, .max_iter = 50});
    EXPECT_EQ(h.store.Var(x_last).lower, -kUnlimited);
    const int m = s.num_cons();
    std::vector<double> cl(m), cu(m), c(m), z(s.num_vars());
    s.ConstraintBounds(cl, cu);
    s.Start(z);
    ASSERT_TRUE(s.Constraints(z, c));
    int bound_rows = 0;
    for (int r = 0; r < m; ++r) {
      if (cl[r] != -5 || cu[r] != 5) continue;
      ++bound_rows;
      EXPECT_GT(c[r], 0.0);  // a value of x (positive here), not a residual
    }
    EXPECT_EQ(bound_rows, h.grid.num_points() - 1) << "x at every point after the fixed start";
  }
  EXPECT_EQ(h.store.Var(x_last).lower, -5);
  EXPECT_EQ(h.store.Var(x_last).upper, 5);
}

}  // namespace
}  // namespace kx::horizon

// Single shooting's reduced program: its exact first and second derivatives (forward
// sensitivities and adjoint multipliers through the collocation steps) against central
// differences of its own values, and the trajectory it leaves in the store.
#include "horizon/shooting.h"

#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <vector>

#include "base/sentinels.h"
#include "horizon/horizon_testing.h"
#include "horizon/inputs.h"

namespace kx::horizon {
namespace {

using Vec = std::vector<double>;

// The test model replicated with every copy of u free (one input per copy) and k free, its
// copies one value for the horizon (link rows, as a free FV has them) unless `share_k` is off.
struct Shot {
  Shot(int nodes, const Vec& dt, bool share_k = true, bool hessian = true) {
    base.exact_hessian = hessian;
    h = testing::ReplicateQuietly(base, nodes, dt);
    const int u = testing::NumberOf(base, "u"), k = testing::NumberOf(base, "k");
    for (int p = 0; p < h.grid.num_points(); ++p) {
      h.store.Var(h.Number(p, u)).fixed = false;
      if (!share_k) h.store.Var(h.Number(p, k)).fixed = false;
    }
    if (share_k) {
      OutputCapture quiet;
      HorizonRows rows(h);
      ShareOverHorizon(rows, k, "k");
      rows.Finish();
    }
    access = std::make_unique<model::ModelAccess>(h.store);
    s = std::make_unique<Shooting>(h, base, *access,
                                   SequentialSettings{.tolerance = 1e-13, .max_iter = 50});
  }
  // The starting point moved off its uniform values by `shift(i)`.
  template <typename F>
  Vec Start(F shift) {
    Vec z(s->num_vars());
    s->Start(z);
    for (size_t i = 0; i < z.size(); ++i) z[i] += shift(static_cast<double>(i));
    return z;
  }
  model::ModelStore base = testing::BuildQuietly("shooting");
  Horizon h;
  std::unique_ptr<model::ModelAccess> access;
  std::unique_ptr<Shooting> s;
};

// The objective's gradient scaled by sigma plus lambda^T times the Jacobian, and that
// Jacobian densely (m x n, row-major).
Vec LagrangianGradient(Shooting& s, const Vec& z, double sigma, const Vec& lambda,
                       Vec* dense = nullptr) {
  const int n = s.num_vars();
  Vec g(n), jac(s.nnz_jac());
  std::vector<int> rows(jac.size()), cols(jac.size());
  EXPECT_TRUE(s.Gradient(z, g));
  EXPECT_TRUE(s.JacobianValues(z, jac));
  s.JacobianStructure(rows, cols);
  for (double& v : g) v *= sigma;
  if (dense) dense->assign(static_cast<size_t>(s.num_cons()) * n, 0.0);
  for (size_t k = 0; k < jac.size(); ++k) {
    g[cols[k]] += lambda[rows[k]] * jac[k];
    if (dense) (*dense)[rows[k] * n + cols[k]] += jac[k];
  }
  return g;
}

// First derivatives against central differences of the values; the reduced Hessian
// (adjoint multipliers on the model rows, projected through dx/dz) against central
// differences of the reduced Lagrangian's gradient.
TEST(Shooting, DerivativesMatchCentralDifferences) {
  for (const auto& [nodes, dt] :
       {std::pair{2, Vec{0.5, 0.5, 0.5}}, {3, Vec{0.4, 0.8}}, {4, Vec{1.0}}}) {
    Shot shot(nodes, dt);
    Shooting& s = *shot.s;
    ASSERT_GT(s.num_inputs(), 0);
    ASSERT_GT(s.num_states(), 0);
    ASSERT_TRUE(s.has_hessian());
    const int n = s.num_vars(), m = s.num_cons();
    const Vec z = shot.Start([](double i) { return 0.05 * std::sin(i + 1); });
    Vec jac, lambda(m, 0.0), values(s.nnz_hess()), hess(static_cast<size_t>(n) * n, 0.0);
    const Vec g = LagrangianGradient(s, z, 1.0, lambda, &jac);
    for (int r = 0; r < m; ++r) lambda[r] = 0.3 + 0.1 * r;
    constexpr double kSigma = 0.7, kStep = 1e-6, kHessStep = 1e-5;
    std::vector<int> rows(values.size()), cols(values.size());
    s.HessianStructure(rows, cols);
    ASSERT_TRUE(s.HessianValues(z, kSigma, lambda, values));
    for (size_t k = 0; k < values.size(); ++k) {
      ASSERT_GE(rows[k], cols[k]);
      hess[rows[k] * n + cols[k]] += values[k];
    }
    for (int j = 0; j < n; ++j) {
      Vec zp = z, zm = z, cp(m), cm(m);
      zp[j] += kStep, zm[j] -= kStep;
      double fp = 0, fm = 0;
      ASSERT_TRUE(s.Objective(zp, fp) && s.Constraints(zp, cp));
      ASSERT_TRUE(s.Objective(zm, fm) && s.Constraints(zm, cm));
      EXPECT_NEAR(g[j], (fp - fm) / (2 * kStep), 1e-6) << "NODES " << nodes << " z" << j;
      for (int r = 0; r < m; ++r)
        EXPECT_NEAR(jac[r * n + j], (cp[r] - cm[r]) / (2 * kStep), 1e-6)
            << "NODES " << nodes << " row " << r << " z" << j;
      zp[j] = z[j] + kHessStep, zm[j] = z[j] - kHessStep;
      const Vec gp = LagrangianGradient(s, zp, kSigma, lambda);
      const Vec gm = LagrangianGradient(s, zm, kSigma, lambda);
      for (int i = j; i < n; ++i)
        EXPECT_NEAR(hess[i * n + j], (gp[i] - gm[i]) / (2 * kHessStep), 1e-5)
            << "NODES " << nodes << " (" << i << ", " << j << ")";
    }
  }
  Shot without(2, {0.5, 0.5}, true, false);
  EXPECT_FALSE(without.s->has_hessian());
  EXPECT_EQ(without.s->nnz_hess(), 0);
}

// The link rows of a shared parameter make its copies one unknown and one input, and leave
// the program.
TEST(Shooting, LinkedCopiesAreOneInput) {
  Shot apart(3, {0.5, 0.5}, false), shared(3, {0.5, 0.5}, true);
  EXPECT_EQ(apart.s->num_inputs(), 2 * shared.s->num_inputs() - 2)
      << "u and k per copy against u per copy and one k";
  EXPECT_EQ(apart.s->num_cons(), shared.s->num_cons()) << "the link rows left the program";
}

// The stored point satisfies the model rows and holds the inputs. The bounds of the states
// are rows of the reduced program (one per bounded state, x within its bounds) while the
// shooting lives, and back on the records after.
TEST(Shooting, StoredPointHoldsAndStateBoundsAreRowsWhileItLives) {
  Shot shot(3, {0.5, 0.5, 0.5, 0.5});
  const int x_last = shot.h.Number(shot.h.grid.num_points() - 1, testing::NumberOf(shot.base, "x"));
  EXPECT_EQ(shot.h.store.Var(x_last).lower, -kUnlimited);
  const int m = shot.s->num_cons();
  Vec cl(m), cu(m), c(m), z = shot.Start([](double) { return 0.0; });
  shot.s->ConstraintBounds(cl, cu);
  ASSERT_TRUE(shot.s->Constraints(z, c));
  int bound_rows = 0;
  for (int r = 0; r < m; ++r) {
    if (cl[r] != -5 || cu[r] != 5) continue;
    ++bound_rows;
    EXPECT_GT(c[r], 0.0);  // a value of x (positive here), not a residual
  }
  EXPECT_EQ(bound_rows, shot.h.grid.num_points() - 1) << "x at every point after the fixed start";
  for (double& v : z) v *= 1.5;
  ASSERT_TRUE(shot.s->Store(z, {}));
  // Every equality row of the store holds; the inequality x*u <= 3 is the reduced program's.
  for (const model::Equation& e : shot.h.store.eqns) {
    if (!e.active || e.obj_eqn || e.lower != e.upper) continue;
    EXPECT_NEAR(e.residual, e.lower, 1e-9);
  }
  const Vec back = shot.Start([](double) { return 0.0; });
  for (size_t i = 0; i < z.size(); ++i) EXPECT_DOUBLE_EQ(back[i], z[i]);
  shot.s.reset();
  EXPECT_EQ(shot.h.store.Var(x_last).lower, -5);
  EXPECT_EQ(shot.h.store.Var(x_last).upper, 5);
}

}  // namespace
}  // namespace kx::horizon

// Derivatives of a model equation built through the whole front end (reader, intermediates,
// time-derivative columns) against central finite differences. Every function and operator
// is checked against finite differences on the compiler's own tests.
#include <gtest/gtest.h>

#include <cmath>

#include "builder_testing.h"

namespace kx::model {
namespace {

double ResidualAt(const lang::Program& p, std::vector<double> in, std::vector<double>* work) {
  lang::DomainErrors errs;
  return p.Residual(in.data(), work->data(), &errs);
}

void CheckProgram(const lang::Program& p, const std::vector<double>& x, const std::string& what) {
  int n = p.num_inputs();
  std::vector<double> work(p.work_size() + 1), grad(n), hess(p.hess_pairs().size() + 1);
  lang::DomainErrors errs;
  double r = p.Hessian(x.data(), work.data(), grad.data(), hess.data(), &errs);
  EXPECT_EQ(errs.Total(), 0) << what;
  EXPECT_NEAR(r, ResidualAt(p, x, &work), 1e-12 * (1 + std::fabs(r))) << what;
  const double h = 1e-5;
  std::vector<std::vector<double>> full(n, std::vector<double>(n, 0.0));
  for (size_t k = 0; k < p.hess_pairs().size(); ++k) {
    auto pr = p.hess_pairs()[k];
    full[pr.i][pr.j] = full[pr.j][pr.i] = hess[k];
  }
  for (int i = 0; i < n; ++i) {
    std::vector<double> up = x, dn = x;
    up[i] += h;
    dn[i] -= h;
    double fd = (ResidualAt(p, up, &work) - ResidualAt(p, dn, &work)) / (2 * h);
    EXPECT_NEAR(grad[i], fd, 1e-6 * (1 + std::fabs(fd))) << what << " d/d" << i;
    std::vector<double> gu(n), gd(n);
    p.Gradient(up.data(), work.data(), gu.data(), &errs);
    p.Gradient(dn.data(), work.data(), gd.data(), &errs);
    for (int j = 0; j < n; ++j) {
      double fd2 = (gu[j] - gd[j]) / (2 * h);
      EXPECT_NEAR(full[i][j], fd2, 1e-5 * (1 + std::fabs(fd2))) << what << " d2/d" << i << j;
    }
  }
}

TEST(BuilderDerivatives, IntermediatesAndTimeDerivativesChainThrough) {
  testing::ScratchDir dir;
  auto r = testing::Build(
      "Variables\nx = 0.7\ny = 1.3\n$x = 0.2\nEnd Variables\nIntermediates\n"
      "u = x*y\nv = exp(u) / y\nEnd Intermediates\nEquations\n$x * v = u^2 - y\nEnd Equations\n",
      dir);
  ASSERT_FALSE(r.stopped) << r.output;
  const Equation& q = r.store.eqns[0];
  ASSERT_EQ(q.columns.size(), 3u);  // x, y and dx/dt
  std::vector<double> in;
  GatherInputs(r.store, q.columns, &in);
  CheckProgram(r.store.programs[q.program], in, q.text);
  double u = 0.7 * 1.3;
  EXPECT_NEAR(q.residual, 0.2 * std::exp(u) / 1.3 - (u * u - 1.3), 1e-14);
}

}  // namespace
}  // namespace kx::model

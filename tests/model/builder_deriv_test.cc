// Derivatives of a model equation built through the whole front end (reader, intermediates,
// time-derivative columns) against central finite differences. Every function and operator
// is checked the same way on the compiler's own tests.
#include <gtest/gtest.h>

#include <cmath>

#include "builder_testing.h"
#include "lang/lang_testing.h"

namespace kx::model {
namespace {

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
  lang::testing::CheckDerivatives(r.store.programs[q.program], in, q.text);
  double u = 0.7 * 1.3;
  EXPECT_NEAR(q.residual, 0.2 * std::exp(u) / 1.3 - (u * u - 1.3), 1e-14);
}

}  // namespace
}  // namespace kx::model

// The generated benchmark family compiled to byte code agrees with the hand-written templates:
// residuals, gradients and full Hessians. Each side checks the other.
#include "../../bench/model_gen.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <string>
#include <vector>

#include "lang/compiler.h"

namespace kx::lang {
namespace {

using bench::GeneratedModel;

// x[k] -> column k, q[j] -> intermediate j-1, half -> constant.
Resolver GeneratedNames(int num_q) {
  return [num_q](std::string_view name, bool derivative) {
    Symbol s;
    if (derivative) return s;
    if (name == "half") {
      s.kind = Symbol::Kind::kConstant;
      s.value = bench::kHalf;
      return s;
    }
    int index = 0;
    if (name.size() > 3 && name[1] == '[' &&
        std::from_chars(name.data() + 2, name.data() + name.size() - 1, index).ec == std::errc()) {
      if (name[0] == 'x') {
        s.kind = Symbol::Kind::kColumn;
        s.column = index;
      } else if (name[0] == 'q' && index >= 1 && index <= num_q) {
        s.kind = Symbol::Kind::kIntermediate;
        s.intermediate = index - 1;
      }
    }
    return s;
  };
}

TEST(ModelGen, ByteCodeAgreesWithHandWrittenTemplates) {
  const GeneratedModel model = bench::GenerateModel(96, 7);
  const Resolver resolve = GeneratedNames(model.num_q);
  Compiler compiler;
  for (int j = 1; j <= model.num_q; ++j)
    ASSERT_EQ(compiler.DefineIntermediate(model.Intermediate(j), resolve), j - 1);
  std::vector<double> x(model.n + 1);
  bench::GenRandom rng(11);
  for (double& v : x) v = rng.Uniform(-2, 2);

  for (int i = 0; i < model.n; ++i) {
    const bench::GenEquation& e = model.eqs[i];
    const int nv = bench::kTemplateVars[e.tmpl];
    std::vector<int> columns;
    const Program p = compiler.CompileEquation(i + 1, model.Residual(i), resolve, &columns);
    ASSERT_EQ(static_cast<int>(columns.size()), nv) << model.Residual(i);
    std::vector<int> local(nv);  // template variable -> local input
    for (int k = 0; k < nv; ++k)
      local[k] = static_cast<int>(std::find(columns.begin(), columns.end(), e.var[k]) - columns.begin());

    std::vector<double> in, work(p.work_size()), grad(nv), hess(p.hess_pairs().size());
    for (int col : columns) in.push_back(x[col]);
    const double r = p.Hessian(in.data(), work.data(), grad.data(), hess.data(), nullptr);
    double g[6] = {}, h[36] = {};
    const double rh = bench::HandDerivatives(e, x.data(), g, h);
    EXPECT_NEAR(r, rh, 1e-12 * std::max(1.0, std::fabs(rh))) << model.Residual(i);
    EXPECT_NEAR(r, bench::HandResidual(e, x.data()), 1e-12 * std::max(1.0, std::fabs(rh)));

    std::vector<double> dense(nv * nv, 0.0);
    for (size_t q = 0; q < hess.size(); ++q)
      dense[p.hess_pairs()[q].i * nv + p.hess_pairs()[q].j] = hess[q];
    for (int k = 0; k < nv; ++k) {
      EXPECT_NEAR(grad[local[k]], g[k], 1e-12 * std::max(1.0, std::fabs(g[k])))
          << model.Residual(i) << " d/d var " << k;
      for (int m = 0; m <= k; ++m) {
        const int li = std::max(local[k], local[m]), lj = std::min(local[k], local[m]);
        EXPECT_NEAR(dense[li * nv + lj], h[k * 6 + m], 1e-11 * std::max(1.0, std::fabs(h[k * 6 + m])))
            << model.Residual(i) << " d2/d var " << k << " d var " << m;
      }
    }
  }
}

TEST(ModelGen, ModelTextIsDeterministicAndComplete) {
  const GeneratedModel a = bench::GenerateModel(64, 3), b = bench::GenerateModel(64, 3);
  EXPECT_EQ(a.ModelText(), b.ModelText());
  EXPECT_NE(a.ModelText(), bench::GenerateModel(64, 4).ModelText());
  const std::string text = a.ModelText();
  EXPECT_NE(text.find("x[1:64] = 1, >= -10, <= 10"), std::string::npos);
  EXPECT_NE(text.find("q[1:6] = 1 + x[1:6]^2"), std::string::npos);
  for (const char* f : {"abs(", "exp(", "log10(", "log(", "sqrt(", "sinh(", "cosh(", "tanh(",
                        "sin(", "cos(", "tan(", "asin(", "acos(", "atan(", "erfc(", "erf("})
    EXPECT_NE(text.find(f), std::string::npos) << f;
}

}  // namespace
}  // namespace kx::lang

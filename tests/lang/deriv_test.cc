// Exact derivatives against finite differences, for every operator and function, with shared
// subexpressions and intermediates. The full finite-difference Hessian is compared, so a pair
// missing from hess_pairs() with a non-zero second derivative fails too.
#include "lang/deriv.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "lang/compiler.h"
#include "lang/graph.h"
#include "lang_testing.h"

namespace kx::lang {
namespace {

using testing::CheckDerivatives;
using testing::Compile;
using testing::Compiled;
using testing::Symbols;

struct Case {
  const char* text;
  std::vector<double> point;  // values of x, y, z, ... (columns 1, 2, 3, ...)
};

// Points are given for x, y, z (columns 1..3); index 0 is unused.
std::vector<double> Point(const std::vector<double>& xyz) {
  std::vector<double> p(2 * Symbols::kNumVars + 1, 0.0);
  for (size_t k = 0; k < xyz.size(); ++k) p[k + 1] = xyz[k];
  return p;
}

TEST(Deriv, OperatorsAndFunctionsMatchFiniteDifferences) {
  const Case cases[] = {
      {"x + y", {1.5, -2}},         {"x - y", {1.5, -2}},
      {"x * y", {1.5, -2}},         {"x / y", {1.5, -2}},
      {"x ^ y", {1.7, 1.3}},        {"x ^ 3", {-1.3}},
      {"x ^ 2.5", {1.3}},           {"2 ^ x", {0.7}},
      {"x ^ -1.5", {0.8}},          {"-x", {0.4}},
      {"-x^2", {0.4}},              {"abs(x)*x", {-0.7}},
      {"abs(x*y)", {0.7, 1.2}},     {"exp(x*y)", {0.3, -0.8}},
      {"log10(x*y)", {0.3, 2.1}},   {"log(x+y)", {0.3, 2.1}},
      {"sqrt(x*y)", {0.5, 3}},      {"sinh(x*y)", {0.5, 1.1}},
      {"cosh(x-y)", {0.5, 1.1}},    {"tanh(x*y)", {0.5, 1.1}},
      {"sin(x*y)", {0.5, 1.1}},     {"cos(x*y)", {0.5, 1.1}},
      {"tan(x*y)", {0.5, 1.1}},     {"asin(x*y)", {0.5, 0.9}},
      {"acos(x*y)", {0.5, -0.9}},   {"atan(x*y)", {0.5, 1.9}},
      {"erfc(x*y)", {0.5, 0.9}},    {"erf(x-y)", {0.5, -0.4}},
      {"x*y*z", {1.1, 2.2, -0.3}},  {"x/(y*z)", {1.1, 2.2, -0.3}},
      {"(x+y)^z", {1.1, 2.2, 1.7}}, {"x^y^z", {1.1, 1.2, 0.7}},
      {"pi*x^2 - c*y", {0.3, 0.6}},
      // shared subexpressions and combinations
      {"exp(x*y) + sin(exp(x*y)) * exp(x*y)", {0.2, 0.9}},
      {"log(1+x^2) * sqrt(2+sin(y)) - asin(0.5*tanh(z))", {0.7, -1.1, 0.4}},
      {"acos(0.5*tanh(x)) + log10(3+cos(y*z)) / (1 + y^2)", {0.7, -1.1, 0.4}},
      {"(x*y - z)^2 + (x*y - z)^3", {0.7, -1.1, 0.4}},
      {"erf(x)*erfc(y) + atan(x/y) - cosh(z)*sinh(z)", {0.7, -1.1, 0.4}},
      {"x*exp(-y/z) - 1/(x+y+z)", {0.7, 1.1, 0.4}},
  };
  Compiler compiler;
  Symbols symbols;
  for (const Case& k : cases) {
    const Compiled c = Compile(&compiler, &symbols, k.text);
    CheckDerivatives(c.program, c.Gather(Point(k.point)), k.text);
  }
}

TEST(Deriv, IntermediatesAreInlinedWithChainRule) {
  Compiler compiler;
  Symbols symbols;
  symbols.AddIntermediate(&compiler, "a", "x*y + exp(z)");
  symbols.AddIntermediate(&compiler, "b", "a^2 - sin(a)*x");
  symbols.AddIntermediate(&compiler, "k", "2*c");  // constant-valued intermediate
  const Compiled c = Compile(&compiler, &symbols, "b/a + k*a - log(1+b^2)");
  EXPECT_EQ(c.columns, (std::vector<int>{1, 2, 3}));  // first use order, through the inlining
  const std::vector<double> at = Point({0.3, 0.7, -0.2});
  CheckDerivatives(c.program, c.Gather(at), "intermediates");
  const double x = 0.3, y = 0.7, z = -0.2;
  const double a = x * y + std::exp(z), b = a * a - std::sin(a) * x;
  EXPECT_NEAR(c.Residual(at), b / a + 5 * a - std::log(1 + b * b), 1e-12);

  std::vector<int> cols;
  const Program value = compiler.CompileIntermediateValue(1, &cols);
  EXPECT_EQ(cols, (std::vector<int>{1, 2, 3}));
  std::vector<double> work(value.work_size()), in = {x, y, z};
  EXPECT_NEAR(value.Residual(in.data(), work.data(), nullptr), b, 1e-14);
}

// A time derivative is a column of its own; abs has slope zero at its kink.
TEST(Deriv, TimeDerivativeColumnAndTheSlopeOfAbsAtZero) {
  const struct {
    const char* text;
    std::vector<int> columns;
    std::vector<double> in, grad;
    double value;
  } cases[] = {{"$x - x*y", {1 + Symbols::kNumVars, 1, 2}, {5, 2, 3}, {1, -3, -2}, -1},
               {"abs(x) + 2*y", {1, 2}, {0, 1}, {0, 2}, 2}};
  Compiler compiler;
  Symbols symbols;
  for (const auto& k : cases) {
    const Compiled c = Compile(&compiler, &symbols, k.text);
    EXPECT_EQ(c.columns, k.columns) << k.text;
    std::vector<double> work(c.program.work_size()), grad(k.in.size());
    EXPECT_EQ(c.program.Gradient(k.in.data(), work.data(), grad.data(), nullptr), k.value);
    EXPECT_EQ(grad, k.grad) << k.text;
  }
}

TEST(Deriv, DerivativeCodeStaysCloseToResidualSize) {
  Compiler compiler;
  Symbols symbols;
  const Compiled c = Compile(&compiler, &symbols,
                             "x*exp(y) + sin(x*z)*cos(y) + log(1+x^2)*sqrt(2+sin(z)) - atan(y/z)");
  const Program& p = c.program;
  EXPECT_LE(p.first_size(), 2 * p.residual_size());
  EXPECT_LE(p.second_size(), 4 * p.residual_size());
}

// Compile-time simplification folds true constants only: an input (a variable or a
// parameter, whose value a DBS or data file can change) stays a runtime value, and no rule
// drops a subexpression that could count a domain fault at runtime ((1/x)*0 and the like keep
// their code in the golden case listing, as the structural second-derivative pairs of linear
// and nonlinear terms show there; what a fault counts at the starting point: golden case
// builder). Whether a node can fault follows its children.
TEST(RuntimeValues, FaultCapabilityFollowsTheChildren) {
  Graph g;
  const int p = g.Input(0);
  const int q = g.Input(1);
  EXPECT_FALSE(g.CanFault(p));
  EXPECT_FALSE(g.CanFault(g.Binary(Op::kAdd, p, q)));
  const int div = g.Binary(Op::kDiv, p, q);
  EXPECT_TRUE(g.CanFault(div));
  EXPECT_TRUE(g.CanFault(g.Unary(Op::kSin, g.Binary(Op::kAdd, div, p))));
  for (Op op : {Op::kLog, Op::kLog10, Op::kSqrt, Op::kAsin, Op::kAcos})
    EXPECT_TRUE(g.CanFault(g.Unary(op, p))) << OpName(op);
  for (Op op : {Op::kExp, Op::kSin, Op::kTanh, Op::kAbs})
    EXPECT_FALSE(g.CanFault(g.Unary(op, p))) << OpName(op);
}

}  // namespace
}  // namespace kx::lang

// Compiler: storage limits, domain-fault counting during evaluation, name faults and program
// storage. One-time evaluation, the opcode listing, the stops of the storage limits (builder)
// and the domain-fault report (cycle) are golden files (tests/golden/).
#include "lang/compiler.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "lang/opcodes.h"
#include "lang_testing.h"

namespace kx::lang {
namespace {

using testing::Compile;
using testing::Compiled;
using testing::StopLines;
using testing::Symbols;

// Resolves v1, v2, ... to columns 1, 2, ...
Symbol Numbered(std::string_view name, bool) {
  Symbol s;
  if (name.size() > 1 && name[0] == 'v') {
    s.kind = Symbol::Kind::kColumn;
    s.column = std::stoi(std::string(name.substr(1)));
  }
  return s;
}

// "2*v1 + 2*v2 + ... + 2*vn".
std::string LinearSum(int n) {
  std::string out;
  for (int k = 1; k <= n; ++k) out += (k > 1 ? " + 2*v" : "2*v") + std::to_string(k);
  return out;
}

TEST(CompilerLimits, LargeLinearEquationWithinCapacity) {
  Compiler compiler(CompileLimits{5});
  std::vector<int> columns;
  const Program p = compiler.CompileEquation(1, LinearSum(20000), Numbered, &columns);
  ASSERT_EQ(p.num_inputs(), 20000);
  EXPECT_EQ(columns[19999], 20000);
  EXPECT_TRUE(p.hess_pairs().empty());
  std::vector<double> in(20000, 1.0), work(p.work_size()), grad(20000);
  EXPECT_EQ(p.Gradient(in.data(), work.data(), grad.data(), nullptr), 40000);
  EXPECT_EQ(grad.front(), 2);
  EXPECT_EQ(grad.back(), 2);
}

TEST(Compiler, StopsNameTheFault) {
  Compiler compiler;
  Symbols symbols;
  std::vector<int> columns;
  EXPECT_EQ(StopLines([&] { compiler.CompileEquation(0, "x", symbols.resolver(), &columns); }),
            (std::vector<std::string>{"Error: use eval_once for one time calculations",
                                      "STOPPING..."}));
  EXPECT_EQ(FunctionOp(9), Op::kSin);
  EXPECT_EQ(FunctionOp(16), Op::kErf);
  for (int n : {0, 17}) {
    EXPECT_EQ(StopLines([&] { FunctionOp(n); }),
              (std::vector<std::string>{
                  "*** Parser error: Function number " + std::to_string(n) + " out of range",
                  "STOPPING..."}));
  }
}

TEST(DomainErrors, CountedDuringEvaluationAndValueIsNaN) {
  Compiler compiler;
  Symbols symbols;
  const Compiled c =
      Compile(&compiler, &symbols, "log(x) + sqrt(y) + 1/z + log10(w) + asin(u) + acos(v)");
  std::vector<double> bad = {0, -1, -1, 0, -1, 2, 3};  // columns 1..6: x y z w u v
  DomainErrors errs;
  EXPECT_TRUE(std::isnan(c.Residual(bad, &errs)));
  EXPECT_EQ(errs.log_negative, 1);
  EXPECT_EQ(errs.sqrt_negative, 1);
  EXPECT_EQ(errs.divide_by_zero, 1);
  EXPECT_EQ(errs.log10_negative, 1);
  EXPECT_EQ(errs.asin_illegal, 1);
  EXPECT_EQ(errs.acos_illegal, 1);
  EXPECT_EQ(errs.Total(), 6);
  std::vector<double> good = {0, 1, 1, 1, 1, 0.5, 0.5};
  DomainErrors none;
  EXPECT_FALSE(std::isnan(c.Residual(good, &none)));
  EXPECT_EQ(none.Total(), 0);
}

// A constant fault counts at each evaluation; sqrt's slope at zero is a division by zero.
TEST(DomainErrors, ConstantFaultsAndDerivativeFaultsAreCounted) {
  Compiler compiler;
  Symbols symbols;
  const Compiled c = Compile(&compiler, &symbols, "x + sqrt(-1)");
  DomainErrors errs;
  c.Residual({0, 1}, &errs);
  c.Residual({0, 2}, &errs);
  EXPECT_EQ(errs.sqrt_negative, 2);
  const Compiled root = Compile(&compiler, &symbols, "sqrt(x)");
  std::vector<double> in = {0}, work(root.program.work_size()), grad(1);
  EXPECT_EQ(root.program.Gradient(in.data(), work.data(), grad.data(), &errs), 0);
  EXPECT_TRUE(std::isnan(grad[0]));
  EXPECT_EQ(errs.divide_by_zero, 1);
}

// Programs compiled one after another share storage chunks; each copy keeps what it reads
// alive after the originals, their neighbours and the compiler are gone.
TEST(Program, CopiesOutliveTheOriginalsAndTheirNeighbours) {
  constexpr int kCount = 3000;  // enough programs to fill several storage chunks
  std::vector<Program> kept;
  {
    Compiler compiler;
    std::vector<Program> all;
    std::vector<int> columns;
    for (int i = 1; i <= kCount; ++i) {
      const std::string text = "v1*exp(v2) - " + std::to_string(i) + "*v1^3";
      all.push_back(compiler.CompileEquation(i, text, Numbered, &columns));
    }
    for (int i = 0; i < kCount; i += 7) kept.push_back(all[i]);
  }
  const double x = 0.5, y = -0.25;
  std::vector<double> in = {x, y}, work, grad(2), hess(3);
  for (size_t k = 0; k < kept.size(); ++k) {
    const Program& p = kept[k];
    work.assign(p.work_size(), 0);
    const double c = 7.0 * k + 1;  // coefficient of equation 7k + 1
    ASSERT_EQ(p.hess_pairs().size(), 3u);
    EXPECT_DOUBLE_EQ(p.Residual(in.data(), work.data(), nullptr), x * std::exp(y) - c * x * x * x);
    p.Hessian(in.data(), work.data(), grad.data(), hess.data(), nullptr);
    EXPECT_DOUBLE_EQ(grad[0], std::exp(y) - 3 * c * x * x);
    EXPECT_DOUBLE_EQ(grad[1], x * std::exp(y));
    for (size_t q = 0; q < 3; ++q) {
      const HessPair pair = p.hess_pairs()[q];
      const double expected = pair.i == 0   ? -6 * c * x        // d2/dv1 dv1
                              : pair.j == 0 ? std::exp(y)       // d2/dv2 dv1
                                            : x * std::exp(y);  // d2/dv2 dv2
      EXPECT_DOUBLE_EQ(hess[q], expected) << "pair " << pair.i << "," << pair.j;
    }
  }
}

}  // namespace
}  // namespace kx::lang

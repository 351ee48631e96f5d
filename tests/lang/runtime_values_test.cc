// Compile-time simplification folds true constants only: an input (a variable or a
// parameter, whose value a DBS or data file can change) stays a runtime value, and no rule
// drops a subexpression that could count a domain fault at runtime.
#include <gtest/gtest.h>

#include <functional>

#include "lang/graph.h"

namespace kx::lang {
namespace {

struct Case {
  const char* what;
  std::function<int(Graph&, int p)> build;  // builds the expression over the input p
  bool folds_to_constant;
};

TEST(RuntimeValues, RulesThatDropASubexpressionKeepFaultsAlive) {
  const Case cases[] = {
      {"0/p", [](Graph& g, int p) { return g.Binary(Op::kDiv, g.Const(0), p); }, false},
      {"0*(1/p)",
       [](Graph& g, int p) {
         return g.Binary(Op::kMul, g.Const(0), g.Binary(Op::kDiv, g.Const(1), p));
       },
       false},
      {"(1/p)*0",
       [](Graph& g, int p) {
         return g.Binary(Op::kMul, g.Binary(Op::kDiv, g.Const(1), p), g.Const(0));
       },
       false},
      {"log(p)-log(p)",
       [](Graph& g, int p) {
         return g.Binary(Op::kSub, g.Unary(Op::kLog, p), g.Unary(Op::kLog, p));
       },
       false},
      {"sqrt(p)^0",
       [](Graph& g, int p) { return g.Binary(Op::kPow, g.Unary(Op::kSqrt, p), g.Const(0)); },
       false},
      {"1^asin(p)",
       [](Graph& g, int p) { return g.Binary(Op::kPow, g.Const(1), g.Unary(Op::kAsin, p)); },
       false},
      // Dropping a part that cannot fault is still fine.
      {"0*p", [](Graph& g, int p) { return g.Binary(Op::kMul, g.Const(0), p); }, true},
      {"p-p", [](Graph& g, int p) { return g.Binary(Op::kSub, p, p); }, true},
      {"exp(p)^0",
       [](Graph& g, int p) { return g.Binary(Op::kPow, g.Unary(Op::kExp, p), g.Const(0)); },
       true},
      {"0/4", [](Graph& g, int) { return g.Binary(Op::kDiv, g.Const(0), g.Const(4)); }, true},
  };
  for (const Case& c : cases) {
    Graph g;
    const int root = c.build(g, g.Input(0));
    EXPECT_EQ(g.IsConst(root), c.folds_to_constant) << c.what;
  }
}

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

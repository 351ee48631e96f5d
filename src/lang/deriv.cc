#include "lang/deriv.h"

#include <algorithm>
#include <cmath>

#include "base/check.h"

namespace kx::lang {
namespace {

constexpr double kTwoOverSqrtPi = 1.1283791670955126;  // 2/sqrt(pi)
constexpr double kInvLn10 = 0.43429448190325182;       // 1/ln(10)

}  // namespace

int Deriv::Partial(Graph* g, int id, int which) {
  const size_t k = 2 * static_cast<size_t>(id) + which;
  if (partial_[k] < 0) partial_[k] = Derive(g, id, which);
  return partial_[k];
}

// The derivative rules, one per opcode (the rule texts live in the opcode table).
int Deriv::Derive(Graph* g, int id, int which) {
  const Node x = g->node(id);
  const int a = x.a;
  switch (x.op) {
    case Op::kAdd: return g->Const(1);
    case Op::kSub: return g->Const(which == 0 ? 1 : -1);
    case Op::kMul: return which == 0 ? x.b : x.a;
    case Op::kDiv:
      if (which == 0) return g->Binary(Op::kDiv, g->Const(1), x.b);
      return g->Unary(Op::kNeg, g->Binary(Op::kDiv, id, x.b));
    case Op::kPow:
      if (which == 1) return g->Binary(Op::kMul, id, g->Unary(Op::kLog, a));
      if (g->IsConst(x.b)) {
        const double c = g->node(x.b).value;
        return g->Binary(Op::kMul, g->Const(c), g->Binary(Op::kPow, a, g->Const(c - 1)));
      }
      return g->Binary(Op::kMul, x.b,
                       g->Binary(Op::kPow, a, g->Binary(Op::kSub, x.b, g->Const(1))));
    case Op::kNeg: return g->Const(-1);
    case Op::kSquare: return g->Binary(Op::kMul, g->Const(2), a);
    case Op::kSign: return g->Const(0);
    case Op::kAbs: return g->Unary(Op::kSign, a);
    case Op::kExp: return id;
    case Op::kLog10: return g->Binary(Op::kDiv, g->Const(kInvLn10), a);
    case Op::kLog: return g->Binary(Op::kDiv, g->Const(1), a);
    case Op::kSqrt: return g->Binary(Op::kDiv, g->Const(0.5), id);
    case Op::kSinh: return g->Unary(Op::kCosh, a);
    case Op::kCosh: return g->Unary(Op::kSinh, a);
    case Op::kTanh: return g->Binary(Op::kSub, g->Const(1), g->Unary(Op::kSquare, id));
    case Op::kSin: return g->Unary(Op::kCos, a);
    case Op::kCos: return g->Unary(Op::kNeg, g->Unary(Op::kSin, a));
    case Op::kTan: return g->Binary(Op::kAdd, g->Const(1), g->Unary(Op::kSquare, id));
    case Op::kAsin:
    case Op::kAcos: {
      const int root = g->Unary(
          Op::kSqrt, g->Binary(Op::kSub, g->Const(1), g->Unary(Op::kSquare, a)));
      return g->Binary(Op::kDiv, g->Const(x.op == Op::kAsin ? 1 : -1), root);
    }
    case Op::kAtan:
      return g->Binary(Op::kDiv, g->Const(1),
                       g->Binary(Op::kAdd, g->Const(1), g->Unary(Op::kSquare, a)));
    case Op::kErf:
    case Op::kErfc: {
      const int bell = g->Unary(Op::kExp, g->Unary(Op::kNeg, g->Unary(Op::kSquare, a)));
      return g->Binary(Op::kMul, g->Const(x.op == Op::kErf ? kTwoOverSqrtPi : -kTwoOverSqrtPi),
                       bell);
    }
    case Op::kConst:
    case Op::kInput: break;
  }
  KX_CHECK(false);
  return -1;
}

void Deriv::Gradient(Graph* g, int root, const std::vector<int>& inputs,
                     std::vector<int>* grad) {
  const int n0 = g->size();
  adjoint_.assign(n0, -1);
  partial_.assign(2 * static_cast<size_t>(n0), -1);
  adjoint_[root] = g->Const(1);
  for (int id = root; id >= 0; --id) {
    const int adj = adjoint_[id];
    if (adj < 0) continue;
    const Node x = g->node(id);
    const int arity = OpArity(x.op);
    for (int which = 0; which < arity; ++which) {
      const int child = which == 0 ? x.a : x.b;
      if (g->IsConst(child)) continue;
      const int p = Partial(g, id, which);
      if (g->IsConstValue(p, 0)) continue;
      const int contrib = g->Binary(Op::kMul, adj, p);
      adjoint_[child] = adjoint_[child] < 0 ? contrib : g->Binary(Op::kAdd, adjoint_[child], contrib);
    }
  }
  grad->clear();
  for (int in : inputs) grad->push_back(in < n0 && adjoint_[in] >= 0 ? adjoint_[in] : g->Const(0));
}

void Deriv::MarkGradientCone(const Graph& g, const std::vector<int>& grad) {
  const int n = g.size();
  in_cone_.assign(n, 0);
  int top = -1;
  for (int id : grad) {
    in_cone_[id] = 1;
    top = std::max(top, id);
  }
  cone_.clear();
  for (int id = top; id >= 0; --id) {
    if (!in_cone_[id]) continue;
    const Node& x = g.node(id);
    if (x.op == Op::kConst) {
      in_cone_[id] = 0;
      continue;
    }
    cone_.push_back(id);
    const int arity = OpArity(x.op);
    if (arity >= 1) in_cone_[x.a] = 1;
    if (arity == 2) in_cone_[x.b] = 1;
  }
  std::reverse(cone_.begin(), cone_.end());
}

// tangent_[id] = d node(id) / d input `input` for every node of the cone (-1 when zero).
void Deriv::ForwardSweep(Graph* g, int input) {
  for (int id : cone_) tangent_[id] = -1;
  for (int id : cone_) {
    const Node x = g->node(id);
    if (x.op == Op::kInput) {
      if (x.a == input) tangent_[id] = g->Const(1);
      continue;
    }
    int t = -1;
    const int arity = OpArity(x.op);
    for (int which = 0; which < arity; ++which) {
      const int tc = tangent_[which == 0 ? x.a : x.b];
      if (tc < 0) continue;
      const int p = Partial(g, id, which);
      if (g->IsConstValue(p, 0)) continue;
      const int term = g->Binary(Op::kMul, p, tc);
      t = t < 0 ? term : g->Binary(Op::kAdd, t, term);
    }
    tangent_[id] = (t >= 0 && g->IsConstValue(t, 0)) ? -1 : t;
  }
}

void Deriv::Hessian(Graph* g, const std::vector<int>& inputs, const std::vector<int>& grad,
                    std::vector<HessPair>* pairs, std::vector<int>* nodes) {
  const int num_inputs = static_cast<int>(inputs.size());
  MarkGradientCone(*g, grad);
  const int n1 = g->size();
  partial_.resize(2 * static_cast<size_t>(n1), -1);
  tangent_.assign(n1, -1);
  entries_.clear();
  // Only inputs that the gradient depends on have a tangent, and only gradient entries that are
  // not constant can have one: a linear equation of many columns costs nothing here.
  live_.clear();
  for (int i = 0; i < num_inputs; ++i)
    if (!g->IsConst(grad[i])) live_.push_back(i);
  for (int j = 0; j < num_inputs; ++j) {
    if (!in_cone_[inputs[j]]) continue;
    ForwardSweep(g, j);
    for (int i : live_) {
      const int h = i >= j ? tangent_[grad[i]] : -1;
      if (h >= 0) entries_.push_back({{i, j}, h});
    }
  }
  std::sort(entries_.begin(), entries_.end(), [](const Entry& p, const Entry& q) {
    return p.pair.i != q.pair.i ? p.pair.i < q.pair.i : p.pair.j < q.pair.j;
  });
  pairs->clear();
  nodes->clear();
  for (const Entry& e : entries_) {
    pairs->push_back(e.pair);
    nodes->push_back(e.node);
  }
}

}  // namespace kx::lang

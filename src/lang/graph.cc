#include "lang/graph.h"

#include <cmath>
#include <cstring>
#include <utility>

#include "base/check.h"
#include "base/report.h"

namespace kx::lang {
namespace {

constexpr int kInitialSlots = 256;

uint64_t Bits(double v) {
  uint64_t u;
  std::memcpy(&u, &v, sizeof u);
  return u;
}

uint64_t HashNode(Op op, int a, int b, double value) {
  uint64_t h = static_cast<uint64_t>(op) * 0x9E3779B97F4A7C15ull;
  h ^= (static_cast<uint64_t>(static_cast<uint32_t>(a)) << 32 | static_cast<uint32_t>(b)) +
       0x632BE59BD9B4E019ull + (h << 6) + (h >> 2);
  h ^= Bits(value) * 0xC2B2AE3D27D4EB4Full;
  return h ^ (h >> 29);
}

}  // namespace

void StopOnConstantFault(Fault fault) {
  const char* text = "";
  switch (fault) {
    case Fault::kAcosIllegal: text = "ERROR in Constants: Arc-cos (Acos) argument <-1 or >1"; break;
    case Fault::kAsinIllegal: text = "ERROR in Constants: Arc-sin (Asin) argument <-1 or >1"; break;
    case Fault::kSqrtNegative: text = "ERROR in Constants: Sqrt argument negative"; break;
    case Fault::kLogNegative: text = "ERROR in Constants: Natural Log argument negative"; break;
    case Fault::kLog10Negative: text = "ERROR in Constants: Log10 argument negative"; break;
    case Fault::kDivideByZero: text = "ERROR in Constants: Divide by zero"; break;
    case Fault::kNone: KX_CHECK(false);
  }
  Fatal({text}, "STOPPING...");
}

Graph::Graph() : slots_(kInitialSlots, -1), stamp_(kInitialSlots, 0) {}

void Graph::Clear() {
  nodes_.clear();
  can_fault_.clear();
  if (++generation_ == 0) {  // wrapped: stale stamps could look live again
    std::fill(stamp_.begin(), stamp_.end(), 0);
    generation_ = 1;
  }
}

void Graph::Grow() {
  const size_t n = slots_.size() * 2;
  slots_.assign(n, -1);
  stamp_.assign(n, 0);
  generation_ = 1;
  for (int id = 0; id < size(); ++id) {
    const Node& x = nodes_[id];
    size_t s = HashNode(x.op, x.a, x.b, x.value) & (n - 1);
    while (stamp_[s] == generation_) s = (s + 1) & (n - 1);
    slots_[s] = id;
    stamp_[s] = generation_;
  }
}

int Graph::Intern(Op op, int a, int b, double value) {
  if (nodes_.size() * 2 >= slots_.size()) Grow();
  const size_t mask = slots_.size() - 1;
  size_t s = HashNode(op, a, b, value) & mask;
  for (; stamp_[s] == generation_; s = (s + 1) & mask) {
    const Node& x = nodes_[slots_[s]];
    if (x.op == op && x.a == a && x.b == b && Bits(x.value) == Bits(value)) return slots_[s];
  }
  const int id = size();
  const bool has_children = op != Op::kConst && op != Op::kInput;
  const bool can_fault = has_children && (OpCanFault(op) || can_fault_[a] ||
                                          (b >= 0 && can_fault_[b]));
  nodes_.push_back({op, a, b, value});
  can_fault_.push_back(can_fault ? 1 : 0);
  slots_[s] = id;
  stamp_[s] = generation_;
  return id;
}

int Graph::Const(double v) { return Intern(Op::kConst, 0, -1, v == 0 ? 0.0 : v); }

int Graph::Input(int index) { return Intern(Op::kInput, index, -1, 0); }

int Graph::Fold(Op op, int a, int b) {
  if (!IsConst(a) || (b >= 0 && !IsConst(b))) return -1;
  const double va = nodes_[a].value, vb = b >= 0 ? nodes_[b].value : 0;
  Fault fault;
  const double v = Apply(op, va, vb, &fault);
  if (fault != Fault::kNone) {
    if (fault_mode_ == FaultMode::kStop) StopOnConstantFault(fault);
    return -1;
  }
  // A NaN out of clean operands (a negative base to a fractional power) stays a node in a
  // model equation; a constant takes the NaN.
  if (std::isnan(v) && !std::isnan(va) && !std::isnan(vb) && fault_mode_ == FaultMode::kKeepNode)
    return -1;
  return Const(v);
}

int Graph::Unary(Op op, int a) {
  if (int f = Fold(op, a, -1); f >= 0) return f;
  const Node x = nodes_[a];  // a copy: building nodes may move nodes_
  switch (op) {
    case Op::kNeg:
      if (x.op == Op::kNeg) return x.a;
      if (x.op == Op::kSub) return Binary(Op::kSub, x.b, x.a);
      break;
    case Op::kSquare:
    case Op::kAbs:
    case Op::kCosh:
      if (x.op == Op::kNeg) return Unary(op, x.a);  // even functions
      break;
    default:
      break;
  }
  return Intern(op, a, -1, 0);
}

int Graph::Binary(Op op, int a, int b) {
  if (int f = Fold(op, a, b); f >= 0) return f;
  switch (op) {
    case Op::kAdd: return SimplifyAdd(a, b);
    case Op::kSub: return SimplifySub(a, b);
    case Op::kMul: return SimplifyMul(a, b);
    case Op::kDiv: return SimplifyDiv(a, b);
    case Op::kPow: return SimplifyPow(a, b);
    default: KX_CHECK(false);
  }
  return -1;
}

int Graph::SimplifyAdd(int a, int b) {
  if (IsConstValue(a, 0)) return b;
  if (IsConstValue(b, 0)) return a;
  if (IsOp(b, Op::kNeg)) return Binary(Op::kSub, a, nodes_[b].a);
  if (IsOp(a, Op::kNeg)) return Binary(Op::kSub, b, nodes_[a].a);
  if (a == b) return Binary(Op::kMul, Const(2), a);
  if (a > b) std::swap(a, b);
  return Intern(Op::kAdd, a, b, 0);
}

int Graph::SimplifySub(int a, int b) {
  if (IsConstValue(b, 0)) return a;
  if (IsConstValue(a, 0)) return Unary(Op::kNeg, b);
  if (a == b && !CanFault(a)) return Const(0);
  if (IsOp(b, Op::kNeg)) return Binary(Op::kAdd, a, nodes_[b].a);
  return Intern(Op::kSub, a, b, 0);
}

int Graph::SimplifyMul(int a, int b) {
  if (IsConst(b) && !IsConst(a)) std::swap(a, b);  // constant first
  if (IsConst(a)) {
    const double c = nodes_[a].value;
    if (c == 0 && !CanFault(b)) return a;
    if (c == 1) return b;
    if (c == -1) return Unary(Op::kNeg, b);
    const Node y = nodes_[b];  // a copy: building nodes may move nodes_
    if (y.op == Op::kMul && IsConst(y.a)) return Binary(Op::kMul, Const(c * nodes_[y.a].value), y.b);
    if (y.op == Op::kDiv && IsConst(y.a)) return Binary(Op::kDiv, Const(c * nodes_[y.a].value), y.b);
    if (y.op == Op::kNeg) return Binary(Op::kMul, Const(-c), y.a);
  } else {
    if (IsOp(a, Op::kNeg)) return Unary(Op::kNeg, Binary(Op::kMul, nodes_[a].a, b));
    if (IsOp(b, Op::kNeg)) return Unary(Op::kNeg, Binary(Op::kMul, a, nodes_[b].a));
    if (IsOp(b, Op::kDiv) && IsConstValue(nodes_[b].a, 1)) return Binary(Op::kDiv, a, nodes_[b].b);
    if (IsOp(a, Op::kDiv) && IsConstValue(nodes_[a].a, 1)) return Binary(Op::kDiv, b, nodes_[a].b);
    if (a == b) return Unary(Op::kSquare, a);
    if (a > b) std::swap(a, b);
  }
  return Intern(Op::kMul, a, b, 0);
}

// 0/b stays a division unless b is a constant (then it has folded): b may be 0 at runtime.
int Graph::SimplifyDiv(int a, int b) {
  if (IsConstValue(b, 1)) return a;
  if (IsConstValue(b, -1)) return Unary(Op::kNeg, a);
  if (IsOp(a, Op::kNeg)) return Unary(Op::kNeg, Binary(Op::kDiv, nodes_[a].a, b));
  return Intern(Op::kDiv, a, b, 0);
}

int Graph::SimplifyPow(int a, int b) {
  if (IsConst(b)) {
    const double c = nodes_[b].value;
    if (c == 0 && !CanFault(a)) return Const(1);
    if (c == 1) return a;
    if (c == 2) return Unary(Op::kSquare, a);
  }
  if (IsConstValue(a, 1) && !CanFault(b)) return a;
  return Intern(Op::kPow, a, b, 0);
}

}  // namespace kx::lang

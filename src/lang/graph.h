// lang/graph: the expression DAG the compiler builds, differentiates and emits. Nodes are
// hash-consed (a structurally equal node is built once and shared) and simplified as they are
// built: constants fold, and x+0, x*1, x^1, --x and the like never become nodes. A rule that
// would drop a subexpression (0*x, x-x, x^0, 0/x) applies only when the dropped part cannot
// meet a domain fault: an input (a variable or a parameter) is a runtime value, and 1/p must
// still count its division by zero when p is 0 in some cycle.
// Children are always built before their parents, so node ids are a topological order.
#pragma once

#include <cstdint>
#include <vector>

#include "lang/opcodes.h"

namespace kx::lang {

struct Node {
  Op op;         // what the node computes
  int32_t a;     // first child; kInput: the input index (a local input or a model column)
  int32_t b;     // second child of a binary node, else -1
  double value;  // kConst: the value, else 0
};

class Graph {
 public:
  // What folding does with a constant operation that hits a domain fault: keep it as a node
  // (a model equation counts the fault at every evaluation) or stop the run with the
  // "ERROR in Constants: ..." message (one-time evaluation of constants).
  enum class FaultMode { kKeepNode, kStop };

  Graph();
  // Drops every node; keeps the storage for the next expression.
  void Clear();
  void set_fault_mode(FaultMode mode) { fault_mode_ = mode; }

  int Const(double v);
  int Input(int index);
  // Builds op(a) or op(a, b) simplified; returns the id of the (possibly shared) node.
  int Unary(Op op, int a);
  int Binary(Op op, int a, int b);
  int Make(Op op, int a, int b) { return OpArity(op) == 1 ? Unary(op, a) : Binary(op, a, b); }

  const Node& node(int id) const { return nodes_[id]; }
  int size() const { return static_cast<int>(nodes_.size()); }
  bool IsConst(int id) const { return nodes_[id].op == Op::kConst; }
  bool IsConstValue(int id, double v) const { return IsConst(id) && nodes_[id].value == v; }
  // True when evaluating node `id` can meet a domain fault (a division, log, sqrt, asin or
  // acos below it).
  bool CanFault(int id) const { return can_fault_[id] != 0; }

 private:
  int Intern(Op op, int a, int b, double value);
  void Grow();
  // Folds op over constant children; -1 when a child is not constant or the fault is kept.
  int Fold(Op op, int a, int b);
  int SimplifyAdd(int a, int b);
  int SimplifySub(int a, int b);
  int SimplifyMul(int a, int b);
  int SimplifyDiv(int a, int b);
  int SimplifyPow(int a, int b);
  bool IsOp(int id, Op op) const { return nodes_[id].op == op; }

  std::vector<Node> nodes_;      // node id -> node; ids are topological
  std::vector<uint8_t> can_fault_;  // node id -> 1 when a fault-capable op lies below it
  std::vector<int32_t> slots_;   // open-addressing hash table of node ids; size a power of 2
  std::vector<uint32_t> stamp_;  // slot is live when stamp_[slot] == generation_
  uint32_t generation_ = 1;      // bumped by Clear() so the table empties in O(1)
  FaultMode fault_mode_ = FaultMode::kKeepNode;
};

// Stops the run with the "ERROR in Constants: ..." message of a domain fault.
[[noreturn]] void StopOnConstantFault(Fault fault);

}  // namespace kx::lang

#include "lang/codegen.h"

#include <algorithm>

#include "base/check.h"

namespace kx::lang {

void CodeGen::Begin(const Graph& g, int num_inputs, Program* program) {
  program_ = program;
  *program = Program();
  program->num_inputs_ = num_inputs;
  code_.clear();
  consts_.clear();
  out_.clear();
  slot_.assign(g.size(), -1);
}

void CodeGen::EmitNode(const Graph& g, int id) {
  const Node& x = g.node(id);
  const int64_t slot = static_cast<int64_t>(code_.size());
  KX_CHECK(slot <= kMaxOperand);
  Instr ins{static_cast<uint64_t>(x.op), 0, 0};
  switch (OpArity(x.op)) {
    case 0:
      if (x.op == Op::kConst) {
        ins.a = consts_.size();
        consts_.push_back(x.value);
      } else {
        ins.a = static_cast<uint64_t>(x.a);
      }
      break;
    case 1:
      ins.a = static_cast<uint64_t>(slot_[x.a]);
      break;
    default:
      ins.a = static_cast<uint64_t>(slot_[x.a]);
      ins.b = static_cast<uint64_t>(slot_[x.b]);
  }
  code_.push_back(ins);
  slot_[id] = static_cast<int>(slot);
}

void CodeGen::EmitCone(const Graph& g, const std::vector<int>& roots) {
  if (static_cast<int>(slot_.size()) < g.size()) slot_.resize(g.size(), -1);
  int top = -1;
  for (int r : roots) top = std::max(top, r);
  mark_.assign(top + 1, 0);
  for (int r : roots) mark_[r] = 1;
  for (int id = top; id >= 0; --id) {
    if (!mark_[id]) continue;
    if (slot_[id] >= 0) {  // emitted earlier, with everything under it
      mark_[id] = 0;
      continue;
    }
    const Node& x = g.node(id);
    const int arity = OpArity(x.op);
    if (arity >= 1) mark_[x.a] = 1;
    if (arity == 2) mark_[x.b] = 1;
  }
  // Loads first: the VM copies a segment's leading kConst/kInput run without dispatching.
  for (int id = 0; id <= top; ++id)
    if (mark_[id] && OpArity(g.node(id).op) == 0) EmitNode(g, id);
  for (int id = 0; id <= top; ++id)
    if (mark_[id] && OpArity(g.node(id).op) != 0) EmitNode(g, id);
}

void CodeGen::EmitResidual(const Graph& g, int root) {
  roots_.assign(1, root);
  EmitCone(g, roots_);
  // Ids are topological, so the root is the last node of its own cone; Residual() reads the
  // last slot of the segment.
  KX_CHECK(slot_[root] == static_cast<int>(code_.size()) - 1);
  program_->end_residual_ = static_cast<int>(code_.size());
}

void CodeGen::EmitGradient(const Graph& g, const std::vector<int>& grad) {
  EmitCone(g, grad);
  program_->end_first_ = static_cast<int>(code_.size());
  for (int id : grad) out_.push_back(slot_[id]);
}

void CodeGen::EmitHessian(const Graph& g, const std::vector<HessPair>& pairs,
                          const std::vector<int>& nodes) {
  EmitCone(g, nodes);
  for (int id : nodes) out_.push_back(slot_[id]);
  program_->Pack(consts_, code_, out_, pairs);
}

}  // namespace kx::lang

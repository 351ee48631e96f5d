// lang/codegen: lays the nodes of an expression graph out as the SSA instruction array of a
// Program. Each node becomes exactly one instruction (its work slot), emitted once even when
// the residual, several gradient entries and Hessian entries share it. Segments are emitted
// in order: the residual's nodes, then the nodes only the gradient needs, then the nodes only
// the Hessian needs, so Residual() and Gradient() run a prefix of the array. The parts grow in
// the code generator's own buffers, reused from one program to the next; the last step packs
// them into the Program's storage (program.h).
#pragma once

#include <vector>

#include "lang/graph.h"
#include "lang/program.h"

namespace kx::lang {

class CodeGen {
 public:
  // Starts a new program with `num_inputs` local inputs.
  void Begin(const Graph& g, int num_inputs, Program* program);
  // Emits the residual segment for `root`.
  void EmitResidual(const Graph& g, int root);
  // Emits the first-derivative segment; grad[k] is the node of entry k.
  void EmitGradient(const Graph& g, const std::vector<int>& grad);
  // Emits the second-derivative segment for `pairs` and their `nodes`.
  void EmitHessian(const Graph& g, const std::vector<HessPair>& pairs,
                   const std::vector<int>& nodes);

 private:
  // Appends instructions for every node under `roots` not emitted yet: the loads (kConst,
  // kInput) first, then the operations, each in id order.
  void EmitCone(const Graph& g, const std::vector<int>& roots);
  void EmitNode(const Graph& g, int id);

  Program* program_ = nullptr;
  std::vector<Instr> code_;     // instructions of the program being emitted
  std::vector<double> consts_;  // its constant pool
  std::vector<int32_t> out_;    // its output slots: gradient entries, then Hessian pairs
  std::vector<int> slot_;       // node -> work slot, -1 not emitted; sized to the graph
  std::vector<char> mark_;      // node -> 1 while collecting a cone
  std::vector<int> roots_;      // scratch list of roots
};

}  // namespace kx::lang

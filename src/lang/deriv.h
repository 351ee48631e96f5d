// lang/deriv: exact symbolic first and second derivatives on the expression graph.
//
// The gradient comes from one reverse sweep: each node passes its adjoint times the partial
// derivative to its children, so the gradient graph is about the size of the expression and
// shares its subexpressions (exp(x) is reused as its own derivative, a/b feeds -(a/b)/b). The
// Hessian comes from one forward sweep per input over the gradient graph only: the tangent of
// gradient entry i along input j is the second derivative (i, j). A pair whose tangent
// simplifies to nothing is structurally zero and is left out.
#pragma once

#include <vector>

#include "lang/graph.h"
#include "lang/program.h"

namespace kx::lang {

class Deriv {
 public:
  // grad[k] = node of d root / d input k, where inputs[k] is the kInput node of local input
  // k (constant 0 for an input the root does not depend on).
  void Gradient(Graph* g, int root, const std::vector<int>& inputs, std::vector<int>* grad);

  // The structurally non-zero second derivatives: pairs (i >= j), ordered by i then j, and
  // for each the node of d2 root / d in_i d in_j. `inputs` as for Gradient(), `grad` from it.
  void Hessian(Graph* g, const std::vector<int>& inputs, const std::vector<int>& grad,
               std::vector<HessPair>* pairs, std::vector<int>* nodes);

 private:
  // Node of d node(id) / d child, child 0 (a) or 1 (b); cached per node.
  int Partial(Graph* g, int id, int which);
  int Derive(Graph* g, int id, int which);
  void MarkGradientCone(const Graph& g, const std::vector<int>& grad);
  void ForwardSweep(Graph* g, int input);

  std::vector<int> adjoint_;   // node -> adjoint node during the reverse sweep, -1 none
  std::vector<int> partial_;   // 2*node + which -> partial derivative node, -1 not yet built
  std::vector<int> cone_;      // non-constant nodes the gradient depends on, ascending
  std::vector<char> in_cone_;  // node -> 1 when in cone_
  std::vector<int> tangent_;   // node -> tangent node during a forward sweep, -1 zero
  struct Entry {
    HessPair pair;
    int node;
  };
  std::vector<Entry> entries_;  // Hessian entries before sorting
  std::vector<int> live_;       // inputs whose gradient entry is not constant
};

}  // namespace kx::lang

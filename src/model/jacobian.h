// model/jacobian: values of the constraint Jacobian in a cached pattern (model/sparsity).
// A value call gathers each row's inputs through the layout, runs the row's first-derivative
// byte code and scatters the gradient into the pattern's order: no search, no sort, no
// allocation. Rows also leave their residual in the equation record.
//
// Scaling: with scaled residual r/s_e and scaled variable x/s_v,
//   d(r/s_e)/d(x/s_v) = s_v / s_e * dr/dx,
// and a time-derivative column uses the scaling of its variable.
#pragma once

#include <span>
#include <vector>

#include "lang/program.h"
#include "model/records.h"
#include "model/sparsity.h"

namespace kx::model {

// Scratch of one evaluation: inputs, work area, gradient and Hessian of one program.
struct EvalScratch {
  std::vector<double> in;      // gathered inputs; size max_inputs
  std::vector<double> work;    // program work area; size max_work
  std::vector<double> grad;    // gradient; size max_inputs
  std::vector<double> hess;    // Hessian pair values; size max_pairs
  std::vector<double> col_scale;  // column scaling factors of the shape being scaled
  std::vector<double> dense_grad; // dense objective gradient; size nvar
  lang::DomainErrors errors;   // domain errors met while evaluating

  void Reserve(const EquationLayout& layout);
};

// Copies equation e's inputs into `in`.
inline void GatherInputs(const EquationLayout& layout, int e, double* in) {
  const char* base = reinterpret_cast<const char*>(layout.vars_at_build);
  const uint32_t* offset = layout.slot_offset.data() + layout.slot_begin[e];
  int n = layout.slot_begin[e + 1] - layout.slot_begin[e];
  for (int k = 0; k < n; ++k) in[k] = *reinterpret_cast<const double*>(base + offset[k]);
}

// Residual of equation e at the current values and its gradient, one entry per input slot of
// e (slot_begin[e] ...), in scratch->grad. False when the evaluation met a domain fault or a
// value that is not finite.
bool RowGradient(const ModelStore& store, const EquationLayout& layout, int e,
                 EvalScratch* scratch, double* residual);

// Unscaled Jacobian values of `pattern` into `values` (size nnz, coordinate order); stores each
// row's residual in its record.
void FillJacobian(ModelStore& store, const EquationLayout& layout, const JacobianPattern& pattern,
                  EvalScratch* scratch, std::span<double> values);

// Scales coordinate-order values in place by s_v(col) / s_e(row).
void ScaleJacobian(const ModelStore& store, const EquationLayout& layout,
                   const JacobianPattern& pattern, EvalScratch* scratch,
                   std::span<double> values);

}  // namespace kx::model

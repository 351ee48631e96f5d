#include "model/jacobian.h"

#include <cmath>

#include <algorithm>

#include "base/check.h"

namespace kx::model {

void EvalScratch::Reserve(const EquationLayout& layout) {
  in.assign(std::max(layout.max_inputs, 1), 0.0);
  work.assign(std::max(layout.max_work, 1), 0.0);
  grad.assign(std::max(layout.max_inputs, 1), 0.0);
  hess.assign(std::max(layout.max_pairs, 1), 0.0);
}

void FillJacobian(ModelStore& store, const EquationLayout& layout, const JacobianPattern& pattern,
                  EvalScratch* scratch, std::span<double> values) {
  KX_CHECK(static_cast<int>(values.size()) >= pattern.nnz());
  if (pattern.has_duplicates) std::fill(values.begin(), values.begin() + pattern.nnz(), 0.0);
  double* in = scratch->in.data();
  double* grad = scratch->grad.data();
  const int* scatter = pattern.scatter.data();
  for (int e : layout.constraint_eqns) {
    Equation& eqn = store.eqns[e];
    KX_CHECK(eqn.program == layout.program_at_build[e]);
    GatherInputs(layout, e, in);
    eqn.residual = store.programs[eqn.program].Gradient(in, scratch->work.data(), grad,
                                                        &scratch->errors);
    int begin = layout.slot_begin[e], n = layout.slot_begin[e + 1] - begin;
    if (pattern.has_duplicates) {
      for (int k = 0; k < n; ++k) {
        int p = scatter[begin + k];
        if (p >= 0) values[p] += grad[k];
      }
    } else {
      for (int k = 0; k < n; ++k) {
        int p = scatter[begin + k];
        if (p >= 0) values[p] = grad[k];
      }
    }
  }
}

void ScaleJacobian(const ModelStore& store, const EquationLayout& layout,
                   const JacobianPattern& pattern, EvalScratch* scratch,
                   std::span<double> values) {
  ColumnScales(store, layout, pattern.shape, &scratch->col_scale);
  const double* sv = scratch->col_scale.data();
  for (int r = 1; r <= pattern.num_rows; ++r) {
    double se = store.eqns[layout.constraint_eqns[r - 1]].scaling;
    for (int k = pattern.row_start[r - 1]; k < pattern.row_start[r]; ++k) {
      values[k] *= sv[pattern.cols[k]] / se;
    }
  }
}

bool RowGradient(const ModelStore& store, const EquationLayout& layout, int e,
                 EvalScratch* scratch, double* residual) {
  const lang::Program& p = store.programs[store.eqns[e].program];
  GatherInputs(layout, e, scratch->in.data());
  const int before = scratch->errors.Total();
  *residual = p.Gradient(scratch->in.data(), scratch->work.data(), scratch->grad.data(),
                         &scratch->errors);
  return scratch->errors.Total() == before && std::isfinite(*residual);
}

}  // namespace kx::model

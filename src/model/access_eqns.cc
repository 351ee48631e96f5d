// The equation side of the typed core: cached structure, residuals, multipliers, objective and
// the values of the Jacobian and the Hessian of the Lagrangian.
#include <algorithm>

#include "base/check.h"
#include "base/report.h"
#include "model/access.h"

namespace kx::model {

void ModelAccess::Invalidate() {
  layout_.reset();
  for (auto& p : jac_) p.reset();
  for (auto& p : jac_columns_) p.reset();
  for (auto& p : hess_) p.reset();
  for (auto& p : plan_) p.reset();
  obj_pattern_.reset();
}

void ModelAccess::EnsureLayout() {
  // Slots hold addresses inside the variable records: a reallocated record vector, or a store
  // that gained variables or equations, means the structure is rebuilt.
  if (layout_ && layout_->OutOfDate(store_)) Invalidate();
  if (layout_) return;
  layout_ = BuildLayout(store_);
  scratch_.Reserve(*layout_);
}

const EquationLayout& ModelAccess::Layout() {
  EnsureLayout();
  return *layout_;
}

const JacobianPattern& ModelAccess::Jacobian(Shape shape) {
  EnsureLayout();
  auto& slot = jac_[static_cast<int>(shape)];
  if (!slot) slot = BuildJacobianPattern(store_, *layout_, shape);
  return *slot;
}

const ColumnOrder& ModelAccess::JacobianColumns(Shape shape) {
  const JacobianPattern& pattern = Jacobian(shape);
  auto& slot = jac_columns_[static_cast<int>(shape)];
  if (!slot) slot = BuildColumnOrder(pattern);
  return *slot;
}

const HessianPattern& ModelAccess::Hessian(Shape shape) {
  KX_CHECK(shape != Shape::kFull);
  EnsureLayout();
  auto& slot = hess_[static_cast<int>(shape)];
  if (!slot) slot = BuildHessianPattern(store_, *layout_, shape);
  return *slot;
}

const std::vector<int>& ModelAccess::ObjectivePattern() {
  EnsureLayout();
  if (!obj_pattern_) obj_pattern_ = BuildObjectivePattern(store_, *layout_);
  return *obj_pattern_;
}

EvalPlan& ModelAccess::Plan(Shape shape) {
  EnsureLayout();
  auto& slot = plan_[static_cast<int>(shape)];
  if (!slot) slot.emplace(store_, *layout_, shape);
  return *slot;
}

// Residual of equation e at the records' values, stored in its record.
double ModelAccess::StoreResidual(int e) {
  Equation& eqn = store_.eqns[e];
  double* in = scratch_.in.data();
  GatherInputs(*layout_, e, in);
  eqn.residual = store_.programs[eqn.program].Residual(in, scratch_.work.data(), &scratch_.errors);
  return eqn.residual;
}

void ModelAccess::EvaluateResiduals() {
  EnsureLayout();
  for (int e = 0; e < num_eqns(); ++e)
    if (store_.eqns[e].program >= 0) StoreResidual(e);
}

void ModelAccess::EvaluateConstraintRows() {
  EnsureLayout();
  for (int e : layout_->constraint_eqns)
    if (store_.eqns[e].program >= 0) StoreResidual(e);
}

void ModelAccess::GetResiduals(bool active_only, bool scaled, std::span<double> y) {
  EnsureLayout();
  if (active_only) {
    KX_CHECK(static_cast<int>(y.size()) >= NumRows());
    for (int r = 1; r <= NumRows(); ++r) {
      const Equation& e = Row(r);
      y[r - 1] = scaled ? e.residual / e.scaling : e.residual;
    }
    return;
  }
  KX_CHECK(static_cast<int>(y.size()) >= num_eqns());
  for (int k = 0; k < num_eqns(); ++k) {
    const Equation& e = store_.eqns[k];
    y[k] = scaled ? e.residual / e.scaling : e.residual;
  }
}

void ModelAccess::SetMultipliers(std::span<const double> y) {
  KX_CHECK(static_cast<int>(y.size()) >= NumRows());
  for (int r = 1; r <= NumRows(); ++r) {
    Equation& e = Row(r);
    e.lambda = y[r - 1] / e.scaling;
  }
}

void ModelAccess::GetMultipliers(bool scaled, std::span<double> y) {
  KX_CHECK(static_cast<int>(y.size()) >= NumRows());
  for (int r = 1; r <= NumRows(); ++r) {
    const Equation& e = Row(r);
    y[r - 1] = scaled ? e.lambda * e.scaling : e.lambda;
  }
}

double ModelAccess::Objective(bool include_fixed) {
  EnsureLayout();
  double f = 0.0;
  for (int n : layout_->objective_vars) {
    const Variable& v = store_.Var(n);
    if (include_fixed || !v.fixed) f += v.val;
  }
  if (layout_->objective_eqns.empty()) return f;
  for (int e : layout_->objective_eqns) f += StoreResidual(e);
  return f;
}

void ModelAccess::ObjectiveGradient(bool scaled, std::span<double> dense) {
  KX_CHECK(static_cast<int>(dense.size()) >= nvar());
  ObjectivePattern();  // checks the objective rows' columns
  std::fill(dense.begin(), dense.begin() + nvar(), 0.0);
  for (int n : layout_->objective_vars) {
    if (!store_.Var(n).fixed) dense[n - 1] += 1.0;
  }
  for (int e : layout_->objective_eqns) {
    Equation& eqn = store_.eqns[e];
    GatherInputs(*layout_, e, scratch_.in.data());
    eqn.residual = store_.programs[eqn.program].Gradient(
        scratch_.in.data(), scratch_.work.data(), scratch_.grad.data(), &scratch_.errors);
    for (int s = layout_->slot_begin[e]; s < layout_->slot_begin[e + 1]; ++s) {
      dense[layout_->slot_column[s] - 1] += scratch_.grad[s - layout_->slot_begin[e]];
    }
  }
  if (!scaled) return;
  for (int n = 1; n <= nvar(); ++n) dense[n - 1] *= store_.Var(n).scale;
}

void ModelAccess::SparseObjectiveGradient(bool scaled, std::span<double> values) {
  const std::vector<int>& pattern = ObjectivePattern();
  KX_CHECK(values.size() >= pattern.size());
  std::vector<double>& dense = scratch_.dense_grad;
  dense.resize(nvar());
  ObjectiveGradient(scaled, dense);
  for (size_t k = 0; k < pattern.size(); ++k) values[k] = dense[pattern[k] - 1];
}

void ModelAccess::JacobianValues(Shape shape, bool scaled, std::span<double> values) {
  const JacobianPattern& pattern = Jacobian(shape);
  KX_CHECK(static_cast<int>(values.size()) >= pattern.nnz());
  FillJacobian(store_, *layout_, pattern, &scratch_, values);
  if (scaled) ScaleJacobian(store_, *layout_, pattern, &scratch_, values);
}

void ModelAccess::HessianValues(Shape shape, bool scaled, const HessianWeights& weights,
                                std::span<double> values) {
  const HessianPattern& pattern = Hessian(shape);
  KX_CHECK(static_cast<int>(values.size()) >= pattern.nnz());
  FillHessian(store_, *layout_, pattern, weights, &scratch_, values);
  if (scaled) ScaleHessian(store_, *layout_, pattern, &scratch_, values);
}

}  // namespace kx::model

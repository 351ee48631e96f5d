// model/access: the typed core through which solvers, checks and reports read and write the
// model store. The selector-coded routines (model/routines.h) and the solver callback set
// (model/nlp.h) are thin layers over this class.
//
// Conventions:
//   - Vectors are in variable order (number 1..nvar at index 0..nvar-1) or in row order.
//   - Rows: the constraint rows are the active equations that are not objective rows, in
//     equation order. Counts of "active equations" (DOF, zpm_neqns 1) count these rows;
//     objective rows (obj_eqn) are counted apart.
//   - Scaled value = value / variable scale; scaled residual = residual / equation scaling.
//     Multipliers are kept for the unscaled residuals; the multiplier of a scaled residual is
//     lambda * scaling.
//   - Objective = values of free obj_def variables + residuals of active objective rows. Its
//     terms are never divided by variable scaling; its gradient with respect to the scaled
//     variables is s_v * df/dx.
//   - Bounds handed out for a fixed variable are its value on both sides: bounds belong to the
//     calculated variables only. Unlimited bounds (+-1e20) are never scaled.
//
// Structure (layout, Jacobian patterns per shape, Hessian patterns, objective pattern) is built
// on first use and kept until Invalidate(); call it after changing which equations are active
// or an equation's columns. A store that gained variables, differential variables or equations,
// or whose record vector moved, is noticed on the next call and rebuilt.
#pragma once

#include <array>
#include <cmath>
#include <optional>
#include <span>
#include <vector>

#include "model/eval_plan.h"
#include "model/hessian.h"
#include "model/jacobian.h"
#include "model/records.h"
#include "model/sparsity.h"

namespace kx::model {

enum class Bound { kLower = 1, kUpper = 2 };

// Counts behind the degrees of freedom.
struct DofCounts {
  int num_state = 0;      // calculated variables, slacks included (+ ndiff when dynamic)
  int num_equations = 0;  // active constraint rows
  int num_slack = 0;      // calculated slack variables
  int num_bound = 0;      // calculated variables marked L, U or C (reported only)
  int ndof = 0;           // num_state - num_equations - num_slack
};

class ModelAccess {
 public:
  explicit ModelAccess(ModelStore& store) : store_(store) {}
  ModelAccess(const ModelAccess&) = delete;
  ModelAccess& operator=(const ModelAccess&) = delete;

  ModelStore& store() { return store_; }
  const ModelStore& store() const { return store_; }
  int nvar() const { return store_.nvar; }
  int ndiff() const { return store_.ndiff; }
  int num_eqns() const { return static_cast<int>(store_.eqns.size()); }

  // ----- structure (cached) -----
  void Invalidate();
  const EquationLayout& Layout();
  const JacobianPattern& Jacobian(Shape shape);
  const ColumnOrder& JacobianColumns(Shape shape);  // the column form, made on first request
  const HessianPattern& Hessian(Shape shape);  // kSteady or kReduced
  const std::vector<int>& ObjectivePattern();
  // The fast evaluation path of the unscaled problem in `shape` (kSteady or kReduced), built on
  // first use from the records' current values.
  EvalPlan& Plan(Shape shape);
  int NumRows() { return static_cast<int>(Layout().constraint_eqns.size()); }
  Equation& Row(int row) { return store_.eqns[Layout().constraint_eqns[row - 1]]; }

  // ----- variable values (access_vars.cc) -----
  void GetValues(bool scaled, std::span<double> y) const;
  void SetValues(bool scaled, std::span<const double> y);
  int NumFixed() const;
  void GetFixedValues(bool scaled, std::span<double> y) const;
  void SetFixedValues(bool scaled, std::span<const double> y);
  void GetDerivatives(bool scaled, std::span<double> y) const;
  void SetDerivatives(bool scaled, std::span<const double> y);
  void ZeroDerivatives();
  // Values followed by the derivatives of the differential variables (idiff order).
  void GetCondensed(bool scaled, std::span<double> y) const;
  void SetCondensed(bool scaled, std::span<const double> y);

  // ----- bounds -----
  // Bound handed to a solver: the record's bound, or the value for a fixed variable.
  double EffectiveBound(Bound b, int number) const;
  // Sets a bound of a calculated variable (fixed ones are left alone) and repairs an inversion.
  void SetBound(Bound b, int number, double value, bool scaled);
  // "WARNING: lower bound > upper bound": sets lower = upper (model/checks).
  void RepairBounds(int number);
  static bool IsDefaultBound(Bound b, double value);
  // A bound in scaled units and back. An unlimited bound (|value| >= 1e20) stays unlimited:
  // dividing it by a large scale would hand a solver a finite limit.
  static double ScaledBound(double value, double scale) {
    return std::abs(value) >= kUnlimited ? value : value / scale;
  }
  static double UnscaledBound(double value, double scale) {
    return std::abs(value) >= kUnlimited ? value : value * scale;
  }

  // ----- scaling -----
  void GetVarScaling(std::span<double> y) const;
  void SetVarScaling(std::span<const double> y);
  void ResetVarScaling();
  void GetEqnScaling(std::span<double> y);       // constraint rows
  void SetEqnScaling(std::span<const double> y);
  void ResetEqnScaling();

  // ----- residuals and multipliers (access_eqns.cc) -----
  // Evaluates every equation that has a program; stores the residuals in the records.
  void EvaluateResiduals();
  // The same for the constraint rows only (the solvers' residual callback).
  void EvaluateConstraintRows();
  // Residuals of the constraint rows (active) or of all equations, from the records.
  void GetResiduals(bool active_only, bool scaled, std::span<double> y);
  void SetMultipliers(std::span<const double> y);  // multipliers of the scaled rows
  void GetMultipliers(bool scaled, std::span<double> y);

  // ----- objective -----
  double Objective(bool include_fixed);
  void ObjectiveGradient(bool scaled, std::span<double> dense);
  // Gradient values at ObjectivePattern() positions.
  void SparseObjectiveGradient(bool scaled, std::span<double> values);

  // ----- derivative values in the cached patterns -----
  void JacobianValues(Shape shape, bool scaled, std::span<double> values);
  void HessianValues(Shape shape, bool scaled, const HessianWeights& weights,
                     std::span<double> values);

  // ----- degrees of freedom -----
  DofCounts CountDof(bool dynamic) const;
  // Independent FVs and MVs, as the option database counts them (sensitivity DOF).
  int num_independent_fv = 0;
  int num_independent_mv = 0;
  // Selector of the last Jacobian structure handed out (0 = none chosen yet).
  int jacobian_structure = 0;
  // Weight of the objective rows in the Hessian of the Lagrangian.
  double obj_factor = 1.0;

  const lang::DomainErrors& domain_errors() const { return scratch_.errors; }
  lang::DomainErrors* mutable_domain_errors() { return &scratch_.errors; }
  // Scratch vector of at least `size` doubles for the routines' reordering; reused.
  std::span<double> Buffer(int size) {
    if (static_cast<int>(buffer_.size()) < size) buffer_.resize(size);
    return std::span<double>(buffer_).first(size);
  }

 private:
  void EnsureLayout();
  double StoreResidual(int e);

  ModelStore& store_;
  std::optional<EquationLayout> layout_;                      // built on first use
  std::array<std::optional<JacobianPattern>, kNumShapes> jac_;  // per Shape
  std::array<std::optional<ColumnOrder>, kNumShapes> jac_columns_;
  std::array<std::optional<HessianPattern>, kNumShapes> hess_;  // kSteady, kReduced used
  std::optional<std::vector<int>> obj_pattern_;               // objective gradient pattern
  std::array<std::optional<EvalPlan>, kNumShapes> plan_;      // kSteady, kReduced used
  EvalScratch scratch_;                                       // evaluation buffers
  std::vector<double> buffer_;                                // see Buffer()
};

}  // namespace kx::model

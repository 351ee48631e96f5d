// model/nlp: the callback set through which every solver sees the model. A thin typed layer over
// model::ModelAccess; solvers never touch the records.
//
// Problem: minimize f(x) subject to gl <= c(x) <= gu, xl <= x <= xu, with
//   x  the variable values (steady state: nvar), or the values followed by the derivatives of the
//      differential variables (dynamic: nvar + ndiff, the reduced-space columns);
//   c  the constraint rows (active, non-objective equations, equation order);
//   f  the objective (free obj_def variables + objective rows).
// With `scaled`, x, c, the bounds and all derivatives are those of the scaled problem
// (x / variable scale, c / equation scaling); f is never scaled.
//
// Call protocol: sizes and structures first (fixed for the cycle); then value calls, each given
// the point x, which is written into the store before evaluating. The Hessian is the lower
// triangle of obj_factor * d2 f + sum lambda_i * d2 c_i, lambda for the (scaled) rows.
// Fixed variables get bounds equal to their value. Start values outside their bounds are moved
// onto the nearer bound.
#pragma once

#include <span>
#include <vector>

#include "model/access.h"

namespace kx::model {

// Where the point lives between value calls.
enum class PointHome {
  kRecords,  // SetX writes it into the store (callers that read the records between calls)
  kArrays,   // the unscaled problem evaluates through ModelAccess::Plan's arrays; the store
             // sees the point at StoreSolution (a scaled problem keeps kRecords)
};

class Nlp {
 public:
  Nlp(ModelAccess& access, bool dynamic, bool scaled, PointHome home = PointHome::kRecords);

  int num_vars() const { return num_vars_; }
  int num_cons() { return access_.NumRows(); }
  int nnz_jac() { return access_.Jacobian(jac_shape_).nnz(); }
  int nnz_hess() { return access_.Hessian(jac_shape_).nnz(); }

  void GetBounds(std::span<double> xl, std::span<double> xu);
  void GetConstraintBounds(std::span<double> gl, std::span<double> gu);
  void GetStart(std::span<double> x);
  // Writes x into the store (or the plan's arrays); a point equal to the last one written is
  // not written again (call Forget() after changing the store's values some other way).
  void SetX(std::span<const double> x);
  void Forget();
  double Objective(std::span<const double> x);
  void Gradient(std::span<const double> x, std::span<double> g);
  void Constraints(std::span<const double> x, std::span<double> c);
  void JacobianStructure(std::span<int> rows, std::span<int> cols);  // 1-based
  void JacobianValues(std::span<const double> x, std::span<double> values);
  void HessianStructure(std::span<int> rows, std::span<int> cols);   // 1-based, row >= col
  void HessianValues(std::span<const double> x, double obj_factor,
                     std::span<const double> lambda, std::span<double> values);

  // Exact second derivatives are supplied (HessianValues may be called).
  bool has_hessian() const { return access_.store().exact_hessian; }
  // Columns (1-based) of the variables that must take integer values.
  std::vector<int> IntegerColumns() const;
  // Writes a solution into the store: the point, the rows' multipliers (when given; those of
  // the rows as handed out) and the residuals that follow.
  void StoreSolution(std::span<const double> x, std::span<const double> lambda);

 private:
  ModelAccess& access_;
  bool dynamic_;        // x holds the differential variables' derivatives too
  bool scaled_;         // the scaled problem
  Shape jac_shape_;     // kReduced when dynamic, else kSteady
  int num_vars_;        // nvar, or nvar + ndiff when dynamic
  std::vector<double> last_x_;  // the point last written into the store (kRecords)
  bool use_plan_;       // evaluate through the plan's arrays (kArrays, unscaled)

  // The plan of this problem's shape, with the point written into it.
  EvalPlan& Planned(std::span<const double> x);
  void WriteRecords(std::span<const double> x);
};

}  // namespace kx::model
